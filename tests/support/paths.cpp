#include "tests/support/paths.h"

#include <windows.h>

namespace test {

std::string nativePath(const std::string& path) {
    using Convert = char*(CDECL*)(const WCHAR*);
    const auto convert = reinterpret_cast<Convert>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(TEXT("kernel32")), "wine_get_unix_file_name")));
    if (convert == nullptr) {
        return path;
    }
    char* const converted = convert(std::basic_string<WCHAR>(path.begin(), path.end()).c_str());
    std::string result = converted == nullptr ? std::string() : converted;
    HeapFree(GetProcessHeap(), 0, converted);
    return result;
}

std::filesystem::path temporaryFolder() {
    char folder[MAX_PATH] = {};
    GetTempPathA(sizeof folder, folder);
    const bool isNative = std::filesystem::path::preferred_separator == '/';
    return isNative ? nativePath(folder) : folder;
}

}  // namespace test
