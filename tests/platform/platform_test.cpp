#include "tests/platform/platform_test.h"

#include <thread>

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr DWORD WAIT_MILLISECONDS = 30000;  // the first window of a display alone can take ten seconds

/// Waits until `condition` holds; false when it does not come to that.
template <typename Condition>
bool comes(Condition condition) {
    const ULONGLONG end = GetTickCount64() + WAIT_MILLISECONDS;
    while (!condition() && GetTickCount64() < end) {
        Sleep(5);
    }
    return condition();
}

}  // namespace

// A move cannot be made while the provider reads a file of the token.
void Token::move(const std::string& from, const std::string& to) {
    std::error_code error;
    EXPECT_TRUE(comes([&] { return !fs::exists(from) || (fs::rename(from, to, error), !error); })) << error.message();
}

bool logShowsRemoval(const Token& token, std::size_t start) {
    const std::string line = "Device disconnected: " + token.serial + "\n";
    return comes([&] { return logFileText().find(line, start) != std::string::npos; });
}

DWORD runChild(const std::string& role, const std::string& container) {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    std::string line = "platform_test --child " + role + " \"" + container + "\"";
    STARTUPINFOA start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION process = {};
    DWORD exitCode = 0;
#ifdef __WINE__
    const SanitizedChildren sanitized;
#endif
    if (CreateProcessA(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &process)) {
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &exitCode);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    return exitCode;
}

namespace {

/// Ends a child process with what its role has opened still open.
[[noreturn]] void end(bool succeeded) {
    ExitProcess(succeeded ? CHILD_SUCCEEDED : 1);
}

/// Loads the provider itself, asks for its table and frees it, time after time: fine when it stays from the first on.
bool survivesLoading() {
    for (int round = 0; round < 1600; ++round) {
        const HMODULE provider = LoadLibraryA("ZentokCSP.dll");
        void* table = nullptr;
        using Export = LONG(WINAPI*)(const WCHAR*, void**, DWORD);
        const FARPROC entry = GetProcAddress(provider, "GetKeyStorageInterface");
        reinterpret_cast<Export>(reinterpret_cast<void*>(entry))(nullptr, &table, 0);
        FreeLibrary(provider);
    }
    return GetModuleHandleA("ZentokCSP.dll") != nullptr;
}

[[noreturn]] void playRole(const std::string& role, const std::string& container) {
    if (role == "loading") {
        end(survivesLoading());
    }
    const Context context = acquire(container);
    if (role == "released") {
        const PasswordUser user({logIn(PIN)});
        end(sign(acquire(container)) == OK && tryAcquire("", CRYPT_VERIFYCONTEXT) == OK);
    }
    if (role == "dialog-open") {
        std::thread([&] { sign(context); }).detach();
        end(comes([] { return FindWindowA(nullptr, "Verify User Password") != nullptr; }));
    }
    const Key key = userKey(context);
    const Hash hash = hashOf(context, document());
    end(role == "all-open");
}

}  // namespace
}  // namespace test

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--child") {
        test::playRole(argv[2], argv[3]);
    }
    ::testing::InitGoogleTest(&argc, argv);
    // Before the provider is loaded: a log and tokens of this program's own.
    test::usePrivateTempFolder("zentok-platform-test");
    const test::ScratchFolder tokens;
    SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", tokens.path().c_str());
    test::logOf([] {});  // makes the log's folder, so that no first line is lost
    return RUN_ALL_TESTS();
}
