// The two roads of CPAcquireContext that need a token.
#pragma once

#include <memory>

#include "capi/csp_context.h"
#include "capi/csp_interface.h"

/// Completes `context` on a connected token: opens the devices, picks the one with the key that the
/// name spells, else the first, lists its keys and resolves the container's name. The handle is written, and owned by
/// the caller, only on success.
BOOL acquireTokenContext(std::unique_ptr<CSP_CONTEXT> context, LPCSTR pszContainer, HCRYPTPROV* phProv);

/// CRYPT_DELETEKEYSET: deletes the keys filed under the container from the first token, and the container from the map.
/// `*phProv` becomes null.
BOOL deleteKeySet(LPCSTR pszContainer, DWORD dwFlags, HCRYPTPROV* phProv);
