// CPDuplicateHash and CPDeriveKey: the two entry points that take the finished value out of a hash.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "capi/entry.h"
#include "capi/hash.h"
#include "capi/user_keys.h"

namespace {

struct DerivedKeyAlgorithm {
    ALG_ID algId;
    std::uint32_t keySize;  // bytes
};

constexpr DerivedKeyAlgorithm DERIVED_KEY_ALGORITHMS[] = {{CALG_AES_128, 16}, {CALG_AES_192, 24}, {CALG_AES_256, 32}};

constexpr std::size_t KEY_BLOCK_SIZE = 64;

/// Ends the source's running hash. No outer step follows: source and duplicate of an HMAC hold its inner digest.
BOOL finishSource(HASH_CONTEXT& source, void* tokenContext) {
    // A source that signing or derivation has ended is refused by the library here and must keep the value it has.
    unsigned char value[sizeof source.hashValue];
    std::memcpy(value, source.hashValue, sizeof value);
    const int result = finishRunningHash(source, source.digestLen, tokenContext);
    if (result != TOKEN_OK) {
        std::memcpy(source.hashValue, value, sizeof value);
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPDuplicateHash: zentok_finalHash on source failed, ret=" + std::to_string(result));
    }
    source.finalized = true;
    logInfo("CPDuplicateHash: source finalized before duplication, hashLen=" + std::to_string(source.hashLen));
    return TRUE;
}

/// What a duplicate takes over: the value and what it is of, and the key that a signature bound to it. It gets neither
/// the library's hash, which is spent, nor any HMAC key material.
void copyFinished(HASH_CONTEXT& duplicate, const HASH_CONTEXT& source) {
    duplicate.mechanism = source.mechanism;
    duplicate.hashAlgorithm = source.hashAlgorithm;
    duplicate.hmacInfo = source.hmacInfo;
    duplicate.valid = source.valid;
    duplicate.isHmac = source.isHmac;
    duplicate.finalized = source.finalized;
    std::memcpy(duplicate.hashValue, source.hashValue, MAX_DIGEST_SIZE);
    std::memcpy(duplicate.credentialId, source.credentialId, sizeof duplicate.credentialId);
    duplicate.credentialIdLength = source.credentialIdLength;
    duplicate.hashLen = source.hashLen;
    duplicate.digestLen = source.digestLen;
}

}  // namespace

// The library cannot copy a running hash, so the source is finished first: afterwards both are holders of one final
// value, and neither takes more data.
BOOL WINAPI CPDuplicateHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD* /*pdwReserved*/, DWORD dwFlags,
                            HCRYPTHASH* phHash) {
    logInfo("CPDuplicateHash");
    const CSP_CONTEXT* context = contextOf(hProv);
    HASH_CONTEXT* source = hashOf(hHash);
    if (phHash == nullptr || context == nullptr || source == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPDuplicateHash: invalid parameter - phHash=" + pointerText(phHash) +
                                                 " hProv=" + pointerText(hProv) + " hHash=" + pointerText(hHash));
    }
    if (dwFlags != 0) {
        return fail(static_cast<DWORD>(NTE_BAD_FLAGS), "CPDuplicateHash: invalid dwFlags=0x" + hex32(dwFlags));
    }
    if (!context->initialized) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPDuplicateHash: invalid or uninitialized context");
    }
    if (!source->valid) {
        return fail(static_cast<DWORD>(NTE_BAD_HASH), "CPDuplicateHash: source hash is NULL or invalid");
    }
    if (!source->finalized && finishSource(*source, context->tokenContext) == FALSE) {
        return FALSE;
    }
    std::unique_ptr<HASH_CONTEXT> duplicate(new (std::nothrow) HASH_CONTEXT());
    if (duplicate == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY), "CPDuplicateHash: failed to allocate HASH_CONTEXT");
    }
    copyFinished(*duplicate, *source);
    const HASH_CONTEXT* copy = duplicate.release();
    *phHash = reinterpret_cast<HCRYPTHASH>(copy);
    logInfo("CPDuplicateHash - source: 0x" + pointerHexText(source) + " duplicate: 0x" + pointerHexText(copy));
    return TRUE;
}

// A plain truncation of the hash, zero-filled when it is shorter than the key: not the platform's own derivation with
// its 0x36 and 0x5C padding.
BOOL WINAPI CPDeriveKey(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTHASH hBaseData, DWORD /*dwFlags*/, HCRYPTKEY* phKey) {
    logInfo("CPDeriveKey");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (phKey == nullptr || context == nullptr) {
        return failQuietly(ERROR_INVALID_PARAMETER);
    }
    if (!context->initialized) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_UID));
    }
    HASH_CONTEXT* hash = hashOf(hBaseData);
    if (hash == nullptr) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_HASH));
    }
    const auto* algorithm = std::find_if(std::begin(DERIVED_KEY_ALGORITHMS), std::end(DERIVED_KEY_ALGORITHMS),
                                         [=](const DerivedKeyAlgorithm& row) { return row.algId == Algid; });
    if (algorithm == std::end(DERIVED_KEY_ALGORITHMS)) {
        // Decimal, in spite of the prefix.
        return fail(static_cast<DWORD>(NTE_BAD_ALGID), "CPDeriveKey: unsupported algorithm 0x" + std::to_string(Algid));
    }
    // `finalized` stays as it is: only a further derivation or signature works from the value afterwards.
    // A success without a digest would make a key of zeros.
    if (hash->hashLen == 0 &&
        (finishRunningHash(*hash, MAX_DIGEST_SIZE, context->tokenContext) != TOKEN_OK || hash->hashLen == 0)) {
        return fail(static_cast<DWORD>(NTE_FAIL), "CPDeriveKey: zentok_finalHash failed");
    }
    unsigned char block[KEY_BLOCK_SIZE] = {};
    std::memcpy(block, hash->hashValue, std::min(hash->hashLen, algorithm->keySize));
    std::unique_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE());
    if (key == nullptr) {
        SecureZeroMemory(block, sizeof block);
        return failQuietly(ERROR_NOT_ENOUGH_MEMORY);
    }
    key->bitSize = 8 * algorithm->keySize;
    key->algId = Algid;
    key->keyUsage = KEY_USAGE_BOTH;
    std::memcpy(key->symmetricKey, block, algorithm->keySize);
    key->symmetricKeyLength = algorithm->keySize;
    *phKey = reinterpret_cast<HCRYPTKEY>(key.release());
    SecureZeroMemory(block, sizeof block);
    logInfo("CPDeriveKey: derived " + std::to_string(8 * algorithm->keySize) + "-bit key for algId=0x" + hex32(Algid));
    return TRUE;
}
