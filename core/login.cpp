#include "core/login.h"

#include <cstring>

#include <windows.h>

#include "capi/csp_context.h"
#include "core/log.h"
#include "core/password_dialog.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

namespace {

static_assert(PASSWORD_MAX_LENGTH + 1 == PASSWORD_BUFFER_SIZE);

// The two fronts differ by one letter, and support staff have learnt to tell them apart by it.
constexpr const char* CAPI_CLOCK_MESSAGE = "System time mismatch, Kidly login to Token Manager";
constexpr const char* CNG_CLOCK_MESSAGE = "System time mismatch, Kindly login to Token Manager";

/// What one PIN tried on the token came to.
struct PinAttempt {
    int result;   ///< of the token library
    int retries;  ///< attempts left, as the library wrote it
};

PinAttempt tryPin(const std::string& device, const std::string& password, void* libraryContext) {
    PinAttempt attempt = {TOKEN_OK, 0};
    attempt.result = zentok_validatePassword(device.c_str(), password.c_str(), 1, &attempt.retries, libraryContext);
    return attempt;
}

void showRejection(const PinAttempt& attempt, const char* clockMessage) {
    std::string message = "Login failed, please try again";
    if (attempt.result == TOKEN_CLOCK_MISMATCH) {
        message = clockMessage;
    } else if (attempt.retries != 0) {
        message = "Invalid user pin. Remaining attempts(" + std::to_string(attempt.retries) + ")";
    } else {
        message = "User pin locked, re-initialise device";
    }
    MessageBoxA(nullptr, message.c_str(), "Zentok", MB_OK);
}

/// What the user confirmed; empty reads as a cancel.
std::string askForPassword() {
    showPasswordDialog();
    std::string entered = takeDialogPassword();
    // The length rule of the dialog is a matter of its "Login" button, and a program can press past a disabled one.
    // What does not fit the callers' buffers is not put to the token, where it would cost an attempt.
    if (entered.size() >= PASSWORD_BUFFER_SIZE) {
        logError("Password of " + std::to_string(entered.size()) + " characters is too long, taken as cancelled");
        entered.clear();
    }
    return entered;
}

bool isLoggedInBySso(const std::string& device, void* libraryContext) {
    const TokenInfo info = zentok_getTokenInfo(device.c_str(), libraryContext);
    return !info.text1.empty() && info.ssoEnabled == 1 && info.ssoValidated == 1;
}

/// A single sign-on entry has no password and does not count: its state must be read from the token each time.
bool isPinCached(const std::string& device) {
    return pinStateIsValidated(device) && !pinStateGetPassword(device).empty();
}

/// The dialog of the CNG front, as often as the token's retry counter allows.
bool kspLogin(const std::string& device, void* libraryContext) {
    for (;;) {
        const std::string entered = askForPassword();
        if (entered.empty()) {
            // Information only: the CNG callers write their own error line.
            logInfo("KSP: User cancelled password dialog");
            return false;
        }
        const PinAttempt attempt = tryPin(device, entered, libraryContext);
        if (attempt.result == TOKEN_OK) {
            pinStateStore(device, entered);
            return true;
        }
        showRejection(attempt, CNG_CLOCK_MESSAGE);
        if (attempt.retries == 0) {
            return false;
        }
    }
}

}  // namespace

bool loginUser(const CSP_CONTEXT* context, char* password) {
    logInfo("loginUser: enter");
    if (isLoggedInBySso(context->serial, context->tokenContext)) {
        logInfo("loginUser: SSO already validated, return TRUE");
        return true;
    }
    if (context->silent) {
        logError("loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE");
        SetLastError(static_cast<DWORD>(NTE_SILENT_CONTEXT));
        return false;
    }
    pinStateClear(context->serial);
    for (;;) {
        const std::string entered = askForPassword();
        if (entered.empty()) {
            logError("loginUser: user cancelled password dialog, return FALSE");
            return false;
        }
        const PinAttempt attempt = tryPin(context->serial, entered, context->tokenContext);
        if (attempt.result == TOKEN_OK) {
            std::memcpy(password, entered.c_str(), entered.size() + 1);
            logInfo("loginUser: password validated, return TRUE");
            return true;
        }
        showRejection(attempt, CAPI_CLOCK_MESSAGE);
        if (attempt.retries == 0) {
            logError("loginUser: PIN locked, retryCount=0, return FALSE");
            return false;
        }
    }
}

bool ensurePasswordValidated(const CSP_CONTEXT* context) {
    if (isPinCached(context->serial)) {
        logInfo("ensurePasswordValidated: PIN already validated, return true");
        return true;
    }
    // Before any single sign-on test: a silent context without a cached PIN fails even on a token that is signed on.
    if (context->silent) {
        logError("ensurePasswordValidated: CRYPT_SILENT set, cannot prompt for PIN, return false");
        SetLastError(static_cast<DWORD>(NTE_SILENT_CONTEXT));
        return false;
    }
    logInfo("ensurePasswordValidated: password not validated or empty -- ask for PIN");
    char password[PASSWORD_BUFFER_SIZE] = {};
    if (!loginUser(context, password)) {
        logError("ensurePasswordValidated: password validation failed, return false");
        SetLastError(static_cast<DWORD>(NTE_FAIL));
        return false;
    }
    pinStateStore(context->serial, password);
    logInfo("ensurePasswordValidated: password set, return true");
    return true;
}

bool kspEnsurePasswordValidated(const std::string& device, void* libraryContext) {
    if (isPinCached(device)) {
        logInfo("KSP: PIN already validated");
        return true;
    }
    logInfo("KSP: Password not validated, checking SSO");
    if (isLoggedInBySso(device, libraryContext)) {
        pinStateStore(device, std::string());
        return true;
    }
    pinStateClear(device);
    // A copy: the host may move its provider to another token while the dialog is open, and the PIN is for this one.
    return kspLogin(std::string(device), libraryContext);
}
