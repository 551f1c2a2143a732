#include "core/device_monitor.h"

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "core/log.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

namespace {

constexpr DWORD POLL_INTERVAL = 1000;  // milliseconds

std::atomic<unsigned char> g_monitorRunning = 0;
std::atomic<unsigned char> g_monitorStopRequested = 0;
std::thread g_monitorThread;

/// Gives the claim on the monitor back when its thread cannot be created, for the next acquire to try again.
struct ClaimGuard {
    ClaimGuard() = default;
    ~ClaimGuard() {
        if (!started) {
            g_monitorRunning = 0;
        }
    }
    ClaimGuard(const ClaimGuard&) = delete;
    ClaimGuard& operator=(const ClaimGuard&) = delete;

    bool started = false;
};

/// Stops the monitor before g_monitorThread, defined above it, is destroyed.
struct MonitorStopper {
    MonitorStopper() = default;
    ~MonitorStopper() { stopDeviceMonitor(); }
    MonitorStopper(const MonitorStopper&) = delete;
    MonitorStopper& operator=(const MonitorStopper&) = delete;
};
const MonitorStopper g_monitorStopper;

void forgetAbsentDevices(const std::set<std::string>& connected) {
    const std::lock_guard lock(g_pinStatesLock);
    for (auto entry = g_pinStates.begin(); entry != g_pinStates.end();) {
        if (connected.contains(entry->first)) {
            ++entry;
        } else {
            logInfo("Device disconnected: " + entry->first);
            entry = g_pinStates.erase(entry);
        }
    }
}

}  // namespace

void startDeviceMonitor() {
    // The claim: of two threads that open at the same moment one starts the monitor.
    unsigned char expected = 0;
    if (!g_monitorRunning.compare_exchange_strong(expected, 1)) {
        logInfo("Monitor thread already running, not starting again.");
        return;
    }
    ClaimGuard claim;
    g_monitorStopRequested = 0;
    g_monitorThread = std::thread(deviceMonitorThread);
    claim.started = true;
    logInfo("Monitor thread started (startDeviceMonitor).");
}

void deviceMonitorThread() {
    logInfo("Device monitor thread started.");
    g_monitorRunning = 1;
    while (g_monitorStopRequested == 0) {
        const std::vector<std::string> devices = zentok_getConnectedDeviceList(false, nullptr);
        forgetAbsentDevices({devices.begin(), devices.end()});
        Sleep(POLL_INTERVAL);
    }
    logInfo("Device monitor thread stopped.");
    g_monitorRunning = 0;
}

void stopDeviceMonitor() {
    g_monitorStopRequested = 1;
    if (g_monitorThread.joinable() && g_monitorThread.get_id() != std::this_thread::get_id()) {
        g_monitorThread.join();
        logInfo("Monitor thread joined (stopDeviceMonitor).");
    }
    g_monitorRunning = 0;
}
