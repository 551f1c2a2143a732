// The commands as they run with --cng: through the key storage provider instead of CryptoAPI. Each reads its command's
// own arguments.
#pragma once

#include <span>
#include <string>

#include "tools/zentok/arguments.h"
#include "tools/zentok/certificates.h"

namespace cng {

void generate(const Arguments& arguments);
void remove(const Arguments& arguments);
void show();
Bytes publicKeyInfo(const Arguments& arguments);
Bytes sign(const Arguments& arguments);                    ///< in the order that the arguments ask for
bool verify(const Arguments& arguments, Bytes signature);  ///< the same
Bytes encrypt(const Arguments& arguments, std::span<const BYTE> data, bool oaep);  ///< big-endian
Bytes decrypt(const Arguments& arguments, std::span<const BYTE> data, bool oaep);  ///< the same
Bytes request(const Arguments& arguments);
void storeCertificate(const Arguments& arguments, const Certificate& certificate);
Bytes readCertificate(const Arguments& arguments);

/// Name of the container's key for the platform's own use of the provider; throws when the platform cannot use it.
std::string requireRouter(const Arguments& arguments);

}  // namespace cng
