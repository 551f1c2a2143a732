// KSP_SECRET, the record behind an NCRYPT_SECRET_HANDLE: the raw value of an ECDH agreement, in process memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct KSP_PROVIDER;

struct KSP_SECRET {
    unsigned char secretValue[66] = {};  ///< as the token returned it; 66 is the size on P-521
    std::int32_t secretLength = 0;       ///< bytes used in secretValue; below 1 in a bad handle
    KSP_PROVIDER* provider = nullptr;    ///< borrowed: the provider must outlive the secret

    std::span<const unsigned char> bytes() const { return {secretValue, static_cast<std::size_t>(secretLength)}; }
};
