#include "tests/unit/provider_test.h"

#include <algorithm>
#include <filesystem>

#include "cert/certificate_import.h"
#include "cert/key_encoding.h"
#include "core/module.h"
#include "core/pin_cache.h"
#include "tests/fuzz/world.h"

namespace test {
namespace {

/// Turns this process's view of the two registry roots that the provider uses to a private key, and its temporary
/// folder to a private one.
class Sandbox : public ::testing::Environment {
public:
    void SetUp() override {
        usePrivateTempFolder("zentok-unit-test");
        redirect(HKEY_LOCAL_MACHINE, "\\Machine");
        redirect(HKEY_CURRENT_USER, "\\User");
    }
    void TearDown() override {
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
        RegDeleteTreeA(HKEY_CURRENT_USER, path.c_str());
        std::filesystem::remove_all(usePrivateTempFolder("zentok-unit-test"));
    }

private:
    void redirect(HKEY root, const char* name) {
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyA(HKEY_CURRENT_USER, (path + name).c_str(), &key), ERROR_SUCCESS);
        ASSERT_EQ(RegOverridePredefKey(root, key), ERROR_SUCCESS);
        RegCloseKey(key);
    }
    const std::string path = "Software\\ZentokUnitTest" + std::to_string(GetCurrentProcessId());
};
const ::testing::Environment* const g_sandbox = ::testing::AddGlobalTestEnvironment(new Sandbox);

}  // namespace

void ProviderTest::makeFresh() {
    token().reset();
    forgetState();
    setModuleInstance(nullptr);
    RegDeleteTreeA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok");
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\Halvane");
    setLogLevel(3);
}

void expect(const std::function<bool()>& call, DWORD failure, const std::string& log, const std::string& calls) {
    SCOPED_TRACE(log + " with " + calls);
    token().takeCalls();
    bool result = false;
    DWORD lastError = 0;
    const Lines logged = logOf([&] {
        SetLastError(UNTOUCHED);
        result = call();
        lastError = GetLastError();
    });
    EXPECT_EQ(result, failure == 0);
    if (failure != 0 && failure != ANY_CODE) {
        EXPECT_EQ(lastError, failure);
    }
    EXPECT_EQ(logged, lines(log));
    const Lines expected = lines(calls);
    Lines made = token().takeCalls();
    for (std::size_t i = 0; i < std::min(made.size(), expected.size()); ++i) {
        if (expected[i].find('(') == std::string::npos) {
            made[i] = made[i].substr(0, made[i].find('('));
        }
    }
    EXPECT_EQ(calls == ANY_CALLS ? expected : made, expected);
}

void expectEntry(const std::string& entry, const std::function<bool()>& call, DWORD failure, const std::string& log,
                 const std::string& calls) {
    const std::string name = entry.substr(0, entry.find('('));
    std::string text = name + (log.empty() ? "" : "|" + log);
    for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos;) {
        text.replace(at, 1, name);
    }
    expect(call, failure, text, calls);
}

CSP_CONTEXT contextOn(const std::string& serial, const std::string& containerName) {
    CSP_CONTEXT context;
    context.serial = serial;
    context.containerName = containerName;
    context.initialized = true;
    return context;
}

Bytes blob(const std::vector<std::uint32_t>& words, const Bytes& data) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(words.data());
    Bytes result(bytes, bytes + 4 * words.size());
    result.insert(result.end(), data.begin(), data.end());
    return result;
}

ZentokKeyPair fullRecord(unsigned char id, int usage, int type) {
    ZentokKeyPair key = keyPair(id, usage, type, "", filled(300, id));
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    key.keyLabel[127] = id;
    key.keyLabelLength = 128;
    key.tokenFlag = true;
    return key;
}

ZentokCertificate certificate(const char* der) {
    ZentokCertificate record = {};
    EXPECT_TRUE(setCertificate(record, hexToBytes(der)));
    return record;
}

void cachePin() {
    pinStateStore("T1", "1234");
}

}  // namespace test
