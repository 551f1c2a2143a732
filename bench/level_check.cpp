// What one look at the log's level costs, by the ways that the platform offers.
#include <array>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "bench/sections.h"
#include "core/log.h"

namespace bench {
namespace {

constexpr char SETTINGS[] = "Software\\Halvane\\Zentok";
constexpr char LEVEL[] = "logLevel";
constexpr DWORD INFO = LOG_LEVEL_INFO;

HKEY g_keptKey = nullptr;

HKEY openSettings() {
    HKEY key = nullptr;
    RegOpenKeyExA(HKEY_LOCAL_MACHINE, SETTINGS, 0, KEY_QUERY_VALUE, &key);
    return key;
}

DWORD query(HKEY key) {
    DWORD level = 0;
    DWORD size = sizeof level;
    RegQueryValueExA(key, LEVEL, nullptr, nullptr, reinterpret_cast<BYTE*>(&level), &size);
    return level;
}

DWORD get(HKEY key, const char* path) {
    DWORD level = 0;
    DWORD size = sizeof level;
    RegGetValueA(key, path, LEVEL, RRF_RT_ANY, nullptr, &level, &size);
    return level;
}

struct Way {
    const char* name;
    DWORD (*read)();
};

constexpr Way WAYS[] = {
    {"RegGetValue by path", [] { return get(HKEY_LOCAL_MACHINE, SETTINGS); }},
    {"RegOpenKeyEx + RegQueryValueEx + RegCloseKey",
     [] {
         const HKEY key = openSettings();
         const DWORD level = query(key);
         RegCloseKey(key);
         return level;
     }},
    {"RegGetValue of a kept key", [] { return get(g_keptKey, nullptr); }},
    {"RegQueryValueEx of a kept key", [] { return query(g_keptKey); }},
    {"readLogLevel", [] { return static_cast<DWORD>(readLogLevel()); }},
};

void setLevel(DWORD level) {
    if (RegSetKeyValueA(HKEY_LOCAL_MACHINE, SETTINGS, LEVEL, REG_DWORD, &level, sizeof level) != ERROR_SUCCESS) {
        throw std::runtime_error("the log's level cannot be set");
    }
}

/// Whether the very next look sees the key deleted and made again, with another level.
bool seesNewKey(const Way& way) {
    way.read();
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, SETTINGS);
    setLevel(INFO);
    const bool sees = way.read() == INFO;
    setLevel(LOG_LEVEL_ERROR);
    return sees;
}

}  // namespace

void measureLevelCheck(Report& report) {
    report.section("The level check, against RegQueryValueEx of a kept key");
    for (const Way& way : WAYS) {
        g_keptKey = openSettings();
        const Timing timing = measurePair([&] { way.read(); }, [] { query(g_keptKey); });
        report.add(std::string(way.name) + (seesNewKey(way) ? "" : ", blind to a key made anew"), timing);
        RegCloseKey(g_keptKey);
    }
}

}  // namespace bench
