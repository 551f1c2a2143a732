// What is installed on this machine: the provider's entry with CryptoAPI, and the files that belong to it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "tools/zentok/text.h"

inline constexpr WCHAR PROVIDER_LIBRARY[] = TEXT("ZentokCSP.dll");
inline constexpr WCHAR TOKEN_LIBRARY[] = TEXT("ZentokDSCLibrary.dll");

/// The key that CryptoAPI knows the provider by, below HKEY_LOCAL_MACHINE.
WideText registrationKey();

/// "Image Path" of that key; nothing when the provider is not registered, or without a path.
std::optional<WideText> registeredPath();

// Folders, without a separator at the end.

WideText ownFolder();     ///< of this program
WideText systemFolder();  ///< System32

/// Where the loader looks for a library of any program: the system's folders and PATH.
std::vector<WideText> searchFolders();

/// Full path of the first `file` in one of the folders; empty when there is none.
WideText findIn(const std::vector<WideText>& folders, const WideText& file);

/// Full path of a file that is named with or without its folder; empty when it is not there.
WideText locate(const WideText& name);

/// Provider libraries that are there without being asked for by a path: beside this program, and in the search path.
std::vector<WideText> presentLibraries();

WideText folderOf(const WideText& path);
WideText fullPath(const WideText& path);
bool isSameFile(const WideText& left, const WideText& right);

/// "1.0.0.0" of the file's version resource, or empty.
std::string fileVersion(const WideText& path);

/// "ProductName" of the file's version resource, or empty.
std::string fileProduct(const WideText& path);

/// False for a file that this process could not load as a library: damaged, or not for 64 bits.
bool isLibrary(const WideText& path);
