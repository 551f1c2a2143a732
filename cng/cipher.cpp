// KSPEncrypt and KSPDecrypt.
//
// An object with a symmetric key is an AES key that lives in it; every other object is an RSA key, encrypted with its
// public key and decrypted on the token. AES runs in the token library under the key handed in and asks for no PIN. Its
// CBC takes the IV of the process (core/process_iv.h), which no operation advances, and its ECB none.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cert/public_key.h"
#include "cng/entry.h"
#include "cng/output.h"
#include "core/firmware_policy.h"
#include "core/library_buffer.h"
#include "core/login.h"
#include "core/pin_cache.h"
#include "core/process_iv.h"
#include "core/wide_text.h"

namespace {

constexpr std::size_t HASH_NAME_LOGGED = 63;  // characters

struct RsaType {
    std::uint32_t bits;
    EncryptionType type;
};
constexpr RsaType RSA_TYPES[] = {
    {1024, ENCRYPTION_RSA_1024},
    {2048, ENCRYPTION_RSA_2048},
    {3072, ENCRYPTION_RSA_3072},
    {4096, ENCRYPTION_RSA_4096},
};
constexpr RsaType DEFAULT_RSA_TYPE = RSA_TYPES[1];

struct OaepPadding {
    WideView hash;
    PaddingMode padding;
};
constexpr OaepPadding OAEP_PADDINGS[] = {
    {TEXT("SHA1"), PADDING_OAEP_SHA1},
    {TEXT("SHA256"), PADDING_OAEP_SHA256},
    {TEXT("SHA384"), PADDING_OAEP_SHA384},
    {TEXT("SHA512"), PADDING_OAEP_SHA512},
};

bool isSymmetric(const KSP_KEY& key) {
    return key.symmetricKeyLength > 0;
}

bool isEcb(const KSP_KEY& key) {
    return key.chainingMode != 0;
}

EncryptionType aesType(const KSP_KEY& key) {
    const bool is128 = key.symmetricKeyLength == 16;
    if (isEcb(key)) {
        return is128 ? ENCRYPTION_AES_128_ECB : ENCRYPTION_AES_LONG_ECB;
    }
    return is128 ? ENCRYPTION_AES_128_CBC : ENCRYPTION_AES_LONG_CBC;
}

/// The type by the object's size, which a caller may have set to anything.
const RsaType& rsaType(std::uint32_t bits) {
    const auto* row = std::find_if(std::begin(RSA_TYPES), std::end(RSA_TYPES),
                                   [&](const RsaType& candidate) { return candidate.bits == bits; });
    return row != std::end(RSA_TYPES) ? *row : DEFAULT_RSA_TYPE;
}

/// What the library may write at most: the ciphertext of the type that it is told, or of the modulus that the public
/// key holds, where an object's size is not its modulus's. No encoding of a key is shorter than its modulus.
std::size_t largestCiphertext(const KSP_KEY& key) {
    return std::max<std::size_t>(rsaType(key.bitSize).bits / 8, key.publicKeyBytes().size());
}

/// The hash that the padding information of an OAEP call names; null for none. The label is not looked at, and without
/// the OAEP flag nothing is.
const WCHAR* oaepHashName(const void* paddingInfo, DWORD flags) {
    const bool isOaep = (flags & NCRYPT_PAD_OAEP_FLAG) != 0 && paddingInfo != nullptr;
    return isOaep ? static_cast<const BCRYPT_OAEP_PADDING_INFO*>(paddingInfo)->pszAlgId : nullptr;
}

PaddingMode rsaPadding(const void* paddingInfo, DWORD flags) {
    if ((flags & NCRYPT_PAD_OAEP_FLAG) == 0) {
        return PADDING_PKCS1;
    }
    const WCHAR* name = oaepHashName(paddingInfo, flags);
    const auto* row =
        std::find_if(std::begin(OAEP_PADDINGS), std::end(OAEP_PADDINGS),
                     [&](const OaepPadding& candidate) { return name != nullptr && WideView(name) == candidate.hash; });
    return row != std::end(OAEP_PADDINGS) ? row->padding : PADDING_OAEP;
}

/// The IV of one AES operation, alive as long as this. Empty goes to the library as a null pointer of length 0.
class OperationIv {
public:
    explicit OperationIv(const KSP_KEY& key) : iv(isEcb(key) ? nullptr : processIv()) {}
    std::span<const unsigned char> bytes() const {
        return iv != nullptr && !iv->empty() ? std::span<const unsigned char>(*iv) : std::span<const unsigned char>();
    }
    const unsigned char* data() const { return bytes().data(); }
    int size() const { return static_cast<int>(bytes().size()); }

private:
    std::shared_ptr<const std::vector<unsigned char>> iv;
};

SECURITY_STATUS failSoundness(const char* entry, int length) {
    return failStatus(NTE_INTERNAL_ERROR,
                      std::string(entry) + ": the token library gave a result of " + std::to_string(length) + " bytes");
}

/// The library counts in signed 32-bit numbers.
SECURITY_STATUS failInputSize(const char* entry, std::size_t size) {
    return failStatus(
        NTE_INVALID_PARAMETER,
        std::string(entry) + ": more than the token library takes at once, cbInput=" + std::to_string(size));
}

void store(const Output& out, std::span<const unsigned char> result) {
    std::copy(result.begin(), result.end(), out.pbOutput);
    *out.pcbResult = static_cast<DWORD>(result.size());
}

/// The size query encrypts too: the library alone knows the padding.
SECURITY_STATUS encryptSymmetric(const KSP_PROVIDER& provider, const KSP_KEY& key, std::span<const unsigned char> input,
                                 const Output& out) {
    logInfo(isEcb(key) ? "KSP: Symmetric encrypt ECB mode" : "KSP: Symmetric encrypt CBC mode");
    if (input.size() > INT_MAX) {
        return failInputSize("KSPEncrypt", input.size());
    }
    const OperationIv iv(key);
    LibraryBuffer result;
    const int status =
        zentok_encrypt_aes(provider.deviceName.c_str(), aesType(key), key.symmetricKey, key.symmetricKeyLength,
                           input.data(), static_cast<int>(input.size()), &result.data, &result.length, false, iv.data(),
                           iv.size(), nullptr, 0, provider.tokenContext);
    if (status != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Symmetric encryption failed: " + std::to_string(status));
    }
    if (!result.isSound()) {
        return failSoundness("KSPEncrypt", result.length);
    }
    const std::span<const unsigned char> bytes = result.bytes();
    if (out.pbOutput == nullptr) {
        *out.pcbResult = static_cast<DWORD>(bytes.size());
        return ERROR_SUCCESS;
    }
    if (out.cbOutput < bytes.size()) {
        return failOutputSize(out, bytes.size(), "KSPEncrypt: symmetric output buffer too small, required=");
    }
    store(out, bytes);
    logInfo("KSP: Symmetric encrypt success, length: " + std::to_string(bytes.size()));
    return ERROR_SUCCESS;
}

SECURITY_STATUS encryptRsa(const KSP_PROVIDER& provider, const KSP_KEY& key, std::span<const unsigned char> input,
                           const void* paddingInfo, const Output& out, DWORD flags) {
    const DWORD size = key.bitSize >> 3;
    if (out.pbOutput == nullptr) {
        *out.pcbResult = size;
        return ERROR_SUCCESS;
    }
    if (out.cbOutput < size) {
        return failOutputSize(out, size, "KSPEncrypt: output buffer too small, required=");
    }
    if (input.size() > INT_MAX) {
        return failInputSize("KSPEncrypt", input.size());
    }
    const std::vector<unsigned char> spki =
        rsaPublicKeyToSpki(key.publicKeyBytes(), "KSP: Public key is raw modulus, converting to DER",
                           "KSP: Public key is already DER encoded");
    // The library is not told the room: where the caller's buffer might be too small, it writes into a spare one.
    const std::size_t bound = largestCiphertext(key);
    std::vector<unsigned char> spare(out.cbOutput < bound ? bound : 0);
    int length = 0;
    const int status = zentok_encrypt(rsaType(key.bitSize).type, rsaPadding(paddingInfo, flags), input.data(),
                                      static_cast<int>(input.size()), spare.empty() ? out.pbOutput : spare.data(),
                                      &length, spki.data(), static_cast<int>(spki.size()), provider.tokenContext);
    if (status != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Encrypt failed: " + std::to_string(status));
    }
    if (length < 0 || static_cast<std::size_t>(length) > std::max<std::size_t>(out.cbOutput, spare.size())) {
        return failSoundness("KSPEncrypt", length);
    }
    const auto written = static_cast<std::size_t>(length);
    if (written > out.cbOutput) {
        return failOutputSize(out, written, "KSPEncrypt: output buffer too small, required=");
    }
    if (!spare.empty()) {
        std::copy_n(spare.begin(), written, out.pbOutput);
    }
    *out.pcbResult = static_cast<DWORD>(written);
    logInfo("KSP: Encrypt success");
    return ERROR_SUCCESS;
}

/// The token decrypts first and the room is compared then: a buffer that is too small costs a private-key operation.
SECURITY_STATUS decryptRsa(const KSP_PROVIDER& provider, const KSP_KEY& key, std::span<const unsigned char> input,
                           const Output& out, DWORD flags) {
    if (input.size() > INT_MAX) {
        return failInputSize("KSPDecrypt", input.size());
    }
    if ((flags & NCRYPT_SILENT_FLAG) != 0 && !pinStateIsValidated(provider.deviceName)) {
        return failStatus(NTE_SILENT_CONTEXT, "KSPDecrypt: silent mode requested but PIN not validated");
    }
    if (!kspEnsurePasswordValidated(provider.deviceName, provider.tokenContext)) {
        return failStatus(NTE_FAIL, "KSPDecrypt: password validation failed");
    }
    LibraryBuffer plain;
    const auto decryptOnToken = [&] {
        plain.reset();
        const std::string password = pinStateGetPassword(provider.deviceName);
        return zentok_decrypt(provider.deviceName.c_str(), key.credentialId, password.c_str(), input.data(),
                              static_cast<int>(input.size()), &plain.data, &plain.length, key.tokenFlag,
                              provider.tokenContext);
    };
    int status = decryptOnToken();
    if (status == TOKEN_SSO_EXPIRED) {
        logInfo("KSP: Decrypt SSO expired, re-prompting for PIN");
        pinStateClear(provider.deviceName);
        if (!kspEnsurePasswordValidated(provider.deviceName, provider.tokenContext)) {
            return failStatus(NTE_FAIL, "KSPDecrypt: password validation failed after SSO expiry");
        }
        status = decryptOnToken();
    }
    if (status != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Decrypt failed: " + std::to_string(status));
    }
    if (!plain.isSound()) {
        return failSoundness("KSPDecrypt", plain.length);
    }
    const std::span<const unsigned char> bytes = plain.bytes();
    if (out.cbOutput < bytes.size()) {
        return failOutputSize(out, bytes.size(), "KSPDecrypt: output buffer too small, required=");
    }
    store(out, bytes);
    logInfo("KSP: Decrypt success");
    return ERROR_SUCCESS;
}

/// The size query decrypts too.
SECURITY_STATUS decryptSymmetric(const KSP_PROVIDER& provider, const KSP_KEY& key, std::span<const unsigned char> input,
                                 const Output& out) {
    logInfo(isEcb(key) ? "KSP: Symmetric decrypt ECB mode" : "KSP: Symmetric decrypt CBC mode");
    if (input.size() > INT_MAX) {
        return failInputSize("KSPDecrypt", input.size());
    }
    // Of zeros: the library may tell of more than it wrote.
    const std::unique_ptr<unsigned char, decltype(&std::free)> scratch(
        static_cast<unsigned char*>(std::calloc(input.size(), 1)), &std::free);
    if (scratch == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPDecrypt: failed to allocate output buffer");
    }
    const OperationIv iv(key);
    logInfoBytes("KSP: Decrypt input iv : ", iv.bytes());
    logInfoBytes("KSP: Decrypt input key : ", {key.symmetricKey, static_cast<std::size_t>(key.symmetricKeyLength)});
    int length = 0;
    const int status = zentok_decryptSymetric(provider.deviceName.c_str(), input.data(), static_cast<int>(input.size()),
                                              scratch.get(), &length, iv.data(), iv.size(), key.symmetricKey,
                                              key.symmetricKeyLength, provider.tokenContext);
    if (status != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Symmetric decryption failed: " + std::to_string(status));
    }
    if (length < 0 || static_cast<std::size_t>(length) > input.size()) {
        return failSoundness("KSPDecrypt", length);
    }
    const std::span<const unsigned char> bytes(scratch.get(), static_cast<std::size_t>(length));
    if (out.pbOutput == nullptr) {
        logInfo("pbOutput == NULL ");
        *out.pcbResult = static_cast<DWORD>(bytes.size());
        return ERROR_SUCCESS;
    }
    if (out.cbOutput < bytes.size()) {
        return failOutputSize(out, bytes.size(), "KSPDecrypt: symmetric output buffer too small, required=");
    }
    logInfo("KSP: Symmetric decrypt success, length: " + std::to_string(bytes.size()));
    store(out, bytes);
    return ERROR_SUCCESS;
}

/// What a caller asked KSPDecrypt for goes to the log before anything is checked, and the hash's name goes nowhere
/// else.
void logDecryptPadding(const void* paddingInfo, DWORD flags) {
    const char* label = "NONE (defaulting to OAEP)";
    if ((flags & NCRYPT_PAD_PKCS1_FLAG) != 0) {
        label = "PKCS1";
    } else if ((flags & NCRYPT_PAD_OAEP_FLAG) != 0) {
        label = "OAEP";
    }
    logInfo("KSPDecrypt: dwFlags=0x" + hex32(flags) + " padding=" + label);
    if (const WCHAR* name = oaepHashName(paddingInfo, flags); name != nullptr) {
        logInfo("KSPDecrypt: OAEP hash algorithm=" + narrowed({name, boundedLength(name, HASH_NAME_LOGGED)}));
    }
}

}  // namespace

SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    logInfo("KSPEncrypt");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPEncrypt: provider handle is null or not initialized");
    }
    const KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPEncrypt: key handle or pcbResult is null");
    }
    // A size query without input ends here too, unlike in KSPDecrypt.
    if (pbInput == nullptr || cbInput == 0) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPEncrypt: pbInput is null or cbInput is zero");
    }
    const std::span<const unsigned char> input(pbInput, cbInput);
    const Output out = {pbOutput, cbOutput, pcbResult};
    return isSymmetric(*key) ? encryptSymmetric(*provider, *key, input, out)
                             : encryptRsa(*provider, *key, input, pPaddingInfo, out, dwFlags);
}

SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    logInfo("KSPDecrypt");
    logDecryptPadding(pPaddingInfo, dwFlags);
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPDecrypt: provider handle is null or not initialized");
    }
    // Before the key is looked at, and so for AES keys too.
    if ((dwFlags & NCRYPT_PAD_PKCS1_FLAG) != 0 &&
        !rulePkcs1Decrypt("KSPDecrypt", provider->deviceName, provider->tokenContext)) {
        return NTE_NOT_SUPPORTED;
    }
    const KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPDecrypt: key handle or pcbResult is null");
    }
    if (!isSymmetric(*key) && pbOutput == nullptr) {
        *pcbResult = key->bitSize >> 3;  // an upper bound of the plaintext's size
        return ERROR_SUCCESS;
    }
    if (pbInput == nullptr || cbInput == 0) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPDecrypt: pbInput is null or cbInput is zero");
    }
    const std::span<const unsigned char> input(pbInput, cbInput);
    const Output out = {pbOutput, cbOutput, pcbResult};
    return isSymmetric(*key) ? decryptSymmetric(*provider, *key, input, out)
                             : decryptRsa(*provider, *key, input, out, dwFlags);
}
