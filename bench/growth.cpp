// Calls that grow: with the keys on the tokens, and with the threads that make them.
#include <algorithm>
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

/// Acquire and open by the last key of the last token: each key of that token has a line in the log.
void measureLoad(Report& report, const Load& load, const std::string& mode, std::optional<Target> target) {
    plugIn(load.tokens, load.keys);
    const std::string name = keyTextOf(load.tokens - 1, load.keys - 1);
    const auto acquireFloor = [&] {
        checkLevel(7 + load.keys);
        zentok_init(0, nullptr, 2);
        listDevices();
        copyLists(load);
        readContainerKeys(name);
    };
    report.add("acquire + release" + load.text() + mode, measurePair([&] { acquireAndRelease(name); }, acquireFloor),
               target);
    KeyStorageClient client(load.tokens, load.keys);
    const auto openFloor = [&] {
        checkLevel(6 + load.keys);
        copyLists(load);
    };
    report.add("open + free" + load.text() + mode, measurePair([&] { client.reopen(); }, openFloor), target);
}

/// Calls a second on so many threads together. `make` gives each thread its call.
double callsPerSecond(std::size_t threads, std::size_t calls, const std::function<Call()>& make) {
    std::vector<Call> work(threads);
    std::generate(work.begin(), work.end(), make);
    const double time = timeOf([&] {
        std::vector<std::thread> running;
        running.reserve(threads);
        for (const Call& call : work) {
            running.emplace_back([&] {
                for (std::size_t i = 0; i < calls; ++i) {
                    call();
                }
            });
        }
        std::for_each(running.begin(), running.end(), std::mem_fn(&std::thread::join));
    });
    return static_cast<double>(threads * calls) / time * 1e9;
}

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
    report.section("Acquire and open as the tokens fill");
    for (const bool fromMemory : {false, true}) {
        answerLevelFromMemory(fromMemory);
        for (const Load& load : LOADS) {
            measureLoad(report, load, fromMemory ? ", level from memory" : "",
                        fromMemory ? std::nullopt : std::optional(Target{1.5, true}));
        }
    }
    answerLevelFromMemory(false);
}

void measureThreads(Report& report) {
    report.section("CPSignHash on threads with contexts of their own");
    plugIn(1, KEYS);
    for (const bool fromMemory : {false, true}) {
        answerLevelFromMemory(fromMemory);
        for (const std::size_t threads : {1, 2, 8}) {
            const std::size_t calls = (fromMemory ? 200000 : 8000) / threads;
            const double value = callsPerSecond(threads, calls, signature);
            const double floor = callsPerSecond(threads, calls, bareSignature);
            report.add({std::to_string(threads) + (threads == 1 ? " thread" : " threads") +
                            (fromMemory ? ", level from memory" : ""),
                        "signatures/s", value, floor, value / floor});
        }
    }
    answerLevelFromMemory(false);
}

}  // namespace bench
