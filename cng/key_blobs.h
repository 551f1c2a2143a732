// The layouts of the CNG front's key blobs, for both directions. Integers in a blob are little-endian.
//
// Platform contract: the BCRYPT_*_BLOB structures of bcrypt.h, and for the legacy blob the PUBLICKEYBLOB of wincrypt.h.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include <windows.h>

#include <wincrypt.h>

#include "cng/key_storage_interface.h"
#include "core/token_library.h"

using Blob = std::span<const unsigned char>;

/// The header of the legacy blob; the modulus follows, little-endian.
struct LegacyRsaHeader {
    BLOBHEADER blob;
    RSAPUBKEY key;
};
static_assert(sizeof(LegacyRsaHeader) == 20 && sizeof(BCRYPT_RSAKEY_BLOB) == 24);
static_assert(sizeof(BCRYPT_ECCKEY_BLOB) == 8 && sizeof(BCRYPT_KEY_DATA_BLOB_HEADER) == 12);

/// First byte of an uncompressed point (SEC 1), which is X and Y behind it.
constexpr unsigned char UNCOMPRESSED_POINT = 0x04;

struct EccBlobRow {
    std::uint32_t magic;
    std::uint32_t keyType;
    std::uint32_t bitSize;
    std::uint32_t keyUsage;
};
constexpr EccBlobRow ECC_BLOBS[] = {
    {BCRYPT_ECDSA_PUBLIC_P256_MAGIC, KEY_TYPE_EC_P256, 256, KEY_USAGE_SIGN},
    {BCRYPT_ECDSA_PUBLIC_P384_MAGIC, KEY_TYPE_EC_P384, 384, KEY_USAGE_SIGN},
    {BCRYPT_ECDSA_PUBLIC_P521_MAGIC, KEY_TYPE_EC_P521, 521, KEY_USAGE_SIGN},
    {BCRYPT_ECDH_PUBLIC_P256_MAGIC, KEY_TYPE_EC_P256, 256, KEY_USAGE_EXCHANGE},
    {BCRYPT_ECDH_PUBLIC_P384_MAGIC, KEY_TYPE_EC_P384, 384, KEY_USAGE_EXCHANGE},
    {BCRYPT_ECDH_PUBLIC_P521_MAGIC, KEY_TYPE_EC_P521, 521, KEY_USAGE_EXCHANGE},
};

/// The header in front of a blob that is long enough for it.
template <typename Header>
Header readHeader(Blob blob) {
    Header header;
    std::memcpy(&header, blob.data(), sizeof header);
    return header;
}

/// Writes the header and returns where the blob goes on.
template <typename Header>
BYTE* writeHeader(BYTE* out, const Header& header) {
    std::memcpy(out, &header, sizeof header);
    return out + sizeof header;
}
