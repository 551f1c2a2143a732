// The entry points of a hash object, and the HMAC that is built on the token library's plain hashes.
#include "capi/hash.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "capi/entry.h"
#include "capi/user_keys.h"
#include "core/firmware_policy.h"
#include "core/token_library.h"

namespace {

struct HashAlgorithm {
    ALG_ID algId;
    std::int32_t mechanism;
    std::uint32_t digestSize;     // bytes
    std::uint32_t hmacBlockSize;  // bytes
};

constexpr HashAlgorithm HASH_ALGORITHMS[] = {
    {CALG_SHA1, HASH_SHA1, 20, 64},
    {CALG_SHA_256, HASH_SHA256, 32, 64},
    {CALG_SHA_384, HASH_SHA384, 48, 128},
    {CALG_SHA_512, HASH_SHA512, 64, 128},
};

constexpr unsigned char IPAD_BYTE = 0x36;
constexpr unsigned char OPAD_BYTE = 0x5C;

const HashAlgorithm* algorithmById(ALG_ID algId) {
    const auto* row = std::find_if(std::begin(HASH_ALGORITHMS), std::end(HASH_ALGORITHMS),
                                   [=](const HashAlgorithm& candidate) { return candidate.algId == algId; });
    return row != std::end(HASH_ALGORITHMS) ? row : nullptr;
}

/// Also asked with the key type that a signature left in `mechanism`; it then answers what the number happens to mean.
const HashAlgorithm* algorithmByMechanism(std::int32_t mechanism) {
    const auto* row = std::find_if(std::begin(HASH_ALGORITHMS), std::end(HASH_ALGORITHMS),
                                   [=](const HashAlgorithm& candidate) { return candidate.mechanism == mechanism; });
    return row != std::end(HASH_ALGORITHMS) ? row : nullptr;
}

void setMechanism(HASH_CONTEXT& hash, const HashAlgorithm& algorithm) {
    hash.mechanism = algorithm.mechanism;
    hash.hashAlgorithm = algorithm.mechanism;
    hash.digestLen = algorithm.digestSize;
}

/// Feeds a buffer of this file's own, which is never longer than a block.
int update(void* tokenHash, const unsigned char* data, std::uint32_t length, void* tokenContext) {
    return zentok_updateHash(tokenHash, data, static_cast<int>(length), tokenContext);
}

/// Ends `tokenHash` into `digest`, which has at least MAX_DIGEST_SIZE bytes, `room` of which are offered. The library's
/// result, or -1 with a line in the log when it claims to have written more.
int finish(void* tokenHash, unsigned char* digest, std::uint32_t room, std::uint32_t& digestSize, void* tokenContext) {
    int length = static_cast<int>(room);
    const int result = zentok_finalHash(tokenHash, digest, &length, tokenContext);
    if (result != TOKEN_OK) {
        return result;
    }
    if (length < 0 || length > static_cast<int>(room)) {
        logError("The token library gave a digest of " + std::to_string(length) + " bytes for a room of " +
                 std::to_string(room));
        return -1;
    }
    digestSize = static_cast<std::uint32_t>(length);
    return TOKEN_OK;
}

BOOL createHmac(std::unique_ptr<HASH_CONTEXT> hash, HCRYPTKEY hKey, HCRYPTHASH* phHash) {
    logInfo("CPCreateHash: HMAC");
    KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPCreateHash: CALG_HMAC requires a key handle");
    }
    if (key->symmetricKeyLength == 0) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPCreateHash: HMAC key has no symmetric key material");
    }
    hash->isHmac = true;
    hash->hmacKeyHandle = key;
    static_assert(sizeof key->symmetricKey <= sizeof hash->hmacKey);
    hash->hmacKeyLen = key->symmetricKeyLength;
    std::memcpy(hash->hmacKey, key->symmetricKey, hash->hmacKeyLen);
    *phHash = reinterpret_cast<HCRYPTHASH>(hash.release());
    return TRUE;
}

/// The algorithm of a plain hash once policy allows it, else null, with the failure reported.
const HashAlgorithm* permittedAlgorithm(const CSP_CONTEXT& context, ALG_ID algId) {
    switch (algId) {
        case CALG_MD5:
            ruleMd5Hash();
            failQuietly(static_cast<DWORD>(NTE_BAD_ALGID));
            return nullptr;
        case CALG_SHA1:
            if (!ruleSha1Hash(context)) {
                failQuietly(static_cast<DWORD>(NTE_BAD_ALGID));
                return nullptr;
            }
            break;
        case CALG_SHA_256:
            logInfo("Crete hash algorithm 256");
            break;
        case CALG_SHA_384:
            logInfo("Crete hash algorithm 384");
            break;
        case CALG_SHA_512:
            logInfo("Crete hash algorithm 512");
            break;
        default:
            fail(static_cast<DWORD>(NTE_BAD_ALGID), "CPCreateHash: unsupported Algid=0x" + hex32(algId));
            return nullptr;
    }
    return algorithmById(algId);
}

/// The HMAC key as a block: zero-filled when it fits, else replaced by its digest. `block` has 128 zero bytes.
int formKeyBlock(const CSP_CONTEXT& context, const HASH_CONTEXT& hash, const HashAlgorithm& algorithm,
                 unsigned char* block) {
    if (hash.hmacKeyLen <= algorithm.hmacBlockSize) {
        std::memcpy(block, hash.hmacKey, hash.hmacKeyLen);
        return TOKEN_OK;
    }
    void* keyHash = nullptr;
    int result = zentok_initHash(context.serial.c_str(), algorithm.mechanism, &keyHash, context.tokenContext);
    if (result == TOKEN_OK) {
        result = update(keyHash, hash.hmacKey, hash.hmacKeyLen, context.tokenContext);
    }
    std::uint32_t digestSize = 0;
    if (result == TOKEN_OK) {
        result = finish(keyHash, block, algorithm.digestSize, digestSize, context.tokenContext);
    }
    return result;
}

/// HP_HMAC_INFO: chooses the inner hash and starts it with the ipad block; the opad block takes the key's place.
BOOL setHmacInfo(const CSP_CONTEXT& context, HASH_CONTEXT& hash, const BYTE* pbData) {
    if (!hash.isHmac) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE), "CPSetHashParam: HP_HMAC_INFO on non-HMAC hash");
    }
    // Stored before it is examined: a refused value still reads back.
    std::memcpy(&hash.hmacInfo, pbData, sizeof hash.hmacInfo);
    const HashAlgorithm* algorithm = algorithmById(hash.hmacInfo.HashAlgid);
    if (algorithm == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_ALGID),
                    "CPSetHashParam: unsupported HMAC inner hash 0x" + hex32(hash.hmacInfo.HashAlgid));
    }
    // No firmware rule here: HMAC over SHA-1 is allowed on every token.
    setMechanism(hash, *algorithm);
    const std::uint32_t blockSize = algorithm->hmacBlockSize;

    unsigned char keyBlock[sizeof hash.hmacKey] = {};
    if (formKeyBlock(context, hash, *algorithm, keyBlock) != TOKEN_OK) {
        SecureZeroMemory(keyBlock, sizeof keyBlock);
        return failQuietly(static_cast<DWORD>(NTE_FAIL));
    }
    unsigned char ipad[sizeof hash.hmacKey] = {};
    for (std::uint32_t i = 0; i < blockSize; ++i) {
        ipad[i] = keyBlock[i] ^ IPAD_BYTE;
        hash.hmacKey[i] = keyBlock[i] ^ OPAD_BYTE;
    }
    hash.hmacKeyLen = blockSize;
    SecureZeroMemory(keyBlock, sizeof keyBlock);

    hash.tokenHash = nullptr;
    int result = zentok_initHash(context.serial.c_str(), hash.mechanism, &hash.tokenHash, context.tokenContext);
    if (result != TOKEN_OK) {
        SecureZeroMemory(ipad, sizeof ipad);
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPSetHashParam: zentok_initHash failed for HMAC inner hash, ret=" + std::to_string(result));
    }
    result = update(hash.tokenHash, ipad, blockSize, context.tokenContext);
    SecureZeroMemory(ipad, sizeof ipad);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPSetHashParam: zentok_updateHash failed for HMAC ipad, ret=" + std::to_string(result));
    }
    logInfo("CPSetHashParam: HMAC initialized with inner hash algo=" + std::to_string(hash.mechanism));
    return TRUE;
}

/// The outer hash of an HMAC: over the opad block and the inner result in `hashValue`, which it replaces. `digestSize`
/// enters as the inner result's size and returns the HMAC's. A failure leaves the opad block in place.
BOOL finishHmac(const CSP_CONTEXT& context, HASH_CONTEXT& hash, const HashAlgorithm& algorithm,
                std::uint32_t& digestSize) {
    unsigned char inner[MAX_DIGEST_SIZE] = {};
    std::memcpy(inner, hash.hashValue, digestSize);
    const auto failWiped = [&](const char* what, int result) {
        SecureZeroMemory(inner, sizeof inner);
        return fail(static_cast<DWORD>(NTE_FAIL), std::string(what) + std::to_string(result));
    };

    void* outer = nullptr;
    int result = zentok_initHash(context.serial.c_str(), algorithm.mechanism, &outer, context.tokenContext);
    if (result != TOKEN_OK) {
        return failWiped("CPGetHashParam: HMAC outer zentok_initHash failed, ret=", result);
    }
    result = update(outer, hash.hmacKey, hash.hmacKeyLen, context.tokenContext);
    if (result != TOKEN_OK) {
        return failWiped("CPGetHashParam: HMAC outer opad update failed, ret=", result);
    }
    result = update(outer, inner, digestSize, context.tokenContext);
    SecureZeroMemory(inner, sizeof inner);
    if (result != TOKEN_OK) {
        return failWiped("CPGetHashParam: HMAC outer inner-result update failed, ret=", result);
    }
    result = finish(outer, hash.hashValue, algorithm.digestSize, digestSize, context.tokenContext);
    if (result != TOKEN_OK) {
        return failWiped("CPGetHashParam: HMAC outer zentok_finalHash failed, ret=", result);
    }
    SecureZeroMemory(hash.hmacKey, sizeof hash.hmacKey);
    hash.hmacKeyLen = 0;
    logInfo("CPGetHashParam: HMAC finalized successfully");
    return TRUE;
}

BOOL copyHashValue(const HASH_CONTEXT& hash, BYTE* pbData, DWORD* pdwDataLen, const char* tooSmall) {
    const bool fits = *pdwDataLen >= hash.hashLen;
    *pdwDataLen = hash.hashLen;
    if (!fits) {
        return fail(ERROR_MORE_DATA, tooSmall);
    }
    std::memcpy(pbData, hash.hashValue, hash.hashLen);
    return TRUE;
}

/// HP_HASHVAL. The hash is finished before the caller's buffer is measured: a short buffer finds it in the cache next
/// time.
BOOL getHashValue(const CSP_CONTEXT& context, HASH_CONTEXT& hash, BYTE* pbData, DWORD* pdwDataLen) {
    const HashAlgorithm* algorithm = algorithmByMechanism(hash.mechanism);
    if (algorithm == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_ALGID),
                    "CPGetHashParam: HP_HASHVAL unsupported mechanism=" + std::to_string(hash.mechanism));
    }
    if (pbData == nullptr) {
        *pdwDataLen = algorithm->digestSize;
        return TRUE;
    }
    if (hash.finalized) {
        return copyHashValue(hash, pbData, pdwDataLen,
                             "CPGetHashParam: HP_HASHVAL buffer too small for cached hash value");
    }
    std::uint32_t digestSize = 0;
    const int result = finish(hash.tokenHash, hash.hashValue, algorithm->digestSize, digestSize, context.tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPGetHashParam: zentok_finalHash failed, ret=" + std::to_string(result));
    }
    if (hash.isHmac && finishHmac(context, hash, *algorithm, digestSize) == FALSE) {
        return FALSE;
    }
    hash.hashLen = digestSize;
    hash.finalized = true;
    return copyHashValue(hash, pbData, pdwDataLen, "CPGetHashParam: HP_HASHVAL buffer too small for finalized hash");
}

/// The size protocol of the parameters with a fixed size: a null buffer asks, a short one is an error.
/// Result: whether the value is to be given; else `answer` is the entry's result.
bool wantsValue(const BYTE* pbData, DWORD* pdwDataLen, DWORD size, const char* tooSmall, BOOL& answer) {
    if (pbData != nullptr && *pdwDataLen >= size) {
        return true;
    }
    *pdwDataLen = size;
    answer = pbData == nullptr ? TRUE : fail(ERROR_MORE_DATA, tooSmall);
    return false;
}

BOOL giveValue(BYTE* pbData, DWORD* pdwDataLen, const void* value, DWORD size) {
    std::memcpy(pbData, value, size);
    *pdwDataLen = size;
    logInfo("Get hash param success");
    return TRUE;
}

BOOL getAlgId(const HASH_CONTEXT& hash, BYTE* pbData, DWORD* pdwDataLen) {
    BOOL answer = FALSE;
    if (!wantsValue(pbData, pdwDataLen, sizeof(ALG_ID), "CPGetHashParam: HP_ALGID buffer too small", answer)) {
        return answer;
    }
    ALG_ID algId = CALG_HMAC;
    if (!hash.isHmac) {
        const HashAlgorithm* algorithm = algorithmByMechanism(hash.mechanism);
        if (algorithm == nullptr) {
            return fail(static_cast<DWORD>(NTE_BAD_ALGID),
                        "CPGetHashParam: HP_ALGID unsupported mechanism=" + std::to_string(hash.mechanism));
        }
        algId = algorithm->algId;
    }
    return giveValue(pbData, pdwDataLen, &algId, sizeof algId);
}

BOOL getHashSize(const HASH_CONTEXT& hash, BYTE* pbData, DWORD* pdwDataLen) {
    BOOL answer = FALSE;
    if (!wantsValue(pbData, pdwDataLen, sizeof(DWORD), "CPGetHashParam: HP_HASHSIZE buffer too small", answer)) {
        return answer;
    }
    const HashAlgorithm* algorithm = algorithmByMechanism(hash.mechanism);
    if (algorithm == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_ALGID),
                    "CPGetHashParam: HP_HASHSIZE unsupported mechanism=" + std::to_string(hash.mechanism));
    }
    const DWORD digestSize = algorithm->digestSize;
    logInfo("Get hash param hashSize : " + std::to_string(digestSize));
    return giveValue(pbData, pdwDataLen, &digestSize, sizeof digestSize);
}

BOOL getHmacInfo(const HASH_CONTEXT& hash, BYTE* pbData, DWORD* pdwDataLen) {
    if (!hash.isHmac) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE), "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC");
    }
    BOOL answer = FALSE;
    if (!wantsValue(pbData, pdwDataLen, sizeof hash.hmacInfo, "CPGetHashParam: HP_HMAC_INFO buffer too small",
                    answer)) {
        return answer;
    }
    return giveValue(pbData, pdwDataLen, &hash.hmacInfo, sizeof hash.hmacInfo);
}

}  // namespace

int finishRunningHash(HASH_CONTEXT& hash, std::uint32_t room, void* tokenContext) {
    return finish(hash.tokenHash, hash.hashValue, room, hash.hashLen, tokenContext);
}

BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash) {
    logInfo("CPCreateHash");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (phHash == nullptr || context == nullptr) {
        return fail(ERROR_INVALID_PARAMETER,
                    "CPCreateHash: invalid parameter - phHash=" + pointerText(phHash) + " hProv=" + pointerText(hProv));
    }
    if (dwFlags != 0) {
        return fail(static_cast<DWORD>(NTE_BAD_FLAGS), "CPCreateHash: invalid dwFlags=0x" + hex32(dwFlags));
    }
    if (!context->initialized) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPCreateHash: context not initialized");
    }
    std::unique_ptr<HASH_CONTEXT> hash(new (std::nothrow) HASH_CONTEXT());
    if (hash == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY), "CPCreateHash: failed to allocate HASH_CONTEXT");
    }
    hash->valid = true;
    logInfo("Crete hash algorithm input : " + std::to_string(Algid));
    if (Algid == CALG_HMAC) {
        return createHmac(std::move(hash), hKey, phHash);
    }
    const HashAlgorithm* algorithm = permittedAlgorithm(*context, Algid);
    if (algorithm == nullptr) {
        return FALSE;
    }
    setMechanism(*hash, *algorithm);
    logInfo("Crete hash algorithm : " + std::to_string(hash->mechanism));
    const int result =
        zentok_initHash(context->serial.c_str(), hash->mechanism, &hash->tokenHash, context->tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPCreateHash: zentok_initHash failed, ret=" + std::to_string(result));
    }
    *phHash = reinterpret_cast<HCRYPTHASH>(hash.release());
    return TRUE;
}

BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, CONST BYTE* pbData, DWORD cbDataLen, DWORD /*dwFlags*/) {
    logInfo("CPHashData");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPHashData: invalid or uninitialized context");
    }
    const HASH_CONTEXT* hash = hashOf(hHash);
    if (hash == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPHashData: pHashHandle is NULL");
    }
    if (hash->finalized) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH_STATE),
                    "CPHashData: hash already finalized (HP_HASHVAL was set), cannot add more data");
    }
    // What cannot be put to the library at all.
    if (cbDataLen > INT_MAX || (pbData == nullptr && cbDataLen != 0)) {
        return fail(ERROR_INVALID_PARAMETER,
                    "CPHashData: invalid data or length, cbDataLen=" + std::to_string(cbDataLen));
    }
    const int result = zentok_updateHash(hash->tokenHash, pbData, static_cast<int>(cbDataLen), context->tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPHashData: zentok_updateHash failed, ret=" + std::to_string(result));
    }
    return TRUE;
}

BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, CONST BYTE* pbData, DWORD dwFlags) {
    logInfo("CPSetHashParam");
    const CSP_CONTEXT* context = contextOf(hProv);
    HASH_CONTEXT* hash = hashOf(hHash);
    if (context == nullptr || hash == nullptr || pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetHashParam: invalid parameter - hProv=" + pointerText(hProv) +
                                                 " hHash=" + pointerText(hHash) + " pbData=" + pointerText(pbData));
    }
    if (dwFlags != 0) {
        return fail(static_cast<DWORD>(NTE_BAD_FLAGS), "CPSetHashParam: invalid dwFlags=0x" + hex32(dwFlags));
    }
    if (!context->initialized || !hash->valid) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPSetHashParam: context not initialized or hash not valid");
    }
    logInfo("Set hash param dwParam : " + std::to_string(dwParam));
    logInfo("Set hash param dwFlags : " + std::to_string(dwFlags));
    switch (dwParam) {
        case HP_HASHVAL:
            std::memcpy(hash->hashValue, pbData, hash->digestLen);
            hash->hashLen = hash->digestLen;
            hash->finalized = true;
            return TRUE;
        case HP_HMAC_INFO:
            return setHmacInfo(*context, *hash, pbData);
        default:
            return fail(static_cast<DWORD>(NTE_BAD_TYPE), "CPSetHashParam: unsupported dwParam=0x" + hex32(dwParam));
    }
}

BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                           DWORD dwFlags) {
    logInfo("CPGetHashParam");
    const CSP_CONTEXT* context = contextOf(hProv);
    HASH_CONTEXT* hash = hashOf(hHash);
    if (context == nullptr || hash == nullptr || pdwDataLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPGetHashParam: invalid parameter - hProv=" + pointerText(hProv) +
                                                 " hHash=" + pointerText(hHash) +
                                                 " pcbDataLen=" + pointerText(pdwDataLen));
    }
    if (dwFlags != 0) {
        return fail(static_cast<DWORD>(NTE_BAD_FLAGS), "CPGetHashParam: invalid dwFlags=0x" + hex32(dwFlags));
    }
    if (!context->initialized || !hash->valid) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPGetHashParam: context not initialized or hash not valid");
    }
    logInfo("CPGetHashParam dwParam : " + std::to_string(dwParam));
    logInfo("CPGetHashParam mechanism : " + std::to_string(hash->mechanism));
    switch (dwParam) {
        case HP_ALGID:
            return getAlgId(*hash, pbData, pdwDataLen);
        case HP_HASHVAL:
            return getHashValue(*context, *hash, pbData, pdwDataLen);
        case HP_HASHSIZE:
            return getHashSize(*hash, pbData, pdwDataLen);
        case HP_HMAC_INFO:
            return getHmacInfo(*hash, pbData, pdwDataLen);
        default:
            return fail(static_cast<DWORD>(NTE_BAD_TYPE), "CPGetHashParam: unsupported dwParam=0x" + hex32(dwParam));
    }
}

BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash) {
    logInfo("CPDestroyHash");
    if (!isUsable(contextOf(hProv))) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPDestroyHash: invalid or uninitialized context");
    }
    HASH_CONTEXT* hash = hashOf(hHash);
    if (hash == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPDestroyHash: pHashHandle is NULL");
    }
    if (hash->hmacKeyLen != 0) {
        SecureZeroMemory(hash->hmacKey, sizeof hash->hmacKey);
    }
    delete hash;
    return TRUE;
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV /*hProv*/, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags) {
    logInfo("CPHashSessionKey");
    return fail(ERROR_CALL_NOT_IMPLEMENTED, "CPHashSessionKey: not supported, hHash=" + pointerText(hHash) +
                                                " hKey=" + pointerText(hKey) + " dwFlags=" + std::to_string(dwFlags));
}
