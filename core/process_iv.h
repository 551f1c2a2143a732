// The initialization vector of every AES operation in the process, whichever key, context or front runs it.
#pragma once

#include <atomic>
#include <memory>
#include <span>
#include <vector>

/// Null or empty at load: no IV was set yet. There is one value for the whole process and no lock around its uses: a
/// vector is replaced whole, so an operation that is reading one while another thread sets the next keeps what it has.
inline std::atomic<std::shared_ptr<const std::vector<unsigned char>>> g_processIv;

inline void setProcessIv(std::span<const unsigned char> iv) {
    g_processIv.store(std::make_shared<const std::vector<unsigned char>>(iv.begin(), iv.end()));
}

/// The IV in force, in bytes; never null.
inline std::shared_ptr<const std::vector<unsigned char>> processIv() {
    auto iv = g_processIv.load();
    return iv != nullptr ? iv : std::make_shared<const std::vector<unsigned char>>();
}
