// A token library without a token: every operation answers at once with something plausible, so that what is left of a
// call's time is the provider's own. Linked in place of ZentokDSCLibrary.dll.
#pragma once

#include <cstddef>
#include <string>

namespace bench {

constexpr char PIN[] = "123456";
constexpr int SIGNATURE_SIZE = 256;  ///< bytes, of RSA-2048

/// Connects this many tokens, "NULL-1" and so on, in place of those before, each with this many RSA-2048 keys. Their
/// PIN counts as given and each as opened.
void plugIn(std::size_t tokens, std::size_t keys);

/// The key text of a key, both counted from 0.
std::string keyTextOf(std::size_t token, std::size_t key);

}  // namespace bench
