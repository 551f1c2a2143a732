// What the unit tests share: the provider's process-wide state made fresh, contexts without an acquire, and buffers
// that show a write outside.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "capi/csp_context.h"
#include "capi/csp_interface.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_token.h"

namespace test {

/// Every test starts as in a new process: an empty PIN cache, container map and registry, a scripted token without a
/// script, log level 3. The registry is a private one below HKEY_CURRENT_USER, for this process alone.
class ProviderTest : public ::testing::Test {
public:
    static void makeFresh();

protected:
    void SetUp() override { makeFresh(); }
    void TearDown() override { EXPECT_EQ(unfreedBlocks(), 0); }
};

/// expectCall with the scripted library's calls, each row of a table being one call of this.
void expect(const std::function<bool()>& call, DWORD failure, const std::string& log, const std::string& calls = "");

/// The same for an entry point: `log` is what follows the line with the entry's own name.
class Entry {
public:
    explicit Entry(std::string entryName) : name(std::move(entryName)) {}
    void operator()(const std::function<bool()>& call, DWORD failure, const std::string& log,
                    const std::string& calls = "") const {
        expect(call, failure, name + (log.empty() ? "" : "|" + log), calls);
    }

private:
    std::string name;
};

// The platform's codes as a last error.
constexpr auto BAD_UID = static_cast<DWORD>(NTE_BAD_UID);
constexpr auto BAD_HASH = static_cast<DWORD>(NTE_BAD_HASH);
constexpr auto BAD_HASH_STATE = static_cast<DWORD>(NTE_BAD_HASH_STATE);
constexpr auto BAD_KEY = static_cast<DWORD>(NTE_BAD_KEY);
constexpr auto BAD_LEN = static_cast<DWORD>(NTE_BAD_LEN);
constexpr auto BAD_SIGNATURE = static_cast<DWORD>(NTE_BAD_SIGNATURE);
constexpr auto BAD_ALGID = static_cast<DWORD>(NTE_BAD_ALGID);
constexpr auto BAD_FLAGS = static_cast<DWORD>(NTE_BAD_FLAGS);
constexpr auto BAD_TYPE = static_cast<DWORD>(NTE_BAD_TYPE);
constexpr auto NO_KEY = static_cast<DWORD>(NTE_NO_KEY);
constexpr auto DLL_FAIL = static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL);
constexpr auto FAILED = static_cast<DWORD>(NTE_FAIL);
constexpr auto SILENT = static_cast<DWORD>(NTE_SILENT_CONTEXT);
constexpr auto NO_TOKEN = static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL);

const CSP_CONTEXT UNINITIALISED;

/// A context as an acquire leaves it.
CSP_CONTEXT contextOn(const std::string& serial, const std::string& containerName = "");

// What the guard logs when the PIN is cached, and pieces of when it asks.
const std::string PIN_CACHED = "ensurePasswordValidated: PIN already validated, return true";
const std::string ONE_DIALOG =
    "Password dialog show window|Password dialog show window before|Password dialog show window after";
const std::string ASKS_FOR_PIN =
    "ensurePasswordValidated: password not validated or empty -- ask for PIN|loginUser: enter|";
const std::string LOGGED_IN =
    "|loginUser: password validated, return TRUE|ensurePasswordValidated: password set, return true";
const std::string CANCELLED =
    "|!loginUser: user cancelled password dialog, return FALSE|"
    "!ensurePasswordValidated: password validation failed, return false";
const std::string REFUSED_SILENTLY = "!ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false";
void cachePin();  ///< "1234", for "T1"

template <typename Record>
ULONG_PTR handleOf(Record* record) {
    return reinterpret_cast<ULONG_PTR>(record);
}
template <typename Record>
Record* recordOf(ULONG_PTR handle) {
    return reinterpret_cast<Record*>(handle);
}

/// A buffer between two rims that must stay as they are.
class RimmedBuffer {
public:
    explicit RimmedBuffer(std::size_t size);
    ~RimmedBuffer();
    RimmedBuffer(const RimmedBuffer&) = delete;
    RimmedBuffer& operator=(const RimmedBuffer&) = delete;
    BYTE* data() { return storage.data() + RIM; }
    Bytes first(std::size_t count) { return {data(), data() + count}; }

private:
    static constexpr std::size_t RIM = 64;
    Bytes storage;
};

}  // namespace test
