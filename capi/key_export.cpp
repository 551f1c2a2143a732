// CPExportKey: public keys as PUBLICKEYBLOB. Private keys never leave.
#include <algorithm>
#include <cstring>

#include "capi/entry.h"
#include "capi/user_keys.h"

namespace {

constexpr std::size_t BLOB_HEADER_SIZE = sizeof(BLOBHEADER) + sizeof(RSAPUBKEY);
constexpr DWORD RSA_PUBLIC_MAGIC = 0x31415352;  // "RSA1"
constexpr DWORD EXPONENT = 65537;               // written whatever the token's key has

static_assert(BLOB_HEADER_SIZE == 20);

/// The key pair's record in the token's list. Null with the failure reported when there is none, or it cannot be
/// exported.
const ZentokKeyPair* findRsaKeyPair(const std::vector<ZentokKeyPair>& keys, const KEY_HANDLE& key) {
    if (keys.empty()) {
        fail(static_cast<DWORD>(NTE_BAD_KEY), "ExportPublicKeyComponents: key list is empty");
        return nullptr;
    }
    const auto record = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
        return std::memcmp(candidate.credentialId, key.credentialId, sizeof key.credentialId) == 0;
    });
    if (record == keys.end()) {
        fail(static_cast<DWORD>(NTE_BAD_KEY), "ExportPublicKeyComponents: matching key not found in key list");
        return nullptr;
    }
    if (record->keyType < KEY_TYPE_RSA_1024 || record->keyType > KEY_TYPE_RSA_4096) {
        fail(static_cast<DWORD>(NTE_BAD_TYPE),
             "ExportPublicKeyComponents: key algorithm is not RSA, cannot export as PUBLICKEYBLOB");
        return nullptr;
    }
    if (record->publicKeyLength < 0 || record->publicKeyLength > static_cast<std::int32_t>(sizeof record->publicKey)) {
        fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
             "ExportPublicKeyComponents: the token library gave a public key of " +
                 std::to_string(record->publicKeyLength) + " bytes");
        return nullptr;
    }
    return &*record;
}

/// Takes what the token holds for a raw modulus, without a look: DER comes out as DER, reversed.
void writePublicKeyBlob(ALG_ID algId, std::span<const unsigned char> publicKey, BYTE* pbData) {
    const BLOBHEADER header = {PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, algId};
    const RSAPUBKEY rsa = {RSA_PUBLIC_MAGIC, static_cast<DWORD>(publicKey.size()) * 8, EXPONENT};
    std::memcpy(pbData, &header, sizeof header);
    std::memcpy(pbData + sizeof header, &rsa, sizeof rsa);
    std::ranges::reverse_copy(publicKey, pbData + BLOB_HEADER_SIZE);
}

/// The token's record is what counts, not the object: imported and derived keys have none.
BOOL ExportPublicKeyComponents(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pcbDataLen) {
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(context.serial.c_str(), context.tokenContext);
    const ZentokKeyPair* record = findRsaKeyPair(keys, key);
    if (record == nullptr) {
        return FALSE;
    }
    const std::span publicKey(record->publicKey, static_cast<std::size_t>(record->publicKeyLength));
    const auto required = static_cast<DWORD>(publicKey.size() + BLOB_HEADER_SIZE);
    if (pbData == nullptr) {
        *pcbDataLen = required;
        SetLastError(ERROR_MORE_DATA);  // although the query succeeds
        logInfo("Emport public key more data required");
        return TRUE;
    }
    if (*pcbDataLen < required) {
        *pcbDataLen = required;
        return fail(ERROR_MORE_DATA,
                    "ExportPublicKeyComponents: output buffer too small, required=" + std::to_string(required));
    }
    logInfo("key usage : " + std::to_string(key.algId));  // the label says usage, the value is the algorithm
    writePublicKeyBlob(key.algId, publicKey, pbData);
    *pcbDataLen = required;
    SetLastError(0);
    return TRUE;
}

}  // namespace

BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY /*hPubKey*/, DWORD dwBlobType, DWORD dwFlags,
                        BYTE* pbData, DWORD* pcbDataLen) {
    logInfo("CPExportKey");
    logInfo("dwBlobType : " + std::to_string(dwBlobType));
    logInfo("dwFlags : " + std::to_string(dwFlags));
    const KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr || pcbDataLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPExportKey: hKey or pcbData is null");
    }
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPExportKey: context is null or not initialized");
    }
    if (dwBlobType == PRIVATEKEYBLOB) {
        return fail(ERROR_ACCESS_DENIED, "CPExportKey: PRIVATEKEYBLOB export denied");
    }
    if (dwBlobType != PUBLICKEYBLOB) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE),
                    "CPExportKey: unsupported dwBlobType=" + std::to_string(dwBlobType));
    }
    const BOOL result = ExportPublicKeyComponents(*context, *key, pbData, pcbDataLen);
    logInfo("Exportkey return status : " + std::to_string(result));
    return result;
}
