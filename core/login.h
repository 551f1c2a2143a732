// The guards that every operation with a private key passes: a cached PIN, a live single sign-on state, or the dialog.
#pragma once

#include <cstddef>
#include <string>

struct CSP_CONTEXT;

/// Room that a password and its terminator need at most.
constexpr std::size_t PASSWORD_BUFFER_SIZE = 64;

/// Logs the user in to the context's token: by single sign-on, which leaves `password` untouched, or by the dialog, as
/// often as the token's retry counter allows. `password` receives the validated PIN with its terminator and holds at
/// least PASSWORD_BUFFER_SIZE bytes. The PIN is not cached here. False when the user cancels, the token leaves no
/// attempts (it may say so on a clock mismatch, too), or the context is silent (last error NTE_SILENT_CONTEXT).
bool loginUser(const CSP_CONTEXT* context, char* password);

/// The CryptoAPI front's guard. True with a cached PIN, or once loginUser succeeded and its result is cached. False
/// with last error NTE_SILENT_CONTEXT (silent context and no PIN) or NTE_FAIL.
bool ensurePasswordValidated(const CSP_CONTEXT* context);

/// The CNG front's guard: never silent, sets no code. `device` and `libraryContext` are what its provider object
/// carries.
bool kspEnsurePasswordValidated(const std::string& device, void* libraryContext);
