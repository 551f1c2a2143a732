#include "core/log.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <windows.h>

#include <psapi.h>

#include "cert/key_encoding.h"
#include "core/last_error.h"

namespace {

/// A lock that may be put around the writing of lines. Nothing assigns it: each line is one append, which the platform
/// keeps whole.
std::mutex* g_logGuard = nullptr;

/// A file opened for appending: every write lands at the end of the file as one piece, whoever else appends. A stream
/// of the standard library would seek and write in two steps, and two threads could tear each other's lines.
class AppendFile {
public:
    explicit AppendFile(const char* path)
        : handle(CreateFileA(path, FILE_APPEND_DATA | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                             OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~AppendFile() {
        if (isOpen()) {
            CloseHandle(handle);
        }
    }
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    bool isOpen() const { return handle != INVALID_HANDLE_VALUE; }

    void write(const std::string& bytes) {
        DWORD written = 0;
        const auto size = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), MAXDWORD));
        if (size != bytes.size() || WriteFile(handle, bytes.data(), size, &written, nullptr) == FALSE ||
            written != size) {
            throw std::runtime_error("ios_base::badbit set");
        }
    }

private:
    HANDLE handle;
};

void reportException(const char* prefix, const std::exception& failure) {
    std::printf("%s%s\n", prefix, failure.what());
}

const char* levelTag(std::int32_t level) {
    switch (level) {
        case 1:
            return "EXCEP ::=>";
        case LOG_LEVEL_ERROR:
            return "ERROR ::=>";
        case LOG_LEVEL_INFO:
            return "DEBUG ::=>";
        default:
            return "INFO  ::=>";
    }
}

/// Appends as much of `text` as fits, always leaving a terminator.
void appendBounded(char (&path)[LOG_PATH_SIZE], const std::string& text) {
    std::strncat(path, text.c_str(), LOG_PATH_SIZE - 1 - std::strlen(path));
}

/// Creates the folders of `folder`, but only one level a call: it stops with -1 after the first folder that it had to
/// create, so on a fresh machine the first line makes the outer folder and is lost, and the second the inner one.
std::int32_t createLogFolder(const char* folder) {
    try {
        char path[LOG_PATH_SIZE] = {};
        std::snprintf(path, sizeof path, "%s", folder);
        if (path[0] == '\0') {
            return 0;
        }
        for (char* cut = path + 1; *cut != '\0'; ++cut) {
            if (*cut != '/') {
                continue;
            }
            *cut = '\0';
            if (CreateDirectoryA(path, nullptr) != FALSE) {
                return -1;
            }
            *cut = '/';
        }
        CreateDirectoryA(path, nullptr);
    } catch (const std::exception& failure) {
        reportException("Exception in Create Log Folder: ", failure);
    }
    return 0;
}

/// The file name of today: the date comes from the C library's clock, the time stamp of the line from the platform.
std::string dateText() {
    const std::time_t now = std::time(nullptr);
    char text[80] = {};
    if (const std::tm* local = std::localtime(&now); local != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%d", local);
    }
    return text;
}

/// Day before month; the year is in the file's name.
std::string timestampText() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    char text[64] = {};
    std::snprintf(text, sizeof text, "%02d/%02d::%02d:%02d:%02d:%03d-> ", now.wDay, now.wMonth, now.wHour, now.wMinute,
                  now.wSecond, now.wMilliseconds);
    return text;
}

}  // namespace

void logInfo(std::string message) {
    if (readLogLevel() == LOG_LEVEL_INFO) {
        writeLogLine(LOG_LEVEL_INFO, std::move(message));
    }
}

void logInfoBytes(const char* text, std::span<const unsigned char> bytes) {
    if (readLogLevel() != LOG_LEVEL_INFO) {
        return;
    }
    try {
        writeLogLine(LOG_LEVEL_INFO, text + bytesToHex(bytes.data(), static_cast<std::int32_t>(bytes.size())));
    } catch (const std::exception& failure) {
        reportException("Exception in write log : ", failure);
    }
}

void logError(std::string message) {
    if (readLogLevel() >= LOG_LEVEL_ERROR) {
        writeLogLine(LOG_LEVEL_ERROR, std::move(message));
    }
}

void writeLogLine(std::int32_t level, std::string message) {
    const LastErrorKeeper keeper;
    try {
        char path[LOG_PATH_SIZE] = {};
        if (getLogBaseFolderPath(path) != 0) {
            std::fputs("\nUnable to getLogBaseFolderPath", stdout);
        }
        appendBounded(path, "/Halvane/");
        appendBounded(path, getProcessName());
        appendBounded(path, "/");
        createLogFolder(path);
        appendBounded(path, dateText());
        appendBounded(path, ".LOG");

        std::unique_lock<std::mutex> guard;
        if (g_logGuard != nullptr) {
            guard = std::unique_lock(*g_logGuard);
        }
        AppendFile file(path);
        if (!file.isOpen()) {
            std::fputs("\nUnable to write log", stdout);
            return;
        }
        file.write(timestampText() + "->" + levelTag(level) + std::move(message) + "\n");
    } catch (const std::exception& failure) {
        reportException("Exception in write log : ", failure);
    }
}

std::string getProcessName() {
    try {
        char name[LOG_PATH_SIZE] = {};
        if (K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, name, sizeof name) == 0) {
            return {};
        }
        name[sizeof name - 1] = '\0';
        const std::string whole = name;
        return whole.substr(0, whole.find('.'));
    } catch (const std::exception& failure) {
        reportException("Exception in getProcessName(): ", failure);
    }
    return {};
}

std::int32_t getLogBaseFolderPath(char (&folder)[LOG_PATH_SIZE]) {
    try {
        std::memset(folder, 0, sizeof folder);
        const DWORD length = GetTempPathA(sizeof folder, folder);
        const DWORD attributes = length < sizeof folder ? GetFileAttributesA(folder) : INVALID_FILE_ATTRIBUTES;
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            std::memset(folder, 0, sizeof folder);
            return -1;
        }
    } catch (const std::exception& failure) {
        reportException("Exception in getLogBaseFolderPath(): ", failure);
    }
    return 0;
}

std::string hex32(std::uint32_t value) {
    char text[9] = {};
    std::snprintf(text, sizeof text, "%08X", value);
    return text;
}

std::string pointerText(const void* pointer) {
    return pointerText(reinterpret_cast<std::uintptr_t>(pointer));
}

std::string pointerHexText(const void* pointer) {
    char text[2 * sizeof pointer + 1] = {};
    std::snprintf(text, sizeof text, "%" PRIXPTR, reinterpret_cast<std::uintptr_t>(pointer));
    return text;
}
