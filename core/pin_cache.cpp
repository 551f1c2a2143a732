#include "core/pin_cache.h"

namespace {

const PinState* findEntry(const std::string& device) {
    const auto entry = g_pinStates.find(device);
    return entry != g_pinStates.end() ? &entry->second : nullptr;
}

}  // namespace

bool pinStateIsValidated(const std::string& device) {
    const std::lock_guard lock(g_pinStatesLock);
    const PinState* state = findEntry(device);
    return state != nullptr && state->validated;
}

std::string pinStateGetPassword(const std::string& device) {
    const std::lock_guard lock(g_pinStatesLock);
    const PinState* state = findEntry(device);
    return state != nullptr ? state->password : std::string();
}

void pinStateClear(const std::string& device) {
    const std::lock_guard lock(g_pinStatesLock);
    if (const auto entry = g_pinStates.find(device); entry != g_pinStates.end()) {
        entry->second.validated = false;
        entry->second.password = std::string();
    }
}

void pinStateStore(const std::string& device, const std::string& password) {
    const std::lock_guard lock(g_pinStatesLock);
    PinState& state = g_pinStates[device];
    state.password = password;
    state.validated = true;
}

bool pinStateIsDeviceInitialised(const std::string& device) {
    const std::lock_guard lock(g_pinStatesLock);
    const PinState* state = findEntry(device);
    return state != nullptr && state->deviceInitialised;
}

void pinStateMarkDeviceInitialised(const std::string& device) {
    const std::lock_guard lock(g_pinStatesLock);
    g_pinStates[device].deviceInitialised = true;
}
