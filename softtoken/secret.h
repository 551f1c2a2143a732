// Memory that is wiped when it is given back.
#pragma once

#include <cstddef>
#include <new>
#include <vector>

#include <windows.h>

namespace softtoken {

template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename U>
    WipingAllocator(const WipingAllocator<U>&) noexcept {}  // NOLINT(google-explicit-constructor): containers rebind

    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) noexcept {
        SecureZeroMemory(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    bool operator==(const WipingAllocator&) const { return true; }
};

/// Keys and decrypted data.
using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

}  // namespace softtoken
