// The caller's side of an operation that gives bytes.
#pragma once

#include <cstddef>
#include <string>

#include "cng/entry.h"

struct Output {
    BYTE* pbOutput;    ///< null asks for the size
    DWORD cbOutput;    ///< room in pbOutput, bytes
    DWORD* pcbResult;  ///< receives the size
};

/// NTE_BUFFER_TOO_SMALL, and the size that is needed to the caller and, behind `text`, to the log.
inline SECURITY_STATUS failOutputSize(const Output& out, std::size_t size, const std::string& text) {
    *out.pcbResult = static_cast<DWORD>(size);
    return failStatus(NTE_BUFFER_TOO_SMALL, text + std::to_string(size));
}
