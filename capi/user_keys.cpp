// CPGenKey, CPGetUserKey and CPDestroyKey: the entry points that make and drop a key object without a blob.
#include "capi/user_keys.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "capi/entry.h"
#include "cert/key_encoding.h"
#include "core/container_map.h"
#include "core/firmware_policy.h"
#include "core/key_record.h"
#include "core/login.h"
#include "core/pin_cache.h"

namespace {

struct KeyAlgorithm {
    ALG_ID requested;
    std::int32_t keyUsage;
    ALG_ID algId;
    std::uint32_t defaultBits;  // 0: the caller must name a length
    const char* logText;
};

// The AT_ forms have no default: their caller must name a length.
constexpr KeyAlgorithm KEY_ALGORITHMS[] = {
    {AT_KEYEXCHANGE, KEY_USAGE_EXCHANGE, CALG_RSA_KEYX, 0, "key exhange"},
    {CALG_RSA_KEYX, KEY_USAGE_EXCHANGE, CALG_RSA_KEYX, 2048, "key exhange"},
    {AT_SIGNATURE, KEY_USAGE_SIGN, CALG_RSA_SIGN, 0, "rsa sign"},
    {CALG_RSA_SIGN, KEY_USAGE_SIGN, CALG_RSA_SIGN, 2048, "rsa sign"},
};

constexpr std::uint32_t WEAK_RSA_BITS = 1024;

bool isEcKeyType(std::int32_t keyType) {
    return keyType >= KEY_TYPE_EC_P256 && keyType <= KEY_TYPE_EC_P521;
}

/// Copies what a key object knows of its token record. False, with a line in the log under the entry's name, when a
/// length in the record lies outside its field.
bool copyKeyRecord(const char* entry, KEY_HANDLE& key, const ZentokKeyPair& record) {
    if (!isSoundRecord(entry, record)) {
        return false;
    }
    std::memcpy(key.credentialId, record.credentialId, sizeof key.credentialId);
    key.credentialIdLength = CREDENTIAL_ID_SIZE;
    std::memcpy(key.keyLabel, record.keyLabel, sizeof key.keyLabel);
    key.keyLabelLength = static_cast<std::uint32_t>(record.keyLabelLength);
    std::memcpy(key.alias, record.alias, sizeof key.alias - 1);
    key.keyUsage = static_cast<std::uint32_t>(record.keyUsage);
    std::memcpy(key.publicKey, record.publicKey, static_cast<std::size_t>(record.publicKeyLength));
    key.publicKeyLength = static_cast<std::uint32_t>(record.publicKeyLength);
    return true;
}

/// Files a new key under the container that the caller acquired, in memory and in the registry.
void fileKey(const std::string& container, const std::string& newKey) {
    const std::lock_guard lock(g_pinStatesLock);
    std::vector<std::string>& keys = g_containerMap[container];
    if (std::find(keys.begin(), keys.end(), newKey) == keys.end()) {
        keys.push_back(newKey);
    }
    writeContainerKeys(container, keys);
}

/// The first key that the context and `keySpec` select, and the algorithm that it goes by; null when none passes.
const ZentokKeyPair* selectKey(const CSP_CONTEXT& context, const std::vector<ZentokKeyPair>& keys, DWORD keySpec,
                               ALG_ID& algId) {
    const bool named = !context.containerName.empty();
    for (const ZentokKeyPair& key : keys) {
        if (named && !isKeyText(context.containerName, key.credentialId)) {
            continue;
        }
        if (named || context.containerQueried) {
            if (keySpec != AT_KEYEXCHANGE && keySpec != AT_SIGNATURE) {
                continue;
            }
            const ALG_ID rsaAlgId = keySpec == AT_SIGNATURE ? CALG_RSA_SIGN : CALG_RSA_KEYX;
            algId = isEcKeyType(key.keyType) ? ALG_EC_KEY : rsaAlgId;
            return &key;
        }
        if (keySpec == AT_KEYEXCHANGE) {
            algId = CALG_RSA_KEYX;
            logInfo("Key found (AT_KEYEXCHANGE, usage=" + std::to_string(key.keyUsage) + ")");
            return &key;
        }
    }
    return nullptr;
}

/// Without a container any key that signs serves as the exchange key.
const ZentokKeyPair* fallBackToSigningKey(const std::vector<ZentokKeyPair>& keys, ALG_ID& algId) {
    logInfo("CPGetUserKey: no encryption key found, falling back to first signing key for AT_KEYEXCHANGE");
    const auto key = std::find_if(keys.begin(), keys.end(), [](const ZentokKeyPair& candidate) {
        return candidate.keyUsage == KEY_USAGE_SIGN || candidate.keyUsage == KEY_USAGE_BOTH;
    });
    if (key == keys.end()) {
        return nullptr;
    }
    algId = CALG_RSA_KEYX;
    logInfo("CPGetUserKey: fallback to signing key as key exchange");
    return &*key;
}

void rememberKey(unsigned char (&slot)[CREDENTIAL_ID_SIZE], std::uint32_t& length, const ZentokKeyPair& key) {
    std::memcpy(slot, key.credentialId, sizeof slot);
    length = CREDENTIAL_ID_SIZE;
}

void rememberKeyIfEmpty(unsigned char (&slot)[CREDENTIAL_ID_SIZE], std::uint32_t& length, const ZentokKeyPair& key) {
    if (length == 0) {
        rememberKey(slot, length, key);
    }
}

}  // namespace

BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey) {
    logInfo("CPGenKey");
    if (phKey == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPGenKey: phKey is NULL");
    }
    *phKey = 0;
    CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "Invalid CSP context");
    }
    const auto* algorithm = std::find_if(std::begin(KEY_ALGORITHMS), std::end(KEY_ALGORITHMS),
                                         [=](const KeyAlgorithm& row) { return row.requested == Algid; });
    if (algorithm == std::end(KEY_ALGORITHMS)) {
        return fail(static_cast<DWORD>(NTE_BAD_ALGID), "Unsupported algorithm" + std::to_string(Algid));
    }
    logInfo(algorithm->logText);
    const std::uint32_t requestedBits = HIWORD(dwFlags);
    const std::uint32_t bits = requestedBits != 0 ? requestedBits : algorithm->defaultBits;
    if (bits == 0) {
        return fail(static_cast<DWORD>(NTE_BAD_LEN), "Unsupported Length" + std::to_string(Algid));
    }
    std::unique_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE());
    if (key == nullptr) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, "CPGenKey: failed to allocate KEY_HANDLE");
    }
    if (!ensurePasswordValidated(context)) {
        logError("CPGenKey: ensurePasswordValidated failed");
        return FALSE;
    }
    key->algId = algorithm->algId;
    key->bitSize = bits;
    if (!ruleRsa1024Generate("CPGenKey", bits <= WEAK_RSA_BITS, true, context->serial, context->tokenContext)) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_LEN));
    }
    // The length is not handed on: with a key type of 0 the library chooses the size.
    ZentokKeyPair record = {};
    record.keyUsage = algorithm->keyUsage;
    const int result = zentok_generateKeyPair(context->serial.c_str(), pinStateGetPassword(context->serial).c_str(),
                                              &record, context->tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL),
                    "RSA Keypair Generation Failed, code=" + std::to_string(result));
    }
    const std::string newKey = keyText(record.credentialId);
    if (!context->requestedContainer.empty()) {
        fileKey(context->requestedContainer, newKey);
    }
    context->containerName = newKey;
    // A new key serves both specs of its context, whatever was remembered there before.
    rememberKey(context->signatureKeyId, context->signatureKeyIdLength, record);
    rememberKey(context->exchangeKeyId, context->exchangeKeyIdLength, record);
    // Last: the key is on the token by now and stays findable, also when its record makes no object.
    if (!copyKeyRecord("CPGenKey", *key, record)) {
        return failQuietly(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    }
    logInfo("Key generated successfully, Algid=" + std::to_string(Algid) + " bits=" + std::to_string(bits));
    *phKey = reinterpret_cast<HCRYPTKEY>(key.release());
    return TRUE;
}

BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    logInfo("CPGetUserKey");
    CSP_CONTEXT* context = contextOf(hProv);
    if (phUserKey == nullptr || context == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPGetUserKey: phUserKey or hProv is null");
    }
    if (!context->initialized) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPGetUserKey: context is not initialized");
    }
    logInfo("CPGetUserKey -> dwKeySpec : " + std::to_string(dwKeySpec));
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(context->serial.c_str(), context->tokenContext);
    if (keys.empty()) {
        return fail(static_cast<DWORD>(NTE_NO_KEY), "CPGetUserKey: key list is empty");
    }
    std::unique_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE());
    if (key == nullptr) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, "CPGetUserKey: failed to allocate KEY_HANDLE");
    }
    key->mode = 1;
    logInfo("CPGetUserKey - Container name : " + context->containerName);
    const ZentokKeyPair* record = selectKey(*context, keys, dwKeySpec, key->algId);
    if (record == nullptr && dwKeySpec == AT_KEYEXCHANGE && context->containerName.empty()) {
        record = fallBackToSigningKey(keys, key->algId);
    }
    if (record == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY),
                    "CPGetUserKey: requested key not found, dwKeySpec=" + std::to_string(dwKeySpec) +
                        " container=" + context->containerName + ", return FALSE");
    }
    if (!copyKeyRecord("CPGetUserKey", *key, *record)) {
        return failQuietly(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    }
    key->tokenFlag = record->tokenFlag;
    key->bitSize = keySizeToBits(record->keyType);
    if (dwKeySpec == AT_SIGNATURE) {
        rememberKeyIfEmpty(context->signatureKeyId, context->signatureKeyIdLength, *record);
    } else if (dwKeySpec == AT_KEYEXCHANGE) {
        rememberKeyIfEmpty(context->exchangeKeyId, context->exchangeKeyIdLength, *record);
    }
    logInfo("CPGetUserKey: algo=" + std::to_string(key->algId) + " keyUsage=" + std::to_string(key->keyUsage) +
            " bits=" + std::to_string(key->bitSize) + ", return TRUE");
    *phUserKey = reinterpret_cast<HCRYPTKEY>(key.release());
    return TRUE;
}

BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    logInfo("CPDestroyKey");
    if (!isUsable(contextOf(hProv))) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPDestroyKey: invalid or uninitialized context");
    }
    const KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPDestroyKey: pKeyHandle is NULL");
    }
    delete key;
    return TRUE;
}
