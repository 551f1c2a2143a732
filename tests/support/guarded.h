// Buffers whose end shows each byte too far.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include <windows.h>

#include "core/wide_text.h"
#include "tests/support/scripted_token.h"

namespace test {

/// Memory that ends where no access is allowed.
class Guarded {
public:
    static constexpr BYTE FRESH = 0xA5;  ///< what a buffer without content is filled with
    explicit Guarded(std::size_t size) : used(size) {
        if (pool().empty()) {
            pool().push_back(
                static_cast<BYTE*>(VirtualAlloc(nullptr, ROOM + 1, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)));
            DWORD old = 0;
            VirtualProtect(pool().back() + ROOM, 1, PAGE_NOACCESS, &old);
        }
        block = pool().back();
        pool().pop_back();
        std::memset(data(), FRESH, used);
    }
    explicit Guarded(std::span<const unsigned char> content) : Guarded(content.size()) {
        std::copy(content.begin(), content.end(), data());
    }
    /// Text with its terminator.
    explicit Guarded(const WideText& content)
        : Guarded({reinterpret_cast<const unsigned char*>(content.c_str()), (content.size() + 1) * sizeof(WCHAR)}) {}
    ~Guarded() { pool().push_back(block); }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    BYTE* data() { return block + ROOM - used; }
    Bytes first(std::size_t count) { return {data(), data() + count}; }
    DWORD size() const { return static_cast<DWORD>(used); }
    WCHAR* text() { return reinterpret_cast<WCHAR*>(data()); }

private:
    static constexpr std::size_t ROOM = 0x20000;
    static std::vector<BYTE*>& pool() {
        static std::vector<BYTE*> blocks;
        return blocks;
    }
    std::size_t used;
    BYTE* block = nullptr;
};

}  // namespace test
