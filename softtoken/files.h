// Files and folders of the software token: bounded reading, atomic writing, a lock between processes, and the checked
// text record in which everything is stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <windows.h>

namespace softtoken {

using WideText = std::basic_string<WCHAR>;
using Bytes = std::vector<unsigned char>;
using ByteView = std::span<const unsigned char>;

WideText widen(std::string_view text, unsigned codePage = CP_UTF8);
std::string narrow(const WideText& text, unsigned codePage = CP_UTF8);

/// Upper-case hexadecimal text of `bytes`.
std::string hexText(ByteView bytes);

struct FolderEntry {
    WideText name;
    bool isFolder = false;
    std::uint64_t size = 0;
    std::uint64_t modified = 0;  ///< FILETIME: 100 ns since 1601
};

/// The entries of `folder` by name, "." and ".." left out; none when the folder cannot be read.
std::vector<FolderEntry> listFolder(const WideText& folder);

/// Time of the last change of a file, or of the set of entries of a folder; 0 when it is not there.
std::uint64_t modificationTime(const WideText& path);

/// The platform's time in the unit of modificationTime.
std::uint64_t currentFileTime();

/// The whole file. Error RESULT_NO_OBJECT: not there; RESULT_DAMAGED: unreadable or longer than `limit`.
Bytes readFile(const WideText& path, std::size_t limit);

/// Puts `contents` in place of the file, or leaves the file as it was: a temporary neighbour is written, flushed and
/// renamed over it. Error RESULT_STORAGE_FULL or RESULT_STORAGE.
void writeFile(const WideText& path, ByteView contents);

/// Deletes the file; one that is not there is no error. Error RESULT_STORAGE.
void removeFile(const WideText& path);

/// Deletes a folder and what is in it. Error RESULT_STORAGE.
void removeFolder(const WideText& path);

/// Holds the lock file at `path` against every other process and thread. Error RESULT_BUSY after ten seconds,
/// RESULT_STORAGE when the folder cannot be written.
class FileLock {
public:
    explicit FileLock(const WideText& path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    HANDLE file;
};

/// Named values, stored as lines "name=value" with a last line "sum=" holding the SHA-256 of all lines before it, so
/// that a cut or altered file is known as damaged and never half believed. Bytes stand in hexadecimal; in texts a
/// "%XX" stands for each byte outside printable ASCII.
class Record {
public:
    Record() = default;

    /// Error RESULT_NO_OBJECT: no such file; RESULT_DAMAGED: not a whole record.
    static Record read(const WideText& path);
    void write(const WideText& path) const;

    void setText(std::string_view name, std::string_view value);
    void setNumber(std::string_view name, std::int64_t value);
    void setBytes(std::string_view name, ByteView value);
    void erase(std::string_view name);

    [[nodiscard]] bool has(std::string_view name) const;

    // Error RESULT_DAMAGED when the value is missing, malformed or outside the bounds.
    [[nodiscard]] std::string text(std::string_view name, std::size_t longest) const;
    [[nodiscard]] std::int64_t number(std::string_view name, std::int64_t least, std::int64_t most) const;
    [[nodiscard]] Bytes bytes(std::string_view name, std::size_t shortest, std::size_t longest) const;

private:
    [[nodiscard]] const std::string& value(std::string_view name) const;
    void set(std::string_view name, std::string value);

    std::vector<std::pair<std::string, std::string>> lines;
};

}  // namespace softtoken
