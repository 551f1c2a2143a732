// What this process holds of the system, for tests in which that has to stay as it is.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <windows.h>

#include <psapi.h>

namespace test {

/// A number from the environment, by which scripts/soak asks for more than a test does otherwise.
inline std::uint64_t setting(const char* name, std::uint64_t otherwise) {
    const char* const value = std::getenv(name);
    return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

struct Figure {
    const char* name;
    std::int64_t (*read)();
    std::int64_t noise;  ///< by which it may differ without a loss: what the monitor is at, what a thread holds
};

/// To the byte, over all heaps: what the provider, the token library and the platform under them have allocated.
inline std::int64_t heapBytes() {
    std::array<HANDLE, 64> heaps = {};
    std::int64_t bytes = 0;
    for (DWORD i = 0, count = GetProcessHeaps(heaps.size(), heaps.data()); i < count; ++i) {
        HeapLock(heaps.at(i));
        PROCESS_HEAP_ENTRY entry = {};
        while (HeapWalk(heaps.at(i), &entry) != FALSE) {
            bytes += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? entry.cbData : 0;
        }
        HeapUnlock(heaps.at(i));
    }
    return bytes;
}

/// Whole pages, those outside of the heaps included.
inline std::int64_t privateBytes() {
    PROCESS_MEMORY_COUNTERS memory = {};
    K32GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory);
    return static_cast<std::int64_t>(memory.PagefileUsage);
}

// Of the others the number that the next one gets, which is the lowest free one or was given back: Wine counts none.
template <typename Handle>
std::int64_t numberOf(Handle handle, BOOL(WINAPI* giveBack)(Handle)) {
    giveBack(handle);
    return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(handle) & 0xFFFF);
}

#ifdef __WINE__
constexpr std::int64_t PAGE_NOISE = INT64_MAX / 2;  // the sanitizer keeps what was freed
#else
constexpr std::int64_t PAGE_NOISE = 262144;
#endif

constexpr Figure FIGURES[] = {
    {"heap bytes", heapBytes, 8192},
    {"private bytes", privateBytes, PAGE_NOISE},
    {"handles", [] { return numberOf(CreateEventA(nullptr, TRUE, TRUE, nullptr), CloseHandle) / 4; }, 4},
    {"TLS slots",
     [] {
         const DWORD slot = TlsAlloc();
         return TlsFree(slot) != FALSE ? std::int64_t{slot} : -1;
     },
     0},
    {"GDI objects", [] { return numberOf<HGDIOBJ>(CreateSolidBrush(1), DeleteObject); }, 2},
    {"USER objects", [] { return numberOf(CreateMenu(), DestroyMenu); }, 2},
};

using Reading = std::array<std::int64_t, std::size(FIGURES)>;

inline Reading readFigures() {
    Reading reading = {};
    std::transform(std::begin(FIGURES), std::end(FIGURES), reading.begin(),
                   [](const Figure& each) { return each.read(); });
    return reading;
}

/// What has grown beyond its noise, in words; empty when nothing has.
inline std::string growth(const Reading& before, const Reading& after) {
    std::string text;
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (after.at(i) - before.at(i) > FIGURES[i].noise) {
            text += std::string(FIGURES[i].name) + " from " + std::to_string(before.at(i)) + " to " +
                    std::to_string(after.at(i)) + "  ";
        }
    }
    return text;
}

}  // namespace test
