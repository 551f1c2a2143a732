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
    // One of each two slots whose types would let them be exchanged.
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
        expect([&] { return succeeds(table->OpenProvider(&handle, nullptr, 7)); }, 0,
               "KSPOpenProvider|Monitor thread already running, not starting again.|" + log,
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
        return KSPGetProviderProperty(handleOf(&provider), name, buffer.data(), room, &length, 7);
    };
    expect([&] { return succeeds(get(TEXT("Name"), 67)); }, TOO_SMALL, "KSPGetProviderProperty");
    EXPECT_TRUE(length == 68 && buffer.first(1) == Bytes{0xA5});
    EXPECT_EQ(get(TEXT("Name"), 68), 0);
    EXPECT_EQ(WideView(reinterpret_cast<WCHAR*>(buffer.data())), TEXT("Zentok Cryptographic Provider CSP"));
    EXPECT_TRUE(get(TEXT("Impl Type"), 4) == 0 && buffer.first(4) == (Bytes{9, 0, 0, 0}));
    EXPECT_EQ(get(TEXT("name"), 300), NTE_NOT_SUPPORTED);

    const auto set = [this](const WCHAR* name, const void* input, DWORD size) {
        auto* bytes = static_cast<PBYTE>(const_cast<void*>(input));
        return KSPSetProviderProperty(handleOf(&provider), name, bytes, size, 7);
    };
    const std::uint64_t window = 0x123456789ABCDEF0;
    EXPECT_TRUE(set(TEXT("HWND Handle"), &window, 8) == 0 && provider.parentWindow == window);
    EXPECT_TRUE(set(TEXT("HWND Handle"), &window, 7) == 0 && provider.parentWindow == 0) << "reset by a short input";
    token().onResult("validatePassword", {5, 0});
    EXPECT_EQ(set(TEXT("SmartCardPin"), "9999", 0), NTE_VALIDATION_FAILED);
    expect([&] { return succeeds(set(TEXT("SmartCardPin"), TEXT("5678"), 10)); }, 0,
           "KSPSetProviderProperty|KSP: Setting PIN via property", "validatePassword('T1', '5', 1, 0, null)");
    EXPECT_EQ(pinStateGetPassword("T1"), "5");
}

TEST_F(KspProviderTest, Algorithms) {
    for (const auto& [operations, names] : {std::pair{0U,
                                                      "RSA ECDSA_P256 ECDSA_P384 ECDSA_P521 SHA1 SHA224 SHA256 "
                                                      "SHA384 SHA512 "},
                                            {2U, "SHA1 SHA224 SHA256 SHA384 SHA512 "},
                                            {4U, "RSA "},
                                            {8U, ""}}) {
        NCryptAlgorithmName* list = nullptr;
        EXPECT_EQ(KSPEnumAlgorithms(handleOf(&provider), operations, &length, &list, 7), 0);
        std::string found;
        for (DWORD i = 0; i < length; ++i) {
            found += narrowed(list[i].pszName) + " ";
            EXPECT_EQ(KSPIsAlgSupported(0, list[i].pszName, 7) | KSPFreeBuffer(list[i].pszName), 0);
        }
        EXPECT_EQ(found, names);
        EXPECT_EQ(KSPFreeBuffer(list), 0);
    }
    EXPECT_EQ(KSPIsAlgSupported(0, TEXT("ECDH_P256"), 0), NTE_NOT_SUPPORTED);
}

}  // namespace
}  // namespace test
