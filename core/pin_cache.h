// The PIN cache: what this process knows about the login of each connected token.
//
// One entry a device, keyed by the serial text that the token library reports; contexts and provider objects on the
// same token share it, and releasing one leaves it standing. Passwords are held in ordinary text and are not wiped.
#pragma once

#include <map>
#include <mutex>
#include <string>

struct PinState {
    bool validated = false;          ///< a login succeeded, or the token reported a live single sign-on
    std::string password;            ///< the PIN in clear; empty after a single sign-on and after pinStateClear
    bool deviceInitialised = false;  ///< zentok_initDevice has been called for the device in this process
};

// Inline, so that they are constructed before and destroyed after every static object of a file that includes this: the
// device monitor is stopped at process exit and walks the map until then.
inline std::map<std::string, PinState> g_pinStates;

/// Guards g_pinStates and g_containerMap, for single accesses and the monitor's walk: never held across a call of the
/// token library or a dialog. Not recursive.
inline std::mutex g_pinStatesLock;

/// `validated` of the device's entry; false without one. Creates no entry.
bool pinStateIsValidated(const std::string& device);

/// `password` of the device's entry; empty without one. Creates no entry.
std::string pinStateGetPassword(const std::string& device);

/// Forgets the login of the device and keeps `deviceInitialised`; does nothing without an entry.
void pinStateClear(const std::string& device);

/// Stores a validated password, creating the entry if needed. An empty one records a single sign-on.
void pinStateStore(const std::string& device, const std::string& password);

/// `deviceInitialised` of the device's entry; false without one.
bool pinStateIsDeviceInitialised(const std::string& device);

/// Sets `deviceInitialised`, creating the entry if needed.
void pinStateMarkDeviceInitialised(const std::string& device);
