#include "bench/counters.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include <pthread.h>
#include <windows.h>

#include "core/log.h"

// The linker sends every call of the name behind __wrap_ there, and gives the original the name with __real_.
std::int32_t realReadLogLevel() __asm__("__real__Z12readLogLevelv");
std::int32_t countedReadLogLevel() __asm__("__wrap__Z12readLogLevelv");
extern "C" int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);

namespace {

// The thread whose calls count; none while time is measured.
std::atomic<DWORD> g_countedThread = 0;
std::atomic<bool> g_levelFromMemory = false;
bench::Counts g_counts;
std::size_t g_listBytes = 0;

bool isCounted() {
    const DWORD thread = g_countedThread.load(std::memory_order_relaxed);
    return thread != 0 && thread == GetCurrentThreadId();
}

void* allocate(std::size_t size) noexcept {
    if (isCounted()) {
        ++g_counts.allocations;
        g_counts.listCopies += size == g_listBytes ? 1 : 0;
    }
    return std::malloc(size != 0 ? size : 1);
}

}  // namespace

namespace bench {

Counts countsOf(const std::function<void()>& call, std::size_t listBytes) {
    g_counts = {};
    g_listBytes = listBytes;
    g_countedThread = GetCurrentThreadId();
    call();
    g_countedThread = 0;
    return g_counts;
}

void countLibraryCall() {
    if (isCounted()) {
        ++g_counts.libraryCalls;
    }
}

void answerLevelFromMemory(bool fromMemory) {
    g_levelFromMemory = fromMemory;
}

void checkLevel(std::size_t lines) {
    for (std::size_t i = 0; i < lines; ++i) {
        const std::int32_t level = readLogLevel();
        keep(&level);
    }
}

}  // namespace bench

std::int32_t countedReadLogLevel() {
    if (isCounted()) {
        ++g_counts.levelChecks;
    }
    return g_levelFromMemory.load(std::memory_order_relaxed) ? LOG_LEVEL_ERROR : realReadLogLevel();
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (isCounted()) {
        ++g_counts.locks;
    }
    return __real_pthread_mutex_lock(mutex);
}

// The other forms of the operators end in these.
void* operator new(std::size_t size) {
    if (void* const block = allocate(size); block != nullptr) {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
