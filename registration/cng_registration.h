// Registration with CNG, from its public contract: the functions of bcrypt.dll, which MinGW-w64's headers lack, and
// what this library has them do. They are reached at run time, so that the library loads where bcrypt.dll does not
// offer them.
#pragma once

#include <windows.h>

#include <bcrypt.h>

typedef NTSTATUS(WINAPI* BCryptRegisterProviderFn)(LPCWSTR pszProvider, ULONG dwFlags, PCRYPT_PROVIDER_REG pReg);
typedef NTSTATUS(WINAPI* BCryptUnregisterProviderFn)(LPCWSTR pszProvider);
typedef NTSTATUS(WINAPI* BCryptAddContextFunctionProviderFn)(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                             LPCWSTR pszFunction, LPCWSTR pszProvider,
                                                             ULONG dwPosition);
typedef NTSTATUS(WINAPI* BCryptRemoveContextFunctionProviderFn)(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                                LPCWSTR pszFunction, LPCWSTR pszProvider);

/// Those that bcrypt.dll offers; null for one that it does not.
struct CngRegistration {
    BCryptRegisterProviderFn registerProvider = nullptr;
    BCryptUnregisterProviderFn unregisterProvider = nullptr;
    BCryptAddContextFunctionProviderFn addContextFunctionProvider = nullptr;
    BCryptRemoveContextFunctionProviderFn removeContextFunctionProvider = nullptr;
};

/// Registers this library as a key storage provider of the local machine, at the bottom of the default context's list,
/// in place of any earlier registration. S_OK, E_FAIL without the functions that it takes, or the failing function's
/// status with FACILITY_NT_BIT. A provider that could not be added to the list stays registered.
HRESULT registerWithCng(const CngRegistration& cng);

/// Takes the registration away as far as the functions are there; what they answer does not count.
void unregisterFromCng(const CngRegistration& cng);
