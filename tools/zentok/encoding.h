// DER and PEM of keys, signatures and requests, made by the platform's encoders (CryptEncodeObjectEx).
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

using Bytes = std::vector<BYTE>;

/// `der` as PEM (RFC 7468), "-----BEGIN <label>-----".
std::string pemText(std::span<const BYTE> der, std::string_view label);

/// The binary form of a file's content that is PEM or binary already; throws when it is damaged.
Bytes derOf(const std::string& content, const std::string& file);

/// What an encoder of the platform makes of `value`; throws with `action`.
Bytes encodeObject(const char* type, const void* value, const std::string& action);

/// SubjectPublicKeyInfo of a CryptoAPI PUBLICKEYBLOB, and of a BCRYPT_ECCPUBLIC_BLOB on one of the three NIST curves.
Bytes rsaPublicKeyInfo(std::span<const BYTE> blob);
Bytes ecPublicKeyInfo(std::span<const BYTE> blob);

/// CertificationRequestInfo (RFC 2986, 4.1) without attributes. `subject` is an X.500 name, "CN=..., O=..."; throws
/// UsageError for any other text.
Bytes certificationRequestInfo(const std::string& subject, std::span<const BYTE> publicKeyInfo);

/// CertificationRequest: `info` with a SHA-256 signature, big-endian for RSA and r || s for EC.
Bytes certificationRequest(std::span<const BYTE> info, std::span<const BYTE> signature, bool isRsa);
