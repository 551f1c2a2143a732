// The log's level, asked of the registry for every line: the one cost of a log that is mostly silent.
#include <array>
#include <atomic>
#include <cstring>

#include <windows.h>

#include "core/last_error.h"
#include "core/log.h"

namespace {

constexpr std::int32_t HIGHEST_LEVEL = 3;

// The key of the settings, opened once and kept: to ask an open key is one call of the system, where opening it, asking
// and closing it again are three. Its value is read anew for each line; its name and the right to read it are looked at
// when it is opened, and again when it was deleted. Plain atomics, so that lines written while the process is taken
// down find them.
std::atomic<HKEY> g_settingsKey = nullptr;
std::atomic<int> g_settingsReaders = 0;

/// Closes the key when the library is unloaded.
struct SettingsKeyCloser {
    SettingsKeyCloser() = default;
    ~SettingsKeyCloser() {
        if (HKEY key = g_settingsKey.exchange(nullptr); key != nullptr) {
            RegCloseKey(key);
        }
    }
    SettingsKeyCloser(const SettingsKeyCloser&) = delete;
    SettingsKeyCloser& operator=(const SettingsKeyCloser&) = delete;
};
const SettingsKeyCloser g_settingsKeyCloser;

/// Counts a thread that may be using the kept key.
struct SettingsReader {
    SettingsReader() { ++g_settingsReaders; }
    ~SettingsReader() { --g_settingsReaders; }
    SettingsReader(const SettingsReader&) = delete;
    SettingsReader& operator=(const SettingsReader&) = delete;
};

/// Opens the key that has the settings' name now. Null: there is none, or this thread must not read it.
HKEY openSettings() {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Halvane\\Zentok", 0, KEY_QUERY_VALUE, &opened);
    return status == ERROR_SUCCESS ? opened : nullptr;
}

/// Keeps `opened` in the place of `stale`, or closes it when another thread was faster.
void keepSettings(HKEY stale, HKEY opened, bool isDeleted) {
    if (!g_settingsKey.compare_exchange_strong(stale, opened)) {
        RegCloseKey(opened);
        return;
    }
    // A deleted key that another thread may still be asking stays open: one handle for each time that the settings are
    // deleted in the middle of other threads' lines.
    if (isDeleted && g_settingsReaders == 1) {
        RegCloseKey(stale);
    }
}

using LevelValue = std::array<unsigned char, 32>;

LSTATUS readLevelValue(HKEY key, LevelValue& value) {
    value.fill(0);
    auto size = static_cast<DWORD>(value.size());
    return RegGetValueA(key, nullptr, "logLevel", RRF_RT_ANY, nullptr, value.data(), &size);
}

/// Whether the handle is no longer one of the settings: any other failure is the key's answer, which opening it again
/// would not change.
bool isLost(LSTATUS status) {
    return status == ERROR_INVALID_HANDLE || status == ERROR_KEY_DELETED || status == ERROR_ACCESS_DENIED;
}

}  // namespace

std::int32_t readLogLevel() {
    const LastErrorKeeper keeper;
    const SettingsReader reader;
    LevelValue value = {};
    HKEY key = g_settingsKey;
    LSTATUS status = key != nullptr ? readLevelValue(key, value) : ERROR_INVALID_HANDLE;
    if (isLost(status)) {
        const bool isDeleted = status == ERROR_KEY_DELETED;
        if (HKEY opened = openSettings(); opened != nullptr) {
            status = readLevelValue(opened, value);
            if (isLost(status)) {
                RegCloseKey(opened);  // deleted again by now, or kept from being read: the next line tries anew
            } else {
                keepSettings(key, opened, isDeleted);
            }
        }
    }
    if (status != ERROR_SUCCESS) {
        return LOG_LEVEL_ERROR;
    }
    std::int32_t level = 0;
    std::memcpy(&level, value.data(), sizeof level);
    return level <= HIGHEST_LEVEL ? level : LOG_LEVEL_ERROR;
}
