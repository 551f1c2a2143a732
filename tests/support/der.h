// DER as certificates, requests and openssl have it (X.690): written by the tests, and ECDSA signatures read back.
#pragma once

#include <cstddef>
#include <initializer_list>

#include "tests/support/openssl.h"

namespace test {

Bytes joined(std::initializer_list<Bytes> parts);

/// One element with the parts as its content.
Bytes der(unsigned char tag, std::initializer_list<Bytes> parts);

/// An INTEGER of an unsigned number, big-endian.
Bytes derInteger(const Bytes& number);

/// r and s side by side as the ECDSA-Sig-Value of RFC 3279, and back to `size` bytes.
Bytes derOfEcSignature(const Bytes& raw);
Bytes rawEcSignature(const Bytes& encoded, std::size_t size);

}  // namespace test
