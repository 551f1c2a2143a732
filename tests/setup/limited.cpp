// limited PROGRAM ARGUMENT...: runs it without the rights of an administrator and ends with its code, or with 99.
#include <cwchar>

#include <windows.h>

int main() {
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    HANDLE own = nullptr;
    HANDLE limited = nullptr;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    DWORD code = 99;
    CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size);
    SID_AND_ATTRIBUTES disabled = {administrators, 0};
    OpenProcessToken(GetCurrentProcess(), MAXIMUM_ALLOWED, &own);
    CreateRestrictedToken(own, 0, 1, &disabled, 0, nullptr, 0, nullptr, &limited);
    WCHAR* line = std::wcschr(GetCommandLineW(), TEXT(' '));
    if (line != nullptr && CreateProcessAsUserW(limited, nullptr, line + 1, nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                                &startup, &process) != FALSE) {
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &code);
    }
    return static_cast<int>(code);
}
