// KSPGetProviderProperty and KSPSetProviderProperty.
#include <algorithm>
#include <cstring>

#include "cng/entry.h"
#include "cng/property_answer.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

namespace {

struct ProviderProperty {
    const WCHAR* name;
    const WCHAR* text;  // null: the value is the number
    DWORD number;
};

// None of them depends on the token.
constexpr ProviderProperty PROVIDER_PROPERTIES[] = {
    {TEXT("Name"), TEXT("Zentok Cryptographic Provider CSP"), 0},
    {TEXT("Impl Type"), nullptr, NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG},
    {TEXT("Version"), nullptr, 0x100},
    {TEXT("Algorithm Name"), TEXT("RSA"), 0},
    {TEXT("Max Name Length"), nullptr, 256},
    {TEXT("Security Descr Support"), nullptr, 0},
};

}  // namespace

SECURITY_STATUS validatePin(const KSP_PROVIDER& provider, const BYTE* input) {
    const std::string pin = reinterpret_cast<const char*>(input);
    int retries = 0;
    const int result =
        zentok_validatePassword(provider.deviceName.c_str(), pin.c_str(), 1, &retries, provider.tokenContext);
    if (result != TOKEN_OK) {
        return failStatus(NTE_VALIDATION_FAILED, "KSP: PIN validation failed: " + std::to_string(result));
    }
    pinStateStore(provider.deviceName, pin);
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                              DWORD cbOutput, DWORD* pcbResult, DWORD /*dwFlags*/) {
    logInfo("KSPGetProviderProperty");
    if (!isUsable(kspProviderOf(hProvider))) {
        return failStatus(NTE_INVALID_HANDLE, "KSPGetProviderProperty: provider handle is null or not initialized");
    }
    if (pszProperty == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPGetProviderProperty: pszProperty or pcbResult is null");
    }
    const WideView name = pszProperty;
    const auto* property = std::find_if(std::begin(PROVIDER_PROPERTIES), std::end(PROVIDER_PROPERTIES),
                                        [=](const ProviderProperty& row) { return name == row.name; });
    if (property != std::end(PROVIDER_PROPERTIES)) {
        const Output output = {pbOutput, cbOutput, pcbResult};
        return property->text != nullptr ? answerText(output, property->text) : answerDword(output, property->number);
    }
    if (name == TEXT("Use Count")) {
        return failStatus(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported");
    }
    return failStatus(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: unsupported property");
}

SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                              DWORD cbInput, DWORD /*dwFlags*/) {
    logInfo("KSPSetProviderProperty");
    KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPSetProviderProperty: provider handle is null or not initialized");
    }
    if (pszProperty == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSetProviderProperty: pszProperty is null");
    }
    const WideView name = pszProperty;
    if (name == TEXT("HWND Handle")) {
        // A short input resets the window, unlike the same property of a key.
        provider->parentWindow = 0;
        if (pbInput != nullptr && cbInput >= sizeof provider->parentWindow) {
            std::memcpy(&provider->parentWindow, pbInput, sizeof provider->parentWindow);
        }
        return ERROR_SUCCESS;
    }
    if (name == TEXT("SmartCardPin")) {
        if (pbInput == nullptr) {
            return failStatus(NTE_INVALID_PARAMETER, "KSPSetProviderProperty: NCRYPT_PIN_PROPERTY pbInput is null");
        }
        logInfo("KSP: Setting PIN via property");
        return validatePin(*provider, pbInput);
    }
    return failStatus(NTE_NOT_SUPPORTED, "KSPSetProviderProperty: unsupported property");
}
