#include "core/module.h"

#include <atomic>

namespace {

HINSTANCE g_moduleInstance = nullptr;
std::atomic<bool> g_modulePinned = false;

}  // namespace

HINSTANCE moduleInstance() {
    return g_moduleInstance != nullptr ? g_moduleInstance : GetModuleHandleA(nullptr);
}

void setModuleInstance(HINSTANCE instance) {
    g_moduleInstance = instance;
}

void pinModule() {
    if (g_modulePinned.load(std::memory_order_relaxed)) {
        return;
    }
    HMODULE module = nullptr;
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCSTR>(&pinModule), &module) != FALSE) {
        g_modulePinned.store(true, std::memory_order_relaxed);
    }
}
