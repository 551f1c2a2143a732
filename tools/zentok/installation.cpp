#include "tools/zentok/installation.h"

#include <algorithm>
#include <system_error>

#include "tools/zentok/csp.h"
#include "tools/zentok/registry.h"

namespace {

/// Calls a function of the platform that answers with a length and wants more room when that does not fit.
template <typename Call>
WideText growingAnswer(Call call) {
    WideText answer(MAX_PATH, 0);
    for (;;) {
        const DWORD length = call(answer.data(), static_cast<DWORD>(answer.size()));
        if (length < answer.size()) {
            answer.resize(length);
            return answer;
        }
        answer.resize(answer.size() * 2);
    }
}

bool isFile(const WideText& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::vector<BYTE> versionResource(const WideText& path) {
    DWORD ignored = 0;
    std::vector<BYTE> resource(GetFileVersionInfoSizeW(path.c_str(), &ignored));
    if (!resource.empty() &&
        GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()) == FALSE) {
        resource.clear();
    }
    return resource;
}

}  // namespace

WideText registrationKey() {
    return WideText(TEXT("SOFTWARE\\Microsoft\\Cryptography\\Defaults\\Provider\\")) + PROVIDER_NAME;
}

std::optional<WideText> registeredPath() {
    std::optional<WideText> path = readRegistryText(registrationKey(), TEXT("Image Path"));
    return path && !path->empty() ? path : std::nullopt;
}

WideText ownFolder() {
    return folderOf(growingAnswer([](WCHAR* text, DWORD room) { return GetModuleFileNameW(nullptr, text, room); }));
}

WideText systemFolder() {
    return growingAnswer([](WCHAR* text, DWORD room) { return GetSystemDirectoryW(text, room); });
}

std::vector<WideText> searchFolders() {
    std::vector<WideText> folders = {
        systemFolder(), growingAnswer([](WCHAR* text, DWORD room) { return GetWindowsDirectoryW(text, room); })};
    const WideText path =
        growingAnswer([](WCHAR* text, DWORD room) { return GetEnvironmentVariableW(TEXT("PATH"), text, room); });
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(TEXT(';'), begin), path.size());
        WideText folder = path.substr(begin, end - begin);
        std::erase(folder, TEXT('"'));
        if (!folder.empty()) {
            folders.push_back(folder);
        }
        begin = end + 1;
    }
    return folders;
}

WideText findIn(const std::vector<WideText>& folders, const WideText& file) {
    for (const WideText& folder : folders) {
        const WideText path = folder + TEXT('\\') + file;
        if (isFile(path)) {
            return fullPath(path);
        }
    }
    return {};
}

WideText locate(const WideText& name) {
    if (name.find_first_of(TEXT("\\/:")) == WideText::npos) {
        return findIn(searchFolders(), name);
    }
    return isFile(name) ? fullPath(name) : WideText();
}

std::vector<WideText> presentLibraries() {
    std::vector<WideText> found;
    for (const WideText& path : {findIn({ownFolder()}, PROVIDER_LIBRARY), findIn(searchFolders(), PROVIDER_LIBRARY)}) {
        const auto isSame = [&path](const WideText& other) { return isSameFile(path, other); };
        if (!path.empty() && std::ranges::none_of(found, isSame)) {
            found.push_back(path);
        }
    }
    return found;
}

WideText folderOf(const WideText& path) {
    const std::size_t separator = path.find_last_of(TEXT("\\/"));
    return separator == WideText::npos ? WideText() : path.substr(0, separator);
}

WideText fullPath(const WideText& path) {
    return growingAnswer(
        [&path](WCHAR* text, DWORD room) { return GetFullPathNameW(path.c_str(), room, text, nullptr); });
}

bool isSameFile(const WideText& left, const WideText& right) {
    std::error_code error;
    return std::filesystem::equivalent(toPath(toUtf8(left)), toPath(toUtf8(right)), error);
}

std::string fileVersion(const WideText& path) {
    const std::vector<BYTE> resource = versionResource(path);
    void* block = nullptr;
    UINT size = 0;
    if (resource.empty() || VerQueryValueW(resource.data(), TEXT("\\"), &block, &size) == FALSE ||
        size < sizeof(VS_FIXEDFILEINFO)) {
        return {};
    }
    const auto* info = static_cast<const VS_FIXEDFILEINFO*>(block);
    return std::to_string(HIWORD(info->dwFileVersionMS)) + "." + std::to_string(LOWORD(info->dwFileVersionMS)) + "." +
           std::to_string(HIWORD(info->dwFileVersionLS)) + "." + std::to_string(LOWORD(info->dwFileVersionLS));
}

std::string fileProduct(const WideText& path) {
    const std::vector<BYTE> resource = versionResource(path);
    void* block = nullptr;
    UINT size = 0;
    if (resource.empty() ||
        VerQueryValueW(resource.data(), TEXT("\\StringFileInfo\\040904b0\\ProductName"), &block, &size) == FALSE) {
        return {};
    }
    return toUtf8(static_cast<const WCHAR*>(block));
}

bool isLibrary(const WideText& path) {
    // Mapped as an image, without its imports and without running anything of it.
    const HMODULE library = LoadLibraryExW(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    if (library != nullptr) {
        FreeLibrary(library);
    }
    return library != nullptr;
}
