// fuzz HARNESS [OPTION...] [FOLDER...]: libFuzzer over one harness, with its own options; files in place of folders are
// replayed and nothing else. Built natively against Wine, for libFuzzer and the sanitizers have no Windows runtime
// here.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tests/fuzz/harnesses.h"
#include "tests/fuzz/input.h"

extern "C" {
int LLVMFuzzerRunDriver(int* count, char*** arguments, int (*run)(const unsigned char* data, std::size_t size));
void __sanitizer_symbolize_pc(void* address, const char* format, char* text, std::size_t size);

/// readLogLevel: none is written, and asking Wine's server for each line would take most of the time.
std::int32_t __wrap__Z12readLogLevelv() {
    return 0;
}

/// startDeviceMonitor: a run is to depend on its input alone.
void __wrap__Z18startDeviceMonitorv() {
}
}

namespace {

constexpr int LONGEST_RUN = 20;  // seconds

const test::Harness* g_harness = nullptr;
std::atomic<unsigned> g_runs = 0;

/// Ends a run that hangs. libFuzzer's own alarm would break Wine's conversation with its server.
void watch() {
    for (unsigned seconds = 0, last = 0; seconds < LONGEST_RUN; ++seconds) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (const unsigned runs = g_runs; runs != last) {
            seconds = 0;
            last = runs;
        }
    }
    std::fprintf(stderr, "%s: still running after %d seconds\n", g_harness->name, LONGEST_RUN);
    std::abort();
}

int run(const unsigned char* data, std::size_t size) {
    ++g_runs;
    try {
        g_harness->run({data, size});
    } catch (const test::Broken& broken) {
        std::fprintf(stderr, "%s: %s\n", g_harness->name, broken.what());
        std::abort();
    }
    return 0;
}

/// Shows where, along the frame pointers: the stack of the platform's exceptions cannot be unwound. libFuzzer saves the
/// input of what ends with an abort.
LONG WINAPI onFault(EXCEPTION_POINTERS* fault) {
    const EXCEPTION_RECORD& record = *fault->ExceptionRecord;
    if (record.ExceptionCode != EXCEPTION_ACCESS_VIOLATION) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    std::fprintf(stderr, "%s: access %s %llx\n", g_harness->name, record.ExceptionInformation[0] != 0 ? "to" : "from",
                 static_cast<unsigned long long>(record.ExceptionInformation[1]));
    DWORD64 at = fault->ContextRecord->Rip;
    DWORD64 frame[2] = {fault->ContextRecord->Rbp, 0};
    for (int depth = 0; depth < 12; ++depth) {
        char text[1024] = {};
        __sanitizer_symbolize_pc(reinterpret_cast<void*>(at), "    %f %S", text, sizeof text);
        std::fprintf(stderr, "%s\n", text);
        SIZE_T read = 0;
        if (ReadProcessMemory(GetCurrentProcess(), reinterpret_cast<void*>(frame[0]), frame, sizeof frame, &read) ==
            FALSE) {
            break;
        }
        at = frame[1];
    }
    std::abort();
}

}  // namespace

int main(int count, char** arguments) {
    for (const test::Harness& harness : test::harnesses()) {
        if (count > 1 && std::strcmp(arguments[1], harness.name) == 0) {
            g_harness = &harness;
        } else if (count == 1) {
            std::puts(harness.name);
        }
    }
    if (g_harness == nullptr) {
        return count == 1 ? 0 : 2;
    }
    AddVectoredExceptionHandler(1, onFault);
    std::signal(SIGABRT, SIG_DFL);  // Wine's; libFuzzer takes only what nobody has
    std::thread(watch).detach();
    arguments[1] = arguments[0];
    ++arguments;
    --count;
    return LLVMFuzzerRunDriver(&count, &arguments, run);
}
