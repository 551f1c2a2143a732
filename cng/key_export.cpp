// KSPExportKey: public keys only.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "cng/entry.h"
#include "cng/key_blobs.h"
#include "cng/output.h"
#include "core/key_record.h"
#include "core/wide_text.h"

namespace {

constexpr DWORD EXPONENT = 65537;  // written for every RSA key: its own is not consulted
constexpr unsigned char EXPONENT_BYTES[] = {0x01, 0x00, 0x01};

/// Fetches the public key of an object that has none from the token, and leaves the object as it is when the token has
/// no such key either. The one place where a key object learns something after it was made.
void refillPublicKey(const KSP_PROVIDER& provider, KSP_KEY& key) {
    if (key.publicKeyLength > 0) {
        return;
    }
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(provider.deviceName.c_str(), provider.tokenContext);
    const auto found = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
        return std::memcmp(candidate.credentialId, key.credentialId, sizeof key.credentialId) == 0;
    });
    if (found == keys.end()) {
        return;
    }
    if (found->publicKeyLength < 0 || found->publicKeyLength > static_cast<std::int32_t>(sizeof key.publicKey)) {
        logError("KSPExportKey: the token library gave a public key of " + std::to_string(found->publicKeyLength) +
                 " bytes");
    } else {
        std::copy_n(found->publicKey, found->publicKeyLength, key.publicKey);
        key.publicKeyLength = found->publicKeyLength;
    }
}

/// True when there is room to write a blob of `size` bytes. Otherwise `status` is the entry's answer.
bool hasRoom(const Output& out, std::size_t size, const char* tooSmall, SECURITY_STATUS& status) {
    *out.pcbResult = static_cast<DWORD>(size);
    status = ERROR_SUCCESS;
    if (out.pbOutput == nullptr) {
        return false;
    }
    if (out.cbOutput < size) {
        status = failOutputSize(out, size, tooSmall);
        return false;
    }
    return true;
}

SECURITY_STATUS exportLegacyRsa(Blob modulus, const Output& out) {
    const auto bits = static_cast<DWORD>(modulus.size() * 8);
    const LegacyRsaHeader header = {{PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, CALG_RSA_KEYX},
                                    {BCRYPT_RSAPUBLIC_MAGIC, bits, EXPONENT}};
    SECURITY_STATUS status = ERROR_SUCCESS;
    if (!hasRoom(out, sizeof header + modulus.size(),
                 "KSPExportKey: LEGACY_RSAPUBLIC_BLOB output buffer too small, required=", status)) {
        return status;
    }
    std::ranges::reverse_copy(modulus, writeHeader(out.pbOutput, header));
    return ERROR_SUCCESS;
}

SECURITY_STATUS exportRsa(Blob modulus, const Output& out) {
    const auto bits = static_cast<DWORD>(modulus.size() * 8);
    const BCRYPT_RSAKEY_BLOB header = {
        BCRYPT_RSAPUBLIC_MAGIC, bits, sizeof EXPONENT_BYTES, static_cast<DWORD>(modulus.size()), 0, 0};
    SECURITY_STATUS status = ERROR_SUCCESS;
    if (!hasRoom(out, sizeof header + sizeof EXPONENT_BYTES + modulus.size(),
                 "KSPExportKey: BCRYPT_RSAPUBLIC_BLOB output buffer too small, required=", status)) {
        return status;
    }
    std::ranges::copy(modulus, std::ranges::copy(EXPONENT_BYTES, writeHeader(out.pbOutput, header)).out);
    logInfo("KSP: Public key exported, bits=" + std::to_string(bits));
    return ERROR_SUCCESS;
}

/// Whatever the object holds counts as the modulus: a DER key goes out as its DER.
SECURITY_STATUS exportRsaRoad(const KSP_PROVIDER& provider, KSP_KEY& key, decltype(exportRsa)* write,
                              const Output& out) {
    refillPublicKey(provider, key);
    if (key.publicKeyLength < 1) {
        return failStatus(NTE_BAD_KEY, "KSP: No public key data available for export");
    }
    return write(key.publicKeyBytes(), out);
}

SECURITY_STATUS exportEccRoad(const KSP_PROVIDER& provider, KSP_KEY& key, const Output& out) {
    logInfo("Enter to the BCRYPT_ECCPUBLIC_BLOB");
    refillPublicKey(provider, key);
    if (key.publicKeyLength < 3 || key.publicKey[0] != UNCOMPRESSED_POINT) {
        return failStatus(NTE_BAD_KEY, "KSPExportKey: ECC public key not available or invalid format");
    }
    const auto cbKey = static_cast<DWORD>(key.publicKeyLength - 1) / 2;
    const std::uint32_t usage = key.keyUsage == KEY_USAGE_EXCHANGE ? KEY_USAGE_EXCHANGE : KEY_USAGE_SIGN;
    const auto* row = std::find_if(std::begin(ECC_BLOBS), std::end(ECC_BLOBS), [&](const EccBlobRow& candidate) {
        return candidate.keyType == key.keyType && candidate.keyUsage == usage;
    });
    if (row == std::end(ECC_BLOBS)) {
        return failStatus(NTE_NOT_SUPPORTED, "KSPExportKey: key is not ECC");
    }
    const BCRYPT_ECCKEY_BLOB header = {row->magic, cbKey};
    const Blob coordinates = key.publicKeyBytes().subspan(1, std::size_t{2} * cbKey);
    SECURITY_STATUS status = ERROR_SUCCESS;
    if (!hasRoom(out, sizeof header + coordinates.size(),
                 "KSPExportKey: BCRYPT_ECCPUBLIC_BLOB buffer too small, required=", status)) {
        return status;
    }
    std::ranges::copy(coordinates, writeHeader(out.pbOutput, header));
    logInfo("KSPExportKey: ECC public key exported, cbKey=" + std::to_string(cbKey));
    return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                    NCRYPT_KEY_HANDLE /*hExportKey*/, LPCWSTR pszBlobType,
                                    NCryptBufferDesc* /*pParameterList*/, PBYTE pbOutput, DWORD cbOutput,
                                    DWORD* pcbResult, DWORD /*dwFlags*/) {
    logInfo("KSPExportKey");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPExportKey: provider handle is null or not initialized");
    }
    KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr || pszBlobType == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPExportKey: key handle, pszBlobType, or pcbResult is null");
    }
    const Output out = {pbOutput, cbOutput, pcbResult};
    const WideView blobType(pszBlobType);
    if (blobType == TEXT("PRIVATEBLOB") || blobType == TEXT("CAPIPRIVATEBLOB")) {
        return failStatus(NTE_NOT_SUPPORTED, "KSPExportKey: private key export not supported");
    }
    if (blobType == TEXT("RSAPUBLICBLOB") || blobType == TEXT("PUBLICBLOB")) {
        return exportRsaRoad(*provider, *key, exportRsa, out);
    }
    if (blobType == TEXT("CAPIPUBLICBLOB")) {
        return exportRsaRoad(*provider, *key, exportLegacyRsa, out);
    }
    if (blobType == TEXT("ECCPUBLICBLOB")) {
        return exportEccRoad(*provider, *key, out);
    }
    return failStatus(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for export");
}
