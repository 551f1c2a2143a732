// The key storage provider object and the properties of both kinds of objects.
#include "core/device_monitor.h"
#include "core/pin_cache.h"
#include "core/wide_text.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

using KspProviderTest = KspTest;

TEST_F(KspProviderTest, OpenThroughTable) {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    EXPECT_EQ(GetKeyStorageInterface(nullptr, &table, 7), 0);
    // Of the slots whose types would let them be exchanged.
    EXPECT_EQ(logOf([=] { table->DeleteKey(0, 0, 0); })[0], "KSPDeleteKey");
    EXPECT_EQ(logOf([=] { table->Decrypt(0, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0); })[0], "KSPDecrypt");
    EXPECT_EQ(logOf([=] { table->FreeKey(0, 0); })[0], "KSPFreeKey");
    // The monitor runs throughout, so that every open logs the same, and waits inside its poll.
    token().holdPolls(true);
    startDeviceMonitor();
    EXPECT_TRUE(token().waitForHeldPoll());
    const std::string done = "|KSP: Provider opened successfully";
    const std::tuple<Lines, std::string, std::string> rows[] = {
        {{"T1"}, "KSP: Provider firmware=1.9" + done, "|" + INFO + "|init(0, null, 2)|initDevice('T1', 0, null)"},
        {{"T1"}, "KSP: Provider firmware=1.9" + done, "|" + INFO},
        {{"T8", "T1", "T9"},
         "KSP: Provider firmware=|!KSP: Init device failed for T8 : -9" + done,
         "|getTokenInfo('T8', null)|init|initDevice('T8', 0, null)|init|initDevice('T9', 0, null)"},
        {{}, "KSP: No token connected, opening provider without device", ""}};
    token().infos["T1"].firmwareVersion = "1.9";
    token().onResult("initDevice", {0, -9, 0});
    for (const auto& [devices, log, calls] : rows) {
        token().setDevices(devices);
        NCRYPT_PROV_HANDLE handle = 0;
        KSP_CALL(KSPOpenProvider(&handle, nullptr, 7), 0, "Monitor thread already running, not starting again.|" + log,
                 "init(0, null, 2)|getConnectedDeviceList(0, null)" + calls);
        EXPECT_EQ(recordOf<KSP_PROVIDER>(handle)->deviceName, devices.empty() ? "" : devices[0]);
        EXPECT_EQ(table->FreeProvider(handle), 0);
    }
    EXPECT_FALSE(pinStateIsDeviceInitialised("T8")) << "to be tried again";
    token().holdPolls(false);
    stopDeviceMonitor();
}

TEST_F(KspProviderTest, Properties) {
    const auto get = [this](const WCHAR* name, DWORD room) {
        return KSPGetProviderProperty(prov, name, buffer.data(), room, &length, 7);
    };
    EXPECT_TRUE(get(TEXT("Name"), 67) == NTE_BUFFER_TOO_SMALL && length == 68 && buffer.first(1) == Bytes{0xA5});
    EXPECT_EQ(get(TEXT("Name"), 68), 0);
    EXPECT_TRUE(get(TEXT("Impl Type"), 4) == 0 && buffer.first(4) == (Bytes{9, 0, 0, 0}));

    const auto set = [this](const WCHAR* name, const void* value, DWORD size) {
        return KSPSetProviderProperty(prov, name, static_cast<PBYTE>(const_cast<void*>(value)), size, 7);
    };
    const std::uint64_t window = 0x123456789ABCDEF0;
    EXPECT_TRUE(set(TEXT("HWND Handle"), &window, 8) == 0 && provider.parentWindow == window);
    EXPECT_TRUE(set(TEXT("HWND Handle"), &window, 7) == 0 && provider.parentWindow == 0) << "reset by a short input";
    token().onResult("validatePassword", {5, 0});
    EXPECT_EQ(set(TEXT("SmartCardPin"), "9999", 0), NTE_VALIDATION_FAILED);
    token().takeCalls();
    EXPECT_EQ(set(TEXT("SmartCardPin"), TEXT("5678"), 10), 0);
    EXPECT_EQ(token().takeCalls(), Lines{"validatePassword('T1', '5', 1, 0, null)"});
    EXPECT_EQ(pinStateGetPassword("T1"), "5");
}

TEST_F(KspProviderTest, Algorithms) {
    for (const auto& [operations, count] : {std::pair{0U, 9U}, {2U, 5U}, {4U, 1U}, {8U, 0U}}) {
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(KSPEnumAlgorithms(prov, operations, &length, &list, 7), 0);
        EXPECT_EQ(length, count);
        for (DWORD i = 0; i < length; ++i) {
            EXPECT_EQ(KSPIsAlgSupported(0, list[i].pszName, 7) | KSPFreeBuffer(list[i].pszName), 0);
        }
        EXPECT_EQ(KSPFreeBuffer(list), 0);
    }
    EXPECT_EQ(KSPIsAlgSupported(0, TEXT("ECDH_P256"), 0), NTE_NOT_SUPPORTED);
}

class KspPropertiesTest : public KspTest {
protected:
    SECURITY_STATUS get(const WCHAR* name, DWORD room = 300) {
        return KSPGetKeyProperty(prov, handleOf(&key), name, buffer.data(), room, &length, 7);
    }
    WideView text(const WCHAR* name) {
        EXPECT_EQ(get(name), 0);
        return {reinterpret_cast<WCHAR*>(buffer.data()), length / 2 - 1};
    }
    std::uint32_t number(const WCHAR* name) {
        return get(name) == 0 ? *reinterpret_cast<std::uint32_t*>(buffer.data()) : UNTOUCHED;
    }
    SECURITY_STATUS set(const WCHAR* name, const void* value, DWORD size) {
        return KSPSetKeyProperty(prov, handleOf(&key), name, static_cast<PBYTE>(const_cast<void*>(value)), size, 7);
    }
    KSP_KEY key = keyObject(2, 2048);
};

TEST_F(KspPropertiesTest, Read) {
    EXPECT_TRUE(get(TEXT("Name"), 65) == NTE_BUFFER_TOO_SMALL && length == 66);
    EXPECT_TRUE(text(TEXT("Name")) == widened(AA) && text(TEXT("Unique Name")) == widened(AA));
    const std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, WideView, WideView, std::uint32_t> rows[] = {
        {5, 2, 256, TEXT("ECDH_P256"), TEXT("ECDH"), 1},
        {7, 3, 521, TEXT("ECDSA_P521"), TEXT("ECDSA"), 3},
        {8, 9, 0, TEXT("RSA"), TEXT("RSA"), 0}};
    for (const auto& [type, usage, bits, algorithm, group, flags] : rows) {
        key = keyObject(type, bits);
        key.keyUsage = usage;
        EXPECT_TRUE(text(TEXT("Algorithm Name")) == algorithm && text(TEXT("Algorithm Group")) == group);
        EXPECT_TRUE(number(TEXT("Length")) == bits && number(TEXT("Block Length")) == bits / 8);
        EXPECT_EQ(number(TEXT("Key Usage")), flags);
        EXPECT_TRUE(number(TEXT("Lengths")) == 1024 && length == 16);
    }
    EXPECT_EQ(get(TEXT("name")), NTE_NOT_SUPPORTED);
}

TEST_F(KspPropertiesTest, Certificate) {
    const WCHAR* const name = TEXT("SmartCardKeyCertificate");
    EXPECT_EQ(get(name), NTE_NOT_FOUND);
    EXPECT_EQ(token().takeCalls(), lines("initDevice('T1', 1, null)|findCertificateForKey('T1', " + AA + ", null)"));
    token().keyCertificate = ZentokCertificate{};
    token().keyCertificate->certificate[199] = 7;
    token().keyCertificate->certificateLength = 200;
    EXPECT_EQ(get(name, 199), NTE_BUFFER_TOO_SMALL);
    EXPECT_TRUE(get(name, 200) == 0 && length == 200 && buffer.first(200).back() == 7);
    token().keyCertificate->certificateLength = 3073;
    EXPECT_EQ(get(name), NTE_INTERNAL_ERROR);

    const Bytes der = filled(3073);
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    key.keyLabel[0] = 0xEE;
    key.keyLabelLength = 1;
    EXPECT_EQ(set(name, der.data(), 3073), NTE_INVALID_PARAMETER);
    EXPECT_EQ(set(name, der.data(), 3072), 0);
    const Lines calls = token().takeCalls();
    const std::string import = "importCertificate('T1', '1234', " + AA + ", " + hex(filled(3072)) + ", EE, '" +
                               std::string(128, 'n') + "', null)";
    EXPECT_NE(std::find(calls.begin(), calls.end(), import), calls.end());
}

TEST_F(KspPropertiesTest, Write) {
    const std::uint64_t wide = 0x400000003;
    EXPECT_EQ(set(TEXT("HWND Handle"), &wide, 8) | set(TEXT("HWND Handle"), &wide, 7), 0);
    EXPECT_EQ(provider.parentWindow, wide) << "stays, unlike the provider's own";
    for (const auto& [flags, usage] : {std::pair{4U, 0U}, {2U, 1U}, {5U, 2U}, {7U, 3U}, {4U, 3U}}) {
        EXPECT_EQ(set(TEXT("Key Usage"), &flags, 4), 0);
        EXPECT_EQ(key.keyUsage, usage);
    }
    const WCHAR* const mode = TEXT("ChainingMode");
    EXPECT_EQ(set(mode, TEXT("ChainingModeECB"), 1), 0) << "its size plays no part";
    EXPECT_EQ(set(mode, TEXT("ChainingModeGCM"), 32), NTE_NOT_SUPPORTED);
    EXPECT_EQ(set(mode, TEXT("ChainingModeCBC"), 0), 0);
    EXPECT_EQ(text(mode), TEXT("ChainingModeECB"));
    const Bytes iv = filled(33, 1);
    for (const auto& [keyLength, size, fits] :
         {std::tuple{16, 16U, true}, {32, 16U, true}, {24, 8U, true}, {24, 16U, false}, {0, 33U, true}}) {
        key.symmetricKeyLength = keyLength;
        EXPECT_EQ(set(TEXT("IV"), nullptr, 16), 0) << "cleared";
        EXPECT_EQ(set(TEXT("IV"), iv.data(), size), fits ? 0 : NTE_INVALID_PARAMETER);
        EXPECT_EQ(*processIv(), Bytes(iv.begin(), iv.begin() + (fits ? size : 0)));
    }
}

}  // namespace
}  // namespace test
