// GetKeyStorageInterface and the table that it hands out. The CNG front is not available in this version: every slot
// logs its name and answers NTE_NOT_SUPPORTED.
#include <cstddef>
#include <string>

#include "cng/key_storage_interface.h"
#include "core/log.h"

namespace {

enum Slot : std::size_t {
    OPEN_PROVIDER,
    OPEN_KEY,
    CREATE_PERSISTED_KEY,
    GET_PROVIDER_PROPERTY,
    GET_KEY_PROPERTY,
    SET_PROVIDER_PROPERTY,
    SET_KEY_PROPERTY,
    FINALIZE_KEY,
    DELETE_KEY,
    FREE_PROVIDER,
    FREE_KEY,
    FREE_BUFFER,
    ENCRYPT,
    DECRYPT,
    IS_ALG_SUPPORTED,
    ENUM_ALGORITHMS,
    ENUM_KEYS,
    IMPORT_KEY,
    EXPORT_KEY,
    SIGN_HASH,
    VERIFY_SIGNATURE,
    PROMPT_USER,
    NOTIFY_CHANGE_KEY,
    SECRET_AGREEMENT,
    DERIVE_KEY,
    FREE_SECRET,
};

constexpr const char* SLOT_NAMES[] = {
    "KSPOpenProvider",
    "KSPOpenKey",
    "KSPCreatePersistedKey",
    "KSPGetProviderProperty",
    "KSPGetKeyProperty",
    "KSPSetProviderProperty",
    "KSPSetKeyProperty",
    "KSPFinalizeKey",
    "KSPDeleteKey",
    "KSPFreeProvider",
    "KSPFreeKey",
    "KSPFreeBuffer",
    "KSPEncrypt",
    "KSPDecrypt",
    "KSPIsAlgSupported",
    "KSPEnumAlgorithms",
    "KSPEnumKeys",
    "KSPImportKey",
    "KSPExportKey",
    "KSPSignHash",
    "KSPVerifySignature",
    "KSPPromptUser",
    "KSPNotifyChangeKey",
    "KSPSecretAgreement",
    "KSPDeriveKey",
    "KSPFreeSecret",
};

/// One function for every slot; the arguments follow from the slot's type.
template <Slot slot, typename... Arguments>
SECURITY_STATUS WINAPI unavailable(Arguments... /*arguments*/) {
    logInfo(SLOT_NAMES[slot]);
    logError(std::string(SLOT_NAMES[slot]) + ": not available in this version");
    return NTE_NOT_SUPPORTED;
}

NCRYPT_KEY_STORAGE_FUNCTION_TABLE KSP_FUNCTION_TABLE = {
    NCRYPT_KEY_STORAGE_INTERFACE_VERSION,
    unavailable<OPEN_PROVIDER>,
    unavailable<OPEN_KEY>,
    unavailable<CREATE_PERSISTED_KEY>,
    unavailable<GET_PROVIDER_PROPERTY>,
    unavailable<GET_KEY_PROPERTY>,
    unavailable<SET_PROVIDER_PROPERTY>,
    unavailable<SET_KEY_PROPERTY>,
    unavailable<FINALIZE_KEY>,
    unavailable<DELETE_KEY>,
    unavailable<FREE_PROVIDER>,
    unavailable<FREE_KEY>,
    unavailable<FREE_BUFFER>,
    unavailable<ENCRYPT>,
    unavailable<DECRYPT>,
    unavailable<IS_ALG_SUPPORTED>,
    unavailable<ENUM_ALGORITHMS>,
    unavailable<ENUM_KEYS>,
    unavailable<IMPORT_KEY>,
    unavailable<EXPORT_KEY>,
    unavailable<SIGN_HASH>,
    unavailable<VERIFY_SIGNATURE>,
    unavailable<PROMPT_USER>,
    unavailable<NOTIFY_CHANGE_KEY>,
    unavailable<SECRET_AGREEMENT>,
    unavailable<DERIVE_KEY>,
    unavailable<FREE_SECRET>,
};

}  // namespace

NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR /*pszProviderName*/, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                       DWORD /*dwFlags*/) {
    logInfo("GetKeyStorageInterface");
    *ppFunctionTable = &KSP_FUNCTION_TABLE;
    return 0;
}
