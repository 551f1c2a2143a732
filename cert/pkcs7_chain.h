// A token's certificates as a chain, and a chain as one PKCS#7 message. Names are compared as the platform compares
// encoded names.
#pragma once

#include <vector>

#include <windows.h>

#include "core/token_library.h"

/// The leaf and then each issuer found among `candidates`, up to a self-signed one; the leaf alone when there is none.
/// A candidate at the address of `leaf` is passed over. Two certificates that name each other as issuer are followed
/// without end.
std::vector<ZentokCertificate> orderCertificateChain(const ZentokCertificate& leaf,
                                                     const std::vector<ZentokCertificate>& candidates);

/// The chain of the first certificate, built by the platform (CertGetCertificateChain) with the others at hand, as a
/// certificates-only PKCS#7 SignedData (RFC 2315, section 9), root first. An untrusted or partial chain is written as
/// it came.
///
/// `length` is in bytes, in the room at `output` and out the message's size; it must not be null. A null `output` or
/// too little room answers TRUE with last error ERROR_MORE_DATA and the size needed. FALSE with last error NTE_NO_KEY
/// (empty list), NTE_BAD_KEY (the first certificate does not parse) or the platform's.
BOOL BuildCertificateChain(const std::vector<ZentokCertificate>& certificates, BYTE* output, DWORD* length);
