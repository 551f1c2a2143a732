// The form in which an RSA public key goes to the token library.
#pragma once

#include <span>
#include <vector>

/// SubjectPublicKeyInfo of a raw big-endian modulus; 65537 is assumed as exponent, whatever the token's key has.
std::vector<unsigned char> rawModulusToSpki(std::span<const unsigned char> modulus);

/// The public key of a key object as SubjectPublicKeyInfo: built from a raw modulus, or a plain copy of what is DER
/// already. Which of the two it was goes to the log, in the caller's words.
std::vector<unsigned char> rsaPublicKeyToSpki(std::span<const unsigned char> publicKey, const char* rawText,
                                              const char* derText);
