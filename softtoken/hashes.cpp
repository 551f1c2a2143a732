#include "softtoken/hashes.h"

#include <algorithm>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "core/token_library.h"
#include "softtoken/libgcrypt.h"

namespace softtoken {

namespace {

constexpr std::size_t MOST_HASHES = 16384;

constexpr struct {
    int selector;
    int algorithm;
} ALGORITHMS[] = {
    {HASH_SHA1, GCRY_MD_SHA1},     {HASH_SHA224, GCRY_MD_SHA224}, {HASH_SHA256, GCRY_MD_SHA256},
    {HASH_SHA384, GCRY_MD_SHA384}, {HASH_SHA512, GCRY_MD_SHA512},
};

/// A fresh state of each algorithm to copy from: opening one collects entropy on the way, which costs a millisecond.
gcry_md_hd_t freshState(int algorithm) {
    static const auto states = [] {
        std::map<int, gcry_md_hd_t> opened;
        for (const auto& row : ALGORITHMS) {
            checkCrypto(gcry_md_open(&opened[row.algorithm], row.algorithm, 0));
        }
        return opened;
    }();
    return states.at(algorithm);
}

struct Hash {
    explicit Hash(int usedAlgorithm) : algorithm(usedAlgorithm) {
        checkCrypto(gcry_md_copy(&state, freshState(algorithm)));
    }
    ~Hash() { gcry_md_close(state); }
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    const int algorithm;
    gcry_md_hd_t state = nullptr;
    std::mutex mutex;  ///< one user at a time, whatever the host's threads do
};

struct Table {
    std::mutex mutex;
    std::uintptr_t last = 0;
    std::list<std::pair<std::uintptr_t, std::shared_ptr<Hash>>> byUse;   ///< the least recently used first
    std::unordered_map<std::uintptr_t, decltype(byUse)::iterator> open;  ///< by handle
};

/// Never taken down, as the host may still hash while the process ends.
Table& table() {
    static Table& instance = *new Table;
    return instance;
}

/// The hash, which is now the most recently used.
std::shared_ptr<Hash> lookUp(void* handle) {
    Table& all = table();
    const std::lock_guard hold(all.mutex);
    const auto found = all.open.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == all.open.end()) {
        throw Error(RESULT_SPENT_HASH, "no such running hash");
    }
    all.byUse.splice(all.byUse.end(), all.byUse, found->second);
    return found->second->second;
}

}  // namespace

void* beginHash(int selector) {
    const auto* const row = std::find_if(std::begin(ALGORITHMS), std::end(ALGORITHMS),
                                         [selector](const auto& known) { return known.selector == selector; });
    if (row == std::end(ALGORITHMS)) {
        throw Error(RESULT_BAD_ARGUMENT, "unknown hash selector");
    }
    auto hash = std::make_shared<Hash>(row->algorithm);
    Table& all = table();
    const std::lock_guard hold(all.mutex);
    const auto place = all.byUse.emplace(all.byUse.end(), ++all.last, std::move(hash));
    all.open.emplace(all.last, place);
    if (all.open.size() > MOST_HASHES) {
        all.open.erase(all.byUse.front().first);
        all.byUse.pop_front();
    }
    return reinterpret_cast<void*>(all.last);
}

void updateHash(void* handle, ByteView data) {
    const std::shared_ptr<Hash> hash = lookUp(handle);
    const std::lock_guard hold(hash->mutex);
    gcry_md_write(hash->state, data.data(), data.size());
}

std::size_t finishHash(void* handle, std::span<unsigned char> digest) {
    const std::shared_ptr<Hash> hash = lookUp(handle);
    const std::size_t size = gcry_md_get_algo_dlen(hash->algorithm);
    if (digest.size() < size) {
        throw Error(RESULT_BUFFER_TOO_SMALL, "no room for the digest");
    }
    {
        Table& all = table();
        const std::lock_guard hold(all.mutex);
        const auto found = all.open.find(reinterpret_cast<std::uintptr_t>(handle));
        if (found == all.open.end()) {
            throw Error(RESULT_SPENT_HASH, "another thread finished this hash");
        }
        all.byUse.erase(found->second);
        all.open.erase(found);
    }
    const std::lock_guard hold(hash->mutex);
    std::copy_n(gcry_md_read(hash->state, hash->algorithm), size, digest.begin());
    return size;
}

}  // namespace softtoken
