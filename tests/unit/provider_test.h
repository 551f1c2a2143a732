// What the unit tests share: calls held against everything that they must come to, the provider's process-wide state
// made fresh, and contexts without an acquire.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "capi/csp_context.h"
#include "capi/csp_interface.h"
#include "tests/support/guarded.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_token.h"

namespace test {

constexpr DWORD UNTOUCHED = 0xDEADBEEF;  ///< the last error before a call
constexpr DWORD ANY_CODE = 0xDEADC0DE;   ///< a failure whose code is left to the platform
constexpr char ANY_CALLS[] = "*";        ///< whatever the library is asked

/// Runs `call` once and holds it against what it must come to, with "|" between lines. `failure` is the last error of a
/// call that fails, 0 for one that succeeds; `log` is as logOf reads it; `calls` are the library's, each the whole call
/// or, when its arguments do not matter, its bare name.
void expect(const std::function<bool()>& call, DWORD failure, const std::string& log, const std::string& calls = "");

/// The same for an entry point, given by its name or a call of it: `log` is what follows the line with that name, which
/// "@" stands for in it.
void expectEntry(const std::string& entry, const std::function<bool()>& call, DWORD failure, const std::string& log,
                 const std::string& calls = "");
#define CALL(call, ...) \
    expectEntry(        \
        #call, [&] { return (call) != 0; }, __VA_ARGS__)

// The platform's codes as a last error.
constexpr DWORD lastError(long code) {
    return static_cast<DWORD>(code);
}
constexpr DWORD BAD_UID = lastError(NTE_BAD_UID), BAD_HASH = lastError(NTE_BAD_HASH), BAD_KEY = lastError(NTE_BAD_KEY);
constexpr DWORD BAD_HASH_STATE = lastError(NTE_BAD_HASH_STATE), BAD_SIGNATURE = lastError(NTE_BAD_SIGNATURE);
constexpr DWORD BAD_LEN = lastError(NTE_BAD_LEN), BAD_ALGID = lastError(NTE_BAD_ALGID),
                BAD_TYPE = lastError(NTE_BAD_TYPE);
constexpr DWORD BAD_FLAGS = lastError(NTE_BAD_FLAGS), NO_KEY = lastError(NTE_NO_KEY), FAILED = lastError(NTE_FAIL);
constexpr DWORD DLL_FAIL = lastError(NTE_PROVIDER_DLL_FAIL), SILENT = lastError(NTE_SILENT_CONTEXT);
constexpr DWORD NO_TOKEN = lastError(NTE_TOKEN_KEYSET_STORAGE_FULL);

template <typename Record>
ULONG_PTR handleOf(Record* record) {
    return reinterpret_cast<ULONG_PTR>(record);
}
template <typename Record>
Record* recordOf(ULONG_PTR handle) {
    return reinterpret_cast<Record*>(handle);
}

const CSP_CONTEXT UNINITIALISED;
const HCRYPTPROV OFF = handleOf(&UNINITIALISED);

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
const std::string TOO_SHORT = "not allowed \xE2\x80\x94 key size below 112-bit security strength";
const std::string REFUSED_SILENTLY = "!ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false";
const std::string AA = idText(0xAA), BB = idText(0xBB), CC = idText(0xCC);
const std::string INFO = "getTokenInfo('T1', null)";                          ///< the library's call
Bytes blob(const std::vector<std::uint32_t>& words, const Bytes& data = {});  ///< the words little-endian
void cachePin();                                                              ///< "1234", for "T1"

/// A record with something in every field that a key object copies, and an alias without a terminator.
ZentokKeyPair fullRecord(unsigned char id, int usage, int type);

/// The library's record of a certificate, given as hexadecimal DER.
ZentokCertificate certificate(const char* der);

/// Every test starts as in a new process: an empty PIN cache, container map and registry, a scripted token without a
/// script, log level 3. The registry is a private one below HKEY_CURRENT_USER, for this process alone.
class ProviderTest : public ::testing::Test {
public:
    static void makeFresh();

protected:
    void SetUp() override { makeFresh(); }
    void TearDown() override { EXPECT_EQ(unfreedBlocks(), 0); }

    CSP_CONTEXT context = contextOn("T1");
    const HCRYPTPROV on = handleOf(&context);
};

}  // namespace test
