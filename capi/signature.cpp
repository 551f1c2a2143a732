// CPSignHash and CPVerifySignature.
//
// CryptoAPI carries RSA signatures little-endian and the token library big-endian: they are reversed whole on the way
// out and on the way in. EC signatures pass as they are.
#include <algorithm>
#include <climits>
#include <cstring>

#include "capi/entry.h"
#include "capi/hash.h"
#include "capi/user_keys.h"
#include "cert/key_encoding.h"
#include "cert/public_key.h"
#include "core/container_map.h"
#include "core/firmware_policy.h"
#include "core/login.h"
#include "core/pin_cache.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr DWORD MAX_SIGNATURE_SIZE = 0x10000;  // bytes, far above the 512 of the largest key

bool isRsaKeyType(std::int32_t keyType) {
    return keyType >= KEY_TYPE_RSA_1024 && keyType <= KEY_TYPE_RSA_4096;
}

bool isKeyOfContainer(const ZentokKeyPair& key, const std::string& containerName) {
    return containerName.empty() || isKeyText(containerName, key.credentialId);
}

bool isForSigning(std::int32_t keyUsage) {
    return keyUsage == KEY_USAGE_SIGN || keyUsage == KEY_USAGE_BOTH;
}

bool isForAnyUse(std::int32_t keyUsage) {
    return isForSigning(keyUsage) || keyUsage == KEY_USAGE_EXCHANGE;
}

void bind(HASH_CONTEXT& hash, const unsigned char* credentialId) {
    std::memcpy(hash.credentialId, credentialId, sizeof hash.credentialId);
    hash.credentialIdLength = CREDENTIAL_ID_SIZE;
}

/// Binds the hash to the key that the context remembers for `keySpec`, if it remembers one. A remembered key that is no
/// longer on the token is bound all the same and leaves `mechanism` untouched.
void bindRememberedKey(const CSP_CONTEXT& context, HASH_CONTEXT& hash, DWORD keySpec) {
    const unsigned char* remembered = nullptr;
    if (keySpec == AT_SIGNATURE && context.signatureKeyIdLength != 0) {
        remembered = context.signatureKeyId;
    } else if (keySpec == AT_KEYEXCHANGE && context.exchangeKeyIdLength != 0) {
        remembered = context.exchangeKeyId;
    }
    if (remembered == nullptr) {
        return;
    }
    bind(hash, remembered);
    logInfoBytes("CPSignHash: using stored credentialId=", hash.credentialId);
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(context.serial.c_str(), context.tokenContext);
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
        return std::memcmp(candidate.credentialId, hash.credentialId, sizeof hash.credentialId) == 0;
    });
    if (key != keys.end()) {
        hash.mechanism = key->keyType;
    }
}

/// Binds the hash to the container's first key that signs, else to its first key of any use.
void bindContainerKey(const CSP_CONTEXT& context, HASH_CONTEXT& hash) {
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(context.serial.c_str(), context.tokenContext);
    for (const auto accepts : {isForSigning, isForAnyUse}) {
        const auto key = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
            return accepts(candidate.keyUsage) && isKeyOfContainer(candidate, context.containerName);
        });
        if (key != keys.end()) {
            bind(hash, key->credentialId);
            hash.mechanism = key->keyType;
            return;
        }
    }
}

/// An upper bound of the signature's size in bytes, which is not refined for EC keys.
DWORD signatureSizeBound(std::int32_t mechanism) {
    switch (mechanism) {
        case KEY_TYPE_RSA_3072:
            return 384;
        case KEY_TYPE_RSA_4096:
            return 512;
        default:
            return 256;
    }
}

/// One signing on the token, into the caller's buffer of `room` bytes. `length` returns the signature's size.
int signOnToken(const CSP_CONTEXT& context, const HASH_CONTEXT& hash, BYTE* pbSignature, DWORD room, int& length) {
    length = static_cast<int>(std::min<DWORD>(room, INT_MAX));
    const std::string password = pinStateGetPassword(context.serial);
    return zentok_signHash(context.serial.c_str(), hash.credentialId, password.c_str(), hash.hashValue,
                           static_cast<int>(hash.hashLen), pbSignature, &length, false, context.tokenContext, false);
}

/// Fetches the value of a hash that has none yet the way a client does: with the outer step of an HMAC, and finishing
/// it.
BOOL fetchHashValue(HCRYPTPROV hProv, HCRYPTHASH hHash, HASH_CONTEXT& hash) {
    DWORD size = 0;
    if (CPGetHashParam(hProv, hHash, HP_HASHVAL, nullptr, &size, 0) == FALSE) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPGetHashParam failed to get hash size");
    }
    if (size > hash.digestLen) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "Hash size larger than expected");
    }
    BYTE value[MAX_DIGEST_SIZE] = {};
    if (CPGetHashParam(hProv, hHash, HP_HASHVAL, value, &size, 0) == FALSE) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPGetHashParam failed to get hash value");
    }
    std::memcpy(hash.hashValue, value, size);
    hash.hashLen = size;
    logInfo("Hash obtained using CPGetHashParam");
    return TRUE;
}

/// What a signature is verified with.
struct VerificationKey {
    std::uint32_t keyType;
    Bytes publicKey;  ///< DER SubjectPublicKeyInfo for RSA, raw point for EC
    bool reversed;    ///< the signature is little-endian
};

std::uint32_t ecKeyTypeOfBits(std::uint32_t bits) {
    switch (bits) {
        case 384:
            return KEY_TYPE_EC_P384;
        case 521:
            return KEY_TYPE_EC_P521;
        default:
            return KEY_TYPE_EC_P256;
    }
}

/// Any size that no token has counts as 2048.
std::uint32_t rsaKeyTypeOfBits(std::uint32_t bits) {
    const std::int32_t keyType = rsaBitsToKeySize(bits);
    return static_cast<std::uint32_t>(keyType != 0 ? keyType : KEY_TYPE_RSA_2048);
}

VerificationKey keyOfObject(const KEY_HANDLE& key) {
    const std::span<const unsigned char> publicKey = key.publicKeyBytes();
    if (key.algId == ALG_EC_KEY) {
        logInfo("CPVerifySignature: ECC public key, using raw EC point");
        return {ecKeyTypeOfBits(key.bitSize), {publicKey.begin(), publicKey.end()}, false};
    }
    return {rsaKeyTypeOfBits(key.bitSize),
            rsaPublicKeyToSpki(publicKey, "CPVerifySignature: RSA raw modulus, converting to DER",
                               "CPVerifySignature: RSA public key already DER encoded"),
            true};
}

/// The container's first key of any use, for a caller without a usable key object. False with the failure reported.
bool keyOfContainer(const CSP_CONTEXT& context, VerificationKey& verification) {
    // An error line although nothing has failed: it marks a caller that relies on the container.
    logError("Key Handle Not Initialized or Public Key Length is zero");
    logInfo("Container name : " + context.containerName);
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(context.serial.c_str(), context.tokenContext);
    const auto key = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
        return isForAnyUse(candidate.keyUsage) && isKeyOfContainer(candidate, context.containerName);
    });
    if (key == keys.end()) {
        fail(static_cast<DWORD>(NTE_BAD_KEY),
             "CPVerifySignature: container not found in key list, containerName=" + context.containerName);
        return false;
    }
    if (key->publicKeyLength < 0 || key->publicKeyLength > static_cast<std::int32_t>(sizeof key->publicKey)) {
        fail(static_cast<DWORD>(NTE_BAD_KEY), "CPVerifySignature: the token library gave a public key of " +
                                                  std::to_string(key->publicKeyLength) + " bytes");
        return false;
    }
    const std::span publicKey(key->publicKey, static_cast<std::size_t>(key->publicKeyLength));
    verification.keyType = static_cast<std::uint32_t>(key->keyType);
    verification.reversed = isRsaKeyType(key->keyType);
    // Taken for a raw modulus without a look at its first byte, unlike the key of an object.
    verification.publicKey =
        verification.reversed ? rawModulusToSpki(publicKey) : Bytes(publicKey.begin(), publicKey.end());
    return true;
}

}  // namespace

BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwKeySpec, LPCWSTR /*szDescription*/, DWORD dwFlags,
                       BYTE* pbSignature, DWORD* pcbSigLen) {
    logInfo("CPSignHash");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPSignHash: context is null or not initialized");
    }
    HASH_CONTEXT* hash = hashOf(hHash);
    if (hash == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPSignHash: hash handle is null");
    }
    if (pcbSigLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSignHash: pcbSigLen is null");
    }
    if (hash->hashLen == 0) {
        const int result = finishRunningHash(*hash, MAX_DIGEST_SIZE, context->tokenContext);
        if (result != TOKEN_OK) {
            return fail(static_cast<DWORD>(NTE_FAIL),
                        "CPSignHash: zentok_finalHash failed with ret=" + std::to_string(result));
        }
    }
    // A hash signs with one key for its whole life, whatever key spec a later call gives.
    if (hash->credentialIdLength != CREDENTIAL_ID_SIZE) {
        hash->credentialIdLength = 0;
        bindRememberedKey(*context, *hash, dwKeySpec);
    }
    if (hash->credentialIdLength == 0) {
        bindContainerKey(*context, *hash);
    }
    if (hash->credentialIdLength == 0) {
        return fail(static_cast<DWORD>(NTE_NO_KEY),
                    "CPSignHash: sign key not found for container=" + context->containerName);
    }
    if (pbSignature == nullptr) {
        *pcbSigLen = signatureSizeBound(hash->mechanism);
        return TRUE;
    }
    if (!ensurePasswordValidated(context)) {
        logError("CPSignHash: ensurePasswordValidated failed");
        return FALSE;
    }
    const DWORD room = *pcbSigLen;
    logInfo("CPSignHash dwFlags : " + std::to_string(dwFlags));
    logInfo("CPSignHash hashAlgorithm : " + std::to_string(hash->hashAlgorithm));
    logInfo("CPSignHash key mechanism : " + std::to_string(hash->mechanism));
    if (!ruleRsa1024Sign("CPSignHash", hash->mechanism, context->serial, context->tokenContext)) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_KEY));
    }
    int length = 0;
    int result = signOnToken(*context, *hash, pbSignature, room, length);
    if (result == TOKEN_SSO_EXPIRED) {
        logInfo("CPSignHash: SSO expired, re-prompting for PIN");
        pinStateClear(context->serial);
        if (!ensurePasswordValidated(context)) {
            logError("CPSignHash: ensurePasswordValidated failed after SSO expiry");
            return FALSE;
        }
        result = signOnToken(*context, *hash, pbSignature, room, length);
    }
    if (!ruleWeakHashSign("CPSignHash", result)) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_ALGID));
    }
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL), "Sign hash failed : " + std::to_string(result));
    }
    if (length < 0 || static_cast<DWORD>(length) > room) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                    "CPSignHash: the token library gave a signature of " + std::to_string(length) + " bytes");
    }
    if (isRsaKeyType(hash->mechanism)) {
        std::reverse(pbSignature, pbSignature + length);
    }
    *pcbSigLen = static_cast<DWORD>(length);
    return TRUE;
}

BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, CONST BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR /*szDescription*/, DWORD /*dwFlags*/) {
    logInfo("CPVerifySignature");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CSP Context Not Initialized");
    }
    HASH_CONTEXT* hash = hashOf(hHash);
    if (hash == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "Hash Context is not Initialized");
    }
    if (hash->hashLen == 0 && fetchHashValue(hProv, hHash, *hash) == FALSE) {
        return FALSE;
    }
    VerificationKey verification = {};
    const KEY_HANDLE* key = keyOf(hPubKey);
    if (key != nullptr && key->publicKeyLength != 0) {
        logInfo("key handle available");
        verification = keyOfObject(*key);
    } else if (!keyOfContainer(*context, verification)) {
        return FALSE;
    }
    // What no key of any size could have made is not copied, let alone put to the library.
    if (cbSigLen > MAX_SIGNATURE_SIZE || (pbSignature == nullptr && cbSigLen != 0)) {
        return fail(static_cast<DWORD>(NTE_BAD_SIGNATURE),
                    "CPVerifySignature: invalid signature or length, cbSigLen=" + std::to_string(cbSigLen));
    }
    Bytes signature(pbSignature, pbSignature + cbSigLen);
    if (verification.reversed) {
        std::reverse(signature.begin(), signature.end());
    }
    const int result = zentok_verifySignatureHash(verification.keyType, context->serial.c_str(), hash->hashValue,
                                                  static_cast<int>(hash->hashLen), verification.publicKey.data(),
                                                  static_cast<int>(verification.publicKey.size()), signature.data(),
                                                  static_cast<int>(signature.size()), nullptr, false);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_BAD_SIGNATURE), "VERIFY SIGNATURE FAILED :: " + std::to_string(result));
    }
    return TRUE;
}
