// What a native program of the C++ library needs to run under Wine and the sanitizers; linked into every binary.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include <sanitizer/asan_interface.h>
#include <unistd.h>
#include <windows.h>

// The runtime is preloaded into this process. A child must start without: the shadow memory covers the addresses at
// which Windows programs want to stand.
static const std::string g_runtime = std::getenv("LD_PRELOAD") != nullptr ? std::getenv("LD_PRELOAD") : "";
static const int g_childrenWithout = unsetenv("LD_PRELOAD");

SanitizedChildren::SanitizedChildren() {
    setenv("LD_PRELOAD", g_runtime.c_str(), 1);
}
SanitizedChildren::~SanitizedChildren() {
    unsetenv("LD_PRELOAD");
}

// A thread that Wine did not start cannot make a call of the platform: the C++ library's threads become Wine's.
void std::thread::_M_start_thread(_State_ptr state, void (*)()) {
    struct Start {
        static DWORD WINAPI run(void* state) {
            const _State_ptr owned(static_cast<_State*>(state));
            owned->_M_run();
            return 0;
        }
    };
    const HANDLE handle = CreateThread(nullptr, 0, Start::run, state.get(), 0, nullptr);
    // The native exit destroys what is static, and joins a thread there, when Wine has already ended all threads and no
    // call of the platform works any more. What is registered last comes first.
    static const int exitAtOnce = on_exit(
        [](int status, void*) {
            std::fflush(nullptr);
            _exit(status);
        },
        nullptr);
    static_cast<void>(exitAtOnce);
    if (handle == nullptr) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    static_cast<void>(state.release());
    _M_id = id(reinterpret_cast<native_handle_type>(handle));
}

void std::thread::join() {
    WaitForSingleObject(reinterpret_cast<HANDLE>(native_handle()), INFINITE);
    detach();
}

void std::thread::detach() {
    CloseHandle(reinterpret_cast<HANDLE>(native_handle()));
    _M_id = id();
}

// Called before every throw. The sanitizer knows only the stack that the system gave a thread, and Wine runs programs
// on stacks of its own: the frames that a throw ends must not stay marked.
extern "C" void __asan_handle_no_return() {
    char here = 0;
    const auto* const stack = reinterpret_cast<const NT_TIB*>(NtCurrentTeb());
    if (&here >= stack->StackLimit && &here < stack->StackBase) {
        __asan_unpoison_memory_region(&here, static_cast<std::size_t>(static_cast<char*>(stack->StackBase) - &here));
    }
}
