// The vocabulary of the key storage entry points.
#pragma once

#include <string>

#include "cng/functions.h"
#include "cng/keys.h"
#include "cng/provider.h"
#include "cng/secret.h"
#include "core/log.h"

/// The one way to fail: logs the text at error level and passes the code on. A failure without a line of its own, or
/// with one that is written already, returns its code as it is.
inline SECURITY_STATUS failStatus(SECURITY_STATUS code, std::string message) {
    logError(std::move(message));
    return code;
}

// Handles are the addresses of their records; no table of live handles exists.
inline KSP_PROVIDER* kspProviderOf(NCRYPT_PROV_HANDLE handle) {
    return reinterpret_cast<KSP_PROVIDER*>(handle);
}
inline KSP_KEY* kspKeyOf(NCRYPT_KEY_HANDLE handle) {
    return reinterpret_cast<KSP_KEY*>(handle);
}
inline KSP_SECRET* kspSecretOf(NCRYPT_SECRET_HANDLE handle) {
    return reinterpret_cast<KSP_SECRET*>(handle);
}

/// True for a provider object that an open completed.
inline bool isUsable(const KSP_PROVIDER* provider) {
    return provider != nullptr && provider->initialized;
}
