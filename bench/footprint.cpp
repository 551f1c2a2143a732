// What a host pays for having the provider at all: disk, loading, memory.
#include <algorithm>
#include <array>
#include <filesystem>
#include <stdexcept>

#include <process.h>
#include <windows.h>

#include <psapi.h>

#include "bench/sections.h"

namespace bench {
namespace {

/// The folder of this program is build/bench.
std::filesystem::path buildFolder() {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    return std::filesystem::path(program).parent_path().parent_path();
}

/// As they are installed: without debug information.
std::string installed(const char* library) {
    return (buildFolder() / "stripped" / library).string();
}

int timeToLoad(bool provider) {
    return static_cast<int>(timeOf([=] {
                                LoadLibraryA(installed("ZentokDSCLibrary.dll").c_str());
                                if (provider) {
                                    LoadLibraryA(installed("ZentokCSP.dll").c_str());
                                }
                            }) /
                            1e3);
}

int memoryToSign(bool throughProvider) {
    signOnce(throughProvider);
    PROCESS_MEMORY_COUNTERS counters = {};
    K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return static_cast<int>(counters.PeakWorkingSetSize / 1024);
}

struct Role {
    const char* name;
    int (*play)();
};
constexpr Role ROLES[] = {
    {"load-library", [] { return timeToLoad(false); }},
    {"load-provider", [] { return timeToLoad(true); }},
    {"sign-bare", [] { return memoryToSign(false); }},
    {"sign", [] { return memoryToSign(true); }},
};

/// The median of what fresh processes of this program answer in a role.
double inFreshProcesses(const char* role) {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    std::array<intptr_t, 5> answers = {};
    for (intptr_t& answer : answers) {
        answer = _spawnl(_P_WAIT, program, "bench", "--role", role, nullptr);
        if (answer <= 0) {
            throw std::runtime_error(std::string("no answer from another process in the role ") + role);
        }
    }
    std::nth_element(answers.begin(), answers.begin() + answers.size() / 2, answers.end());
    return static_cast<double>(answers[answers.size() / 2]);
}

void addPair(Report& report, const char* name, const char* unit, const char* role, const char* floorRole) {
    const double value = inFreshProcesses(role);
    const double floor = inFreshProcesses(floorRole);
    report.add({name, unit, value, floor, value / floor});
}

}  // namespace

int playRole(std::string_view name) {
    const auto* const role = std::ranges::find(ROLES, name, &Role::name);
    return role != std::end(ROLES) ? role->play() : -1;
}

void measureFootprint(Report& report) {
    report.section("ZentokCSP.dll in its host");
    for (const char* folder : {"bin", "stripped"}) {
        const auto size = std::filesystem::file_size(buildFolder() / folder / "ZentokCSP.dll");
        report.add({"size in build/" + std::string(folder), "KiB", static_cast<double>(size) / 1024});
    }
    addPair(report, "loading with ZentokDSCLibrary.dll in a fresh process, against that alone", "us", "load-provider",
            "load-library");
    // A host whose provider is pinned by then.
    LoadLibraryA("ZentokCSP.dll");
    report.add("loading again, against advapi32.dll again",
               measurePair([] { FreeLibrary(LoadLibraryA("ZentokCSP.dll")); },
                           [] { FreeLibrary(LoadLibraryA("advapi32.dll")); }));
    addPair(report, "peak memory of a host that signs once, against ZentokDSCLibrary.dll alone", "KiB", "sign",
            "sign-bare");
}

}  // namespace bench
