// The vocabulary of the CryptoAPI entry points.
#pragma once

#include <string>

#include "capi/csp_context.h"
#include "capi/csp_interface.h"
#include "core/log.h"

struct HASH_CONTEXT;
struct KEY_HANDLE;

/// The one way to fail: logs the text at error level, then sets the code.
inline BOOL fail(DWORD code, std::string message) {
    logError(std::move(message));
    SetLastError(code);
    return FALSE;
}

/// Fails without a line: there is none for this failure, or it is written already.
inline BOOL failQuietly(DWORD code) {
    SetLastError(code);
    return FALSE;
}

// Handles are the addresses of their records; no table of live handles exists.
inline CSP_CONTEXT* contextOf(HCRYPTPROV handle) {
    return reinterpret_cast<CSP_CONTEXT*>(handle);
}
inline HASH_CONTEXT* hashOf(HCRYPTHASH handle) {
    return reinterpret_cast<HASH_CONTEXT*>(handle);
}
inline KEY_HANDLE* keyOf(HCRYPTKEY handle) {
    return reinterpret_cast<KEY_HANDLE*>(handle);
}

/// True for a context that an acquire completed.
inline bool isUsable(const CSP_CONTEXT* context) {
    return context != nullptr && context->initialized;
}
