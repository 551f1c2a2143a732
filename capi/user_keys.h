// KEY_HANDLE, the record behind a CryptoAPI key handle: what is known about a key. A key on the token is named by its
// credential id and never holds private material; a software AES key carries its bytes in symmetricKey, and whether
// symmetricKeyLength is non-zero tells the two kinds apart.
#pragma once

#include <cstdint>
#include <span>

#include "capi/csp_context.h"
#include "capi/csp_interface.h"
#include "core/token_library.h"

/// Marks an elliptic-curve key in KEY_HANDLE::algId, the number that the platform's header calls CALG_DSS_SIGN.
constexpr ALG_ID ALG_EC_KEY = 0x2200;

struct KEY_HANDLE {
    unsigned char credentialId[CREDENTIAL_ID_SIZE];
    std::uint32_t credentialIdLength;  ///< 16, or 0 for a derived key
    ALG_ID algId;
    std::uint32_t keyUsage;
    unsigned char keyLabel[128];
    std::uint32_t keyLabelLength;
    char alias[129];  ///< NUL-terminated
    std::uint32_t bitSize;
    std::uint32_t mode;  ///< KP_MODE: 2 is ECB, everything else CBC
    bool tokenFlag;      ///< handed back to zentok_decrypt
    /// As the token has it (raw modulus, DER or raw point), or the DER of an imported blob. As wide as the token's own
    /// record, so that everything a token can hold fits; the DER of a 4096-bit key takes 550 bytes.
    unsigned char publicKey[1024];
    std::uint32_t publicKeyLength;  ///< 0 for a symmetric key
    unsigned char symmetricKey[32];
    std::uint32_t symmetricKeyLength;  ///< 16, 24 or 32 for a software key, else 0

    std::span<const unsigned char> publicKeyBytes() const { return {publicKey, publicKeyLength}; }
};
