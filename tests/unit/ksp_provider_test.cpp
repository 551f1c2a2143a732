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
    EXPECT_EQ(logOf([=] { table->DeleteKey(0, 0, 0); })[0], "KSPDeleteKey");
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

class KspPropertiesTest : public KspTest {
protected:
    SECURITY_STATUS get(const WCHAR* name, DWORD room = 300) {
        return KSPGetKeyProperty(prov, handleOf(&key), name, buffer.data(), room, &length, 7);
    }
    SECURITY_STATUS set(const WCHAR* name, const void* value, DWORD size) {
        return KSPSetKeyProperty(prov, handleOf(&key), name, static_cast<PBYTE>(const_cast<void*>(value)), size, 7);
    }
    KSP_KEY key = keyObject(2, 2048);
};

TEST_F(KspPropertiesTest, Certificate) {
    const WCHAR* const name = TEXT("SmartCardKeyCertificate");
    EXPECT_EQ(get(name), NTE_NOT_FOUND);
    token().keyCertificate.emplace().certificateLength = 200;
    EXPECT_TRUE(get(name, 199) == NTE_BUFFER_TOO_SMALL && length == 200 && get(name, 200) == 0);
    token().keyCertificate->certificateLength = 3073;
    EXPECT_EQ(get(name), NTE_INTERNAL_ERROR);
    const Bytes der = filled(3073);
    EXPECT_EQ(set(name, der.data(), 3073), NTE_INVALID_PARAMETER);
    EXPECT_EQ(set(name, der.data(), 3072), 0);
}

TEST_F(KspPropertiesTest, Write) {
    const std::uint64_t wide = 0x400000003;
    EXPECT_EQ(set(TEXT("HWND Handle"), &wide, 8) | set(TEXT("HWND Handle"), &wide, 7), 0);
    EXPECT_EQ(provider.parentWindow, wide) << "stays, unlike the provider's own";
    for (const auto& [flags, usage] : {std::pair{4U, 0U}, {2U, 1U}, {5U, 2U}, {7U, 3U}, {4U, 3U}}) {
        EXPECT_EQ(set(TEXT("Key Usage"), &flags, 4), 0);
        EXPECT_EQ(key.keyUsage, usage);
    }
    EXPECT_EQ(set(TEXT("ChainingMode"), TEXT("ChainingModeECB"), 1), 0) << "its size plays no part";
    EXPECT_EQ(set(TEXT("ChainingMode"), TEXT("ChainingModeGCM"), 32), NTE_NOT_SUPPORTED);
    Bytes unaligned(1 + sizeof TEXT("ChainingModeCBC"));
    std::memcpy(unaligned.data() + 1, TEXT("ChainingModeCBC"), sizeof TEXT("ChainingModeCBC"));
    EXPECT_EQ(set(TEXT("ChainingMode"), unaligned.data() + 1, 32) | key.chainingMode, 0);
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
