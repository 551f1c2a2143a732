#include "registration/provider_registration.h"

#include <string>

#include "core/log.h"

namespace {

/// The key storage provider that would be registered is not available in this version.
HRESULT failUnavailable(const char* entry) {
    logInfo(entry);
    logError(std::string(entry) + ": not available in this version");
    return HRESULT_FROM_WIN32(ERROR_CALL_NOT_IMPLEMENTED);
}

}  // namespace

HRESULT WINAPI DllRegisterServer() {
    return failUnavailable("DllRegisterServer");
}

HRESULT WINAPI DllUnregisterServer() {
    return failUnavailable("DllUnregisterServer");
}
