// How a command fails: by an exception whose text is the whole message for the user.
#pragma once

#include <stdexcept>
#include <string>

#include <windows.h>

/// The operation failed; the program exits with 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The command line makes no sense; the program exits with 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A code of the platform by its symbol and number, "NTE_BAD_KEY (0x80090003)".
std::string codeText(DWORD code);

/// "cannot <action>: <code>", and below it what to do next: `advice` when there is one, else what fits the code.
Failure platformFailure(const std::string& action, DWORD code, const std::string& advice = {});
