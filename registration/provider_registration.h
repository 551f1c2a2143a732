// Self-registration of the library with the platform, as regsvr32 asks for it.
#pragma once

#include <windows.h>

extern "C" {

HRESULT WINAPI DllRegisterServer();
HRESULT WINAPI DllUnregisterServer();

}  // extern "C"
