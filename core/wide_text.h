// 16-bit text of the platform: names of keys, algorithms and properties.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
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

/// Text up to its terminator, or to the end of its bytes: nothing is read behind either, and the bytes may start at any
/// address.
inline WideText textOf(std::span<const unsigned char> bytes) {
    WideText text;
    for (; bytes.size() >= sizeof(WCHAR); bytes = bytes.subspan(sizeof(WCHAR))) {
        WCHAR character = 0;
        std::memcpy(&character, bytes.data(), sizeof character);
        if (character == 0) {
            break;
        }
        text.push_back(character);
    }
    return text;
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
