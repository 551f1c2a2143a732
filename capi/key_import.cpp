// CPImportKey: the platform's key blobs, each of which ends in a key object of another kind. No road asks for a PIN:
// without a login the token library refuses.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "capi/entry.h"
#include "capi/reversed_copy.h"
#include "capi/user_keys.h"
#include "cert/key_encoding.h"
#include "cert/wrapped_key.h"
#include "core/container_map.h"
#include "core/library_buffer.h"
#include "core/pin_cache.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::uint32_t RSA_PUBLIC_MAGIC = 0x31415352;  // "RSA1"
constexpr std::size_t MODULUS_OFFSET = 20;
/// What every type's data length leaves out, whatever its own header takes.
constexpr std::size_t DATA_OFFSET = 12;
/// A wrapped key begins right behind the BLOBHEADER; as its length counts from DATA_OFFSET, four bytes stay unread.
constexpr std::size_t WRAPPED_KEY_OFFSET = 8;

/// A key blob of CryptoAPI, little-endian. What lies behind its end reads as 0, which no check takes for valid.
struct KeyBlob {
    std::span<const unsigned char> bytes;

    std::uint32_t byteAt(std::size_t offset) const { return offset < bytes.size() ? bytes[offset] : 0U; }
    std::uint32_t wordAt(std::size_t offset) const {
        return byteAt(offset) | byteAt(offset + 1) << 8 | byteAt(offset + 2) << 16 | byteAt(offset + 3) << 24;
    }
    BYTE type() const { return static_cast<BYTE>(byteAt(0)); }
    ALG_ID algorithm() const { return wordAt(4); }
    /// Negative for a blob that is shorter than its header.
    std::int64_t dataLength() const {
        return static_cast<std::int64_t>(bytes.size()) - static_cast<std::int64_t>(DATA_OFFSET);
    }
};

/// The blob's data of `dataLength` bytes from `offset` on. False with the failure reported when there is none, or more
/// than the token library can be told.
bool readData(const KeyBlob& blob, std::size_t offset, std::span<const unsigned char>& data) {
    if (blob.dataLength() < 0 || blob.dataLength() > INT_MAX) {
        fail(static_cast<DWORD>(NTE_BAD_DATA),
             "CPImportKey: no key data in a blob of " + std::to_string(blob.bytes.size()) + " bytes");
        return false;
    }
    data = blob.bytes.subspan(offset, static_cast<std::size_t>(blob.dataLength()));
    return true;
}

bool isAes(ALG_ID algorithm) {
    return algorithm == CALG_AES_128 || algorithm == CALG_AES_192 || algorithm == CALG_AES_256;
}

/// This front knows two types only: a key of 192 bits goes by that of 256.
SymmetricKeyType keyTypeOf(ALG_ID algorithm) {
    return algorithm == CALG_AES_128 ? KEY_TYPE_AES_128 : KEY_TYPE_AES_256;
}

BOOL failAlgorithm(const char* blobType, ALG_ID algorithm) {
    return fail(static_cast<DWORD>(NTE_BAD_ALGID),
                std::string("Unsupported algorithm for ") + blobType + ": " + std::to_string(algorithm));
}

BOOL failUnsound(int length) {
    return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                "CPImportKey: the token library gave a key of " + std::to_string(length) + " bytes");
}

std::string magicMismatch(std::uint32_t magic) {
    char digits[9] = {};
    std::snprintf(digits, sizeof digits, "%x", magic);
    return std::string("CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x") + digits;
}

/// A public key that stays in the object and never reaches the token.
BOOL importPublicKey(const KeyBlob& blob, KEY_HANDLE& key) {
    if (const std::uint32_t magic = blob.wordAt(8); magic != RSA_PUBLIC_MAGIC) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA), magicMismatch(magic));
    }
    const std::uint32_t bits = blob.wordAt(12);
    const std::size_t modulusSize = bits / 8;
    if (blob.bytes.size() < MODULUS_OFFSET + modulusSize) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA),
                    "CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=" + std::to_string(blob.bytes.size()) +
                        " required=" + std::to_string(MODULUS_OFFSET + modulusSize));
    }
    const auto modulus = reversedCopy(blob.bytes.subspan(MODULUS_OFFSET, modulusSize));
    if (modulus == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY),
                    "CPImportKey PUBLICKEYBLOB: failed to allocate beModulus buffer");
    }
    const Bytes exponent = intToBigEndianBytes(static_cast<std::int32_t>(blob.wordAt(16)), 3);
    logInfoBytes("Public exponent : ", exponent);
    const std::int32_t keyType = rsaBitsToKeySize(bits);
    if (keyType == 0) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA), "Unsupported RSA key size");
    }
    const Bytes publicKey = rsaPublicKeyBytesToSpki({modulus.get(), modulusSize}, exponent);
    std::ranges::copy(publicKey, key.publicKey);  // 550 bytes at most, for a modulus of 4096 bits
    key.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
    key.algId = static_cast<ALG_ID>(keyType);  // no ALG_ID: later readings of KP_ALGID answer 1 to 4
    key.bitSize = bits;
    logInfo("PUBLICKEYBLOB imported successfully");
    return TRUE;
}

/// One decryption of a session key with a private key of the token.
int decryptSessionKey(const CSP_CONTEXT& context, const KEY_HANDLE& privateKey,
                      std::span<const unsigned char> cipherText, LibraryBuffer& sessionKey) {
    return zentok_decrypt(context.serial.c_str(), privateKey.credentialId, pinStateGetPassword(context.serial).c_str(),
                          cipherText.data(), static_cast<int>(cipherText.size()), &sessionKey.data, &sessionKey.length,
                          privateKey.tokenFlag, context.tokenContext);
}

BOOL keepSessionKey(const KeyBlob& blob, const LibraryBuffer& sessionKey, KEY_HANDLE& key) {
    if (!isAes(blob.algorithm())) {
        return failAlgorithm("SIMPLEBLOB", blob.algorithm());
    }
    if (!sessionKey.isSound()) {
        return failUnsound(sessionKey.length);
    }
    const std::span<const unsigned char> bytes = sessionKey.bytes();
    // An object without key bytes would go for an RSA key.
    if (bytes.empty() || bytes.size() > sizeof key.symmetricKey) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA),
                    "CPImportKey: no AES key has " + std::to_string(bytes.size()) + " bytes");
    }
    std::ranges::copy(bytes, key.symmetricKey);
    key.symmetricKeyLength = static_cast<std::uint32_t>(bytes.size());
    key.algId = static_cast<ALG_ID>(keyTypeOf(blob.algorithm()));  // no ALG_ID either
    logInfo("Output key id : " + keyText(key.credentialId));
    logInfo("SIMPLEBLOB imported successfully (AES)");
    return TRUE;
}

/// An AES key under a key pair of the token. Ciphertext in either byte order is taken, CryptoAPI's own first.
BOOL importSimpleBlob(const CSP_CONTEXT& context, const KeyBlob& blob, const KEY_HANDLE* privateKey, KEY_HANDLE& key) {
    if (privateKey == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE), "SIMPLEBLOB requires public key handle");
    }
    logInfo("Input key id : " + keyText(privateKey->credentialId));
    std::span<const unsigned char> data;
    if (!readData(blob, DATA_OFFSET, data)) {
        return FALSE;
    }
    const auto bigEndian = reversedCopy(data);
    if (bigEndian == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY), "CPImportKey SIMPLEBLOB: failed to allocate the reversed key");
    }
    const std::span<unsigned char> cipherText(bigEndian.get(), data.size());
    LibraryBuffer fromReversed;
    if (decryptSessionKey(context, *privateKey, cipherText, fromReversed) == TOKEN_OK) {
        return keepSessionKey(blob, fromReversed, key);
    }
    logError("SIMPLEBLOB decryption failed");
    std::ranges::copy(data, cipherText.begin());
    LibraryBuffer fromBlobOrder;
    if (decryptSessionKey(context, *privateKey, cipherText, fromBlobOrder) == TOKEN_OK) {
        return keepSessionKey(blob, fromBlobOrder, key);
    }
    return fail(static_cast<DWORD>(NTE_FAIL), "SIMPLEBLOB decryption failed (both orderings)");
}

/// Stores an AES key on the token and fills the object from its answer; the clear key does not go into the object.
BOOL storeOnToken(const CSP_CONTEXT& context, ALG_ID algorithm, const char* refusal, ZentokSymmetricKey& record,
                  KEY_HANDLE& key) {
    if (zentok_importAesKey(context.serial.c_str(), pinStateGetPassword(context.serial).c_str(), &record,
                            context.tokenContext) != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE), refusal);
    }
    if (!isReadableAnswer("CPImportKey", record)) {
        return failQuietly(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    }
    std::memcpy(key.credentialId, record.credentialId, sizeof key.credentialId);
    key.algId = algorithm;
    std::memcpy(key.keyLabel, record.keyLabel, sizeof key.keyLabel);
    key.keyLabelLength = static_cast<std::uint32_t>(record.keyLabelLength);
    std::memcpy(key.alias, record.alias, sizeof key.alias - 1);
    key.keyUsage = static_cast<std::uint32_t>(record.keyUsage);
    key.tokenFlag = record.tokenFlag;
    return TRUE;
}

BOOL importPlainKey(const CSP_CONTEXT& context, const KeyBlob& blob, KEY_HANDLE& key) {
    std::span<const unsigned char> data;
    if (!readData(blob, DATA_OFFSET, data)) {
        return FALSE;
    }
    ZentokSymmetricKey record;
    if (!fillSymmetricKey("CPImportKey", record, data, keyTypeOf(blob.algorithm()))) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_DATA));
    }
    if (!isAes(blob.algorithm())) {
        return failAlgorithm("PLAINTEXTKEYBLOB", blob.algorithm());
    }
    if (storeOnToken(context, blob.algorithm(), "PLAINTEXTKEYBLOB import failed", record, key) == FALSE) {
        return FALSE;
    }
    logInfo("PLAINTEXTKEYBLOB imported successfully (AES)");
    return TRUE;
}

BOOL importWrappedKey(const CSP_CONTEXT& context, const KeyBlob& blob, KEY_HANDLE& key) {
    logInfo("SYMMETRICWRAPKEYBLOB: wrapped key length = " + std::to_string(blob.dataLength()));
    std::span<const unsigned char> data;
    if (!readData(blob, WRAPPED_KEY_OFFSET, data)) {
        return FALSE;
    }
    LibraryBuffer unwrapped;
    if (!unwrapWithTokenKey(context.serial, context.tokenContext, data,
                            "Successfully unwrapped key with KEK: ", unwrapped)) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK");
    }
    if (!unwrapped.isSound()) {
        return failUnsound(unwrapped.length);
    }
    // No other algorithm is refused here, unlike on the other roads.
    ZentokSymmetricKey record;
    if (!fillSymmetricKey("CPImportKey", record, unwrapped.bytes(), keyTypeOf(blob.algorithm()))) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_DATA));
    }
    if (storeOnToken(context, blob.algorithm(), "Import of unwrapped AES key failed", record, key) == FALSE) {
        return FALSE;
    }
    logInfo("SYMMETRICWRAPKEYBLOB imported successfully");
    return TRUE;
}

BOOL importBlob(const CSP_CONTEXT& context, const KeyBlob& blob, const KEY_HANDLE* publicKey, KEY_HANDLE& key) {
    switch (blob.type()) {
        case SIMPLEBLOB:
            return importSimpleBlob(context, blob, publicKey, key);
        case PUBLICKEYBLOB:
            return importPublicKey(blob, key);
        case PLAINTEXTKEYBLOB:
            return importPlainKey(context, blob, key);
        case SYMMETRICWRAPKEYBLOB:
            return importWrappedKey(context, blob, key);
        case PRIVATEKEYBLOB:
        case PUBLICKEYBLOBEX:
            return fail(static_cast<DWORD>(NTE_BAD_TYPE), "Key Block Not Implemented yet");
        default:
            return fail(static_cast<DWORD>(NTE_BAD_TYPE),
                        "CPImportKey - Unsupported type : " + std::to_string(blob.type()));
    }
}

}  // namespace

BOOL WINAPI CPImportKey(HCRYPTPROV hProv, CONST BYTE* pbData, DWORD cbDataLen, HCRYPTKEY hPubKey, DWORD dwFlags,
                        HCRYPTKEY* phKey) {
    logInfo("CPImportKey");
    logInfo("Input length : " + std::to_string(cbDataLen));
    logInfo("Input flag : " + std::to_string(dwFlags));
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPImportKey - Input data is null");
    }
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPImportKey - Contest null or not initialised");
    }
    const KeyBlob blob = {{pbData, cbDataLen}};
    logInfo("CPImportKey - input type : " + std::to_string(blob.type()));
    logInfo("CPImportKey - input version : " + std::to_string(blob.byteAt(1)));
    logInfo("CPImportKey - input alg : " + std::to_string(blob.algorithm()));
    logInfo("CPImportKey - input data length : " + std::to_string(blob.dataLength()));
    if (blob.dataLength() == 0) {
        return fail(static_cast<DWORD>(NTE_INVALID_PARAMETER), "CPImportKey - Input data to import is empty");
    }
    // Before the token does any work whose result could not be handed out.
    if (phKey == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPImportKey: phKey is null");
    }
    std::unique_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE());
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY), "CPImportKey: failed to allocate KEY_HANDLE");
    }
    key->mode = 1;
    key->credentialIdLength = CREDENTIAL_ID_SIZE;
    if (importBlob(*context, blob, keyOf(hPubKey), *key) == FALSE) {
        return FALSE;
    }
    *phKey = reinterpret_cast<HCRYPTKEY>(key.release());
    return TRUE;
}
