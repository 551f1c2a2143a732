// KSP_KEY, the record behind an NCRYPT_KEY_HANDLE, and the state of an enumeration. A key object is a snapshot of what
// the token reported: only operations with the private key go back to the token, naming the key by its credential id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <windows.h>

#include "core/token_library.h"

struct KSP_KEY {
    unsigned char credentialId[CREDENTIAL_ID_SIZE] = {};
    std::uint32_t credentialIdLength = 0;  ///< 16 once the key is on the token, else 0
    std::uint32_t keyType = 0;   ///< KeyType, 0 for RSA before KSPFinalizeKey; SymmetricKeyType of an imported AES key
    std::uint32_t keyUsage = 0;  ///< KeyUsage, 0 for an imported RSA public key
    /// Raw modulus, DER SubjectPublicKeyInfo (first byte 0x30) or raw EC point. As wide as the token's own record; the
    /// DER of a 4096-bit key takes 550 bytes.
    unsigned char publicKey[1024] = {};
    std::int32_t publicKeyLength = 0;  ///< bytes used in publicKey; below 1: none is known
    unsigned char keyLabel[128] = {};
    std::int32_t keyLabelLength = 0;  ///< bytes used in keyLabel
    char alias[128] = {};             ///< NUL-terminated when shorter than the field
    std::uint32_t reserved = 0;
    std::uint32_t bitSize = 0;         ///< of the key type, or whatever the property "Length" was set to
    bool tokenFlag = false;            ///< handed back to the token library
    std::basic_string<WCHAR> keyName;  ///< as the caller gave it; never read back
    bool finalized = false;            ///< false between KSPCreatePersistedKey and KSPFinalizeKey only
    unsigned char symmetricKey[32] = {};
    std::int32_t symmetricKeyLength = 0;  ///< above 0: an AES key whose bytes are in symmetricKey
    std::uint8_t chainingMode = 0;        ///< 0 is CBC, 1 ECB

    std::span<const unsigned char> publicKeyBytes() const {
        return {publicKey, publicKeyLength > 0 ? static_cast<std::size_t>(publicKeyLength) : 0};
    }
};

// The token library takes the object's address for the credential id's.
static_assert(offsetof(KSP_KEY, credentialId) == 0);

/// What KSPEnumKeys keeps between two calls: the key pairs as of the first one.
struct KSP_KEY_ENUM {
    std::uint64_t nextIndex = 0;
    std::vector<ZentokKeyPair> keys;
};
