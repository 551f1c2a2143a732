// Other processes, whose ends the tests look at: each plays one role and ends with what it has opened still open.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "capi/csp_interface.h"
#include "tests/platform/ksp_test.h"

namespace test {
namespace {

constexpr DWORD CHILD_MILLISECONDS = 60000;

template <typename Function>
Function* entryOf(HMODULE provider, const char* name) {
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(provider, name)));
}

bool isLoaded() {
    return GetModuleHandleA("ZentokCSP.dll") != nullptr;
}
bool dialogIsOpen() {
    return FindWindowA(nullptr, "Verify User Password") != nullptr;
}

/// Frees the library while a thread waits for the user inside its first call, and on until that call is over, which has
/// to come back all the same.
bool survivesFreeing(const std::function<bool(HMODULE provider)>& call) {
    const HMODULE provider = LoadLibraryA("ZentokCSP.dll");
    std::atomic<bool> cameBack = false, isOver = false;
    std::thread caller([&] {
        cameBack = call(provider);
        isOver = true;
    });
    const bool waits = comes(dialogIsOpen);
    const PasswordUser user({logIn(PIN)});
    while (!isOver) {
        FreeLibrary(provider);
    }
    caller.join();
    return waits && cameBack && isLoaded();
}

bool acquireAsThePlatform(HMODULE provider, const std::string& container) {
    const auto acquire = entryOf<decltype(CPAcquireContext)>(provider, "CPAcquireContext");
    VTableProvStruc platform = {};
    HCRYPTPROV none = 1;
    return acquire(&none, container.c_str(), CRYPT_DELETEKEYSET, &platform) != FALSE && none == 0;
}

bool promptAsThePlatform(HMODULE provider) {
    const auto getTable = entryOf<decltype(GetKeyStorageInterface)>(provider, "GetKeyStorageInterface");
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* functions = nullptr;
    NCRYPT_PROV_HANDLE handle = 0;
    // The table has to stay good whatever comes, before anything of it was called too.
    return getTable(nullptr, &functions, 0) == 0 && FreeLibrary(provider) != FALSE && isLoaded() &&
           functions->OpenProvider(&handle, TEXT(""), 0) == ERROR_SUCCESS &&
           functions->PromptUser(handle, 0, TEXT(""), 0) == ERROR_SUCCESS &&
           functions->FreeProvider(handle) == ERROR_SUCCESS;
}

/// What a host may have open of each kind, never closed.
bool openEverything(const std::string& container) {
    Context context = acquire(container), verification = acquire("", CRYPT_VERIFYCONTEXT);
    Key key = userKey(context);
    Hash hash = hashOf(context, document());
    Owned<freeProvider> provider;
    KspKey kspKey, unfinished;
    const bool opened =
        table().OpenProvider(provider.out(), TEXT(""), 0) == ERROR_SUCCESS &&
        table().OpenKey(provider.get(), kspKey.out(), wide(container).c_str(), 0, 0) == ERROR_SUCCESS &&
        table().CreatePersistedKey(provider.get(), unfinished.out(), TEXT("RSA"), TEXT(""), 0, 0) == ERROR_SUCCESS;
    for (ULONG_PTR* const handle :
         {context.out(), verification.out(), key.out(), hash.out(), provider.out(), kspKey.out(), unfinished.out()}) {
        *handle = 0;
    }
    return opened;
}

/// Another thread is inside a library call that takes long.
bool generate() {
    static std::atomic<bool> done = false;
    const std::size_t start = logFileText().size();
    std::thread([] {
        const KspKey key = KeyStorage().create(RSA_4096);
        done = true;
    }).detach();
    return comes([=] { return logFileText().find("FinalizeKey - generating key", start) != std::string::npos; }) &&
           !done;
}

/// Uses both fronts on four threads until the process ends, which may be anywhere in there.
bool useWithoutEnd(const std::string& container) {
    const KeyStorage loggedIn;
    static std::array<std::atomic<int>, 4> rounds = {};
    for (std::size_t i = 0; i < rounds.size(); ++i) {
        std::thread([=] {
            for (;; ++rounds.at(i)) {
                if (i % 2 == 0) {
                    const Context context = acquire(container, CRYPT_SILENT);
                    sign(context);
                } else {
                    const KeyStorage storage(nullptr);
                    const KspKey key = storage.open(container);
                    static_cast<void>(storage.exportPublic(key, BCRYPT_RSAPUBLIC_BLOB));
                }
            }
        }).detach();
    }
    return comes([] { return std::all_of(rounds.begin(), rounds.end(), [](const auto& done) { return done >= 2; }); });
}

bool play(const std::string& role, const std::string& container) {
    if (role == "dialog-open") {
        std::thread([context = acquire(container)] { sign(context); }).detach();
        return comes(dialogIsOpen);
    }
    if (role == "freed-in-acquire") {
        return survivesFreeing([&](HMODULE provider) { return acquireAsThePlatform(provider, container); });
    }
    return role == "freed-in-prompt" ? survivesFreeing(promptAsThePlatform)
           : role == "generating"    ? generate()
           : role == "busy"          ? useWithoutEnd(container)
                                     : role == "all-open" && openEverything(container);
}

}  // namespace

void playRole([[maybe_unused]] const std::string& how, const std::string& role, const std::string& container) {
    const UINT code = play(role, container) ? CHILD_SUCCEEDED : 1;
#ifndef __WINE__  // there a native exit destroys what running threads use, before the platform has stopped them
    if (how == "--exit") {
        std::exit(static_cast<int>(code));  // as the end of main does
    }
#endif
    ExitProcess(code);
}

DWORD runChild(const std::string& role, const std::string& container, const std::string& how) {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    std::string line = "platform_test " + how + " " + role + " \"" + container + "\"";
    STARTUPINFOA start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION child = {};
#ifdef __WINE__
    const SanitizedChildren sanitized;
#endif
    if (!CreateProcessA(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &child)) {
        return 0;
    }
    CloseHandle(child.hThread);
    HANDLE process = child.hProcess;
    DWORD code = WaitForSingleObject(process, CHILD_MILLISECONDS);
    if (code == WAIT_OBJECT_0) {
        GetExitCodeProcess(process, &code);
    } else {
        TerminateProcess(process, 1);
    }
    CloseHandle(process);
    return code;
}

}  // namespace test
