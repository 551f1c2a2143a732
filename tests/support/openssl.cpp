#include "tests/support/openssl.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <windows.h>

namespace test {

namespace {

// The exit code comes back as a file, renamed into place when all is written: a native process leaves no handle to wait
// for. The first argument is the output file, the others are the command.
constexpr char WAITING_SCRIPT[] =
    R"(out=$1; shift; "$@" >"$out" 2>&1 </dev/null; echo $? >"$out.tmp"; mv "$out.tmp" "$out.exit")";
constexpr DWORD POLL_MILLISECONDS = 5;
constexpr unsigned LIMIT_SECONDS = 30, GRACE_SECONDS = 10;

/// One argument in the quotes of a Windows command line.
std::string quoted(const std::string& argument) {
    std::string result = "\"";
    std::size_t backslashes = 0;
    for (const char character : argument) {
        result.append(character == '"' ? backslashes + 1 : 0, '\\');
        backslashes = character == '\\' ? backslashes + 1 : 0;
        result += character;
    }
    return result.append(backslashes, '\\') + "\"";
}

bool startNative(const std::vector<std::string>& command) {
    std::string line;
    for (const std::string& argument : command) {
        line += (line.empty() ? "" : " ") + quoted(argument);
    }
    STARTUPINFOA start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &process)) {
        return false;
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return true;
}

}  // namespace

CommandResult runOpenssl(const std::vector<std::string>& arguments) {
    const ScratchFolder scratch;
    std::vector<std::string> command = {
        R"(\\?\unix\bin\sh)",          "-c",     WAITING_SCRIPT, "sh", scratch.nativeFile("out"), "timeout",
        std::to_string(LIMIT_SECONDS), "openssl"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    CommandResult result;
    if (!startNative(command)) {
        return result;
    }
    const ULONGLONG end = GetTickCount64() + (LIMIT_SECONDS + GRACE_SECONDS) * 1000ULL;
    while (!std::filesystem::exists(scratch.file("out.exit"))) {
        if (GetTickCount64() > end) {
            return result;
        }
        Sleep(POLL_MILLISECONDS);
    }
    const Bytes code = scratch.read("out.exit");
    const Bytes output = scratch.read("out");
    result.exitCode = std::atoi(std::string(code.begin(), code.end()).c_str());
    result.output.assign(output.begin(), output.end());
    return result;
}

ScratchFolder::ScratchFolder() {
    static std::atomic<unsigned> counter{0};
    folder =
        (temporaryFolder() / ("zentok-test-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++counter)))
            .string();
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string ScratchFolder::write(const std::string& name, const Bytes& contents) const {
    std::ofstream(file(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
    return nativeFile(name);
}

Bytes ScratchFolder::read(const std::string& name) const {
    std::ifstream stream(std::filesystem::path(file(name)), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace test
