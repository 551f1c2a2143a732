// The diagnostic log: one line for every entry, decision and failure, in <temp>/Halvane/<process>/<date>.LOG.
//
// The level is the value logLevel under HKEY_LOCAL_MACHINE\Software\Halvane\Zentok, read anew for every line so that a
// change takes effect at once: 2 writes failures (the default), 3 writes everything, 0, 1 and negative values nothing.
// Writing a line never fails an operation and never changes the calling thread's last error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

constexpr std::int32_t LOG_LEVEL_ERROR = 2;
constexpr std::int32_t LOG_LEVEL_INFO = 3;
constexpr std::size_t LOG_PATH_SIZE = 1024;

/// Writes `message` when the level is 3. Its lines carry the tag "DEBUG".
void logInfo(std::string message);

/// Writes `text` and the bytes as upper-case hexadecimal when the level is 3. Large data costs nothing at the other
/// levels: the digits are made for a line that will be written only.
void logInfoBytes(const char* text, std::span<const unsigned char> bytes);

/// Writes `message` when the level is 2 or 3.
void logError(std::string message);

/// The level in force now; 2 when it cannot be read or is 4 or more.
std::int32_t readLogLevel();

/// Appends one line to today's file, whatever the level in force.
void writeLogLine(std::int32_t level, std::string message);

/// File name of the host process up to its first "."; empty when the platform does not tell.
std::string getProcessName();

/// Fetches the temporary folder, with its trailing separator, into a zeroed buffer. Result 0, or -1 and an empty buffer
/// when that folder does not exist.
std::int32_t getLogBaseFolderPath(char (&folder)[LOG_PATH_SIZE]);

/// `value` as eight upper-case hexadecimal digits (%08X).
std::string hex32(std::uint32_t value);

/// A pointer, in decimal.
std::string pointerText(const void* pointer);

/// A pointer as upper-case hexadecimal digits, without a prefix or leading zeros.
std::string pointerHexText(const void* pointer);

/// A handle of the platform, in decimal.
inline std::string pointerText(std::uintptr_t handle) {
    return std::to_string(handle);
}
