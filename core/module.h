// The library as a module of its host process.
#pragma once

#include <windows.h>

/// The handle that DllMain recorded, or the process's own image in a program that links the provider's code directly:
/// where the dialog template and the icon are found.
HINSTANCE moduleInstance();
void setModuleInstance(HINSTANCE instance);

/// Keeps the library loaded until the process ends (GetModuleHandleEx, GET_MODULE_HANDLE_EX_FLAG_PIN). Called first
/// thing by every acquire and open, before anything can fail: the platform frees a provider after each released or
/// failed acquire, the PIN cache and the monitor thread must outlive that, and each unload would cost the host a
/// thread-local slot. Registration does not pin: nothing of it lasts. Idempotent and cheap after the first call.
void pinModule();
