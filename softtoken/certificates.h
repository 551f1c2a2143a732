// Certificates and public key encodings, all of it crypt32's work. Failures are thrown as softtoken::Error.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/token_library.h"
#include "softtoken/asymmetric.h"
#include "softtoken/files.h"

namespace softtoken {

/// The content of an RSA SubjectPublicKeyInfo, each number big-endian without leading zeros.
struct RsaPublicKey {
    Bytes modulus;
    Bytes exponent;
};

/// Reads a DER SubjectPublicKeyInfo (RFC 5280, 4.1.2.7). Numbers with needless leading zeros are accepted: callers
/// build an exponent in a fixed width. Error RESULT_BAD_KEY.
RsaPublicKey readRsaPublicKey(ByteView subjectPublicKeyInfo);

/// The public key as PEM SubjectPublicKeyInfo (RFC 7468, 13), lines ending with a line feed.
std::string publicKeyPem(const KeyTypeInfo& type, ByteView publicKey);

/// field1: serial number in hexadecimal; field2: subject common name; field4, field5: start and end of validity as
/// "2025-01-31T12:00:00Z"; field6: SHA-1 fingerprint in hexadecimal; field8: object identifier of the signature
/// algorithm; value1: version (3); value2: bits of the public key; value3: its KeyType, 0 for any other key; issuer and
/// subject: X.500 text, "C=IN, O=Halvane, CN=Root". Error RESULT_BAD_CERTIFICATE.
CertificateDetails readCertificate(ByteView der);

/// The files of `folder` by name that have one of the `extensions` (without regard to case, each with its dot) and hold
/// a certificate, DER or PEM: path and DER of the file's first certificate. Files of more than 1 MiB, and unreadable
/// ones, are passed over. `folder` and the paths are in the system's ANSI code page, as narrow texts of the platform
/// are.
std::vector<std::pair<std::string, Bytes>> certificateFiles(const std::string& folder,
                                                            const std::vector<std::string>& extensions);

/// Protects `secret` for this Windows user, bound to `context`.
Bytes protectForUser(ByteView secret, ByteView context);

/// The secret again. Error RESULT_BAD_DATA: another user or context, or altered bytes.
SecretBytes unprotectForUser(ByteView blob, ByteView context);

}  // namespace softtoken
