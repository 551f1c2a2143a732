// DER as certificates, requests and openssl have it (X.690): written by the tests, and ECDSA signatures read back.
#pragma once

#include <algorithm>
#include <vector>

#include "tests/support/openssl.h"

namespace test {

inline Bytes withoutLeadingZeros(const Bytes& number) {
    return {std::find_if(number.begin(), number.end(), [](unsigned char byte) { return byte != 0; }), number.end()};
}

inline Bytes slice(const Bytes& bytes, std::size_t begin, std::size_t size) {
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin);
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

inline Bytes joined(const std::vector<Bytes>& parts) {
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

/// One element with the parts as its content.
inline Bytes der(unsigned char tag, const std::vector<Bytes>& parts) {
    const Bytes content = joined(parts);
    Bytes size;
    for (std::size_t rest = content.size(); rest != 0; rest >>= 8) {
        size.insert(size.begin(), static_cast<unsigned char>(rest));
    }
    if (content.size() > 0x7F) {
        size.insert(size.begin(), static_cast<unsigned char>(0x80 + size.size()));
    } else {
        size = {static_cast<unsigned char>(content.size())};
    }
    return joined({{tag}, size, content});
}

/// An INTEGER of an unsigned number, big-endian.
inline Bytes derInteger(const Bytes& number) {
    Bytes content = withoutLeadingZeros(number);
    if (content.empty() || content.front() > 0x7F) {
        content.insert(content.begin(), 0);
    }
    return der(0x02, {content});
}

/// r and s side by side as the ECDSA-Sig-Value of RFC 3279, and back to `size` bytes.
inline Bytes derOfEcSignature(const Bytes& raw) {
    const std::size_t half = raw.size() / 2;
    return der(0x30, {derInteger(slice(raw, 0, half)), derInteger(slice(raw, half, half))});
}

inline Bytes rawEcSignature(const Bytes& encoded, std::size_t size) {
    Bytes raw;
    std::size_t at = encoded.at(1) > 0x7F ? 3 : 2;
    for (int count = 0; count < 2; ++count) {
        const std::size_t length = encoded.at(at + 1);
        const Bytes number = withoutLeadingZeros(slice(encoded, at + 2, length));
        raw = joined({raw, Bytes(size / 2 - number.size(), 0), number});
        at += 2 + length;
    }
    return raw;
}

}  // namespace test
