// The parameters of a hash object, and the HMAC that is built on the token library's plain hashes.
#include <algorithm>
#include <climits>
#include <cstring>

#include "capi/entry.h"
#include "capi/hash.h"
#include "core/token_library.h"

namespace {

constexpr unsigned char IPAD_BYTE = 0x36;
constexpr unsigned char OPAD_BYTE = 0x5C;

/// Feeds a buffer of this file's own, which is never longer than a block.
int update(void* tokenHash, const unsigned char* data, std::uint32_t length, void* tokenContext) {
    return zentok_updateHash(tokenHash, data, static_cast<int>(length), tokenContext);
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
        result = finishHash(keyHash, block, algorithm.digestSize, digestSize, context.tokenContext);
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
    const HashAlgorithm* algorithm = hashAlgorithmById(hash.hmacInfo.HashAlgid);
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
    result = finishHash(outer, hash.hashValue, algorithm.digestSize, digestSize, context.tokenContext);
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
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash.mechanism);
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
    const int result =
        finishHash(hash.tokenHash, hash.hashValue, algorithm->digestSize, digestSize, context.tokenContext);
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
        const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash.mechanism);
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
    const HashAlgorithm* algorithm = hashAlgorithmByMechanism(hash.mechanism);
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
