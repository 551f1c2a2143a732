// The software token's key pairs, all of it libgcrypt's work. Public keys are in the form of the records: RSA the
// big-endian modulus (the exponent is 65537), EC the uncompressed point 04 || X || Y (SEC 1, 2.3.3). RSA results are
// big-endian and as long as the modulus, ECDSA signatures are r || s. Failures are thrown as softtoken::Error.
#pragma once

#include <cstddef>
#include <string>

#include "core/token_library.h"
#include "softtoken/files.h"
#include "softtoken/secret.h"

namespace softtoken {

struct KeyTypeInfo {
    KeyType type;
    bool isRsa;
    unsigned bits;
    std::size_t fieldSize;    ///< bytes of the modulus, or of one coordinate
    const char* curve;        ///< libgcrypt's name; null for RSA
    ByteView curveParameter;  ///< DER object identifier of the curve; empty for RSA
};

/// The key type's row. Error RESULT_BAD_ARGUMENT for another value, KEY_TYPE_ANY included.
const KeyTypeInfo& keyTypeInfo(std::int64_t type);

/// The exponent of every key that the token generates, big-endian.
ByteView standardExponent();

struct GeneratedKey {
    SecretBytes privateKey;  ///< the form that the operations below take
    Bytes publicKey;
};

GeneratedKey generateKey(const KeyTypeInfo& type);

/// How a digest of this length is signed. Error RESULT_BAD_LENGTH for a length of no hash.
struct DigestInfo {
    std::size_t length;
    const char* name;  ///< libgcrypt's; null: MD5 || SHA-1 as in TLS 1.0, signed without naming a hash
    bool isWeak;       ///< MD5 or SHA-1
};
const DigestInfo& digestInfo(std::size_t length);

/// Bytes of a signature of this key type.
std::size_t signatureSize(const KeyTypeInfo& type);

/// RSA PKCS#1 v1.5 or PSS with a salt of the digest's length (RFC 8017), or ECDSA with deterministic nonces (RFC 6979).
Bytes signDigest(const KeyTypeInfo& type, ByteView privateKey, ByteView digest, bool pss);

/// Returns when the signature is good. Error RESULT_BAD_SIGNATURE, or RESULT_BAD_KEY.
void verifyRsa(ByteView modulus, ByteView exponent, ByteView digest, ByteView signature, bool pss);
void verifyEcdsa(const KeyTypeInfo& type, ByteView point, ByteView digest, ByteView signature);

/// RSA encryption under a modulus of 1024 to 4096 bits. Error RESULT_BAD_LENGTH when the data is too long for it.
Bytes encryptRsa(ByteView modulus, ByteView exponent, PaddingMode padding, ByteView data);

/// RSA decryption without being told the padding: OAEP with SHA-1, SHA-256, SHA-384 and SHA-512 in this order, then,
/// when `allowPkcs1`, PKCS#1 v1.5. Error RESULT_BAD_DATA when none fits. A real device must not let its caller learn
/// which padding failed or how far (Bleichenbacher, Manger); this one is for development and makes no such promise.
SecretBytes decryptRsa(const KeyTypeInfo& type, ByteView privateKey, ByteView data, bool allowPkcs1);

/// The X coordinate of the shared point (SP 800-56A, 5.7.1.2), in full width. Error RESULT_BAD_KEY: the peer's point is
/// not an uncompressed point on this curve.
SecretBytes deriveShared(const KeyTypeInfo& type, ByteView privateKey, ByteView peerPoint);

}  // namespace softtoken
