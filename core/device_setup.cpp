#include "core/device_setup.h"

#include "core/log.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

void prepareLibrary() {
    zentok_init(0, nullptr, 2);
}

void initialiseDevices(const std::vector<std::string>& devices, const char* failureText, void* tokenContext) {
    for (const std::string& device : devices) {
        if (pinStateIsDeviceInitialised(device)) {
            continue;
        }
        prepareLibrary();
        const int result = zentok_initDevice(device.c_str(), false, tokenContext);
        if (result == TOKEN_OK) {
            pinStateMarkDeviceInitialised(device);
        } else {
            logError(failureText + device + " : " + std::to_string(result));
        }
    }
}
