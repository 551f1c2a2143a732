#include "tools/zentok/text.h"

#include <memory>

#include <shellapi.h>

#include "tools/zentok/failure.h"

WideText toWide(std::string_view utf8) {
    const int size = static_cast<int>(utf8.size());
    WideText wide(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0)), 0);
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), static_cast<int>(wide.size()));
    return wide;
}

std::string toUtf8(std::basic_string_view<WCHAR> wide) {
    const int size = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), needed, nullptr, nullptr);
    return utf8;
}

std::string toAnsi(std::string_view utf8, std::string_view what) {
    const WideText wide = toWide(utf8);
    const int size = static_cast<int>(wide.size());
    BOOL replaced = FALSE;
    const int needed =
        WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), size, nullptr, 0, nullptr, &replaced);
    std::string ansi(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), size, ansi.data(), needed, nullptr, nullptr);
    if (replaced != FALSE) {
        throw UsageError(std::string(what) + " has a character that this system's code page lacks");
    }
    return ansi;
}

std::filesystem::path toPath(std::string_view utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::string pathText(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

std::vector<std::string> commandLineArguments() {
    int count = 0;
    const std::unique_ptr<LPWSTR, decltype(&LocalFree)> wide(CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
    std::vector<std::string> arguments;
    for (int i = 1; wide && i < count; ++i) {
        arguments.push_back(toUtf8(wide.get()[i]));
    }
    return arguments;
}

std::string fromAnsi(std::string_view ansi) {
    const int size = static_cast<int>(ansi.size());
    WideText wide(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, ansi.data(), size, nullptr, 0)), 0);
    MultiByteToWideChar(CP_ACP, 0, ansi.data(), size, wide.data(), static_cast<int>(wide.size()));
    return toUtf8(wide);
}
