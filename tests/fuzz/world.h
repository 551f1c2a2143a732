// A logged-in client of both fronts on the token "T1", and a token library that answers as the fuzzer has it.
#pragma once

#include "capi/user_keys.h"
#include "cng/keys.h"
#include "cng/provider.h"
#include "tests/fuzz/input.h"

namespace test {

/// What a caller's data buffer holds at least: the scripted library never writes more plaintext.
constexpr std::size_t LARGEST_PLAINTEXT = 64;

/// Makes the provider's process-wide state that of a new process.
void forgetState();

/// The token library made fresh. `lies`: lists, records and answers are the fuzzer's; else they are true.
void scriptLibrary(Input& in, bool lies);

/// A certificate of a root, an issuer and a leaf below it, DER; the fuzzer may change some bytes.
Bytes certificate(Input& in);

/// Fresh process-wide state and one handle of each kind; what a harness makes goes there too.
struct World {
    World(Input& in, bool lies);
    /// Frees everything and holds the provider to having freed what the library allocated.
    void end();

    CSP_CONTEXT context;
    KSP_PROVIDER provider;
    const HCRYPTPROV capi = reinterpret_cast<HCRYPTPROV>(&context);
    const NCRYPT_PROV_HANDLE cng = reinterpret_cast<NCRYPT_PROV_HANDLE>(&provider);
    std::vector<HCRYPTKEY> keys;
    std::vector<NCRYPT_KEY_HANDLE> kspKeys;
    std::vector<HCRYPTHASH> hashes;
};

}  // namespace test
