#include "cert/utils.h"

#include <algorithm>

#include <windows.h>

std::string Utils::getEnv(const char* name) {
    std::string value;
    // The first answer counts the terminator, a later one does not; the variable may grow in between.
    DWORD length = GetEnvironmentVariableA(name, nullptr, 0);
    while (length > value.size()) {
        value.resize(length);
        length = GetEnvironmentVariableA(name, value.data(), static_cast<DWORD>(value.size()));
    }
    value.resize(length);
    return value;
}

bool Utils::pathExists(const char* path) {
    return path != nullptr && *path != '\0' && GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES;
}

std::string& Utils::trim(std::string& text) const {
    text.erase(text.find_last_not_of(trimCharacters) + 1);
    text.erase(0, text.find_first_not_of(trimCharacters));
    return text;
}

void Utils::sleep(std::uint32_t milliseconds) {
    Sleep(milliseconds);
}

std::string Utils::getExecutableDir() {
    char buffer[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameA(nullptr, buffer, MAX_PATH);
    const std::string path(buffer, length);
    return path.substr(0, path.find_last_of("\\/"));
}

std::string Utils::extractCommonName(const std::string& distinguishedName) {
    // The leftmost match of the expression CN=([^,\n\r]+). Searched by hand: the standard library's matcher goes one
    // level deeper for every character, and a name of some thousand would overrun the stack of the host's thread.
    constexpr char PREFIX[] = "CN=";
    constexpr char ENDS[] = ",\n\r";
    for (std::size_t at = distinguishedName.find(PREFIX); at != std::string::npos;
         at = distinguishedName.find(PREFIX, at + 1)) {
        const std::size_t begin = at + sizeof PREFIX - 1;
        const std::size_t end = std::min(distinguishedName.find_first_of(ENDS, begin), distinguishedName.size());
        if (end > begin) {
            return distinguishedName.substr(begin, end - begin);
        }
    }
    return distinguishedName;
}
