#include "core/device_monitor.h"

#include <algorithm>
#include <thread>

#include "core/pin_cache.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

class DeviceMonitorTest : public ProviderTest {};

/// Waits until the PIN cache holds the entries of these devices and no others.
bool waitForEntries(const char* devices) {
    constexpr int PATIENCE = 5000;  // milliseconds
    for (int waited = 0; waited < PATIENCE; waited += 10, Sleep(10)) {
        const std::lock_guard lock(g_pinStatesLock);
        const Lines expected = lines(devices);
        if (std::equal(g_pinStates.begin(), g_pinStates.end(), expected.begin(), expected.end(),
                       [](const auto& entry, const std::string& device) { return entry.first == device; })) {
            return true;
        }
    }
    return false;
}

TEST_F(DeviceMonitorTest, ForgetsWhatIsNoLongerConnected) {
    EXPECT_EQ(logOf(stopDeviceMonitor), Lines()) << "no thread, no join";
    token().setDevices({"T1", "T2", "T3", "T3"});
    for (const char* device : {"T1", "T2", "gone"}) {
        pinStateStore(device, "1234");
        pinStateMarkDeviceInitialised(device);
    }
    Lines log = logOf([] {
        std::thread other(startDeviceMonitor);  // two clients open at the same moment
        startDeviceMonitor();
        other.join();
        EXPECT_TRUE(waitForEntries("T1|T2")) << "and T3, which has none, gets none";
        token().setDevices({"T2"});
        EXPECT_TRUE(waitForEntries("T2"));
        EXPECT_EQ(pinStateGetPassword("T2"), "1234");
        EXPECT_TRUE(pinStateIsDeviceInitialised("T2"));
        pinStateMarkDeviceInitialised("A");
        token().setDevices({});
        EXPECT_TRUE(waitForEntries("")) << "an empty answer ends every login";
        const DWORD before = GetTickCount();
        stopDeviceMonitor();
        EXPECT_LT(GetTickCount() - before, 2000U);
    });
    ASSERT_GT(log.size(), 4U);
    std::sort(log.begin(), log.begin() + 4);  // three threads write these
    EXPECT_EQ(log,
              lines("Device disconnected: gone|Device monitor thread started.|"
                    "Monitor thread already running, not starting again.|Monitor thread started (startDeviceMonitor).|"
                    "Device disconnected: T1|Device disconnected: A|Device disconnected: T2|"
                    "Device monitor thread stopped.|Monitor thread joined (stopDeviceMonitor)."));
}

TEST_F(DeviceMonitorTest, ASlowLibraryHoldsNoLock) {
    token().holdPolls(true);
    startDeviceMonitor();  // again, after the stop of another test
    EXPECT_TRUE(token().waitForHeldPoll());
    EXPECT_TRUE(g_pinStatesLock.try_lock());
    g_pinStatesLock.unlock();
    token().holdPolls(false);
    stopDeviceMonitor();
}

}  // namespace
}  // namespace test
