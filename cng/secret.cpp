// KSPSecretAgreement, KSPDeriveKey and KSPFreeSecret.
#include "cng/secret.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "cng/entry.h"
#include "cng/key_blobs.h"
#include "core/firmware_policy.h"
#include "core/library_buffer.h"
#include "core/login.h"
#include "core/pin_cache.h"
#include "core/token_library.h"
#include "core/wide_text.h"

namespace {

struct DerivationHash {
    const WCHAR* name;
    std::int32_t selector;
    int digestSize;
};

// The last row serves every other name too.
constexpr DerivationHash DERIVATION_HASHES[] = {
    {TEXT("SHA224"), HASH_SHA224, 28}, {TEXT("SHA384"), HASH_SHA384, 48}, {TEXT("SHA512"), HASH_SHA512, 64},
    {TEXT("SHA1"), HASH_SHA1, 20},     {TEXT("SHA256"), HASH_SHA256, 32},
};
constexpr std::size_t LARGEST_DIGEST = 64;

// By its text: not every platform header has BCRYPT_SP80056A_CONCAT_KDF.
constexpr WideView CONCATENATION_KDF = TEXT("SP800_56ACONCAT");

constexpr int SMALLEST_POINT = 3;  // bytes, with its first one

using Bytes = std::span<const unsigned char>;

/// What a derivation reads from its parameter list; the bytes stay the caller's.
struct DerivationParameters {
    WideText hashName;
    Bytes label;
    Bytes context;
};

/// Of two parameters of one type the later counts; types that mean nothing here are passed over.
DerivationParameters readParameters(const NCryptBufferDesc* list) {
    DerivationParameters parameters;
    if (list == nullptr || list->pBuffers == nullptr) {
        return parameters;
    }
    for (const NCryptBuffer& buffer : std::span(list->pBuffers, list->cBuffers)) {
        if (buffer.pvBuffer == nullptr || buffer.cbBuffer == 0) {
            continue;
        }
        const Bytes bytes(static_cast<const unsigned char*>(buffer.pvBuffer), buffer.cbBuffer);
        switch (buffer.BufferType) {
            case KDF_HASH_ALGORITHM:
                parameters.hashName = textOf(bytes);
                break;
            case KDF_LABEL:
                parameters.label = bytes;
                break;
            case KDF_CONTEXT:
                parameters.context = bytes;
                break;
            default:
                break;
        }
    }
    return parameters;
}

const DerivationHash& hashOfName(WideView name) {
    const auto* row = std::find_if(std::begin(DERIVATION_HASHES), std::end(DERIVATION_HASHES),
                                   [=](const DerivationHash& candidate) { return name == candidate.name; });
    return row != std::end(DERIVATION_HASHES) ? *row : *std::prev(std::end(DERIVATION_HASHES));
}

std::vector<unsigned char> concatenate(std::initializer_list<Bytes> pieces) {
    std::vector<unsigned char> whole;
    for (const Bytes piece : pieces) {
        whole.insert(whole.end(), piece.begin(), piece.end());
    }
    return whole;
}

}  // namespace

SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                          NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                          DWORD /*dwFlags*/) {
    logInfo("KSPSecretAgreement");
    KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPSecretAgreement: provider not initialized");
    }
    if (phAgreedSecret == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSecretAgreement: phAgreedSecret is null");
    }
    if (!ruleEcdhFirmware("KSPSecretAgreement", "ECDH", provider->firmwareVersion)) {
        return NTE_NOT_SUPPORTED;
    }
    const KSP_KEY* privateKey = kspKeyOf(hPrivKey);
    const KSP_KEY* peer = kspKeyOf(hPubKey);
    if (privateKey == nullptr || peer == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPSecretAgreement: key handle is null");
    }
    if (privateKey->credentialIdLength == 0) {
        return failStatus(NTE_BAD_KEY, "KSPSecretAgreement: private key has no credential ID (not a device key)");
    }
    if (peer->publicKeyLength < SMALLEST_POINT || peer->publicKey[0] != UNCOMPRESSED_POINT) {
        return failStatus(NTE_BAD_KEY, "KSPSecretAgreement: peer public key is not uncompressed EC point");
    }
    const std::string& device = provider->deviceName;
    if (!kspEnsurePasswordValidated(device, provider->tokenContext)) {
        return failStatus(NTE_FAIL, "KSPSecretAgreement: password validation failed");
    }
    LibraryBuffer shared;
    const int result =
        zentok_ecdhDerive(device.c_str(), privateKey->credentialId, pinStateGetPassword(device).c_str(),
                          peer->publicKey, peer->publicKeyLength, &shared.data, &shared.length, provider->tokenContext);
    if (result != TOKEN_OK || shared.data == nullptr || shared.length < 1) {
        return failStatus(NTE_INTERNAL_ERROR, "KSPSecretAgreement: ECDH derive failed, ret=" + std::to_string(result));
    }
    std::unique_ptr<KSP_SECRET> secret(new (std::nothrow) KSP_SECRET);
    if (secret == nullptr) {
        return failStatus(NTE_NO_MEMORY, "KSPSecretAgreement: failed to allocate secret");
    }
    const std::size_t kept = std::min(shared.bytes().size(), sizeof secret->secretValue);
    std::memcpy(secret->secretValue, shared.data, kept);
    secret->secretLength = static_cast<std::int32_t>(kept);
    secret->provider = provider;
    *phAgreedSecret = reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.release());
    logInfo("KSPSecretAgreement: ECDH shared secret computed, len=" + std::to_string(kept));
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE /*hProvider*/, NCRYPT_SECRET_HANDLE hSharedSecret,
                                    LPCWSTR pwszKDF, NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                    DWORD cbDerivedKey, DWORD* pcbResult, ULONG /*dwFlags*/) {
    logInfo("KSPDeriveKey");
    const KSP_SECRET* secret = kspSecretOf(hSharedSecret);
    if (secret == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPDeriveKey: invalid parameter");
    }
    if (secret->secretLength < 1) {
        return failStatus(NTE_INVALID_HANDLE, "KSPDeriveKey: invalid secret handle");
    }
    const KSP_PROVIDER* provider = secret->provider;
    if (provider != nullptr && !ruleEcdhFirmware("KSPDeriveKey", "ECDH derive", provider->firmwareVersion)) {
        return NTE_NOT_SUPPORTED;
    }
    DerivationParameters parameters = readParameters(pParameterList);
    // No name is refused: all but one mean the plain hash. And even that one runs no counter.
    if (pwszKDF == nullptr || CONCATENATION_KDF != pwszKDF) {
        parameters.label = {};
        parameters.context = {};
    }
    // The library counts in signed 32-bit numbers.
    if (parameters.label.size() + parameters.context.size() > INT_MAX - sizeof secret->secretValue) {
        return failStatus(NTE_INVALID_PARAMETER,
                          "KSPDeriveKey: label and context are larger than the token library takes");
    }
    std::vector<unsigned char> input = concatenate({parameters.label, parameters.context, secret->bytes()});
    const DerivationHash& algorithm = hashOfName(parameters.hashName);
    const char* const device = provider != nullptr ? provider->deviceName.c_str() : "";
    void* const tokenContext = provider != nullptr ? provider->tokenContext : nullptr;
    void* hash = nullptr;
    if (const int result = zentok_initHash(device, algorithm.selector, &hash, tokenContext); result != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSPDeriveKey: zentok_initHash failed, ret=" + std::to_string(result));
    }
    zentok_updateHash(hash, input.data(), static_cast<int>(input.size()), tokenContext);
    SecureZeroMemory(input.data(), input.size());
    unsigned char digest[LARGEST_DIGEST] = {};
    int digestLength = algorithm.digestSize;
    if (const int result = zentok_finalHash(hash, digest, &digestLength, tokenContext); result != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSPDeriveKey: zentok_finalHash failed, ret=" + std::to_string(result));
    }
    if (digestLength < 1 || digestLength > algorithm.digestSize) {
        return failStatus(NTE_INTERNAL_ERROR, "KSPDeriveKey: the token library gave a digest of " +
                                                  std::to_string(digestLength) + " bytes");
    }
    const auto whole = static_cast<DWORD>(digestLength);
    const DWORD size = cbDerivedKey != 0 && cbDerivedKey <= whole ? cbDerivedKey : whole;
    *pcbResult = size;
    if (pbDerivedKey == nullptr) {
        return ERROR_SUCCESS;
    }
    if (cbDerivedKey < size) {
        return failStatus(NTE_BUFFER_TOO_SMALL, "KSPDeriveKey: output buffer too small");
    }
    std::memcpy(pbDerivedKey, digest, size);
    logInfo("KSPDeriveKey: derived " + std::to_string(size) + " bytes");
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE /*hProvider*/, NCRYPT_SECRET_HANDLE hSharedSecret) {
    logInfo("KSPFreeSecret");
    KSP_SECRET* secret = kspSecretOf(hSharedSecret);
    if (secret == nullptr) {
        return ERROR_SUCCESS;
    }
    SecureZeroMemory(secret->secretValue, sizeof secret->secretValue);
    delete secret;
    return ERROR_SUCCESS;
}
