// Reads what the provider writes to its log, and holds one call against everything that it must come to.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <windows.h>

namespace test {

using Lines = std::vector<std::string>;

/// "a|b" as the two lines a and b; the empty text as none.
Lines lines(const std::string& text);

/// Lets the log run in a temporary folder of this name, which is made if need be, so that nothing else writes
/// to it: its full path, without a trailing separator. What an earlier run left in the first one goes.
std::string usePrivateTempFolder(const std::string& name);

/// Sets the log's level in the registry.
void setLogLevel(DWORD level);

/// Everything in this process's log files, as it stands there.
std::string logFileText();

/// The texts that `action` logs, those at error level with a "!" in front.
Lines logOf(const std::function<void()>& action);

constexpr DWORD UNTOUCHED = 0xDEADBEEF;  ///< the last error before a call
constexpr DWORD ANY_CODE = 0xDEADC0DE;   ///< a failure whose code is left to the platform
constexpr char ANY_CALLS[] = "*";        ///< whatever the library is asked

/// What a call must come to, with "|" between lines.
struct Expected {
    DWORD failure;      ///< the last error of a call that fails, 0 for one that succeeds
    std::string log;    ///< as logOf reads it
    std::string calls;  ///< of the library: each the whole call or, when its arguments do not matter, its bare name
};

/// Runs `call` once and holds it against `expected`. `takeCalls` tells the library's calls since it last did.
void expectCall(const std::function<bool()>& call, const Expected& expected, const std::function<Lines()>& takeCalls);

}  // namespace test
