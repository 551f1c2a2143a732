// The library's entry point.
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        // Hosts load and free a provider again and again, and this library with it. The runtime that is linked in loses
        // a thread-local slot at each unload, and without slots the process is aborted: once loaded, it stays.
        HMODULE pinned = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(module), &pinned);
    }
    return TRUE;
}
