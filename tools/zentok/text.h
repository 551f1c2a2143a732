// Text between the outside (UTF-16 and the ANSI code page) and the inside of the program, which is UTF-8 throughout.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

using WideText = std::basic_string<WCHAR>;

WideText toWide(std::string_view utf8);
std::string toUtf8(std::basic_string_view<WCHAR> wide);

/// In the ANSI code page, in which a CryptoAPI provider gets names and PINs. Throws UsageError, naming `what`, for a
/// text with a character that is not in it.
std::string toAnsi(std::string_view utf8, std::string_view what);

std::filesystem::path toPath(std::string_view utf8);
std::string pathText(const std::filesystem::path& path);

/// The arguments of this process without the program's name, in UTF-8 whatever the code page.
std::vector<std::string> commandLineArguments();

/// Bytes of the ANSI code page.
std::string fromAnsi(std::string_view ansi);
