#include "capi/token_context.h"

#include <algorithm>

#include "capi/entry.h"
#include "core/container_map.h"
#include "core/device_monitor.h"
#include "core/device_setup.h"
#include "core/login.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

namespace {

constexpr DWORD NO_TOKEN = static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL);

void listKeyNames(CSP_CONTEXT& context) {
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(context.serial.c_str(), context.tokenContext);
    if (keys.empty()) {
        logInfo("Acquire Context :: Key List is empty");
    }
    context.keyNames.reserve(keys.size());
    for (const ZentokKeyPair& key : keys) {
        context.keyNames.push_back(keyText(key.credentialId));
        logInfoBytes("", key.credentialId);
    }
}

/// The first key text that `name` maps to, in memory or else in the registry, else the name itself. What the registry
/// says is remembered.
std::string resolveContainerName(const std::string& name) {
    const std::lock_guard lock(g_pinStatesLock);
    if (const auto entry = g_containerMap.find(name); entry != g_containerMap.end() && !entry->second.empty()) {
        logInfo("CPAcquireContext - resolved container " + name + " -> " + entry->second.front());
        return entry->second.front();
    }
    std::vector<std::string> keys = readContainerKeys(name);
    if (keys.empty()) {
        return name;
    }
    logInfo("CPAcquireContext - resolved container (registry) " + name + " -> " + keys.front());
    std::string first = keys.front();
    g_containerMap[name] = std::move(keys);
    return first;
}

std::vector<std::string> mappedKeys(const std::string& name) {
    {
        const std::lock_guard lock(g_pinStatesLock);
        const auto entry = g_containerMap.find(name);
        if (entry != g_containerMap.end() && !entry->second.empty()) {
            return entry->second;
        }
    }
    return readContainerKeys(name);
}

/// The PIN that a deletion needs: cached, or asked for unless the caller wants silence.
BOOL ensurePinForDeletion(const std::string& serial, DWORD dwFlags) {
    if (pinStateIsValidated(serial) && !pinStateGetPassword(serial).empty()) {
        return TRUE;
    }
    if ((dwFlags & CRYPT_SILENT) != 0) {
        return fail(static_cast<DWORD>(NTE_SILENT_CONTEXT),
                    "CPAcquireContext: CRYPT_DELETEKEYSET CRYPT_SILENT set, cannot prompt for PIN");
    }
    const auto ask = [&] {
        CSP_CONTEXT context;
        context.serial = serial;
        return ensurePasswordValidated(&context);
    };
    if (!ask()) {
        return fail(static_cast<DWORD>(NTE_FAIL), "CPAcquireContext: CRYPT_DELETEKEYSET PIN validation failed");
    }
    return TRUE;
}

/// Deletes what is there of `keyTexts`; a key that is missing or refuses does not stop the others.
void deleteKeys(const std::string& serial, const std::vector<std::string>& keyTexts) {
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(serial.c_str(), nullptr);
    const std::string password = pinStateGetPassword(serial);
    for (const std::string& text : keyTexts) {
        const auto key = std::find_if(keys.begin(), keys.end(), [&](const ZentokKeyPair& candidate) {
            return isKeyText(text, candidate.credentialId);
        });
        if (key == keys.end()) {
            logInfo("CPAcquireContext: CRYPT_DELETEKEYSET key " + text + " not found on token, skip");
            continue;
        }
        logInfo("CPAcquireContext: CRYPT_DELETEKEYSET deleting key " + text);
        const int result =
            zentok_deleteKeyPair(serial.c_str(), key->credentialId, password.c_str(), key->tokenFlag, nullptr);
        if (result != TOKEN_OK) {
            logError("CPAcquireContext: CRYPT_DELETEKEYSET deleteKeyPair failed for " + text +
                     " ret=" + std::to_string(result));
        }
    }
}

void forgetContainer(const std::string& name) {
    {
        const std::lock_guard lock(g_pinStatesLock);
        g_containerMap.erase(name);
    }
    deleteContainerKeys(name);
}

}  // namespace

BOOL acquireTokenContext(std::unique_ptr<CSP_CONTEXT> context, LPCSTR pszContainer, HCRYPTPROV* phProv) {
    prepareLibrary();
    startDeviceMonitor();
    const std::vector<std::string> devices = zentok_getConnectedDeviceList(false, context->tokenContext);
    if (devices.empty()) {
        context.reset();
        return fail(NO_TOKEN, "CPAcquireContext: valid token not connected, return FALSE");
    }
    initialiseDevices(devices, "Init device failed for ", context->tokenContext);

    std::string name;
    if (pszContainer != nullptr) {
        name = pszContainer;
        logInfo("CPAcquireContext - Container name : " + name);
    } else {
        logInfo("CPAcquireContext - Container name not provided");
    }
    context->serial = resolveContainerDevice(name);
    if (context->serial.empty()) {
        context.reset();
        return fail(NO_TOKEN, "CPAcquireContext: no initialized device found, return FALSE");
    }
    listKeyNames(*context);
    context->containerName = resolveContainerName(name);
    context->requestedContainer = name;
    context->initialized = true;
    const CSP_CONTEXT& acquired = *context;
    *phProv = reinterpret_cast<HCRYPTPROV>(context.release());
    logInfo("CPAcquireContext: container=" + acquired.containerName + " serial=" + acquired.serial +
            " silent=" + std::to_string(acquired.silent) + ", return TRUE");
    return TRUE;
}

BOOL deleteKeySet(LPCSTR pszContainer, DWORD dwFlags, HCRYPTPROV* phProv) {
    const std::string name = pszContainer != nullptr ? pszContainer : "";
    logInfo("CPAcquireContext: CRYPT_DELETEKEYSET container=" + (pszContainer != nullptr ? name : "(null)"));
    *phProv = 0;
    if (name.empty()) {
        logInfo("CPAcquireContext: CRYPT_DELETEKEYSET no container name, return TRUE");
        return TRUE;
    }
    const std::vector<std::string> keyTexts = mappedKeys(name);
    if (keyTexts.empty()) {
        logInfo("CPAcquireContext: CRYPT_DELETEKEYSET no mapped keys for container, return TRUE");
        return TRUE;
    }
    prepareLibrary();
    startDeviceMonitor();
    const std::vector<std::string> devices = zentok_getConnectedDeviceList(false, nullptr);
    if (devices.empty()) {
        return fail(NO_TOKEN, "CPAcquireContext: CRYPT_DELETEKEYSET no token connected");
    }
    const std::string& serial = devices.front();
    if (!pinStateIsDeviceInitialised(serial)) {
        prepareLibrary();
        zentok_initDevice(serial.c_str(), false, nullptr);
        pinStateMarkDeviceInitialised(serial);
    }
    if (ensurePinForDeletion(serial, dwFlags) == FALSE) {
        return FALSE;
    }
    deleteKeys(serial, keyTexts);
    forgetContainer(name);
    logInfo("CPAcquireContext: CRYPT_DELETEKEYSET done, return TRUE");
    return TRUE;
}
