// KSPImportKey.
//
// Public keys stay in the object and never touch the token. A clear or wrapped AES key goes onto the token, and its
// bytes do not stay here; one that is encrypted to an RSA key of the token stays in the object only. No road asks for a
// PIN: the password that the cache holds is handed on, and it is the token library that refuses an empty one.
#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "cert/key_encoding.h"
#include "cert/wrapped_key.h"
#include "cng/entry.h"
#include "cng/key_blobs.h"
#include "core/container_map.h"
#include "core/library_buffer.h"
#include "core/pin_cache.h"
#include "core/wide_text.h"

namespace {

constexpr char ENTRY[] = "KSPImportKey";

/// What one call brings. Each road fills a key object of zeros, which is the caller's only on success.
struct Import {
    const KSP_PROVIDER& provider;
    const KSP_KEY* importKey;  ///< null for none
    Blob blob;
};

struct AesLength {
    std::size_t bytes;
    SymmetricKeyType keyType;
};
constexpr AesLength AES_LENGTHS[] = {
    {16, KEY_TYPE_AES_128},
    {24, KEY_TYPE_AES_192},
    {32, KEY_TYPE_AES_256},
};

/// The row of a key of `bytes`; null for a length that AES does not have.
const AesLength* findAesLength(std::size_t bytes) {
    const auto* row = std::find_if(std::begin(AES_LENGTHS), std::end(AES_LENGTHS),
                                   [&](const AesLength& candidate) { return candidate.bytes == bytes; });
    return row != std::end(AES_LENGTHS) ? row : nullptr;
}

void setPublicKey(KSP_KEY& key, Blob publicKey) {
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = static_cast<std::int32_t>(publicKey.size());
}

/// Only the modulus is kept; the exponent counts as 65537 from here on.
SECURITY_STATUS importRsaPublicBlob(const Import& request, KSP_KEY& key) {
    const Blob blob = request.blob;
    if (blob.size() < sizeof(BCRYPT_RSAKEY_BLOB)) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small");
    }
    const auto header = readHeader<BCRYPT_RSAKEY_BLOB>(blob);
    if (header.Magic != BCRYPT_RSAPUBLIC_MAGIC) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB invalid magic");
    }
    const std::size_t modulusOffset = sizeof header + std::size_t{header.cbPublicExp};
    if (blob.size() < modulusOffset + header.cbModulus) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");
    }
    const std::int32_t keyType = rsaBitsToKeySize(header.BitLength);
    if (keyType == 0) {
        return failStatus(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size: " + std::to_string(header.BitLength));
    }
    if (header.cbModulus > sizeof key.publicKey) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB modulus too large, cbModulus=" +
                                            std::to_string(header.cbModulus));
    }
    setPublicKey(key, blob.subspan(modulusOffset, header.cbModulus));
    key.bitSize = header.BitLength;
    key.keyType = static_cast<std::uint32_t>(keyType);
    logInfo("KSP: RSA public key imported, bits=" + std::to_string(header.BitLength));
    return ERROR_SUCCESS;
}

/// The coordinates may be longer or shorter than the curve's.
SECURITY_STATUS importEccPublicBlob(const Import& request, KSP_KEY& key) {
    const Blob blob = request.blob;
    if (blob.size() < sizeof(BCRYPT_ECCKEY_BLOB)) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB too small");
    }
    const auto header = readHeader<BCRYPT_ECCKEY_BLOB>(blob);
    const std::size_t coordinatesSize = std::size_t{2} * header.cbKey;
    if (blob.size() < sizeof header + coordinatesSize) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB data too small for key material");
    }
    const auto* row = std::find_if(std::begin(ECC_BLOBS), std::end(ECC_BLOBS),
                                   [&](const EccBlobRow& candidate) { return candidate.magic == header.dwMagic; });
    if (row == std::end(ECC_BLOBS)) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: unknown ECC blob magic");
    }
    if (1 + coordinatesSize > sizeof key.publicKey) {
        return failStatus(NTE_BAD_DATA,
                          "KSPImportKey: BCRYPT_ECCPUBLIC_BLOB point too large, cbKey=" + std::to_string(header.cbKey));
    }
    std::vector<unsigned char> point = {UNCOMPRESSED_POINT};
    const Blob coordinates = blob.subspan(sizeof header, coordinatesSize);
    point.insert(point.end(), coordinates.begin(), coordinates.end());
    setPublicKey(key, point);
    key.keyType = row->keyType;
    key.bitSize = row->bitSize;
    key.keyUsage = row->keyUsage;
    logInfo("KSPImportKey: ECC public key imported, cbKey=" + std::to_string(header.cbKey));
    return ERROR_SUCCESS;
}

/// Keeps the key as DER, with the exponent that the blob has: unlike the other RSA road.
SECURITY_STATUS importLegacyPublicBlob(const Import& request, KSP_KEY& key) {
    const Blob blob = request.blob;
    if (blob.size() < sizeof(LegacyRsaHeader)) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for header");
    }
    const RSAPUBKEY header = readHeader<LegacyRsaHeader>(blob).key;
    if (header.magic != BCRYPT_RSAPUBLIC_MAGIC) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB invalid magic");
    }
    const std::size_t modulusSize = header.bitlen >> 3;
    if (blob.size() < sizeof(LegacyRsaHeader) + modulusSize) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for modulus");
    }
    const std::unique_ptr<unsigned char[]> modulus(new (std::nothrow) unsigned char[modulusSize]);
    if (modulus == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB failed to allocate modulus buffer");
    }
    std::ranges::reverse_copy(blob.subspan(sizeof(LegacyRsaHeader), modulusSize), modulus.get());
    const std::vector<unsigned char> exponent = intToBigEndianBytes(static_cast<std::int32_t>(header.pubexp), 3);
    logInfoBytes("KSP: Public exponent : ", exponent);
    const std::int32_t keyType = rsaBitsToKeySize(header.bitlen);
    if (keyType == 0) {
        return failStatus(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");
    }
    // 550 bytes at most, for a modulus of 4096 bits.
    setPublicKey(key, rsaPublicKeyBytesToSpki({modulus.get(), modulusSize}, exponent));
    key.credentialIdLength = CREDENTIAL_ID_SIZE;
    key.bitSize = header.bitlen;
    key.keyType = static_cast<std::uint32_t>(keyType);
    logInfo("KSP: Legacy RSA public key imported successfully");
    return ERROR_SUCCESS;
}

/// Stores a clear AES key on the token and makes the object that names it there.
SECURITY_STATUS importOntoToken(const Import& request, KSP_KEY& key, Blob clearKey, SymmetricKeyType keyType,
                                const char* refused, const char* imported) {
    ZentokSymmetricKey record = {};
    if (!fillSymmetricKey(ENTRY, record, clearKey, keyType)) {
        return NTE_BAD_TYPE;
    }
    const KSP_PROVIDER& provider = request.provider;
    const std::string password = pinStateGetPassword(provider.deviceName);
    if (zentok_importAesKey(provider.deviceName.c_str(), password.c_str(), &record, provider.tokenContext) !=
        TOKEN_OK) {
        return failStatus(NTE_BAD_TYPE, refused);
    }
    if (!isReadableAnswer(ENTRY, record)) {
        return NTE_BAD_TYPE;
    }
    std::copy(std::begin(record.credentialId), std::end(record.credentialId), key.credentialId);
    key.credentialIdLength = CREDENTIAL_ID_SIZE;
    std::copy(std::begin(record.keyLabel), std::end(record.keyLabel), key.keyLabel);
    key.keyLabelLength = record.keyLabelLength;
    std::copy_n(record.alias, sizeof key.alias, key.alias);
    key.keyUsage = static_cast<std::uint32_t>(record.keyUsage);
    key.tokenFlag = record.tokenFlag;
    key.keyType = static_cast<std::uint32_t>(keyType);
    logInfo(imported);
    return ERROR_SUCCESS;
}

/// The blob as a whole is a wrapped key.
SECURITY_STATUS importOpaqueKeyBlob(const Import& request, KSP_KEY& key) {
    logInfo("KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = " + std::to_string(request.blob.size()));
    if (request.blob.size() > INT_MAX) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_OPAQUE_KEY_BLOB too large");
    }
    LibraryBuffer clearKey;
    if (!unwrapWithTokenKey(request.provider.deviceName, request.provider.tokenContext, request.blob,
                            "KSP: Successfully unwrapped key with KEK: ", clearKey)) {
        return failStatus(NTE_BAD_KEY, "KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK");
    }
    if (!clearKey.isSound()) {
        return failStatus(NTE_BAD_KEY, "KSPImportKey: the token library gave an unwrapped key of " +
                                           std::to_string(clearKey.length) + " bytes");
    }
    // Coarser than the other roads: what is not of 128 bits counts as of 256, a 192-bit key too.
    return importOntoToken(request, key, clearKey.bytes(), clearKey.length == 16 ? KEY_TYPE_AES_128 : KEY_TYPE_AES_256,
                           "KSP: Import of unwrapped AES key failed",
                           "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully");
}

SECURITY_STATUS importKeyDataBlob(const Import& request, KSP_KEY& key) {
    const Blob blob = request.blob;
    if (blob.size() < sizeof(BCRYPT_KEY_DATA_BLOB_HEADER)) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for header");
    }
    const auto header = readHeader<BCRYPT_KEY_DATA_BLOB_HEADER>(blob);
    if (header.dwMagic != BCRYPT_KEY_DATA_BLOB_MAGIC) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB invalid magic");
    }
    if (blob.size() < sizeof header + std::size_t{header.cbKeyData}) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for key material");
    }
    const AesLength* row = findAesLength(header.cbKeyData);
    if (row == nullptr) {
        return failStatus(NTE_NOT_SUPPORTED,
                          "KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: " + std::to_string(header.cbKeyData));
    }
    return importOntoToken(request, key, blob.subspan(sizeof header, header.cbKeyData), row->keyType,
                           "KSP: BCRYPT_KEY_DATA_BLOB import failed",
                           "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)");
}

/// An AES key encrypted to the RSA key `importKey` of the token, raw under whatever name the blob type has: nothing is
/// parsed, and the key is not stored on the token.
SECURITY_STATUS importEncryptedBlob(const Import& request, KSP_KEY& key) {
    if (request.importKey == nullptr) {
        return failStatus(NTE_BAD_KEY, "KSP: Encrypted key import requires import key handle");
    }
    const KSP_KEY& importKey = *request.importKey;
    logInfo("KSP: Input key id : " + keyText(importKey.credentialId));
    if (request.blob.size() > INT_MAX) {
        return failStatus(NTE_BAD_DATA, "KSPImportKey: encrypted key too large");
    }
    const KSP_PROVIDER& provider = request.provider;
    const std::string password = pinStateGetPassword(provider.deviceName);
    LibraryBuffer clearKey;
    if (zentok_decrypt(provider.deviceName.c_str(), importKey.credentialId, password.c_str(), request.blob.data(),
                       static_cast<int>(request.blob.size()), &clearKey.data, &clearKey.length, importKey.tokenFlag,
                       provider.tokenContext) != TOKEN_OK) {
        return failStatus(NTE_BAD_DATA, "KSP: Encrypted key decryption failed");
    }
    const AesLength* row = clearKey.isSound() ? findAesLength(clearKey.bytes().size()) : nullptr;
    if (row == nullptr) {
        return failStatus(NTE_NOT_SUPPORTED,
                          "KSP: Unsupported decrypted key length: " + std::to_string(clearKey.length));
    }
    std::ranges::copy(clearKey.bytes(), key.symmetricKey);
    key.symmetricKeyLength = clearKey.length;
    key.credentialIdLength = CREDENTIAL_ID_SIZE;  // of zeros
    key.keyType = static_cast<std::uint32_t>(row->keyType);
    logInfo("KSP: Encrypted key imported successfully");
    return ERROR_SUCCESS;
}

struct ImportRoad {
    WideView blobType;
    SECURITY_STATUS (*run)(const Import& request, KSP_KEY& key);
};
constexpr ImportRoad IMPORT_ROADS[] = {
    {TEXT("RSAPUBLICBLOB"), importRsaPublicBlob},   {TEXT("PUBLICBLOB"), importRsaPublicBlob},
    {TEXT("ECCPUBLICBLOB"), importEccPublicBlob},   {TEXT("OpaqueKeyBlob"), importOpaqueKeyBlob},
    {TEXT("KeyDataBlob"), importKeyDataBlob},       {TEXT("CAPIPUBLICBLOB"), importLegacyPublicBlob},
    {TEXT("OpaqueTransport"), importEncryptedBlob}, {TEXT("PKCS8_PRIVATEKEY"), importEncryptedBlob},
};

}  // namespace

SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc* /*pParameterList*/, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData,
                                    DWORD cbData, DWORD /*dwFlags*/) {
    logInfo("KSPImportKey");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPImportKey: provider handle is null or not initialized");
    }
    if (pszBlobType == nullptr || phKey == nullptr || pbData == nullptr || cbData == 0) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPImportKey: invalid parameters");
    }
    const Import request = {*provider, kspKeyOf(hImportKey), {pbData, cbData}};
    const WideView blobType(pszBlobType);
    const auto* row = std::find_if(std::begin(IMPORT_ROADS), std::end(IMPORT_ROADS),
                                   [&](const ImportRoad& candidate) { return blobType == candidate.blobType; });
    // With a key to decrypt it, whatever has no road of its own is an encrypted key.
    const bool isKnown = row != std::end(IMPORT_ROADS);
    if (!isKnown && request.importKey == nullptr) {
        return failStatus(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for import");
    }
    std::unique_ptr<KSP_KEY> key(new (std::nothrow) KSP_KEY);
    if (key == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPImportKey: failed to allocate key");
    }
    key->finalized = true;
    const SECURITY_STATUS status = (isKnown ? row->run : importEncryptedBlob)(request, *key);
    if (status == ERROR_SUCCESS) {
        *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    }
    return status;
}
