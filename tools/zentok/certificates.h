// Certificates, requests and messages by the platform's own code (crypt32), which reaches the key through the provider.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include <wincrypt.h>

#include "tools/zentok/csp.h"

struct CertificateCloser {
    void operator()(const CERT_CONTEXT* certificate) const { CertFreeCertificateContext(certificate); }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, CertificateCloser>;

/// `der` as PEM (RFC 7468), "-----BEGIN <label>-----".
std::string pemText(std::span<const BYTE> der, std::string_view label);

/// The binary form of a file's content that is PEM or binary already.
std::vector<BYTE> derOf(const std::string& content, const std::string& file);

/// Throws when `der` is no certificate; `what` names it.
Certificate parseCertificate(std::span<const BYTE> der, const std::string& what);

std::string subjectText(const Certificate& certificate);
std::string issuerText(const Certificate& certificate);

/// The day on which the certificate ends to be valid, "2027-05-31".
std::string lastDay(const Certificate& certificate);

/// DER SubjectPublicKeyInfo of the container's RSA key.
std::vector<BYTE> publicKeyInfo(const Context& context);

/// The same of a certificate's key.
std::vector<BYTE> publicKeyInfo(const Certificate& certificate);

/// PKCS#10 request (RFC 2986) for the container's RSA key, signed by it with SHA-256. `subject` is an X.500 name,
/// "CN=..., O=...".
std::vector<BYTE> certificateRequest(const Context& context, const std::string& subject);

/// CMS SignedData (RFC 5652) over `content`, signed with SHA-256 by the container's key, whose certificate has to be on
/// the token; it carries the certificates of the chain that the token has. Detached, it does not carry the content.
std::vector<BYTE> signMessage(const Context& context, const std::string& container, std::string_view content,
                              bool detached);
