// Blocks that are handed to the caller, who gives them back through KSPFreeBuffer one by one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>

#include "core/wide_text.h"

struct FreeMemoryBlock {
    void operator()(void* block) const { std::free(block); }
};

template <typename Item>
using MemoryBlock = std::unique_ptr<Item, FreeMemoryBlock>;

/// `count` zeroed items of a plain type, a block of its own also for none; null without memory.
template <typename Item>
MemoryBlock<Item> allocateBlock(std::size_t count = 1) {
    return MemoryBlock<Item>(static_cast<Item*>(std::calloc(std::max<std::size_t>(count, 1), sizeof(Item))));
}

/// A copy of the text with its terminator; null without memory.
inline MemoryBlock<WCHAR> copyToBlock(WideView text) {
    MemoryBlock<WCHAR> copy = allocateBlock<WCHAR>(text.size() + 1);
    if (copy != nullptr) {
        std::copy(text.begin(), text.end(), copy.get());
    }
    return copy;
}
