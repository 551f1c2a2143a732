// The provider's log: its end, its lines as they come, and another level for a while.
#include <iostream>

#include "tools/zentok/commands.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/log_files.h"
#include "tools/zentok/text.h"

namespace {

constexpr unsigned long LONGEST_FOLLOWING = 86400;  ///< seconds
constexpr DWORD POLL = 250;                         ///< milliseconds
constexpr DWORD TIME_TO_END = 4000;                 ///< milliseconds, less than the system grants

// Never closed: the system calls the handler on a thread of its own, to the very end of the process.
HANDLE g_stop = nullptr;
HANDLE g_ended = nullptr;

BOOL WINAPI onConsoleEvent(DWORD event) {
    SetEvent(g_stop);
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
        // The console closes, or the user logs off: the process ends as soon as this returns.
        WaitForSingleObject(g_ended, TIME_TO_END);
    }
    return TRUE;
}

/// Turns Ctrl+C and the closing of the console into an orderly end, for as long as it lives.
class StopSignal {
public:
    StopSignal() {
        g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_ended = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (g_stop == nullptr || g_ended == nullptr || SetConsoleCtrlHandler(onConsoleEvent, TRUE) == FALSE) {
            throw platformFailure("wait for Ctrl+C", GetLastError());
        }
    }
    ~StopSignal() { SetEvent(g_ended); }
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    /// True when the user asked for the end within that time.
    static bool wait(DWORD milliseconds) { return WaitForSingleObject(g_stop, milliseconds) == WAIT_OBJECT_0; }
};

void follow(LogPrinter& printer, unsigned long seconds) {
    const ULONGLONG start = GetTickCount64();
    while (!StopSignal::wait(POLL) && (seconds == 0 || GetTickCount64() - start < seconds * 1000ULL)) {
        printer.printNew();
    }
    printer.printNew();
}

void followAtLevel(LogPrinter& printer, unsigned long level, unsigned long seconds) {
    const std::string before = logLevelText(logLevel());
    LogLevelOverride change(level);
    std::cerr << "The log level is " << logLevelText(static_cast<int>(level)) << " now. It was " << before
              << ", which it is again "
              << (seconds == 0 ? "at Ctrl+C" : "in " + std::to_string(seconds) + " seconds or at Ctrl+C") << ".\n";
    follow(printer, seconds);
    try {
        change.restore();
    } catch (const Failure& failure) {
        throw Failure(std::string(failure.what()) + "\nThe level has to be set by hand, to " + before +
                      ": logLevel under HKEY_LOCAL_MACHINE\\Software\\Halvane\\Zentok.");
    }
    std::cerr << "The log level is " << before << " again.\n";
}

void runLog(const Arguments& arguments) {
    const bool changes = arguments.has("level");
    const bool follows = changes || arguments.has("follow");
    if (arguments.has("seconds") && !follows) {
        throw UsageError("--seconds goes with --follow or --level");
    }
    const unsigned long lines = arguments.getNumber("lines", 0, 1000000);
    const unsigned long level = changes ? arguments.getNumber("level", 0, 3) : 0;
    const unsigned long seconds =
        arguments.has("seconds") ? arguments.getNumber("seconds", 1, LONGEST_FOLLOWING) : 0;  // 0: until Ctrl+C
    const std::optional<std::string> process = arguments.find("process");
    LogPrinter printer(process);
    if (!printer.printEnd(lines) && !follows) {
        throw Failure("there is no log" + (process ? " of " + *process : "") +
                      "\nFailures alone are written at level 2. `zentok log --level 3` shows what happens while it "
                      "runs. Logs are below " +
                      pathText(logFolder()) + ".");
    }
    if (!follows) {
        return;
    }
    const StopSignal signal;
    if (changes) {
        followAtLevel(printer, level, seconds);
    } else {
        follow(printer, seconds);
    }
}

constexpr Option OPTIONS[] = {
    {"process", "NAME", "the program that uses the provider; of all programs when not given"},
    {"lines", "COUNT", "how many of the last lines to show", false, "40"},
    {"follow", nullptr, "go on showing lines as they come, until Ctrl+C"},
    {"level", "LEVEL", "follow with another level: 0 nothing, 2 failures, 3 everything"},
    {"seconds", "COUNT", "end the following after that time"},
};

constexpr Command COMMANDS[] = {
    {"log", "Show the end of the provider's log, and follow it",
     "The lines go to the output, the names of the files to the error output. --level sets the level of all programs "
     "on\n"
     "the machine, which takes an administrator, and puts the old one back at the end. Level 3 writes keys and data: "
     "keep\nsuch a log to yourself.",
     OPTIONS, runLog},
};

}  // namespace

std::span<const Command> logCommands() {
    return COMMANDS;
}
