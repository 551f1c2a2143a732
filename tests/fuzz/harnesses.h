// One harness for each road on which bytes come from outside.
#pragma once

#include <span>

namespace test {

struct Harness {
    const char* name;
    /// Runs the provider over the fuzzer's bytes, in the place of the token library's or the caller's. Throws when a
    /// rule is broken that holds for all bytes; an access outside a buffer ends the program.
    void (*run)(std::span<const unsigned char> bytes);
};

/// All of them; the seeds of each are the files in corpus/<name>.
std::span<const Harness> harnesses();

}  // namespace test
