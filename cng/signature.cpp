// KSPSignHash and KSPVerifySignature.
//
// The padding information that comes with a call is never read: the flags alone choose between PKCS#1 v1.5 and PSS,
// and the hash algorithm and the salt are the token library's. Signatures pass as the library has them: RSA big-endian,
// EC as r || s.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cert/public_key.h"
#include "cng/entry.h"
#include "core/firmware_policy.h"
#include "core/login.h"
#include "core/pin_cache.h"

namespace {

bool isEcKeyType(std::uint32_t keyType) {
    return keyType >= KEY_TYPE_EC_P256 && keyType <= KEY_TYPE_EC_P521;
}

/// Bytes of a signature by the key. `bitSize` is a caller's to set: the sum is made where it cannot wrap.
DWORD signatureSize(const KSP_KEY& key) {
    const std::uint64_t bits = key.bitSize;
    return static_cast<DWORD>(isEcKeyType(key.keyType) ? ((bits + 7) >> 2) & ~std::uint64_t{1} : bits >> 3);
}

/// One signing on the token, into the caller's buffer of `room` bytes. `length` returns the signature's size.
int signOnToken(const KSP_PROVIDER& provider, const KSP_KEY& key, std::span<const unsigned char> hash,
                unsigned char* signature, DWORD room, int& length, bool isPss) {
    length = static_cast<int>(std::min<DWORD>(room, INT_MAX));
    const std::string password = pinStateGetPassword(provider.deviceName);
    return zentok_signHash(provider.deviceName.c_str(), key.credentialId, password.c_str(), hash.data(),
                           static_cast<int>(hash.size()), signature, &length, false, provider.tokenContext, isPss);
}

}  // namespace

SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* /*pPaddingInfo*/,
                                   PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD* pcbResult, DWORD dwFlags) {
    logInfo("KSPSignHash");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPSignHash: provider handle is null or not initialized");
    }
    const KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSignHash: key handle or pcbResult is null");
    }
    const DWORD size = signatureSize(*key);
    if (pbSignature == nullptr) {
        *pcbResult = size;
        logInfo("KSP: SignHash size query, returning " + std::to_string(size));
        return ERROR_SUCCESS;
    }
    if (pbHashValue == nullptr || cbHashValue == 0) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSignHash: pbHashValue is null or cbHashValue is zero");
    }
    if (cbHashValue > INT_MAX) {
        return failStatus(
            NTE_INVALID_PARAMETER,
            "KSPSignHash: more than the token library takes at once, cbHashValue=" + std::to_string(cbHashValue));
    }
    if (cbSignature < size) {
        *pcbResult = size;
        return failStatus(NTE_BUFFER_TOO_SMALL,
                          "KSPSignHash: signature buffer too small, required=" + std::to_string(size));
    }
    if ((dwFlags & NCRYPT_SILENT_FLAG) != 0 && !pinStateIsValidated(provider->deviceName)) {
        return failStatus(NTE_SILENT_CONTEXT, "KSPSignHash: silent mode requested but PIN not validated");
    }
    if (!kspEnsurePasswordValidated(provider->deviceName, provider->tokenContext)) {
        return failStatus(NTE_FAIL, "KSPSignHash: password validation failed");
    }
    // With both flags set this is PKCS#1 v1.5 here and PSS in KSPVerifySignature.
    const bool isPss = (dwFlags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) == BCRYPT_PAD_PSS;
    logInfo(isPss ? "KSP: SignHash - padding=PSS" : "KSP: SignHash - padding=PKCS1");
    if (isPss && !rulePssFirmware("KSPSignHash", provider->firmwareVersion)) {
        return NTE_NOT_SUPPORTED;
    }
    logInfoBytes("KSP: SignHash - credential: ", key->credentialId);
    logInfo("KSP: SignHash - hash length: " + std::to_string(cbHashValue));
    if (!ruleRsa1024Sign("KSPSignHash", static_cast<std::int32_t>(key->keyType), provider->deviceName,
                         provider->tokenContext)) {
        return NTE_NOT_SUPPORTED;
    }
    const std::span<const unsigned char> hash(pbHashValue, cbHashValue);
    int length = 0;
    int result = signOnToken(*provider, *key, hash, pbSignature, cbSignature, length, isPss);
    if (result == TOKEN_SSO_EXPIRED) {
        logInfo("KSP: SignHash SSO expired, re-prompting for PIN");
        pinStateClear(provider->deviceName);
        if (!kspEnsurePasswordValidated(provider->deviceName, provider->tokenContext)) {
            return failStatus(NTE_FAIL, "KSPSignHash: password validation failed after SSO expiry");
        }
        result = signOnToken(*provider, *key, hash, pbSignature, cbSignature, length, isPss);
    }
    if (!ruleWeakHashSign("KSPSignHash", result)) {
        return NTE_NOT_SUPPORTED;
    }
    if (result != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Sign hash failed: " + std::to_string(result));
    }
    if (length < 0 || static_cast<DWORD>(length) > cbSignature) {
        return failStatus(NTE_INTERNAL_ERROR,
                          "KSPSignHash: the token library gave a signature of " + std::to_string(length) + " bytes");
    }
    *pcbResult = static_cast<DWORD>(length);
    logInfo("KSP: SignHash success, signature length=" + std::to_string(length));
    return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* /*pPaddingInfo*/,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                          DWORD dwFlags) {
    logInfo("KSPVerifySignature");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPVerifySignature: provider handle is null or not initialized");
    }
    const KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPVerifySignature: key handle is null");
    }
    if (pbHashValue == nullptr || cbHashValue == 0 || pbSignature == nullptr || cbSignature == 0) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPVerifySignature: invalid input parameters");
    }
    if (cbHashValue > INT_MAX || cbSignature > INT_MAX) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPVerifySignature: more than the token library takes at once");
    }
    if (key->publicKeyLength <= 0) {
        return failStatus(NTE_BAD_KEY, "KSP: No public key for verification");
    }
    std::span<const unsigned char> publicKey = key->publicKeyBytes();
    std::vector<unsigned char> spki;
    if (isEcKeyType(key->keyType)) {
        logInfo("KSP: ECC public key, passing raw EC point");
    } else {
        spki = rsaPublicKeyToSpki(publicKey, "KSP: RSA Public key is raw modulus, converting to DER",
                                  "KSP: RSA Public key is already DER encoded");
        publicKey = spki;
    }
    logInfo("KSP: VerifySignature - hash length: " + std::to_string(cbHashValue));
    logInfo("KSP: VerifySignature - public key DER length: " + std::to_string(publicKey.size()));
    logInfo("KSP: VerifySignature - signature length: " + std::to_string(cbSignature));
    const bool isPss = (dwFlags & BCRYPT_PAD_PSS) != 0;
    logInfo(isPss ? "KSP: VerifySignature - padding=PSS" : "KSP: VerifySignature - padding=PKCS1");
    if (isPss && !rulePssFirmware("KSPVerifySignature", provider->firmwareVersion)) {
        return NTE_NOT_SUPPORTED;
    }
    const int result = zentok_verifySignatureHash(
        key->keyType, provider->deviceName.c_str(), pbHashValue, static_cast<int>(cbHashValue), publicKey.data(),
        static_cast<int>(publicKey.size()), pbSignature, static_cast<int>(cbSignature), provider->tokenContext, isPss);
    if (result != TOKEN_OK) {
        return failStatus(NTE_BAD_SIGNATURE, "KSP: Verify signature failed: " + std::to_string(result));
    }
    logInfo("KSP: Verify signature success");
    return ERROR_SUCCESS;
}
