// How a property is answered, of a provider and of a key alike.
#pragma once

#include <algorithm>
#include <span>

#include "cng/output.h"
#include "core/wide_text.h"

/// The size protocol: a room that is too small is NTE_BUFFER_TOO_SMALL, without a line in the log.
inline SECURITY_STATUS answerBytes(const Output& output, std::span<const unsigned char> value) {
    *output.pcbResult = static_cast<DWORD>(value.size());
    if (output.pbOutput == nullptr) {
        return ERROR_SUCCESS;
    }
    if (output.cbOutput < value.size()) {
        return NTE_BUFFER_TOO_SMALL;
    }
    std::copy(value.begin(), value.end(), output.pbOutput);
    return ERROR_SUCCESS;
}

template <typename Value>
SECURITY_STATUS answerValue(const Output& output, const Value& value) {
    return answerBytes(output, {reinterpret_cast<const unsigned char*>(&value), sizeof value});
}

inline SECURITY_STATUS answerDword(const Output& output, DWORD value) {
    return answerValue(output, value);
}

/// 16-bit text with its terminator, which has to stand behind it.
inline SECURITY_STATUS answerText(const Output& output, const WCHAR* text) {
    const std::size_t length = WideView(text).size() + 1;
    return answerBytes(output, {reinterpret_cast<const unsigned char*>(text), length * sizeof(WCHAR)});
}
