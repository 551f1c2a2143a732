// 16-bit text of the platform: names of keys, algorithms and properties.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include <windows.h>

using WideText = std::basic_string<WCHAR>;
using WideView = std::basic_string_view<WCHAR>;

/// Characters before the terminator, at most `limit`: nothing is read behind those.
inline std::size_t boundedLength(const WCHAR* text, std::size_t limit) {
    std::size_t length = 0;
    while (length < limit && text[length] != 0) {
        ++length;
    }
    return length;
}

/// Only the low byte of each character counts.
inline std::string narrowed(WideView text) {
    std::string narrow(text.size(), '\0');
    std::transform(text.begin(), text.end(), narrow.begin(),
                   [](WCHAR character) { return static_cast<char>(character & 0xFF); });
    return narrow;
}

inline WideText widened(std::string_view text) {
    return {text.begin(), text.end()};
}
