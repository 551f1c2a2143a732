// HASH_CONTEXT, the record behind a CryptoAPI hash handle. The hashing itself runs in the token library; HMAC is built
// here from its plain hashes. A hash belongs to one caller at a time and carries no lock.
#pragma once

#include <cstdint>

#include "capi/csp_context.h"
#include "capi/csp_interface.h"

struct KEY_HANDLE;

constexpr std::uint32_t MAX_DIGEST_SIZE = 128;  ///< room that the library is offered for a digest, bytes

struct HASH_CONTEXT {
    std::int32_t mechanism;      ///< HashType, 0 in an HMAC without HP_HMAC_INFO; a KeyType once CPSignHash bound a key
    std::int32_t hashAlgorithm;  ///< the HashType, never overwritten by signing; only logged
    HMAC_INFO hmacInfo;          ///< as the caller set it; its string pointers are never followed
    void* tokenHash;             ///< the library's running (for HMAC: inner) hash
    bool valid;                  ///< set from creation on
    bool isHmac;
    bool finalized;                                  ///< no more data; HP_HASHVAL answers from hashValue
    unsigned char hashValue[256];                    ///< the first 128 bytes carry a value
    unsigned char credentialId[CREDENTIAL_ID_SIZE];  ///< the key that a signature bound to this hash
    std::uint32_t credentialIdLength;                ///< 0 or 16
    std::uint32_t hashLen;       ///< valid bytes in hashValue, 0: no value yet; may be set while finalized is not
    std::uint32_t digestLen;     ///< digest size of the mechanism, 0 in an HMAC without HP_HMAC_INFO
    unsigned char hmacKey[128];  ///< the raw key; the opad block once HP_HMAC_INFO is set; zero once finished
    std::uint32_t hmacKeyLen;
    KEY_HANDLE* hmacKeyHandle;  ///< borrowed, never followed after creation
};

/// A plain hash that this provider knows.
struct HashAlgorithm {
    ALG_ID algId;
    std::int32_t mechanism;
    std::uint32_t digestSize;     // bytes
    std::uint32_t hmacBlockSize;  // bytes
};

/// Null for an algorithm that is none of these.
const HashAlgorithm* hashAlgorithmById(ALG_ID algId);

/// Also asked with the key type that a signature left in `mechanism`; it then answers what the number happens to mean.
const HashAlgorithm* hashAlgorithmByMechanism(std::int32_t mechanism);

void setMechanism(HASH_CONTEXT& hash, const HashAlgorithm& algorithm);

/// Ends `tokenHash` into `digest`, which has at least MAX_DIGEST_SIZE bytes, `room` of which are offered. The library's
/// result, or -1 with a line in the log when it claims to have written more.
int finishHash(void* tokenHash, unsigned char* digest, std::uint32_t room, std::uint32_t& digestSize,
               void* tokenContext);

/// Ends the running hash without any outer HMAC step and without setting `finalized`: the value that signing and
/// derivation use. `room` bytes, at most MAX_DIGEST_SIZE, are offered to the library. Returns its result, or -1 when it
/// claims to have written more; sets `hashLen` on 0.
int finishRunningHash(HASH_CONTEXT& hash, std::uint32_t room, void* tokenContext);
