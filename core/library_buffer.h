// A result that the token library allocated and the provider has to release.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <span>

/// Receives a (pointer, length) pair of a token library operation through `data` and `length` and frees it once. The
/// bytes are not wiped.
struct LibraryBuffer {
    unsigned char* data = nullptr;
    int length = 0;

    LibraryBuffer() = default;
    ~LibraryBuffer() { std::free(data); }
    LibraryBuffer(const LibraryBuffer&) = delete;
    LibraryBuffer& operator=(const LibraryBuffer&) = delete;

    /// Empty again, for another call.
    void reset() {
        std::free(data);
        data = nullptr;
        length = 0;
    }

    /// False when the library's answer cannot be read: a length without bytes, or a negative one.
    bool isSound() const { return length == 0 || (length > 0 && data != nullptr); }

    /// To be asked of a sound answer only.
    std::span<const unsigned char> bytes() const { return {data, static_cast<std::size_t>(length)}; }
};
