// The provider's entries with the platform, for machines without the setup program.
#include <iostream>
#include <memory>

#include <windows.h>

#include <wincrypt.h>

#include "tools/zentok/commands.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/installation.h"
#include "tools/zentok/registry.h"

namespace {

constexpr DWORD LONGEST_REGISTRATION = 60000;  ///< milliseconds

struct HandleCloser {
    void operator()(void* handle) const { CloseHandle(handle); }
};

/// Calls the library's DllRegisterServer, or DllUnregisterServer with "/u", in a process of its own: a library that
/// cannot be loaded must not take this program along.
DWORD runRegsvr32(const WCHAR* option, const WideText& library) {
    const WideText program = systemFolder() + TEXT("\\regsvr32.exe");
    WideText line = WideText(TEXT("regsvr32.exe /s ")) + option + TEXT("\"") + library + TEXT("\"");
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                       &startup, &process) == FALSE) {
        throw platformFailure("start regsvr32", GetLastError());
    }
    const std::unique_ptr<void, HandleCloser> thread(process.hThread);
    const std::unique_ptr<void, HandleCloser> owner(process.hProcess);
    if (WaitForSingleObject(owner.get(), LONGEST_REGISTRATION) != WAIT_OBJECT_0) {
        TerminateProcess(owner.get(), WAIT_TIMEOUT);
    }
    DWORD code = 0;
    GetExitCodeProcess(owner.get(), &code);
    return code;
}

/// The library that is meant: `--library`, or the one that is there.
WideText chosenLibrary(const Arguments& arguments) {
    if (const std::optional<std::string> named = arguments.find("library")) {
        WideText path = locate(fullPath(toWide(*named)));
        if (path.empty()) {
            throw Failure("there is no file " + *named + "\nGive the path of ZentokCSP.dll.");
        }
        return path;
    }
    const std::vector<WideText> present = presentLibraries();
    if (present.empty()) {
        throw Failure(
            "ZentokCSP.dll is neither beside zentok.exe nor in the system's search path\n`--library` names "
            "another place.");
    }
    return present[0];
}

void removeRegistration() {
    const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, registrationKey().c_str());
    requireRegistry(status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status, "remove the provider's entry");
}

void runRegister(const Arguments& arguments) {
    const WideText library = chosenLibrary(arguments);
    const std::string name = toUtf8(library);
    bool wasCreated = false;
    {
        // First of all: whoever may not write here may not do the rest either.
        const RegistryKey key(registrationKey(), "register the provider");
        wasCreated = key.wasCreated();
    }
    if (const DWORD code = runRegsvr32(TEXT(""), library); code != 0) {
        if (wasCreated) {
            removeRegistration();
        }
        throw Failure("regsvr32 could not register " + name + " as a key storage provider: it ended with " +
                      std::to_string(code) +
                      "\nNothing was changed with CryptoAPI. Check that ZentokDSCLibrary.dll is beside it, and that "
                      "both are 64-bit; `zentok log --process regsvr32` may tell more.");
    }
    const RegistryKey key(registrationKey(), "register the provider");
    key.write(TEXT("Image Path"), registryText(library));
    key.write(TEXT("Type"), registryNumber(PROV_RSA_FULL));
    key.write(TEXT("SigInFile"), registryNumber(0));
    // The platform reads a signature, which has to be there, and asks no more of it.
    key.write(TEXT("Signature"), {REG_BINARY, {0}});
    std::cout << "Registered " << name
              << " with CryptoAPI and as a key storage provider.\n`zentok status` checks it.\n";
    if (findIn(searchFolders(), PROVIDER_LIBRARY).empty()) {
        std::cerr << "A key storage provider is looked for under its bare name: copy the libraries into System32, too, "
                     "for applications that use CNG.\n";
    }
}

void runUnregister(const Arguments& /*arguments*/) {
    const std::optional<WideText> registered = registeredPath();
    WideText library = registered ? locate(*registered) : WideText();
    if (const std::vector<WideText> present = presentLibraries(); library.empty() && !present.empty()) {
        library = present[0];
    }
    removeRegistration();
    std::cout << (registered ? "Removed the entry with CryptoAPI, " + toUtf8(*registered)
                             : "There was no entry with CryptoAPI")
              << ".\n";
    if (library.empty()) {
        throw Failure(
            "no ZentokCSP.dll is there to remove itself from the key storage providers\nPut it back and call "
            "`regsvr32 /u ZentokCSP.dll`, or `zentok unregister` again.");
    }
    if (const DWORD code = runRegsvr32(TEXT("/u "), library); code != 0) {
        throw Failure("regsvr32 could not remove " + toUtf8(library) +
                      " from the key storage providers: it ended with " + std::to_string(code) +
                      "\nCheck that ZentokDSCLibrary.dll is beside it, and repeat the command.");
    }
    std::cout << "Removed " << toUtf8(library) << " from the key storage providers.\n";
}

constexpr Option REGISTER_OPTIONS[] = {
    {"library", "PATH", "ZentokCSP.dll; the one beside zentok.exe, or else in the search path, when not given"},
};

constexpr const char* DETAILS =
    "The entries are the machine's, so this takes an administrator. The setup program does the same.";

constexpr Command COMMANDS[] = {
    {"register", "Register the provider with this machine", DETAILS, REGISTER_OPTIONS, runRegister},
    {"unregister", "Take the provider's registration away", DETAILS, {}, runUnregister},
};

}  // namespace

std::span<const Command> registerCommands() {
    return COMMANDS;
}
