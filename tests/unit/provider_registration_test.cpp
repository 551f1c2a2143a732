// The codes of a registration; tests/setup looks at every call and structure with a stand-in for bcrypt.dll.
#include "registration/cng_registration.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

NTSTATUS g_status[4];  ///< register, unregister, add, remove

NTSTATUS WINAPI registerProvider(LPCWSTR, ULONG, PCRYPT_PROVIDER_REG) {
    return g_status[0];
}
NTSTATUS WINAPI unregisterProvider(LPCWSTR) {
    return g_status[1];
}
NTSTATUS WINAPI addProvider(ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR, ULONG) {
    return g_status[2];
}
NTSTATUS WINAPI removeProvider(ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR) {
    return g_status[3];
}

TEST_F(ProviderTest, RegistrationCodes) {
    CngRegistration cng = {registerProvider, unregisterProvider, addProvider, removeProvider};
    const auto registers = [&](std::array<unsigned, 4> statuses, unsigned result, const std::string& log) {
        std::copy(statuses.begin(), statuses.end(), g_status);
        expect([&] { return registerWithCng(cng) == static_cast<HRESULT>(result); }, 0, log);
    };
    registers({0, 0xC0000001, 0, 0xC0000001}, 0, "DllRegisterServer: KSP registered successfully");
    registers({0, 0, 0xC0000001, 0}, 0xD0000001, "!BCryptAddContextFunctionProvider failed: 0x-1073741823");
    registers({0xC0000022, 0, 0, 0}, 0xD0000022, "!BCryptRegisterProvider failed: 0x-1073741790");
    cng.addContextFunctionProvider = nullptr;
    registers({}, 0x80004005, "!Failed to find BCrypt registration functions");
}

}  // namespace
}  // namespace test
