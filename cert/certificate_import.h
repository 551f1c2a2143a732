// Storing a certificate on a token, with its issuers where they are known.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <windows.h>

#include "core/token_library.h"

/// Answer of importCertificateWithChain to a record whose length lies outside its field: NTE_BAD_LEN, which no token
/// library result is.
constexpr auto CERTIFICATE_LENGTH_REFUSED = static_cast<std::int32_t>(NTE_BAD_LEN);

/// Puts a DER certificate into its field of a record. False, with the record as it was, when it has more bytes than the
/// field holds.
[[nodiscard]] bool setCertificate(ZentokCertificate& record, std::span<const unsigned char> der);

/// Imports a certificate to the token `device` together with its issuers, root first, out of the folder of CA
/// certificates <ZENTOK_HOME>\ZentokDSC\Certificates; alone when an issuer is missing there. Then names the key pair
/// that the certificate belongs to, unless it has an alias.
///
/// `leaf` comes with its certificate, credentialId, keyLabel and alias. An alias that is blank is replaced by one made
/// of the certificate's fields, and the credentialId by that of the imported leaf. `password` is the cached PIN, or
/// empty: then no key pair is named.
///
/// 0 for success, CERTIFICATE_LENGTH_REFUSED, or the library's result. What was imported before a failure stays on the
/// token. Failures are logged here; the caller maps the code. To be called behind the caller's login guard.
std::int32_t importCertificateWithChain(const std::string& device, const std::string& password, ZentokCertificate& leaf,
                                        void* libraryContext);
