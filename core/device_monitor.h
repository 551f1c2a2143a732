// The device monitor: one background thread a process that forgets the login of a token once it is no longer connected.
//
// It asks the token library for the connected devices once a second and drops the PIN cache's entry of every device
// that one answer misses: a token that is plugged back in must be logged in and initialised again.
#pragma once

/// Starts the thread unless it runs already. Called by every acquire and open that needs a token, after zentok_init.
void startDeviceMonitor();

/// Asks the thread to end and joins it, up to a second later. Runs at process exit; the pinned module rules out an
/// earlier unload, where a join under the loader lock would never return.
void stopDeviceMonitor();

/// The body of the thread.
void deviceMonitorThread();
