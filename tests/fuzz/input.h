// What every harness speaks: the fuzzer's bytes carved into values, memory that shows each byte too far, and the rules
// that hold for every call of the provider.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include "tests/support/guarded.h"

namespace test {

/// Thrown, with the rule, for something that no input may bring about.
struct Broken : std::logic_error {
    using std::logic_error::logic_error;
};
inline void require(bool holds, const char* rule) {
    if (!holds) {
        throw Broken(rule);
    }
}

/// The fuzzer's bytes, taken from the front. Behind their end everything reads as 0 or empty.
class Input {
public:
    explicit Input(std::span<const unsigned char> all) : rest(all) {}

    bool ended() const { return rest.empty(); }
    template <typename Number = unsigned char>
    Number number() {
        Number value = 0;
        const std::span<const unsigned char> taken = take(sizeof value);
        std::copy(taken.begin(), taken.end(), reinterpret_cast<unsigned char*>(&value));
        return value;
    }
    bool flag() { return (number() & 1) != 0; }
    /// An element of a table or a list that is not empty.
    template <typename Items>
    auto& one(Items& items) {
        return items[number() % std::size(items)];
    }
    /// Two bytes of length, then as many bytes, of which `most` are taken at most.
    Bytes bytes(std::size_t most = 0xFFFF) {
        const std::span<const unsigned char> taken = take(std::min<std::size_t>(number<std::uint16_t>(), most));
        return {taken.begin(), taken.end()};
    }
    /// Text without a zero in it.
    std::string text(std::size_t most = 200) {
        Bytes taken = bytes(most);
        std::replace(taken.begin(), taken.end(), static_cast<unsigned char>(0), static_cast<unsigned char>('0'));
        return {taken.begin(), taken.end()};
    }

private:
    std::span<const unsigned char> take(std::size_t size) {
        const auto taken = rest.first(std::min(size, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }
    std::span<const unsigned char> rest;
};

/// True for a success of the CryptoAPI front; a failure has a code.
#define CAPI(call) held([&] { return (call) != FALSE; })
template <typename Call>
bool held(Call call) {
    constexpr DWORD UNTOUCHED_CODE = 0xDEADBEEF;
    SetLastError(UNTOUCHED_CODE);
    const bool succeeded = call();
    require(succeeded || (GetLastError() != UNTOUCHED_CODE && GetLastError() != 0), "a failure without a code");
    return succeeded;
}
/// True for a success of the CNG front; any status but 0 is a failure's code.
inline bool ksp(SECURITY_STATUS status) {
    require(status <= 0, "a status that is neither 0 nor a failure");
    return status == 0;
}

/// A call that makes an object: the handle is written on success alone. Returns it, or 0.
template <typename Call>
ULONG_PTR made(Call call) {
    ULONG_PTR handle = 0;
    require(call(&handle) == (handle != 0), "a handle that does not agree with the result");
    return handle;
}
/// The same for a function of either front; where its argument is `handle`.
#define CAPI_MADE(call) made([&](ULONG_PTR* handle) { return CAPI(call); })
#define KSP_MADE(call) made([&](ULONG_PTR* handle) { return ksp(call); })

/// A sized answer: how much is told, the answer into that much room, and then into `less` room. `call` takes the
/// buffer, its size and where the answer's size goes, and returns whether it succeeded. Fewer than `asking` bytes of
/// room ask for the size, by contract, as a null buffer does.
#define ANSWERS(asking, call) \
    answers(in.number(), asking, [&](BYTE* out, [[maybe_unused]] DWORD room, DWORD* size) { return call; })
template <typename Call>
void answers(std::size_t less, std::size_t asking, Call call) {
    DWORD told = 0;
    if (!call(nullptr, 0, &told) || told > 0x10000) {  // the property "Length" takes any number
        return;
    }
    for (const std::size_t room : {std::size_t{told}, std::min<std::size_t>(less, told)}) {
        Guarded buffer(room);
        DWORD written = buffer.size();
        const bool given = call(buffer.data(), buffer.size(), &written);
        const bool asked =
            room < asking && std::count(buffer.data(), buffer.data() + room, Guarded::FRESH) == buffer.size();
        require(!given || written <= room || asked, "an answer larger than its room");
    }
}

}  // namespace test
