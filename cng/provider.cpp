// The provider object, the algorithm queries, and the entry points that need no key.
#include "cng/provider.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "cng/entry.h"
#include "cng/memory_block.h"
#include "core/device_monitor.h"
#include "core/device_setup.h"
#include "core/login.h"
#include "core/module.h"
#include "core/token_library.h"

namespace {

struct Algorithm {
    const WCHAR* name;
    DWORD interfaceClass;
    DWORD operations;
};

constexpr DWORD RSA_OPERATIONS = NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION;

// ECDH is not listed although such keys can be made and used.
constexpr Algorithm ALGORITHMS[] = {
    {TEXT("RSA"), NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE, RSA_OPERATIONS},
    {TEXT("ECDSA_P256"), NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {TEXT("ECDSA_P384"), NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {TEXT("ECDSA_P521"), NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {TEXT("SHA1"), NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {TEXT("SHA224"), NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {TEXT("SHA256"), NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {TEXT("SHA384"), NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
    {TEXT("SHA512"), NCRYPT_HASH_INTERFACE, NCRYPT_HASH_OPERATION},
};

SECURITY_STATUS handOut(std::unique_ptr<KSP_PROVIDER> provider, NCRYPT_PROV_HANDLE* phProvider) {
    provider->initialized = true;
    *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider.release());
    return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR /*pszProviderName*/, DWORD /*dwFlags*/) {
    pinModule();
    logInfo("KSPOpenProvider");
    if (phProvider == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPOpenProvider: phProvider is null");
    }
    std::unique_ptr<KSP_PROVIDER> provider(new (std::nothrow) KSP_PROVIDER);
    if (provider == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPOpenProvider: failed to allocate provider");
    }
    prepareLibrary();
    startDeviceMonitor();
    const std::vector<std::string> devices = zentok_getConnectedDeviceList(false, provider->tokenContext);
    if (devices.empty()) {
        logInfo("KSP: No token connected, opening provider without device");
        return handOut(std::move(provider), phProvider);
    }
    provider->deviceName = devices.front();
    // Read before the device is initialised, and of the first one only, even if a key moves the provider to another.
    provider->firmwareVersion =
        zentok_getTokenInfo(provider->deviceName.c_str(), provider->tokenContext).firmwareVersion;
    logInfo("KSP: Provider firmware=" + provider->firmwareVersion);
    initialiseDevices(devices, "KSP: Init device failed for ", provider->tokenContext);
    logInfo("KSP: Provider opened successfully");
    return handOut(std::move(provider), phProvider);
}

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) {
    logInfo("KSPFreeProvider");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (provider == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPFreeProvider: provider handle is null");
    }
    delete provider;
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE /*hProvider*/, LPCWSTR pszAlgId, DWORD /*dwFlags*/) {
    logInfo("KSPIsAlgSupported");
    if (pszAlgId == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPIsAlgSupported: pszAlgId is null");
    }
    if (std::none_of(std::begin(ALGORITHMS), std::end(ALGORITHMS),
                     [=](const Algorithm& row) { return WideView(row.name) == pszAlgId; })) {
        return failStatus(NTE_NOT_SUPPORTED, "KSPIsAlgSupported: algorithm not supported");
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD /*dwFlags*/) {
    logInfo("KSPEnumAlgorithms");
    if (!isUsable(kspProviderOf(hProvider))) {
        return failStatus(NTE_INVALID_HANDLE, "KSPEnumAlgorithms: provider handle is null or not initialized");
    }
    if (pdwAlgCount == nullptr || ppAlgList == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPEnumAlgorithms: pdwAlgCount or ppAlgList is null");
    }
    const auto isSelected = [=](const Algorithm& row) {
        return dwAlgOperations == 0 || (row.operations & dwAlgOperations) != 0;
    };
    const auto count =
        static_cast<std::size_t>(std::count_if(std::begin(ALGORITHMS), std::end(ALGORITHMS), isSelected));
    MemoryBlock<NCryptAlgorithmName> list = allocateBlock<NCryptAlgorithmName>(count);
    std::array<MemoryBlock<WCHAR>, std::size(ALGORITHMS)> names;
    bool complete = list != nullptr;
    for (std::size_t row = 0, entry = 0; complete && row < std::size(ALGORITHMS); ++row) {
        if (isSelected(ALGORITHMS[row])) {
            names[entry] = copyToBlock(ALGORITHMS[row].name);
            complete = names[entry] != nullptr;
            list.get()[entry] = {names[entry].get(), ALGORITHMS[row].interfaceClass, ALGORITHMS[row].operations, 0};
            ++entry;
        }
    }
    if (!complete) {
        return failStatus(NTE_NO_MEMORY, "KSPEnumAlgorithms: failed to allocate algorithm list");
    }
    for (MemoryBlock<WCHAR>& name : names) {
        static_cast<void>(name.release());  // the list's now
    }
    *pdwAlgCount = static_cast<DWORD>(count);
    *ppAlgList = list.release();
    logInfo("KSP: Enumerated " + std::to_string(count) + " algorithms");
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE /*hKey*/, LPCWSTR /*pszOperation*/,
                                     DWORD /*dwFlags*/) {
    logInfo("KSPPromptUser");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPPromptUser: provider handle is null or not initialized");
    }
    if (!kspEnsurePasswordValidated(provider->deviceName, provider->tokenContext)) {
        return failStatus(NTE_FAIL, "KSPPromptUser: password validation failed");
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE /*hProvider*/, HANDLE* /*phEvent*/, DWORD /*dwFlags*/) {
    logInfo("KSPNotifyChangeKey");
    return failStatus(NTE_NOT_SUPPORTED, "KSPNotifyChangeKey: not supported");
}

SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput) {
    logInfo("KSPFreeBuffer");
    // The names in a list and the keys in an enumeration's state are not walked: they stay allocated.
    std::free(pvInput);
    return ERROR_SUCCESS;
}
