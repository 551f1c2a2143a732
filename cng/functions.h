// The 26 functions of the key storage provider, as the router reaches them through KSP_FUNCTION_TABLE. What each takes
// and gives is the contract of the platform's NCrypt function of the same name ("CNG Key Storage Functions"); told here
// is what this provider adds to it.
//
// Every function logs its name. Sizes are bytes. A handle is written, and owned by the caller, only on success. All
// need an opened provider, NTE_INVALID_HANDLE otherwise, unless told differently; NTE_INVALID_PARAMETER is the code of
// a null pointer among the required ones. Flags and arguments without a name in the definition are not looked at.
#pragma once

#include "cng/key_storage_interface.h"

// --- provider (provider.cpp, provider_properties.cpp) ---

/// Succeeds without a token too; the first connected one becomes the provider's device, and every connected one is
/// opened. NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName, DWORD dwFlags);

/// Frees the object and nothing else: the PIN stays cached. NTE_INVALID_HANDLE for a null handle.
SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider);

/// Constants, none of which needs a token. A null `pbOutput` asks for the size. NTE_BUFFER_TOO_SMALL,
/// NTE_NOT_SUPPORTED.
SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                              DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

/// "HWND Handle" (8 bytes; a shorter or null input resets it) and "SmartCardPin" (see validatePin). NTE_NOT_SUPPORTED,
/// NTE_VALIDATION_FAILED.
SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                              DWORD cbInput, DWORD dwFlags);

/// Needs no provider. 0 for the names that KSPEnumAlgorithms lists; NTE_NOT_SUPPORTED for all others, the ECDH ones
/// among them although such keys can be made.
SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags);

/// The algorithms that share an operation bit with `dwAlgOperations`, all for 0; none is a success with an empty list.
/// `*ppAlgList` goes to KSPFreeBuffer, its names are separate blocks. NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD dwFlags);

/// Asks for the PIN of the provider's device unless it is logged in. NTE_FAIL.
SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation,
                                     DWORD dwFlags);

/// Needs no provider; always NTE_NOT_SUPPORTED.
SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent, DWORD dwFlags);

/// Frees the one block; what it points to stays allocated. Null is allowed. Always 0.
SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput);

// --- key objects (keys.cpp) ---

/// Opens a key pair by its credential id as 32 upper-case hexadecimal digits, and moves the provider to the connected
/// token that holds it. No PIN is asked for. NTE_NO_KEY, NTE_NO_MEMORY; NTE_INTERNAL_ERROR for an unreadable record.
SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD dwFlags);

/// Makes an object for KSPFinalizeKey and touches no token. `pszAlgId`: "RSA", "ECDSA_Pxxx", "ECDH_Pxxx".
/// NTE_NOT_SUPPORTED, NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                             LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);

/// Generates the key on the token, which asks for the PIN; does nothing for a finalised key. A failure leaves the
/// object as it was. NTE_FAIL without a PIN, NTE_NOT_SUPPORTED for a size, NTE_INTERNAL_ERROR.
SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);

/// Deletes the key from the token and frees the object; on a failure (NTE_FAIL, NTE_INTERNAL_ERROR) the object lives.
SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);

/// Frees the object. Needs no provider; null is allowed. Always 0.
SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey);

/// One key pair of the provider's device a call, as of the first call. `*ppKeyName` and, at the end, `*ppEnumState` go
/// to KSPFreeBuffer; the names are separate blocks. NTE_NO_MORE_ITEMS, NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName,
                                   PVOID* ppEnumState, DWORD dwFlags);

// --- key properties (key_properties.cpp) ---

/// A null `pbOutput` asks for the size. Only "SmartCardKeyCertificate" goes to the token, each time. NTE_NOT_FOUND
/// without a certificate, NTE_BUFFER_TOO_SMALL, NTE_NOT_SUPPORTED.
SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

/// Too short an input of "HWND Handle", "Length", "Key Usage" or "ChainingMode" succeeds and changes nothing. "IV" is
/// one for the whole process. "SmartCardKeyCertificate" asks for the PIN and stores the certificate with its chain.
/// NTE_NOT_SUPPORTED, NTE_VALIDATION_FAILED, NTE_FAIL, NTE_INTERNAL_ERROR.
SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbInput, DWORD cbInput, DWORD dwFlags);

// --- encryption (cipher.cpp) ---

/// RSA with the object's public key, or AES with the key that the object holds; no PIN. `pPaddingInfo` is a
/// BCRYPT_OAEP_PADDING_INFO with NCRYPT_PAD_OAEP_FLAG. NTE_BUFFER_TOO_SMALL, NTE_INTERNAL_ERROR.
SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

/// RSA on the token under the PIN, or AES with the key that the object holds. NTE_NOT_SUPPORTED for PKCS#1 v1.5 padding
/// on a FIPS 140-3 token, NTE_SILENT_CONTEXT, NTE_FAIL without a PIN, NTE_BUFFER_TOO_SMALL, NTE_INTERNAL_ERROR,
/// NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

// --- signatures (signature.cpp) ---

/// Signs a digest on the token under the PIN: RSA big-endian, EC as r || s. NTE_SILENT_CONTEXT, NTE_FAIL without a PIN,
/// NTE_NOT_SUPPORTED, NTE_BUFFER_TOO_SMALL, NTE_INTERNAL_ERROR.
SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                   PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD* pcbResult, DWORD dwFlags);

/// Verifies with the object's public key. NTE_BAD_SIGNATURE, NTE_BAD_KEY without a public key, NTE_NOT_SUPPORTED.
SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                          DWORD dwFlags);

// --- key blobs (key_import.cpp, key_export.cpp) ---

/// Public keys stay in the object, AES keys go to the token or into the object, as their blob type says; no PIN is
/// asked for. NTE_BAD_DATA, NTE_BAD_KEY, NTE_BAD_TYPE, NTE_NOT_SUPPORTED, NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc* pParameterList, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData,
                                    DWORD cbData, DWORD dwFlags);

/// Public keys only. A null `pbOutput` asks for the size. NTE_NOT_SUPPORTED, NTE_BAD_KEY, NTE_BUFFER_TOO_SMALL.
SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                    LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                                    DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

// --- secrets (secret.cpp) ---

/// ECDH on the token between a key of the token and a peer's point, under the PIN. The secret keeps at most 66 bytes
/// and borrows the provider. NTE_NOT_SUPPORTED on firmware before 2.0.0, NTE_BAD_KEY, NTE_FAIL without a PIN,
/// NTE_INTERNAL_ERROR, NTE_NO_MEMORY.
SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                          NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                                          DWORD dwFlags);

/// One hash over the secret, with label and context in front for "SP800_56ACONCAT": never more than a digest, and
/// `*pcbResult` tells how much. A `cbDerivedKey` below the digest's size cuts it off; 0 with a null `pbDerivedKey` asks
/// for the size. Needs no provider. NTE_NOT_SUPPORTED, NTE_BUFFER_TOO_SMALL, NTE_INTERNAL_ERROR.
SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                    NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                    DWORD* pcbResult, ULONG dwFlags);

/// Wipes and frees the secret. Needs no provider; null is allowed. Always 0.
SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret);
