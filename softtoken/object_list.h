// A list of records over a folder of files, published as snapshots that outlive later changes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "softtoken/files.h"

namespace softtoken {

/// What a file of the folder holds: the record and when it was made, which orders the list.
template <typename Object>
struct Stored {
    Object object = {};
    std::uint64_t created = 0;
};

/// Callers read a list by reference while other threads change the folder. So each state of the folder becomes a vector
/// that is never changed again; the last sixteen are kept, far more than a caller who copies at once can fall behind.
/// Reading alone makes no new one, however often a folder is looked at.
///
/// An unchanged folder costs one look at its modification time. A changed one is listed, and only files whose size or
/// time differ are read. Times of the last 100 ms count as changed: the file system's clock is coarse, and a second
/// change within one tick would stay unseen.
template <typename Object>
class ObjectList {
    static_assert(std::has_unique_object_representations_v<Object>, "records are compared byte by byte");

public:
    /// Reads one file; nothing for a damaged one, which is then left out of the list.
    using Reader = std::optional<Stored<Object>> (*)(const WideText& path);

    ObjectList(WideText listedFolder, Reader fileReader) : folder(std::move(listedFolder)), reader(fileReader) {}

    const std::vector<Object>& current() {
        const std::lock_guard hold(mutex);
        const std::uint64_t changed = modificationTime(folder);
        if (snapshots.empty() || changed != seen || !settled) {
            refresh(changed);
        }
        return *snapshots.back();
    }

private:
    static constexpr std::uint64_t CLOCK_TICKS = 1000000;  // 100 ms
    static constexpr std::size_t SNAPSHOTS = 16;

    struct File {
        std::uint64_t size = 0;
        std::uint64_t modified = 0;
        bool settled = false;
        std::optional<Stored<Object>> content;
    };

    void refresh(std::uint64_t changed) {
        const std::uint64_t now = currentFileTime();
        std::map<WideText, File> found;
        for (const FolderEntry& entry : listFolder(folder)) {
            if (entry.isFolder || !entry.name.ends_with(TEXT(".txt"))) {
                continue;
            }
            const auto known = files.find(entry.name);
            if (known != files.end() && known->second.settled && known->second.size == entry.size &&
                known->second.modified == entry.modified) {
                found.insert(files.extract(known));
                continue;
            }
            found[entry.name] = {entry.size, entry.modified, now > entry.modified + CLOCK_TICKS,
                                 reader(folder + TEXT("\\") + entry.name)};
        }
        files = std::move(found);
        seen = changed;
        settled = now > changed + CLOCK_TICKS;
        publish();
    }

    static bool areEqual(const std::vector<Object>& left, const std::vector<Object>& right) {
        return left.size() == right.size() &&
               std::equal(left.begin(), left.end(), right.begin(), [](const auto& one, const auto& other) {
                   return std::memcmp(&one, &other, sizeof one) == 0;
               });
    }

    /// A new snapshot, unless it would say the same as the last one.
    void publish() {
        std::vector<const Stored<Object>*> ordered;
        for (const auto& [name, file] : files) {
            if (file.content) {
                ordered.push_back(&*file.content);
            }
        }
        std::stable_sort(ordered.begin(), ordered.end(),
                         [](const auto* left, const auto* right) { return left->created < right->created; });
        auto snapshot = std::make_unique<std::vector<Object>>();
        snapshot->reserve(ordered.size());
        for (const Stored<Object>* stored : ordered) {
            snapshot->push_back(stored->object);
        }
        if (!snapshots.empty() && areEqual(*snapshot, *snapshots.back())) {
            return;
        }
        snapshots.push_back(std::move(snapshot));
        if (snapshots.size() > SNAPSHOTS) {
            snapshots.pop_front();
        }
    }

    const WideText folder;
    const Reader reader;
    std::mutex mutex;
    std::map<WideText, File> files;
    std::uint64_t seen = 0;
    bool settled = false;
    std::deque<std::unique_ptr<const std::vector<Object>>> snapshots;
};

}  // namespace softtoken
