// Calls that grow: with the keys on the tokens, and with the threads that make them.
#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "bench/null_clients.h"
#include "bench/sections.h"
#include "core/container_map.h"
#include "core/pin_cache.h"

namespace bench {
namespace {

struct Load {
    std::size_t tokens;
    std::size_t keys;  // on each

    std::string text() const {
        return ", " + std::to_string(keys) + (keys == 1 ? " key" : " keys") +
               (tokens == 1 ? "" : " on each of " + std::to_string(tokens) + " tokens");
    }
};
constexpr Load LOADS[] = {{1, 1}, {1, 10}, {1, 100}, {1, 1000}, {4, 1}, {4, 100}};

/// Every list is copied until the key is found, and that of its token once more.
void copyLists(const Load& load) {
    listDevices();
    for (std::size_t token = 1; token <= load.tokens; ++token) {
        copyList("NULL-" + std::to_string(token));
    }
    copyList("NULL-" + std::to_string(load.tokens));
}

constexpr const char* CALLS[] = {"acquire + release", "open + free"};
using Timings = std::array<Timing, std::size(CALLS)>;

/// Both by the last key of the last token: each key of that token has a line in the log.
Timings measureLoad(const Load& load) {
    plugIn(load.tokens, load.keys);
    const std::string name = keyTextOf(load.tokens - 1, load.keys - 1);
    const auto acquireFloor = [&] {
        checkLevel(7 + load.keys);
        zentok_init(0, nullptr, 2);
        listDevices();
        copyLists(load);
        readContainerKeys(name);
    };
    KeyStorageClient client(load.tokens, load.keys);
    const auto openFloor = [&] {
        checkLevel(6 + load.keys);
        copyLists(load);
    };
    return {measurePair([&] { acquireAndRelease(name); }, acquireFloor),
            measurePair([&] { client.reopen(); }, openFloor)};
}

/// What each key costs that comes between two loads.
Timing slope(const Load& few, const Timing& ofFew, const Load& many, const Timing& ofMany) {
    const auto added = static_cast<double>(many.keys - few.keys);
    return {(ofMany.call - ofFew.call) / added, (ofMany.floor - ofFew.floor) / added};
}

/// From the timings of each load: what a key adds, beside what it adds to the floor; and from 100 keys on beside what
/// it adds up to there, which shows how far from a straight line the growth is.
void addSlopes(Report& report, const std::vector<Timings>& timings, const std::string& mode) {
    constexpr std::size_t TEN = 1;  // its place in LOADS, which 100 and 1,000 follow
    constexpr Target TARGET = {1.5, true};
    for (std::size_t call = 0; call < std::size(CALLS); ++call) {
        const auto between = [&](std::size_t load) {
            return slope(LOADS[load], timings[load][call], LOADS[load + 1], timings[load + 1][call]);
        };
        const Timing low = between(TEN);
        const Timing high = between(TEN + 1);
        const std::string name = CALLS[call] + mode;
        report.add(name + ", keys 10 to 100", low, TARGET);
        report.add(name + ", keys 100 to 1000", high, TARGET);
        report.add(name + ", keys 100 to 1000, against 10 to 100", {high.call, low.call});
    }
}

/// Calls a second on so many threads together, each with a call of its own.
double callsPerSecond(const std::vector<Call>& work, std::size_t calls) {
    std::atomic<std::size_t> missing = work.size() + 1;
    const auto startTogether = [&] {
        for (--missing; missing != 0;) {
            std::this_thread::yield();
        }
    };
    std::vector<std::thread> running;
    running.reserve(work.size());
    for (const Call& call : work) {
        running.emplace_back([&] {
            startTogether();
            for (std::size_t i = 0; i < calls; ++i) {
                call();
            }
        });
    }
    const double time = timeOf([&] {
        startTogether();
        std::for_each(running.begin(), running.end(), std::mem_fn(&std::thread::join));
    });
    return static_cast<double>(work.size() * calls) / time * 1e9;
}

/// Everything else is measured on the first core alone, as Wine's server is there; see scripts/bench.
struct OnAllCores {
    OnAllCores() {
        DWORD_PTR process = 0;
        DWORD_PTR all = 0;
        GetProcessAffinityMask(GetCurrentProcess(), &process, &all);
        SetProcessAffinityMask(GetCurrentProcess(), all);
    }
    ~OnAllCores() { SetProcessAffinityMask(GetCurrentProcess(), 1); }
    OnAllCores(const OnAllCores&) = delete;
    OnAllCores& operator=(const OnAllCores&) = delete;
};

Call signature() {
    const auto client = std::make_shared<CryptoApiClient>();
    return [client] { client->sign(); };
}

/// With the accesses to the PIN cache that are demanded: its state and the PIN for the login, the PIN for the token.
Call bareSignature() {
    return [serial = std::string("NULL-1")] {
        checkLevel(5);
        const bool validated = pinStateIsValidated(serial);
        const std::string cached = pinStateGetPassword(serial);
        const std::string password = pinStateGetPassword(serial);
        keep(validated ? cached.data() : password.data());
        signOnToken();
    };
}

}  // namespace

void measureGrowth(Report& report) {
    constexpr const char* MODES[] = {"", ", level from memory"};
    std::vector<Timings> timings[std::size(MODES)];
    report.section("Acquire and open as the tokens fill");
    for (const bool fromMemory : {false, true}) {
        answerLevelFromMemory(fromMemory);
        for (const Load& load : LOADS) {
            const Timings& measured = timings[fromMemory].emplace_back(measureLoad(load));
            for (std::size_t call = 0; call < std::size(CALLS); ++call) {
                report.add(CALLS[call] + load.text() + MODES[fromMemory], measured[call],
                           fromMemory ? std::nullopt : std::optional(Target{1.5, true}));
            }
        }
    }
    answerLevelFromMemory(false);
    report.section("What each key more costs");
    for (const bool fromMemory : {false, true}) {
        addSlopes(report, timings[fromMemory], MODES[fromMemory]);
    }
}

void measureThreads(Report& report) {
    report.section("CPSignHash on threads with contexts of their own");
    plugIn(1, KEYS);
    const OnAllCores allCores;
    constexpr int ROUNDS = 15;
    constexpr std::size_t MOST_THREADS = 8;
    std::vector<Call> calls(MOST_THREADS);
    std::generate(calls.begin(), calls.end(), signature);
    const std::vector<Call> bareCalls(MOST_THREADS, bareSignature());
    struct Best {
        std::size_t threads;
        double value = 0;
        double floor = 0;
    };
    for (const bool fromMemory : {false, true}) {
        answerLevelFromMemory(fromMemory);
        Best best[] = {{1}, {2}, {MOST_THREADS}};
        for (int round = 0; round < ROUNDS; ++round) {
            for (Best& figure : best) {
                const std::size_t callsOfEach = (fromMemory ? 40000 : 800) / figure.threads;
                const auto measured = [&](const std::vector<Call>& work) {
                    return callsPerSecond({work.begin(), work.begin() + static_cast<std::ptrdiff_t>(figure.threads)},
                                          callsOfEach);
                };
                figure.value = std::max(figure.value, measured(calls));
                figure.floor = std::max(figure.floor, measured(bareCalls));
            }
        }
        for (const Best& figure : best) {
            report.add({std::to_string(figure.threads) + (figure.threads == 1 ? " thread" : " threads") +
                            (fromMemory ? ", level from memory" : ""),
                        "signatures/s", figure.value, figure.floor, figure.value / figure.floor});
        }
    }
    answerLevelFromMemory(false);
}

}  // namespace bench
