// GetKeyStorageInterface and the table that it hands out.
#include "cng/functions.h"
#include "cng/key_storage_interface.h"
#include "core/log.h"
#include "core/module.h"

namespace {

constexpr NCRYPT_KEY_STORAGE_FUNCTION_TABLE KSP_FUNCTION_TABLE = {
    NCRYPT_KEY_STORAGE_INTERFACE_VERSION,
    KSPOpenProvider,
    KSPOpenKey,
    KSPCreatePersistedKey,
    KSPGetProviderProperty,
    KSPGetKeyProperty,
    KSPSetProviderProperty,
    KSPSetKeyProperty,
    KSPFinalizeKey,
    KSPDeleteKey,
    KSPFreeProvider,
    KSPFreeKey,
    KSPFreeBuffer,
    KSPEncrypt,
    KSPDecrypt,
    KSPIsAlgSupported,
    KSPEnumAlgorithms,
    KSPEnumKeys,
    KSPImportKey,
    KSPExportKey,
    KSPSignHash,
    KSPVerifySignature,
    KSPPromptUser,
    KSPNotifyChangeKey,
    KSPSecretAgreement,
    KSPDeriveKey,
    KSPFreeSecret,
};

}  // namespace

NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR /*pszProviderName*/, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                       DWORD /*dwFlags*/) {
    pinModule();
    logInfo("GetKeyStorageInterface");
    // The platform's type lacks the const; its router only reads.
    *ppFunctionTable = const_cast<NCRYPT_KEY_STORAGE_FUNCTION_TABLE*>(&KSP_FUNCTION_TABLE);
    return 0;
}
