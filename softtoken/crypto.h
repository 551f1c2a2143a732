// The software token's symmetric side, all of it libgcrypt's work: hashes, random bytes, key derivation, sealing at
// rest, and AES as the operations offer it. Failures are thrown as softtoken::Error.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "softtoken/files.h"
#include "softtoken/secret.h"

namespace softtoken {

constexpr std::size_t AES_BLOCK = 16;
constexpr std::size_t MASTER_KEY_SIZE = 32;
/// What seal adds to its plaintext: a 12-byte nonce before it and a 16-byte tag behind it.
constexpr std::size_t SEAL_OVERHEAD = 28;

/// Prepares libgcrypt once. Everything that enters the software token calls it first.
void initialiseCrypto();

/// The bytes of a text.
inline ByteView bytesOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

void fillRandom(std::span<unsigned char> target);

/// `count` random bytes.
template <typename Container>
Container randomBytes(std::size_t count) {
    Container bytes(count);
    fillRandom(bytes);
    return bytes;
}

std::array<unsigned char, 32> sha256(ByteView data);

/// The same value? In a time that does not depend on where they differ.
bool sameSecret(ByteView left, ByteView right);

/// scrypt (RFC 7914) with r = 8, p = 1 and N = `cost`.
SecretBytes deriveKey(ByteView pin, ByteView salt, unsigned cost);

/// AES-256-GCM (NIST SP 800-38D) under a random nonce; `context` is authenticated beside the plaintext, so that a
/// sealed value is worthless in another place.
Bytes seal(ByteView key, ByteView plaintext, ByteView context);

/// The plaintext again. Error RESULT_BAD_DATA: another key or context, or altered bytes.
SecretBytes unseal(ByteView key, ByteView sealed, ByteView context);

enum class Padding { NONE, PKCS7 };

// AES with a key of 16, 24 or 32 bytes: CBC under an IV of 16 bytes, ECB (NIST SP 800-38A) when `iv` is empty.
// Error RESULT_BAD_LENGTH: key, IV or data; RESULT_BAD_DATA: decrypted padding that is not PKCS#7 (RFC 5652, 6.3).
SecretBytes encryptAes(ByteView key, ByteView iv, ByteView data, Padding padding);
SecretBytes decryptAes(ByteView key, ByteView iv, ByteView data, Padding padding);

/// RFC 3394 key unwrapping. Error RESULT_BAD_DATA when the key is another than the one that wrapped.
SecretBytes unwrapKey(ByteView key, ByteView wrapped);

}  // namespace softtoken
