#include "registration/cng_registration.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

NTSTATUS g_registerStatus = 0;
NTSTATUS g_addStatus = 0;
Lines g_calls;

/// An answer that does not count is a failure.
NTSTATUS record(const std::string& call, const std::vector<const WCHAR*>& texts, NTSTATUS status = -1) {
    g_calls.push_back(call);
    for (const WCHAR* text : texts) {
        const std::basic_string_view<WCHAR> wide(text != nullptr ? text : TEXT("null"));
        g_calls.back() += " " + std::string(wide.begin(), wide.end());
    }
    return status;
}
NTSTATUS WINAPI registerProvider(LPCWSTR provider, ULONG flags, PCRYPT_PROVIDER_REG entry) {
    const CRYPT_IMAGE_REG& image = *entry->pUM;
    const CRYPT_INTERFACE_REG& keys = *image.rgpInterfaces[0];
    EXPECT_TRUE(entry->cAliases == 0 && entry->rgpszAliases == nullptr && entry->pKM == nullptr && flags == 0);
    EXPECT_TRUE(image.cInterfaces == 1 && keys.dwInterface == 0x10001 && keys.dwFlags == 1 && keys.cFunctions == 1);
    return record("register", {provider, image.pszImage, keys.rgpszFunctions[0]}, g_registerStatus);
}
NTSTATUS WINAPI unregisterProvider(LPCWSTR provider) {
    return record("unregister", {provider});
}
NTSTATUS WINAPI addProvider(ULONG table, LPCWSTR list, ULONG area, LPCWSTR function, LPCWSTR provider, ULONG position) {
    EXPECT_TRUE(table == 1 && area == 0x10001 && position == 0xFFFFFFFF);
    return record("add", {list, function, provider}, g_addStatus);
}
NTSTATUS WINAPI removeProvider(ULONG table, LPCWSTR list, ULONG area, LPCWSTR function, LPCWSTR provider) {
    EXPECT_TRUE(table == 1 && area == 0x10001);
    return record("remove", {list, function, provider});
}

class RegistrationTest : public ProviderTest {};

TEST_F(RegistrationTest, WithCng) {
    const std::string name = " Zentok Cryptographic Provider CSP";
    const std::string cleared = "remove null KEY_STORAGE" + name + "|unregister" + name;
    const std::string registered = "|register" + name + " ZentokCSP.dll KEY_STORAGE";
    CngRegistration cng = {registerProvider, unregisterProvider, addProvider, removeProvider};
    const auto registers = [&cng](unsigned result, const std::string& log, const std::string& calls) {
        const auto call = [&] { return registerWithCng(cng) == static_cast<HRESULT>(result); };
        expectCall(call, {0, log, calls}, [] { return std::exchange(g_calls, {}); });
    };
    const std::string all = cleared + registered + "|add null KEY_STORAGE" + name;
    registers(0, "DllRegisterServer: KSP registered successfully", all);
    g_addStatus = static_cast<NTSTATUS>(0xC0000001);
    registers(0xD0000001, "!BCryptAddContextFunctionProvider failed: 0x-1073741823", all);
    g_registerStatus = static_cast<NTSTATUS>(0xC0000022);
    registers(0xD0000022, "!BCryptRegisterProvider failed: 0x-1073741790", cleared + registered);
    unregisterFromCng(cng);
    EXPECT_EQ(g_calls, lines(cleared));
    cng.removeContextFunctionProvider = nullptr;
    cng.unregisterProvider = nullptr;
    registers(0x80004005, "!Failed to find BCrypt registration functions", "");
    unregisterFromCng(cng);
}

}  // namespace
}  // namespace test
