// CPAcquireContext, CPReleaseContext and CPGenRandom: the first, the last and the simplest call of a client.
#include <climits>
#include <memory>
#include <new>

#include "capi/entry.h"
#include "capi/token_context.h"
#include "core/module.h"
#include "core/token_library.h"

namespace {

/// Any one of these bits asks for a context without a token.
constexpr DWORD VERIFY_CONTEXT_BITS = 0xF0000000;

constexpr std::uint32_t KEYSET_TYPE = 4096;

}  // namespace

BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags, PVTableProvStruc pVTable) {
    pinModule();
    logInfo("CPAcquireContext");
    if (phProv == nullptr || pVTable == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPAcquireContext: invalid parameter - phProv=" + pointerText(phProv) +
                                                 " pVTable=" + pointerText(pVTable));
    }
    logInfo("CPAcquireContext - dwFlags : " + std::to_string(dwFlags));
    if ((dwFlags & CRYPT_DELETEKEYSET) != 0) {
        return deleteKeySet(pszContainer, dwFlags, phProv);
    }
    std::unique_ptr<CSP_CONTEXT> context(new (std::nothrow) CSP_CONTEXT);
    if (context == nullptr) {
        return fail(static_cast<DWORD>(NTE_NO_MEMORY), "CPAcquireContext: failed to allocate CSP_CONTEXT");
    }
    context->tokenContext = nullptr;
    context->silent = (dwFlags & CRYPT_SILENT) != 0;
    context->keysetType = KEYSET_TYPE;
    logInfo("CPAcquireContext - isSilent : " + std::to_string(context->silent));
    if ((dwFlags & VERIFY_CONTEXT_BITS) != 0) {
        logInfo("CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE");
        context->initialized = true;
        *phProv = reinterpret_cast<HCRYPTPROV>(context.release());
        return TRUE;
    }
    return acquireTokenContext(std::move(context), pszContainer, phProv);
}

BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
    logInfo("CPReleaseContext");
    if (dwFlags != 0) {
        return fail(static_cast<DWORD>(NTE_BAD_FLAGS), "CPReleaseContext: invalid dwFlags=0x" + hex32(dwFlags));
    }
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPReleaseContext: invalid or uninitialized context");
    }
    delete context;
    return TRUE;
}

BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD cbLen, BYTE* pbBuffer) {
    logInfo("CPGenRandom");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPGenRandom: context is null or not initialized");
    }
    if (pbBuffer == nullptr || cbLen == 0) {
        return fail(ERROR_INVALID_PARAMETER, "CPGenRandom: invalid buffer or length, cbLen=" + std::to_string(cbLen));
    }
    // The library counts in signed 32-bit numbers.
    if (cbLen > INT_MAX) {
        return fail(ERROR_INVALID_PARAMETER,
                    "CPGenRandom: more than the token library takes at once, cbLen=" + std::to_string(cbLen));
    }
    const auto length = static_cast<int>(cbLen);
    if (context->serial.empty()) {
        logInfo("CPGenRandom: no token, using software RNG");
        const int result = zentok_generateRamdomNumber("", length, pbBuffer, true, context->tokenContext);
        if (result != TOKEN_OK) {
            return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                        "CPGenRandom: software RNG failed: " + std::to_string(result));
        }
        return TRUE;
    }
    const bool software = g_useHardwareRng == 0;
    const int result =
        zentok_generateRamdomNumber(context->serial.c_str(), length, pbBuffer, software, context->tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                    "Random number generation failed: " + std::to_string(result));
    }
    return TRUE;
}
