// The turn between CryptoAPI's little-endian RSA data and the token library's big-endian one.
#pragma once

#include <algorithm>
#include <memory>
#include <new>
#include <span>

/// `bytes` in reversed order, in a block of that size; null when there is no memory for it.
inline std::unique_ptr<unsigned char[]> reversedCopy(std::span<const unsigned char> bytes) {
    std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[bytes.size()]);
    if (copy != nullptr) {
        std::reverse_copy(bytes.begin(), bytes.end(), copy.get());
    }
    return copy;
}
