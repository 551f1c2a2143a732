// Preserves the thread's last error.
#pragma once

#include <windows.h>

/// Keeps the calling thread's last error over calls that change it. An entry point's code is often set before its log
/// line is written or its platform handles are closed, and it is the code that the caller must see.
class LastErrorKeeper {
public:
    LastErrorKeeper() : saved(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(saved); }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

private:
    DWORD saved;
};
