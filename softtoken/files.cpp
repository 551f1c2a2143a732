#include "softtoken/files.h"

#include <algorithm>
#include <atomic>
#include <charconv>

#include "softtoken/crypto.h"
#include "softtoken/result.h"

namespace softtoken {

namespace {

constexpr std::size_t RECORD_LIMIT = 65536;
constexpr std::string_view SUM_NAME = "sum=";
constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
constexpr DWORD RETRY_MILLISECONDS = 5;
constexpr ULONGLONG LOCK_PATIENCE_MILLISECONDS = 10000;
/// A scanner or another reader may hold a file open for a moment. A denial may come from that too, but one that lasts
/// is a folder that cannot be written.
constexpr ULONGLONG DENIAL_PATIENCE_MILLISECONDS = 200;

/// A file handle that is closed once.
class File {
public:
    explicit File(HANDLE opened) : handle(opened) {}
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    [[nodiscard]] bool isOpen() const { return handle != INVALID_HANDLE_VALUE; }
    [[nodiscard]] HANDLE get() const { return handle; }
    void close() {
        if (isOpen()) {
            CloseHandle(handle);
            handle = INVALID_HANDLE_VALUE;
        }
    }

private:
    HANDLE handle;
};

std::uint64_t joined(DWORD high, DWORD low) {
    return (static_cast<std::uint64_t>(high) << 32) | low;
}

std::uint64_t joined(const FILETIME& time) {
    return joined(time.dwHighDateTime, time.dwLowDateTime);
}

bool isAbsent(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

/// Throws for a failed write, under the code that the platform just gave.
[[noreturn]] void failStorage(const WideText& path, DWORD error) {
    const bool full = error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL;
    throw Error(full ? RESULT_STORAGE_FULL : RESULT_STORAGE,
                (full ? "the disk is full: " : "cannot write (error " + std::to_string(error) + "): ") + narrow(path));
}

WideText temporaryNeighbour(const WideText& path) {
    static std::atomic<unsigned> counter{0};
    return path + widen("." + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++counter) + ".tmp");
}

/// Writes and flushes a new file; 0 or the platform's code.
DWORD writeNewFile(const WideText& path, ByteView contents) {
    File file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file.isOpen() ||
        !WriteFile(file.get(), contents.data(), static_cast<DWORD>(contents.size()), &written, nullptr) ||
        !FlushFileBuffers(file.get())) {
        return GetLastError();
    }
    return written == contents.size() ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

DWORD replaceFile(const WideText& from, const WideText& to) {
    for (const ULONGLONG start = GetTickCount64();;) {
        if (MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
            return ERROR_SUCCESS;
        }
        const DWORD error = GetLastError();
        if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) ||
            GetTickCount64() - start > DENIAL_PATIENCE_MILLISECONDS) {
            return error;
        }
        Sleep(RETRY_MILLISECONDS);
    }
}

int digitValue(char digit) {
    const char* const found = std::find(HEX_DIGITS, HEX_DIGITS + 16, digit);
    return found == HEX_DIGITS + 16 ? -1 : static_cast<int>(found - HEX_DIGITS);
}

/// One byte from its two digits at `position`; -1: there are none.
int hexByte(std::string_view text, std::size_t position) {
    if (position + 2 > text.size()) {
        return -1;
    }
    const int high = digitValue(text[position]);
    const int low = digitValue(text[position + 1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char character : text) {
        if (character < ' ' || character > '~' || character == '%') {
            const auto byte = static_cast<unsigned char>(character);
            result += '%';
            result += hexText({&byte, 1});
        } else {
            result += character;
        }
    }
    return result;
}

ByteView viewOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

[[noreturn]] void failDamaged(std::string_view what) {
    throw Error(RESULT_DAMAGED, "damaged record: " + std::string(what));
}

}  // namespace

WideText widen(std::string_view text, unsigned codePage) {
    const int length = static_cast<int>(text.size());
    const int needed = MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0);
    WideText result(static_cast<std::size_t>(std::max(needed, 0)), WCHAR());
    MultiByteToWideChar(codePage, 0, text.data(), length, result.data(), needed);
    return result;
}

std::string narrow(const WideText& text, unsigned codePage) {
    const int length = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(codePage, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(std::max(needed, 0)), '\0');
    WideCharToMultiByte(codePage, 0, text.data(), length, result.data(), needed, nullptr, nullptr);
    return result;
}

std::string hexText(ByteView bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += HEX_DIGITS[byte >> 4];
        text += HEX_DIGITS[byte & 15];
    }
    return text;
}

std::vector<FolderEntry> listFolder(const WideText& folder) {
    std::vector<FolderEntry> entries;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + TEXT("\\*")).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return entries;
    }
    do {
        const WideText name = found.cFileName;
        if (name != TEXT(".") && name != TEXT("..")) {
            entries.push_back({name, (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
                               joined(found.nFileSizeHigh, found.nFileSizeLow), joined(found.ftLastWriteTime)});
        }
    } while (FindNextFileW(search, &found));
    FindClose(search);
    std::sort(entries.begin(), entries.end(),
              [](const FolderEntry& left, const FolderEntry& right) { return left.name < right.name; });
    return entries;
}

std::uint64_t modificationTime(const WideText& path) {
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    return GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) ? joined(data.ftLastWriteTime) : 0;
}

std::uint64_t currentFileTime() {
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    return joined(now);
}

Bytes readFile(const WideText& path, std::size_t limit) {
    const File file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.isOpen()) {
        const Result result = isAbsent(GetLastError()) ? RESULT_NO_OBJECT : RESULT_DAMAGED;
        throw Error(result, "cannot open " + narrow(path));
    }
    LARGE_INTEGER size = {};
    if (!GetFileSizeEx(file.get(), &size) || size.QuadPart < 0 || static_cast<std::uint64_t>(size.QuadPart) > limit) {
        throw Error(RESULT_DAMAGED, "unreadable or too long: " + narrow(path));
    }
    Bytes contents(static_cast<std::size_t>(size.QuadPart));
    DWORD read = 0;
    if (!ReadFile(file.get(), contents.data(), static_cast<DWORD>(contents.size()), &read, nullptr)) {
        throw Error(RESULT_DAMAGED, "cannot read " + narrow(path));
    }
    contents.resize(read);
    return contents;
}

void writeFile(const WideText& path, ByteView contents) {
    const WideText temporary = temporaryNeighbour(path);
    DWORD error = writeNewFile(temporary, contents);
    if (error == ERROR_SUCCESS) {
        error = replaceFile(temporary, path);
    }
    if (error != ERROR_SUCCESS) {
        DeleteFileW(temporary.c_str());
        failStorage(path, error);
    }
}

void removeFile(const WideText& path) {
    const DWORD error = DeleteFileW(path.c_str()) ? ERROR_SUCCESS : GetLastError();
    if (error != ERROR_SUCCESS && !isAbsent(error)) {
        failStorage(path, error);
    }
}

void removeFolder(const WideText& path) {
    for (const FolderEntry& entry : listFolder(path)) {
        const WideText child = path + TEXT("\\") + entry.name;
        entry.isFolder ? removeFolder(child) : removeFile(child);
    }
    if (!RemoveDirectoryW(path.c_str())) {
        failStorage(path, GetLastError());
    }
}

FileLock::FileLock(const WideText& path) : file(INVALID_HANDLE_VALUE) {
    // Opening without sharing is the lock: it ends with the handle, also when the process is killed.
    const ULONGLONG start = GetTickCount64();
    ULONGLONG denied = start;  // since then nothing but denials
    for (;;) {
        file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE) {
            return;
        }
        const DWORD error = GetLastError();
        if (isAbsent(error)) {
            throw Error(RESULT_NO_TOKEN, "the token is gone");
        }
        const ULONGLONG now = GetTickCount64();
        if (error == ERROR_SHARING_VIOLATION) {
            denied = now;
        } else if (error != ERROR_ACCESS_DENIED || now - denied > DENIAL_PATIENCE_MILLISECONDS) {
            failStorage(path, error);
        }
        if (now - start > LOCK_PATIENCE_MILLISECONDS) {
            throw Error(RESULT_BUSY, "another process holds the token");
        }
        Sleep(RETRY_MILLISECONDS);
    }
}

FileLock::~FileLock() {
    CloseHandle(file);
}

Record Record::read(const WideText& path) {
    const Bytes contents = readFile(path, RECORD_LIMIT);
    const std::string_view all(reinterpret_cast<const char*>(contents.data()), contents.size());
    Record record;
    for (std::size_t start = 0; start < all.size();) {
        const std::size_t end = all.find('\n', start);
        if (end == std::string_view::npos) {
            break;
        }
        const std::string_view line = all.substr(start, end - start);
        if (line.starts_with(SUM_NAME)) {
            if (end + 1 == all.size() &&
                line.substr(SUM_NAME.size()) == hexText(sha256(viewOf(all.substr(0, start))))) {
                return record;
            }
            break;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            break;
        }
        record.lines.emplace_back(line.substr(0, equals), line.substr(equals + 1));
        start = end + 1;
    }
    failDamaged(narrow(path));
}

void Record::write(const WideText& path) const {
    std::string all;
    for (const auto& [name, text] : lines) {
        all += name;
        all += '=';
        all += text;
        all += '\n';
    }
    const std::string sum = hexText(sha256(viewOf(all)));
    all += SUM_NAME;
    all += sum;
    all += '\n';
    writeFile(path, viewOf(all));
}

void Record::set(std::string_view name, std::string value) {
    for (auto& line : lines) {
        if (line.first == name) {
            line.second = std::move(value);
            return;
        }
    }
    lines.emplace_back(std::string(name), std::move(value));
}

void Record::setText(std::string_view name, std::string_view value) {
    set(name, escaped(value));
}

void Record::setNumber(std::string_view name, std::int64_t value) {
    set(name, std::to_string(value));
}

void Record::setBytes(std::string_view name, ByteView value) {
    set(name, hexText(value));
}

void Record::erase(std::string_view name) {
    std::erase_if(lines, [name](const auto& line) { return line.first == name; });
}

bool Record::has(std::string_view name) const {
    return std::any_of(lines.begin(), lines.end(), [name](const auto& line) { return line.first == name; });
}

const std::string& Record::value(std::string_view name) const {
    for (const auto& line : lines) {
        if (line.first == name) {
            return line.second;
        }
    }
    failDamaged(name);
}

std::string Record::text(std::string_view name, std::size_t longest) const {
    const std::string& stored = value(name);
    std::string result;
    for (std::size_t index = 0; index < stored.size(); ++index) {
        if (stored[index] != '%') {
            result += stored[index];
            continue;
        }
        const int byte = hexByte(stored, index + 1);
        if (byte < 0) {
            failDamaged(name);
        }
        result += static_cast<char>(byte);
        index += 2;
    }
    if (result.size() > longest) {
        failDamaged(name);
    }
    return result;
}

std::int64_t Record::number(std::string_view name, std::int64_t least, std::int64_t most) const {
    const std::string& stored = value(name);
    std::int64_t result = 0;
    const auto [end, error] = std::from_chars(stored.data(), stored.data() + stored.size(), result);
    if (error != std::errc() || end != stored.data() + stored.size() || result < least || result > most) {
        failDamaged(name);
    }
    return result;
}

Bytes Record::bytes(std::string_view name, std::size_t shortest, std::size_t longest) const {
    const std::string& stored = value(name);
    if (stored.size() % 2 != 0 || stored.size() / 2 < shortest || stored.size() / 2 > longest) {
        failDamaged(name);
    }
    Bytes result;
    result.reserve(stored.size() / 2);
    for (std::size_t index = 0; index < stored.size(); index += 2) {
        const int byte = hexByte(stored, index);
        if (byte < 0) {
            failDamaged(name);
        }
        result.push_back(static_cast<unsigned char>(byte));
    }
    return result;
}

}  // namespace softtoken
