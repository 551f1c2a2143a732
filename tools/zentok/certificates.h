// Certificates, requests and messages by the platform's own code (crypt32), which reaches the key through the provider.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include <wincrypt.h>

#include "tools/zentok/arguments.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/encoding.h"

struct CertificateCloser {
    void operator()(const CERT_CONTEXT* certificate) const { CertFreeCertificateContext(certificate); }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, CertificateCloser>;

/// Throws when `der` is no certificate; `what` names it.
Certificate parseCertificate(std::span<const BYTE> der, const std::string& what);

std::string subjectText(const Certificate& certificate);
std::string issuerText(const Certificate& certificate);

/// Lines for people about a key's certificate; empty DER is none.
std::string certificateDescription(std::span<const BYTE> der);

/// The day on which the certificate ends to be valid, "2027-05-31".
std::string lastDay(const Certificate& certificate);

/// DER SubjectPublicKeyInfo of the container's RSA key.
Bytes publicKeyInfo(const Context& context);

/// The same of a certificate's key.
Bytes publicKeyInfo(const Certificate& certificate);

/// Throws when the certificate is of another key than that of the arguments' container.
void requireSameKey(const Certificate& certificate, const Bytes& publicKeyInfo, const Arguments& arguments);

/// PKCS#10 request (RFC 2986) for the container's RSA key, signed by it with SHA-256. `subject` is an X.500 name,
/// "CN=..., O=...".
Bytes certificateRequest(const Context& context, const std::string& subject);

/// CMS SignedData (RFC 5652) over `content`, signed with SHA-256 by the container's key, whose certificate has to be on
/// the token; it carries the certificates of the chain that the token has. Detached, it does not carry the content.
/// With `cng` the platform reaches the key through the key storage provider.
Bytes signMessage(const Context& context, const std::string& container, std::string_view content, bool detached,
                  bool cng);
