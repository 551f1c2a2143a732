// Running hashes behind opaque handles.
//
// A handle is a number in a table and never an address, so that a spent, foreign or repeated handle is refused and
// cannot reach freed memory. Callers have no way to release a hash that they do not finish: beyond 16,384 open hashes
// (some 25 MiB) the one that was not used for the longest time is dropped, and its handle refused from then on.
#pragma once

#include <cstddef>
#include <span>

#include "softtoken/files.h"

namespace softtoken {

/// `selector` is a HashType. Error RESULT_BAD_ARGUMENT.
void* beginHash(int selector);

/// Error RESULT_SPENT_HASH, as for finishHash.
void updateHash(void* handle, ByteView data);

/// Writes the digest, ends the hash and returns the digest's size. Error RESULT_BUFFER_TOO_SMALL, after which the hash
/// goes on.
std::size_t finishHash(void* handle, std::span<unsigned char> digest);

}  // namespace softtoken
