#include "core/module.h"

// The platform calls this under the loader lock: record the handle and do nothing else.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        setModuleInstance(instance);
    }
    return TRUE;
}
