#include "bench/measure.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

int g_rounds = 150;
double g_batchTime = 1e6;  // nanoseconds

double timeOfBatch(const Call& call, std::size_t size) {
    return timeOf([&] {
               for (std::size_t i = 0; i < size; ++i) {
                   call();
               }
           }) /
           static_cast<double>(size);
}

/// So many calls that a batch lasts.
std::size_t batchSize(const Call& call) {
    std::size_t size = 1;
    for (;; size *= 2) {
        if (const double time = timeOfBatch(call, size); time * static_cast<double>(size) >= g_batchTime / 2) {
            return std::max<std::size_t>(1, static_cast<std::size_t>(g_batchTime / time));
        }
    }
}

}  // namespace

void require(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::runtime_error(std::string(what) + " failed");
    }
}

void measureQuickly() {
    g_rounds = 10;
}

double timeOf(const Call& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count());
}

Timing measurePair(const Call& call, const Call& floor) {
    const std::size_t calls = batchSize(call);
    const std::size_t floors = batchSize(floor);
    double callTime = timeOfBatch(call, calls);
    double floorTime = timeOfBatch(floor, floors);
    for (int round = 1; round < g_rounds; ++round) {
        callTime = std::min(callTime, timeOfBatch(call, calls));
        floorTime = std::min(floorTime, timeOfBatch(floor, floors));
    }
    return {callTime, floorTime};
}

}  // namespace bench
