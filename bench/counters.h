// What one call of the provider asks for, counted: the linker and the allocator send it past these counters.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

/// Of one call on the calling thread. The device monitor's thread does not count.
struct Counts {
    unsigned levelChecks = 0;  ///< of the log
    unsigned libraryCalls = 0;
    unsigned listCopies = 0;  ///< blocks of the size of the token's whole key list
    unsigned allocations = 0;
    unsigned locks = 0;  ///< std::mutex
};

/// Runs `call` once. `listBytes` is the size that counts as a copy of a list.
Counts countsOf(const std::function<void()>& call, std::size_t listBytes);

/// From the null token, at the start of each of its operations.
void countLibraryCall();

/// Answers level checks with 2 without reading anything, for what else a call costs; false reads the registry again.
void answerLevelFromMemory(bool fromMemory);

/// The work of so many log lines at a level that writes none of them.
void checkLevel(std::size_t lines);

/// Keeps the compiler from leaving out the making of what lies there.
inline void keep(const void* result) {
    __asm__ volatile("" : : "r"(result) : "memory");
}

}  // namespace bench
