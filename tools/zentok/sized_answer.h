// The platform's way of answering with bytes: asked for the size first, then for the answer.
#pragma once

#include <span>
#include <string>
#include <vector>

#include <windows.h>

#include <wincrypt.h>

#include "tools/zentok/failure.h"

/// `call` takes the room, null at first, and the size in and out, and fails through the last error. Throws with
/// `action`; a failure with the code `absent` means that there is nothing, which the empty answer says.
template <typename Call>
std::vector<BYTE> sizedAnswer(const std::string& action, Call call, DWORD absent = ERROR_SUCCESS) {
    DWORD size = 0;
    if (call(nullptr, &size) == FALSE) {
        const DWORD code = GetLastError();
        if (absent != ERROR_SUCCESS && code == absent) {
            return {};
        }
        throw platformFailure(action, code);
    }
    std::vector<BYTE> answer(size);
    if (call(answer.data(), &size) == FALSE) {
        throw platformFailure(action, GetLastError());
    }
    answer.resize(size);
    return answer;
}

/// The platform's structures take bytes that it only reads as writable ones.
inline DATA_BLOB blobOf(std::span<const BYTE> bytes) {
    return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}
