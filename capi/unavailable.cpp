// The entry points that this version exports, because the platform loads no provider without them, and does not offer
// yet: each logs its name and answers ERROR_CALL_NOT_IMPLEMENTED.
#include "capi/entry.h"

namespace {

BOOL failUnavailable(const char* entry) {
    logInfo(entry);
    return fail(ERROR_CALL_NOT_IMPLEMENTED, std::string(entry) + ": not available in this version");
}

}  // namespace

BOOL WINAPI CPGetProvParam(HCRYPTPROV, DWORD, BYTE*, DWORD*, DWORD) {
    return failUnavailable("CPGetProvParam");
}

BOOL WINAPI CPSetProvParam(HCRYPTPROV, DWORD, CONST BYTE*, DWORD) {
    return failUnavailable("CPSetProvParam");
}

BOOL WINAPI CPDuplicateHash(HCRYPTPROV, HCRYPTHASH, DWORD*, DWORD, HCRYPTHASH*) {
    return failUnavailable("CPDuplicateHash");
}

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) {
    return failUnavailable("CPDeriveKey");
}

BOOL WINAPI CPGetKeyParam(HCRYPTPROV, HCRYPTKEY, DWORD, BYTE*, DWORD*, DWORD) {
    return failUnavailable("CPGetKeyParam");
}

BOOL WINAPI CPSetKeyParam(HCRYPTPROV, HCRYPTKEY, DWORD, CONST BYTE*, DWORD) {
    return failUnavailable("CPSetKeyParam");
}

BOOL WINAPI CPImportKey(HCRYPTPROV, CONST BYTE*, DWORD, HCRYPTKEY, DWORD, HCRYPTKEY*) {
    return failUnavailable("CPImportKey");
}

BOOL WINAPI CPExportKey(HCRYPTPROV, HCRYPTKEY, HCRYPTKEY, DWORD, DWORD, BYTE*, DWORD*) {
    return failUnavailable("CPExportKey");
}

BOOL WINAPI CPEncrypt(HCRYPTPROV, HCRYPTKEY, HCRYPTHASH, BOOL, DWORD, BYTE*, DWORD*, DWORD) {
    return failUnavailable("CPEncrypt");
}

BOOL WINAPI CPDecrypt(HCRYPTPROV, HCRYPTKEY, HCRYPTHASH, BOOL, DWORD, BYTE*, DWORD*) {
    return failUnavailable("CPDecrypt");
}
