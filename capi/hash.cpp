// The life of a hash object: created, fed, finished and destroyed. Its parameters are in hash_params.cpp.
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

constexpr HashAlgorithm HASH_ALGORITHMS[] = {
    {CALG_SHA1, HASH_SHA1, 20, 64},
    {CALG_SHA_256, HASH_SHA256, 32, 64},
    {CALG_SHA_384, HASH_SHA384, 48, 128},
    {CALG_SHA_512, HASH_SHA512, 64, 128},
};

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
    return hashAlgorithmById(algId);
}

}  // namespace

const HashAlgorithm* hashAlgorithmById(ALG_ID algId) {
    const auto* row = std::find_if(std::begin(HASH_ALGORITHMS), std::end(HASH_ALGORITHMS),
                                   [=](const HashAlgorithm& candidate) { return candidate.algId == algId; });
    return row != std::end(HASH_ALGORITHMS) ? row : nullptr;
}

const HashAlgorithm* hashAlgorithmByMechanism(std::int32_t mechanism) {
    const auto* row = std::find_if(std::begin(HASH_ALGORITHMS), std::end(HASH_ALGORITHMS),
                                   [=](const HashAlgorithm& candidate) { return candidate.mechanism == mechanism; });
    return row != std::end(HASH_ALGORITHMS) ? row : nullptr;
}

void setMechanism(HASH_CONTEXT& hash, const HashAlgorithm& algorithm) {
    hash.mechanism = algorithm.mechanism;
    hash.hashAlgorithm = algorithm.mechanism;
    hash.digestLen = algorithm.digestSize;
}

int finishHash(void* tokenHash, unsigned char* digest, std::uint32_t room, std::uint32_t& digestSize,
               void* tokenContext) {
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

int finishRunningHash(HASH_CONTEXT& hash, std::uint32_t room, void* tokenContext) {
    return finishHash(hash.tokenHash, hash.hashValue, room, hash.hashLen, tokenContext);
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
