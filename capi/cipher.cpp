// CPEncrypt and CPDecrypt.
//
// Whether a key object holds an AES key of its own decides between AES in the token library and RSA. CryptoAPI carries
// RSA ciphertext little-endian and the token library big-endian: it is reversed whole on the way out and on the way in.
// AES data passes as it is.
#include <algorithm>
#include <climits>
#include <utility>

#include "capi/entry.h"
#include "capi/reversed_copy.h"
#include "capi/user_keys.h"
#include "cert/public_key.h"
#include "core/firmware_policy.h"
#include "core/library_buffer.h"
#include "core/login.h"
#include "core/pin_cache.h"
#include "core/process_iv.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char ZERO_IV[16] = {};
constexpr DWORD LONGEST_INPUT = INT_MAX;  // bytes, what the library can be told

/// The IV of one AES operation, kept in being while the library reads it: null and empty in ECB mode.
struct Iv {
    std::shared_ptr<const Bytes> owner;
    std::span<const unsigned char> bytes;

    int length() const { return static_cast<int>(bytes.size()); }
};

Iv ivOf(const KEY_HANDLE& key) {
    if (key.mode == CRYPT_MODE_ECB) {
        return {};
    }
    Iv iv = {processIv(), ZERO_IV};
    if (!iv.owner->empty()) {
        iv.bytes = *iv.owner;
    }
    return iv;
}

/// Memory that is wiped before it goes back.
class WipedBuffer {
public:
    explicit WipedBuffer(std::size_t size) : storage(size) {}
    ~WipedBuffer() { SecureZeroMemory(storage.data(), storage.size()); }
    WipedBuffer(const WipedBuffer&) = delete;
    WipedBuffer& operator=(const WipedBuffer&) = delete;
    unsigned char* data() { return storage.data(); }
    std::size_t size() const { return storage.size(); }

private:
    Bytes storage;
};

struct RsaType {
    std::uint32_t publicKeyLength;
    EncryptionType type;
};

// Numbers of bits, held against a length in bytes: real keys are a few hundred bytes long and match no row.
constexpr RsaType RSA_TYPES[] = {
    {1024, ENCRYPTION_RSA_1024},
    {3072, ENCRYPTION_RSA_3072},
    {4096, ENCRYPTION_RSA_4096},
};

EncryptionType rsaTypeOf(std::uint32_t publicKeyLength) {
    const auto* row = std::find_if(std::begin(RSA_TYPES), std::end(RSA_TYPES), [=](const RsaType& candidate) {
        return candidate.publicKeyLength == publicKeyLength;
    });
    return row != std::end(RSA_TYPES) ? row->type : ENCRYPTION_RSA_2048;
}

BOOL failBufferTooSmall(DWORD* pcbDataLen, DWORD required, std::string message) {
    *pcbDataLen = required;
    return fail(ERROR_MORE_DATA, std::move(message));
}

std::string rsaBufferTooSmall(DWORD cbBufLen, DWORD required) {
    return "CPEncrypt: buffer too small, cbBufLen=" + std::to_string(cbBufLen) +
           " requiredSize=" + std::to_string(required);
}

BOOL failUnsound(const char* entry, int length) {
    return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                std::string(entry) + ": the token library gave a result of " + std::to_string(length) + " bytes");
}

/// Public-key encryption: no PIN, no firmware rule, and PKCS#1 v1.5 on every token.
BOOL encryptRsa(const CSP_CONTEXT& context, const KEY_HANDLE& key, DWORD dwFlags, BYTE* pbData, DWORD* pcbDataLen,
                DWORD cbBufLen) {
    const Bytes publicKey =
        rsaPublicKeyToSpki(key.publicKeyBytes(), "CSP: Public key is raw modulus, converting to DER",
                           "CSP: Public key is already DER encoded");
    const PaddingMode padding = (dwFlags & CRYPT_OAEP) != 0 ? PADDING_OAEP : PADDING_PKCS1;
    // The library is not told the room, and bitSize need not be that of the modulus: whatever publicKey holds fits.
    WipedBuffer cipherText(std::max<std::size_t>(key.bitSize / 8, sizeof key.publicKey));
    int length = 0;
    const int result = zentok_encrypt(rsaTypeOf(key.publicKeyLength), padding, pbData, static_cast<int>(*pcbDataLen),
                                      cipherText.data(), &length, publicKey.data(), static_cast<int>(publicKey.size()),
                                      context.tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL), "Encrypt data failed: " + std::to_string(result));
    }
    if (length < 0 || static_cast<std::size_t>(length) > cipherText.size()) {
        return failUnsound("CPEncrypt", length);
    }
    const auto size = static_cast<DWORD>(length);
    if (size > cbBufLen) {
        return failBufferTooSmall(pcbDataLen, size, rsaBufferTooSmall(cbBufLen, size));
    }
    std::reverse_copy(cipherText.data(), cipherText.data() + size, pbData);
    *pcbDataLen = size;
    logInfo("CPEncrypt - return success");
    return TRUE;
}

BOOL encryptAes(const CSP_CONTEXT& context, const KEY_HANDLE& key, bool final, BYTE* pbData, DWORD* pcbDataLen,
                DWORD cbBufLen) {
    const std::uint32_t keyLength = key.symmetricKeyLength;
    logInfo("CPEncrypt: symmetric encryption, keyLen=" + std::to_string(keyLength));
    const bool isEcb = key.mode == CRYPT_MODE_ECB;
    if (!isEcb && keyLength != 16 && keyLength != 24 && keyLength != 32) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY),
                    "CPEncrypt: unsupported symmetric key length: " + std::to_string(keyLength));
    }
    const EncryptionType shortType = isEcb ? ENCRYPTION_AES_128_ECB : ENCRYPTION_AES_128_CBC;
    const EncryptionType longType = isEcb ? ENCRYPTION_AES_LONG_ECB : ENCRYPTION_AES_LONG_CBC;
    const Iv iv = ivOf(key);
    LibraryBuffer cipherText;
    const int result =
        zentok_encrypt_aes(context.serial.c_str(), keyLength == 16 ? shortType : longType, key.symmetricKey,
                           static_cast<int>(keyLength), pbData, static_cast<int>(*pcbDataLen), &cipherText.data,
                           &cipherText.length, final, iv.bytes.data(), iv.length(), nullptr, 0, context.tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                    "CPEncrypt: symmetric encryption failed: " + std::to_string(result));
    }
    if (!cipherText.isSound()) {
        return failUnsound("CPEncrypt", cipherText.length);
    }
    const auto size = static_cast<DWORD>(cipherText.length);
    if (size > cbBufLen) {
        return failBufferTooSmall(pcbDataLen, size,
                                  "CPEncrypt: symmetric output buffer too small, required=" + std::to_string(size));
    }
    std::copy_n(cipherText.data, cipherText.length, pbData);
    *pcbDataLen = size;
    logInfo("CPEncrypt: symmetric encryption success, length=" + std::to_string(size));
    return TRUE;
}

/// One decryption on the token. What an earlier try left in `plainText` is released.
int decryptOnToken(const CSP_CONTEXT& context, const KEY_HANDLE& key, std::span<const unsigned char> cipherText,
                   LibraryBuffer& plainText) {
    const std::string password = pinStateGetPassword(context.serial);
    plainText.reset();
    return zentok_decrypt(context.serial.c_str(), key.credentialId, password.c_str(), cipherText.data(),
                          static_cast<int>(cipherText.size()), &plainText.data, &plainText.length, key.tokenFlag,
                          context.tokenContext);
}

/// Hands the plaintext to the caller, whose buffer is taken to hold it because it held the ciphertext.
BOOL deliver(const LibraryBuffer& plainText, BYTE* pbData, DWORD* pcbDataLen) {
    *pcbDataLen = static_cast<DWORD>(plainText.length);
    std::copy_n(plainText.data, plainText.length, pbData);
    logInfo("CPDecrypt- return");
    return TRUE;
}

BOOL decryptRsa(const CSP_CONTEXT& context, const KEY_HANDLE& key, bool isOaep, BYTE* pbData, DWORD* pcbDataLen) {
    if (!isOaep && !rulePkcs1Decrypt("CPDecrypt", context.serial, context.tokenContext)) {
        return failQuietly(static_cast<DWORD>(NTE_BAD_FLAGS));
    }
    if (!ensurePasswordValidated(&context)) {
        logError("CPDecrypt: ensurePasswordValidated failed");
        return FALSE;
    }
    logInfo("Before reversing encrypted data");
    const auto bigEndian = reversedCopy({pbData, *pcbDataLen});
    if (bigEndian == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY), "CPDecrypt: failed to allocate the reversed data");
    }
    const std::span<const unsigned char> cipherText(bigEndian.get(), *pcbDataLen);
    logInfo("After reversing encrypted data");
    logInfo("Before decrypting data");
    LibraryBuffer plainText;
    int result = decryptOnToken(context, key, cipherText, plainText);
    if (result == TOKEN_SSO_EXPIRED) {
        logInfo("CPDecrypt: SSO expired, re-prompting for PIN");
        pinStateClear(context.serial);
        if (!ensurePasswordValidated(&context)) {
            logError("CPDecrypt: ensurePasswordValidated failed after SSO expiry");
            return FALSE;
        }
        result = decryptOnToken(context, key, cipherText, plainText);
    }
    logInfo("After decrypting data");
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL), "Decrypt data failed : " + std::to_string(result));
    }
    if (!plainText.isSound()) {
        return failUnsound("CPDecrypt", plainText.length);
    }
    return deliver(plainText, pbData, pcbDataLen);
}

BOOL decryptAes(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pcbDataLen) {
    const Iv iv = ivOf(key);
    logInfoBytes("CPDecrypt input iv : ", iv.bytes);
    // The clear key in the log is wanted, at this level only.
    logInfoBytes("CPDecrypt input key : ", {key.symmetricKey, key.symmetricKeyLength});
    LibraryBuffer plainText;
    const int result =
        zentok_decrypt_aes(context.serial.c_str(), key.symmetricKey, static_cast<int>(key.symmetricKeyLength), pbData,
                           static_cast<int>(*pcbDataLen), &plainText.data, &plainText.length, false, iv.bytes.data(),
                           iv.length(), context.tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                    "Symmetric decryption failed : " + std::to_string(result));
    }
    if (!plainText.isSound()) {
        return failUnsound("CPDecrypt", plainText.length);
    }
    logInfoBytes("CPDecrypt - decrypted data : ", plainText.bytes());
    return deliver(plainText, pbData, pcbDataLen);
}

}  // namespace

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH /*hHash*/, BOOL Final, DWORD dwFlags, BYTE* pbData,
                      DWORD* pcbDataLen, DWORD cbBufLen) {
    logInfo("CPEncrypt");
    if (pcbDataLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPEncrypt: pcbDataLen is null");
    }
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPEncrypt: context is null or not initialized");
    }
    const KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPEncrypt: key handle is null");
    }
    // For an AES key this is the size of the key, not of the ciphertext, which is learnt by trying.
    const DWORD required = key->bitSize / 8;
    if (pbData == nullptr) {
        *pcbDataLen = required;
        return TRUE;
    }
    if (cbBufLen < required) {
        return failBufferTooSmall(pcbDataLen, required, rsaBufferTooSmall(cbBufLen, required));
    }
    if (*pcbDataLen == 0 || *pcbDataLen > LONGEST_INPUT) {
        return fail(static_cast<DWORD>(NTE_BAD_LEN), "Invalid data length for encrypt: " + std::to_string(*pcbDataLen));
    }
    if (key->symmetricKeyLength != 0) {
        return encryptAes(*context, *key, Final != FALSE, pbData, pcbDataLen, cbBufLen);
    }
    return encryptRsa(*context, *key, dwFlags, pbData, pcbDataLen, cbBufLen);
}

BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH /*hHash*/, BOOL /*Final*/, DWORD dwFlags,
                      BYTE* pbData, DWORD* pcbDataLen) {
    logInfo("CPDecrypt");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPDecrypt: context is null or not initialized");
    }
    const KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPDecrypt: key handle is null");
    }
    // The flag is for the firmware rule and this line. What padding is removed, the token decides.
    const bool isOaep = (dwFlags & CRYPT_OAEP) != 0;
    logInfo("CPDecrypt - dwFlags : 0x" + hex32(dwFlags) +
            " padding=" + (isOaep ? "OAEP" : "PKCS1 (defaulting to OAEP)"));
    logInfoBytes("CPDecrypt - key id : ", {key->credentialId, key->credentialIdLength});
    logInfo("CPDecrypt - usage : " + std::to_string(key->keyUsage));
    // Unlike its sibling this entry relies on the length pointer.
    if (pbData == nullptr || *pcbDataLen == 0 || *pcbDataLen > LONGEST_INPUT) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA),
                    "Invalid data length for decrypt : " + std::to_string(*pcbDataLen));
    }
    if (key->symmetricKeyLength != 0) {
        return decryptAes(*context, *key, pbData, pcbDataLen);
    }
    return decryptRsa(*context, *key, isOaep, pbData, pcbDataLen);
}
