// The provider's log files, <temp>\Halvane\<process>\<date>.LOG, and its level in the registry.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/zentok/registry.h"

/// The folder of all logs of this user.
std::filesystem::path logFolder();

/// The log of this program, today. Its folder need not be there.
std::filesystem::path ownLogFile();

struct LogFile {
    std::filesystem::path path;
    std::filesystem::file_time_type written;
    bool isToday = false;
};

/// The logs of one process, or of all, the newest first. `process` is a program's name, with or without ".exe".
std::vector<LogFile> listLogs(const std::optional<std::string>& process);

/// Prints what logs hold, in whole lines, to the output; which file they are from goes to the error output. It begins
/// with what is there when it is made, so that nothing that comes later is missed or shown twice.
class LogPrinter {
public:
    explicit LogPrinter(std::optional<std::string> process);

    /// The last lines of the newest log; false when there is none.
    bool printEnd(std::size_t lines);

    /// What has come since the last call, in any of today's logs.
    void printNew();

private:
    void printFrom(const std::filesystem::path& path, std::uintmax_t begin, std::uintmax_t end);

    std::optional<std::string> process_;
    std::optional<LogFile> newest_;
    std::map<std::filesystem::path, std::uintmax_t> ends_;  ///< up to where each file is printed, in bytes
    std::filesystem::path shown_;
};

/// The level that the provider takes from the registry.
int logLevel();

/// "2 (failures)"
std::string logLevelText(int level);

/// Another log level for as long as this object lives.
class LogLevelOverride {
public:
    /// Throws when the registry refuses.
    explicit LogLevelOverride(unsigned long level);
    ~LogLevelOverride();
    LogLevelOverride(const LogLevelOverride&) = delete;
    LogLevelOverride& operator=(const LogLevelOverride&) = delete;

    /// Puts back what was there before, also the absence of a value, unless somebody has set another level since.
    /// Throws when the registry refuses.
    void restore();

private:
    RegistryKey key_;
    std::optional<RegistryValue> before_;
    RegistryValue own_;
    bool active_ = true;
};
