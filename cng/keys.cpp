// Key objects: opened, created, generated, deleted, freed and enumerated.
#include "cng/keys.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "cert/key_encoding.h"
#include "cng/entry.h"
#include "cng/memory_block.h"
#include "core/firmware_policy.h"
#include "core/key_record.h"
#include "core/login.h"
#include "core/pin_cache.h"

namespace {

struct CreatableAlgorithm {
    const WCHAR* name;
    std::uint32_t keyUsage;  // of an RSA key unless the caller's key spec says exchange
    std::uint32_t keyType;   // 0: the size is fixed by KSPFinalizeKey
};

constexpr CreatableAlgorithm CREATABLE_ALGORITHMS[] = {
    {TEXT("RSA"), KEY_USAGE_SIGN, KEY_TYPE_ANY},
    {TEXT("ECDSA_P256"), KEY_USAGE_SIGN, KEY_TYPE_EC_P256},
    {TEXT("ECDSA_P384"), KEY_USAGE_SIGN, KEY_TYPE_EC_P384},
    {TEXT("ECDSA_P521"), KEY_USAGE_SIGN, KEY_TYPE_EC_P521},
    {TEXT("ECDH_P256"), KEY_USAGE_EXCHANGE, KEY_TYPE_EC_P256},
    {TEXT("ECDH_P384"), KEY_USAGE_EXCHANGE, KEY_TYPE_EC_P384},
    {TEXT("ECDH_P521"), KEY_USAGE_EXCHANGE, KEY_TYPE_EC_P521},
};

constexpr std::uint32_t REFUSED_RSA_BITS = 1024;
constexpr std::uint32_t DEFAULT_RSA_BITS = 2048;

/// What a generation is to make, and how the object is to name its size.
struct KeySize {
    std::uint32_t keyType;
    std::uint32_t bitSize;
};

/// Any other size also generates RSA-2048, and the object keeps the odd number.
KeySize rsaKeySize(std::uint32_t bitSize) {
    switch (bitSize) {
        case 3072:
            return {KEY_TYPE_RSA_3072, bitSize};
        case 4096:
            return {KEY_TYPE_RSA_4096, bitSize};
        case 0:
            return {KEY_TYPE_RSA_2048, DEFAULT_RSA_BITS};
        default:
            return {KEY_TYPE_RSA_2048, bitSize};
    }
}

WideText textOrEmpty(LPCWSTR text) {
    return text != nullptr ? text : WideText();
}

/// Copies what the token names: not usage, type and size, which a generation decides here.
void copyIdentity(KSP_KEY& key, const ZentokKeyPair& record) {
    std::memcpy(key.credentialId, record.credentialId, sizeof key.credentialId);
    key.credentialIdLength = CREDENTIAL_ID_SIZE;
    std::memcpy(key.publicKey, record.publicKey, sizeof key.publicKey);
    key.publicKeyLength = record.publicKeyLength;
    std::memcpy(key.keyLabel, record.keyLabel, sizeof key.keyLabel);
    key.keyLabelLength = record.keyLabelLength;
    std::memcpy(key.alias, record.alias, sizeof key.alias);
    key.reserved = 0;
    key.tokenFlag = record.tokenFlag;
    key.finalized = true;
}

/// A key is opened by its id alone; every id met on the way is logged.
bool isKeyOnToken(const std::vector<ZentokKeyPair>& keys, const std::string& name) {
    return std::any_of(keys.begin(), keys.end(), [&](const ZentokKeyPair& key) {
        logInfoBytes("KSP: Available key: ", key.credentialId);
        return isKeyText(name, key.credentialId);
    });
}

/// The fallback by key spec. Unreachable for a name that isKeyOnToken let pass, and kept as part of the routine.
const ZentokKeyPair* selectByKeySpec(const std::vector<ZentokKeyPair>& keys, DWORD keySpec) {
    const ZentokKeyPair* selected = keySpec == AT_KEYEXCHANGE ? &keys.front() : nullptr;
    if (keys.size() != 1) {
        return selected;
    }
    const std::int32_t usage = keys.front().keyUsage;
    const bool signs = usage == KEY_USAGE_SIGN || usage == KEY_USAGE_BOTH;
    if (keySpec == 0 || keySpec == AT_KEYEXCHANGE || (keySpec == AT_SIGNATURE && signs)) {
        return &keys.front();
    }
    logInfo("KSP: encrypt-only key cannot serve AT_SIGNATURE, dwLegacyKeySpec=" + std::to_string(keySpec) +
            " keyUsage=" + std::to_string(usage));
    return selected;
}

/// An alias counts as well as an id: an earlier key whose alias spells another key's id wins over that key.
const ZentokKeyPair* selectKey(const std::vector<ZentokKeyPair>& keys, const std::string& name, DWORD keySpec) {
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
        return isKeyText(name, candidate.credentialId) || aliasText(candidate) == name;
    });
    return key != keys.end() ? &*key : selectByKeySpec(keys, keySpec);
}

/// The key as an item of an enumeration; null without memory.
MemoryBlock<NCryptKeyName> keyNameOf(const ZentokKeyPair& key, const std::string& id) {
    MemoryBlock<NCryptKeyName> item = allocateBlock<NCryptKeyName>();
    MemoryBlock<WCHAR> name = copyToBlock(widened(id));
    MemoryBlock<WCHAR> algorithm = copyToBlock(keySizeToCngEccAlgorithm(key.keyType, key.keyUsage));
    if (item == nullptr || name == nullptr || algorithm == nullptr) {
        return nullptr;
    }
    *item = {name.release(), algorithm.release(), AT_KEYEXCHANGE, 0};  // that spec whatever the key's usage
    return item;
}

}  // namespace

SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD /*dwFlags*/) {
    logInfo("KSPOpenKey");
    KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPOpenKey: provider handle is null or not initialized");
    }
    if (phKey == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPOpenKey: phKey is null");
    }
    WideText wideName = textOrEmpty(pszKeyName);
    const std::string name = narrowed(wideName);
    logInfo("KSP: Opening key: " + name);
    if (!name.empty()) {
        if (const std::string device = resolveKeyDevice(wideName); !device.empty()) {
            // For all later calls on this provider, those with other keys included.
            provider->deviceName = device;
            logInfo("KSP: Resolved key to device: " + device);
        }
    }
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(provider->deviceName.c_str(), provider->tokenContext);
    if (keys.empty()) {
        return failStatus(NTE_NO_KEY, "KSP: No keys found on token");
    }
    if (!isKeyOnToken(keys, name)) {
        return failStatus(NTE_NO_KEY, "KSP: Input key not found on token: " + name);
    }
    logInfo("KSP: Key match found, proceeding...");
    const ZentokKeyPair* record = selectKey(keys, name, dwLegacyKeySpec);
    if (record == nullptr) {
        return failStatus(NTE_NO_KEY, "KSP: Key not found: " + name);
    }
    if (!isSoundRecord("KSPOpenKey", *record)) {
        return NTE_INTERNAL_ERROR;
    }
    std::unique_ptr<KSP_KEY> key(new (std::nothrow) KSP_KEY);
    if (key == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPOpenKey: failed to allocate key");
    }
    copyIdentity(*key, *record);
    key->keyType = static_cast<std::uint32_t>(record->keyType);
    key->keyUsage = static_cast<std::uint32_t>(record->keyUsage);
    key->bitSize = keySizeToBits(record->keyType);
    key->keyName = std::move(wideName);
    logInfo("KSP: Key opened, algorithm=" + std::to_string(key->keyType) + " bits=" + std::to_string(key->bitSize));
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                             LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD /*dwFlags*/) {
    logInfo("KSPCreatePersistedKey");
    if (!isUsable(kspProviderOf(hProvider))) {
        return failStatus(NTE_INVALID_HANDLE, "KSPCreatePersistedKey: provider handle is null or not initialized");
    }
    if (phKey == nullptr || pszAlgId == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPCreatePersistedKey: phKey or pszAlgId is null");
    }
    const auto* algorithm = std::find_if(std::begin(CREATABLE_ALGORITHMS), std::end(CREATABLE_ALGORITHMS),
                                         [=](const CreatableAlgorithm& row) { return WideView(row.name) == pszAlgId; });
    if (algorithm == std::end(CREATABLE_ALGORITHMS)) {
        return failStatus(NTE_NOT_SUPPORTED, "KSP: Unsupported algorithm for key generation");
    }
    std::unique_ptr<KSP_KEY> key(new (std::nothrow) KSP_KEY);
    if (key == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPCreatePersistedKey: failed to allocate key");
    }
    key->keyUsage = algorithm->keyUsage;
    if (algorithm->keyType == KEY_TYPE_ANY && dwLegacyKeySpec == AT_KEYEXCHANGE) {
        key->keyUsage = KEY_USAGE_EXCHANGE;
    }
    key->keyType = algorithm->keyType;
    key->bitSize = keySizeToBits(static_cast<std::int32_t>(algorithm->keyType));
    key->keyName = textOrEmpty(pszKeyName);
    logInfo("KSP: Key object created, waiting for FinalizeKey");
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD /*dwFlags*/) {
    logInfo("KSPFinalizeKey");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPFinalizeKey: provider handle is null or not initialized");
    }
    KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPFinalizeKey: key handle is null");
    }
    if (key->finalized) {
        return ERROR_SUCCESS;
    }
    const std::string& device = provider->deviceName;
    if (!kspEnsurePasswordValidated(device, provider->tokenContext)) {
        return failStatus(NTE_FAIL, "KSPFinalizeKey: password validation failed");
    }
    // Kept aside until the token has made the key: the object of a failed call must allow the next one.
    KeySize size = {};
    if (key->keyType >= KEY_TYPE_EC_P256 && key->keyType <= KEY_TYPE_EC_P521) {
        size = {key->keyType, keySizeToBits(static_cast<std::int32_t>(key->keyType))};
    } else if (key->keyType != KEY_TYPE_ANY) {
        return failStatus(NTE_NOT_SUPPORTED,
                          "KSPFinalizeKey: unsupported ECC algorithm=" + std::to_string(key->keyType));
    } else if (!ruleRsa1024Generate("KSPFinalizeKey", key->bitSize == REFUSED_RSA_BITS, !device.empty(), device,
                                    provider->tokenContext)) {
        return NTE_NOT_SUPPORTED;
    } else {
        size = rsaKeySize(key->bitSize);
    }
    ZentokKeyPair record = {};
    record.keyUsage = static_cast<std::int32_t>(key->keyUsage);
    record.keyType = static_cast<std::int32_t>(size.keyType);
    logInfo("KSP: FinalizeKey - generating key, algorithm=" + std::to_string(size.keyType) +
            " bitSize=" + std::to_string(size.bitSize));
    const int result =
        zentok_generateKeyPair(device.c_str(), pinStateGetPassword(device).c_str(), &record, provider->tokenContext);
    if (result != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Key generation failed: " + std::to_string(result));
    }
    if (!isSoundRecord("KSPFinalizeKey", record)) {
        return NTE_INTERNAL_ERROR;
    }
    copyIdentity(*key, record);
    key->keyType = size.keyType;
    key->bitSize = size.bitSize;
    logInfo("KSP: Key finalized successfully");
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD /*dwFlags*/) {
    logInfo("KSPDeleteKey");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPDeleteKey: provider handle is null or not initialized");
    }
    const KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPDeleteKey: key handle is null");
    }
    if (!kspEnsurePasswordValidated(provider->deviceName, provider->tokenContext)) {
        return failStatus(NTE_FAIL, "KSPDeleteKey: password validation failed");
    }
    const int result =
        zentok_deleteKeyPair(provider->deviceName.c_str(), key->credentialId,
                             pinStateGetPassword(provider->deviceName).c_str(), key->tokenFlag, provider->tokenContext);
    if (result != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Delete key failed: " + std::to_string(result));
    }
    delete key;
    logInfo("KSP: Key deleted successfully");
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE /*hProvider*/, NCRYPT_KEY_HANDLE hKey) {
    logInfo("KSPFreeKey");
    delete kspKeyOf(hKey);
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR /*pszScope*/, NCryptKeyName** ppKeyName,
                                   PVOID* ppEnumState, DWORD /*dwFlags*/) {
    logInfo("KSPEnumKeys");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPEnumKeys: provider handle is null or not initialized");
    }
    if (ppKeyName == nullptr || ppEnumState == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPEnumKeys: ppKeyName or ppEnumState is null");
    }
    if (*ppEnumState == nullptr) {
        // KSPFreeBuffer takes the state back as a plain block and leaves the list in it allocated.
        std::unique_ptr<void, FreeMemoryBlock> block(std::malloc(sizeof(KSP_KEY_ENUM)));
        if (block == nullptr) {
            return failStatus(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate enum state");
        }
        *ppEnumState = new (block.get())
            KSP_KEY_ENUM{0, zentok_getKeyPairList(provider->deviceName.c_str(), provider->tokenContext)};
        static_cast<void>(block.release());
    }
    KSP_KEY_ENUM& state = *static_cast<KSP_KEY_ENUM*>(*ppEnumState);
    if (state.nextIndex >= state.keys.size()) {
        logInfo("KSP: No more keys to enumerate");
        return NTE_NO_MORE_ITEMS;
    }
    const ZentokKeyPair& key = state.keys[state.nextIndex];
    const std::string id = keyText(key.credentialId);
    MemoryBlock<NCryptKeyName> item = keyNameOf(key, id);
    if (item == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate key name");
    }
    *ppKeyName = item.release();
    ++state.nextIndex;
    logInfo("KSP: Enumerated key: " + id);
    return ERROR_SUCCESS;
}
