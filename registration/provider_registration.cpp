#include "registration/provider_registration.h"

#include <memory>
#include <string>
#include <type_traits>

#include "core/log.h"
#include "registration/cng_registration.h"

namespace {

constexpr WCHAR PROVIDER_NAME[] = TEXT("Zentok Cryptographic Provider CSP");
constexpr WCHAR FUNCTION_NAME[] = TEXT("KEY_STORAGE");
constexpr ULONG KEY_STORAGE_INTERFACE = 0x00010001;

struct LibraryReleaser {
    void operator()(HMODULE library) const { FreeLibrary(library); }
};
using Library = std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryReleaser>;

Library loadBcrypt() {
    return Library(LoadLibraryW(TEXT("bcrypt.dll")));
}

template <typename Function>
void resolve(HMODULE library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

CngRegistration resolveAll(HMODULE bcrypt) {
    CngRegistration cng;
    resolve(bcrypt, "BCryptRegisterProvider", cng.registerProvider);
    resolve(bcrypt, "BCryptUnregisterProvider", cng.unregisterProvider);
    resolve(bcrypt, "BCryptAddContextFunctionProvider", cng.addContextFunctionProvider);
    resolve(bcrypt, "BCryptRemoveContextFunctionProvider", cng.removeContextFunctionProvider);
    return cng;
}

HRESULT fail(const char* message) {
    logError(message);
    return E_FAIL;
}

/// The status is in decimal behind its "0x": the established form of these lines.
HRESULT failStatus(const char* function, NTSTATUS status) {
    logError(std::string(function) + " failed: 0x" + std::to_string(status));
    return HRESULT_FROM_NT(status);
}

void removeFromList(const CngRegistration& cng) {
    if (cng.removeContextFunctionProvider != nullptr) {
        cng.removeContextFunctionProvider(CRYPT_LOCAL, nullptr, KEY_STORAGE_INTERFACE, FUNCTION_NAME, PROVIDER_NAME);
    }
}

NTSTATUS registerImage(const CngRegistration& cng) {
    WCHAR imageName[] = TEXT("ZentokCSP.dll");               // bare: the platform looks for it in the system's folder
    PWSTR functions[] = {const_cast<PWSTR>(FUNCTION_NAME)};  // declared writable, and only read
    CRYPT_INTERFACE_REG keyStorage = {KEY_STORAGE_INTERFACE, CRYPT_LOCAL, 1, functions};
    PCRYPT_INTERFACE_REG interfaces[] = {&keyStorage};
    CRYPT_IMAGE_REG userModeImage = {imageName, 1, interfaces};
    CRYPT_PROVIDER_REG provider = {0, nullptr, &userModeImage, nullptr};
    return cng.registerProvider(PROVIDER_NAME, 0, &provider);
}

}  // namespace

HRESULT registerWithCng(const CngRegistration& cng) {
    if (cng.registerProvider == nullptr || cng.unregisterProvider == nullptr ||
        cng.addContextFunctionProvider == nullptr) {
        return fail("Failed to find BCrypt registration functions");
    }
    // What an earlier registration left goes first, which is why nothing needs to be overwritten.
    removeFromList(cng);
    cng.unregisterProvider(PROVIDER_NAME);
    if (const NTSTATUS status = registerImage(cng); status != 0) {
        return failStatus("BCryptRegisterProvider", status);
    }
    if (const NTSTATUS status = cng.addContextFunctionProvider(CRYPT_LOCAL, nullptr, KEY_STORAGE_INTERFACE,
                                                               FUNCTION_NAME, PROVIDER_NAME, CRYPT_PRIORITY_BOTTOM);
        status != 0) {
        return failStatus("BCryptAddContextFunctionProvider", status);
    }
    logInfo("DllRegisterServer: KSP registered successfully");
    return S_OK;
}

void unregisterFromCng(const CngRegistration& cng) {
    removeFromList(cng);
    if (cng.unregisterProvider != nullptr) {
        cng.unregisterProvider(PROVIDER_NAME);
    }
}

HRESULT WINAPI DllRegisterServer() {
    logInfo("DllRegisterServer: Registering KSP via CNG API");
    const Library bcrypt = loadBcrypt();
    if (bcrypt == nullptr) {
        return fail("Failed to load bcrypt.dll");
    }
    return registerWithCng(resolveAll(bcrypt.get()));
}

HRESULT WINAPI DllUnregisterServer() {
    logInfo("DllUnregisterServer: Unregistering KSP via CNG API");
    const Library bcrypt = loadBcrypt();
    if (bcrypt == nullptr) {
        return fail("DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll");
    }
    unregisterFromCng(resolveAll(bcrypt.get()));
    logInfo("DllUnregisterServer: KSP unregistered successfully");
    return S_OK;
}
