// Reads what the provider writes to its log.
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

}  // namespace test
