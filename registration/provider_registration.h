// Self-registration of the library with the platform, as regsvr32 asks for it: as a CNG key storage provider, and as
// nothing else. The entry for CryptoAPI is the setup's.
#pragma once

#include <windows.h>

extern "C" {

/// S_OK; E_FAIL when bcrypt.dll or its registration functions are missing; else the platform's NTSTATUS with
/// FACILITY_NT_BIT. May be called again and again. Needs the rights of an administrator.
HRESULT WINAPI DllRegisterServer();

/// S_OK also when nothing was registered; E_FAIL when bcrypt.dll cannot be loaded.
HRESULT WINAPI DllUnregisterServer();

}  // extern "C"
