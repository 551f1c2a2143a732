#include "tests/unit/provider_test.h"

#include <algorithm>
#include <filesystem>

#include "cert/certificate_import.h"
#include "cert/key_encoding.h"
#include "core/container_map.h"
#include "core/module.h"
#include "core/pin_cache.h"
#include "core/process_iv.h"

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

Bytes text(unsigned char tag, const std::string& characters) {
    return derEncodeTlv(tag, Bytes(characters.begin(), characters.end()));
}

Bytes sequence(const std::vector<Bytes>& parts, unsigned char tag = 0x30) {
    Bytes content;
    for (const Bytes& part : parts) {
        content.insert(content.end(), part.begin(), part.end());
    }
    return derEncodeTlv(tag, content);
}

}  // namespace

void ProviderTest::makeFresh() {
    token().reset();
    {
        const std::lock_guard lock(g_pinStatesLock);
        g_pinStates.clear();
        g_containerMap.clear();
    }
    g_useHardwareRng = 1;
    setProcessIv({});
    setModuleInstance(nullptr);
    RegDeleteTreeA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok");
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\Halvane");
    setLogLevel(3);
}

void expect(const std::function<bool()>& call, DWORD failure, const std::string& log, const std::string& calls) {
    expectCall(call, {failure, log, calls}, [] { return token().takeCalls(); });
}

void Entry::operator()(const std::function<bool()>& call, DWORD failure, const std::string& log,
                       const std::string& calls) const {
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

ZentokCertificate certificate(const std::string& subject, const std::string& issuer) {
    const auto name = [](const std::string& commonName) {
        return sequence({sequence({sequence({{0x06, 0x03, 0x55, 0x04, 0x03}, text(0x0C, commonName)})}, 0x31)});
    };
    const Bytes algorithm = {0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
    const Bytes validity = sequence({text(0x17, "200101000000Z"), text(0x17, "491231235959Z")});
    const Bytes key = rsaPublicKeyBytesToSpki(filled(128, 1), Bytes{1, 0, 1});
    const Bytes body = sequence({{0x02, 0x01, 0x05}, algorithm, name(issuer), validity, name(subject), key});
    ZentokCertificate record = {};
    EXPECT_TRUE(setCertificate(record, sequence({body, algorithm, {0x03, 0x02, 0x00, 0x00}})));
    return record;
}

void cachePin() {
    pinStateStore("T1", "1234");
}

}  // namespace test
