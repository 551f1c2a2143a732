// The modal dialog that asks for the token's user password: template 101 and icon 102 of the library's resources.
#pragma once

#include <string>

#include <windows.h>

constexpr int PASSWORD_MIN_LENGTH = 4;   ///< characters; "Login" is disabled below
constexpr int PASSWORD_MAX_LENGTH = 63;  ///< characters; with its terminator the longest password fills 64 bytes

/// Empties the dialog password and runs the dialog on the calling thread until the user ends it. There is no timeout.
void showPasswordDialog();

/// What the user confirmed in the last dialog, in the ANSI code page; empty when it was cancelled or could not be
/// created. The value stays in place.
std::string takeDialogPassword();
