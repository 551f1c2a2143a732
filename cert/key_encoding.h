// Encoders between the forms that a public key takes on a token, in the token library and in the platform's blobs.
//
// Pure functions: no state, no log, no errors; bad input yields the result described. Lengths are bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

/// Hexadecimal text to bytes. A leading "0x" is dropped, an odd count of digits gets a "0" in front, and a character
/// that is no digit counts as 0.
std::vector<unsigned char> hexToBytes(std::string_view text);

/// Writes two upper-case hexadecimal digits a byte, and no terminator, to `digits`, which has the room.
void writeHex(std::span<const unsigned char> bytes, char* digits);

/// Upper-case hexadecimal text of `count` bytes; empty for a count below 1.
std::string bytesToHex(const unsigned char* bytes, std::int32_t count);

/// The length octets of X.690 (definite form, shortest).
std::vector<unsigned char> derEncodeLength(std::size_t length);

/// Tag, length octets, content.
std::vector<unsigned char> derEncodeTlv(unsigned char tag, std::span<const unsigned char> content);

/// RSA SubjectPublicKeyInfo (RFC 5280, RFC 3279) from big-endian hexadecimal texts. Values are not minimised: leading
/// zero bytes stay, which a strict DER reader may refuse.
std::vector<unsigned char> rsaPublicKeyHexToSpki(std::string_view modulus, std::string_view exponent);

/// The same from big-endian bytes.
std::vector<unsigned char> rsaPublicKeyBytesToSpki(std::span<const unsigned char> modulus,
                                                   std::span<const unsigned char> exponent);

/// `value` in `width` bytes, most significant first: zeros for a negative value, low bytes of one that is too wide.
std::vector<unsigned char> intToBigEndianBytes(std::int32_t value, std::size_t width);

/// True when `publicKey` starts with the tag of a SEQUENCE, or is empty: DER, to be handed on as it stands. A raw
/// modulus whose first byte happens to be 0x30 counts as DER too.
bool isDerPublicKey(std::span<const unsigned char> publicKey);

/// Bits of a key of ZentokKeyPair::keyType; 0 for an unknown value.
std::uint32_t keySizeToBits(std::int32_t keyType);

/// The inverse for RSA: the keyType of a modulus of `bits`; 0 for a size that no token has.
std::int32_t rsaBitsToKeySize(std::uint32_t bits);

/// CNG algorithm name of a key (BCRYPT_*_ALGORITHM): ECDH for usage 2, ECDSA for all others, RSA for every type that is
/// not elliptic. Static lifetime.
const WCHAR* keySizeToCngEccAlgorithm(std::int32_t keyType, std::int32_t keyUsage);
