#include "tools/zentok/log_files.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <system_error>

#include "tools/zentok/failure.h"
#include "tools/zentok/text.h"

namespace {

namespace fs = std::filesystem;

constexpr WCHAR SETTINGS_KEY[] = TEXT("Software\\Halvane\\Zentok");
constexpr WCHAR LEVEL_VALUE[] = TEXT("logLevel");
constexpr int DEFAULT_LEVEL = 2;
constexpr int HIGHEST_LEVEL = 3;
constexpr std::uintmax_t BLOCK = 65536;

/// Today's file, by the same clock as the provider's.
std::string todaysName() {
    const std::time_t now = std::time(nullptr);
    std::array<char, 32> text = {};
    if (const std::tm* local = std::localtime(&now); local != nullptr) {
        std::strftime(text.data(), text.size(), "%Y-%m-%d.LOG", local);
    }
    return text.data();
}

/// The provider takes a program's name up to its first point.
std::string processOf(const std::string& program) {
    return program.substr(0, program.find('.'));
}

bool isSameName(const std::string& left, const std::string& right) {
    return CompareStringOrdinal(toWide(left).c_str(), -1, toWide(right).c_str(), -1, TRUE) == CSTR_EQUAL;
}

/// Asked of the open file: a folder's listing may tell the size of an earlier moment.
std::uintmax_t sizeOf(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary | std::ios::ate);
    const std::streamoff end = stream ? static_cast<std::streamoff>(stream.tellg()) : 0;
    return end > 0 ? static_cast<std::uintmax_t>(end) : 0;
}

std::string readRange(const fs::path& path, std::uintmax_t begin, std::uintmax_t end) {
    std::string text(static_cast<std::size_t>(end - begin), '\0');
    std::ifstream stream(path, std::ios::binary);
    stream.seekg(static_cast<std::streamoff>(begin));
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
    return text;
}

/// Where the last `lines` lines before `end` begin.
std::uintmax_t beginOfLines(const fs::path& path, std::uintmax_t end, std::size_t lines) {
    std::size_t found = 0;
    for (std::uintmax_t begin = end; begin > 0;) {
        const std::uintmax_t stop = begin;
        begin -= std::min(begin, BLOCK);
        const std::string block = readRange(path, begin, stop);
        for (std::size_t i = block.size(); i-- > 0;) {
            // The line feed of the last line is one more.
            if (block[i] == '\n' && found++ == lines) {
                return begin + i + 1;
            }
        }
    }
    return 0;
}

}  // namespace

std::filesystem::path logFolder() {
    std::array<WCHAR, MAX_PATH + 1> temporary = {};
    GetTempPathW(static_cast<DWORD>(temporary.size()), temporary.data());
    return toPath(toUtf8(temporary.data())) / "Halvane";
}

std::filesystem::path ownLogFile() {
    std::array<WCHAR, 1024> program = {};
    GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size() - 1));
    return logFolder() / toPath(processOf(pathText(toPath(toUtf8(program.data())).filename()))) / todaysName();
}

std::vector<LogFile> listLogs(const std::optional<std::string>& process) {
    const std::string today = todaysName();
    std::vector<LogFile> logs;
    std::error_code error;
    for (const fs::directory_entry& folder : fs::directory_iterator(logFolder(), error)) {
        if (process && !isSameName(pathText(folder.path().filename()), processOf(*process))) {
            continue;
        }
        for (const fs::directory_entry& file : fs::directory_iterator(folder.path(), error)) {
            if (isSameName(pathText(file.path().extension()), ".LOG")) {
                logs.push_back(
                    {file.path(), file.last_write_time(error), isSameName(pathText(file.path().filename()), today)});
            }
        }
    }
    std::ranges::sort(logs, std::ranges::greater(), &LogFile::written);
    return logs;
}

LogPrinter::LogPrinter(std::optional<std::string> process) : process_(std::move(process)) {
    const std::vector<LogFile> logs = listLogs(process_);
    if (!logs.empty()) {
        newest_ = logs[0];
    }
    for (const LogFile& log : logs) {
        ends_[log.path] = sizeOf(log.path);
    }
}

bool LogPrinter::printEnd(std::size_t lines) {
    if (!newest_) {
        return false;
    }
    if (!newest_->isToday) {
        std::cerr << "There is no log of today; this is the last one.\n";
    }
    const std::uintmax_t end = ends_[newest_->path];
    printFrom(newest_->path, beginOfLines(newest_->path, end, lines), end);
    return true;
}

void LogPrinter::printNew() {
    for (const LogFile& log : listLogs(process_)) {
        const std::uintmax_t size = log.isToday ? sizeOf(log.path) : 0;
        std::uintmax_t& end = ends_[log.path];
        if (size > end) {
            printFrom(log.path, end, size);
        }
    }
}

void LogPrinter::printFrom(const std::filesystem::path& path, std::uintmax_t begin, std::uintmax_t end) {
    std::string text = readRange(path, begin, end);
    // A line that is not finished yet waits for the next call.
    text.resize(text.rfind('\n') + 1);
    ends_[path] = begin + text.size();
    if (shown_ != path) {
        std::cerr << "==> " << pathText(path) << "\n";
        shown_ = path;
    }
    if (!(std::cout << fromAnsi(text) << std::flush)) {
        throw Failure("cannot write the output");
    }
}

int logLevel() {
    // Any type of value counts, by its first four bytes; so does the provider read it.
    std::array<BYTE, 32> data = {};
    auto size = static_cast<DWORD>(data.size());
    if (RegGetValueA(HKEY_LOCAL_MACHINE, toUtf8(SETTINGS_KEY).c_str(), toUtf8(LEVEL_VALUE).c_str(), RRF_RT_ANY, nullptr,
                     data.data(), &size) != ERROR_SUCCESS) {
        return DEFAULT_LEVEL;
    }
    int level = 0;
    std::memcpy(&level, data.data(), sizeof level);
    return level <= HIGHEST_LEVEL ? level : DEFAULT_LEVEL;
}

std::string logLevelText(int level) {
    return std::to_string(level) + (level == HIGHEST_LEVEL   ? " (everything, data included)"
                                    : level == DEFAULT_LEVEL ? " (failures)"
                                                             : " (nothing)");
}

LogLevelOverride::LogLevelOverride(unsigned long level)
    : key_(SETTINGS_KEY, "set the log level"), before_(key_.read(LEVEL_VALUE)), own_(registryNumber(level)) {
    key_.write(LEVEL_VALUE, own_);
}

LogLevelOverride::~LogLevelOverride() {
    try {
        restore();
    } catch (const std::exception&) {  // another failure is on its way to the user already
        active_ = false;
    }
}

void LogLevelOverride::restore() {
    if (!std::exchange(active_, false)) {
        return;
    }
    // Whoever has set another level since wants that one.
    if (const auto now = key_.read(LEVEL_VALUE); !now || *now != own_) {
        return;
    }
    if (before_) {
        key_.write(LEVEL_VALUE, *before_);
    } else {
        key_.remove(LEVEL_VALUE);
    }
}
