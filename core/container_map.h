// The map from container names to token keys, in memory and in the user's registry, and which token a name belongs to.
//
// Keys are named by key text: the 16 bytes of a credential id as 32 upper-case hexadecimal digits. The registry holds
// one REG_SZ value a container under HKEY_CURRENT_USER\SOFTWARE\Zentok\CSP\Containers: the key texts, joined with ",".
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

#include "core/token_library.h"

/// Container name to key texts; written by the CryptoAPI front only, guarded by g_pinStatesLock. An entry outlives the
/// removal of its token.
inline std::map<std::string, std::vector<std::string>> g_containerMap;

/// A credential id of 16 bytes as key text.
std::string keyText(const unsigned char* credentialId);

/// Whether `text` is that key text, to the letter; without making one, for searches through long lists.
bool isKeyText(std::string_view text, const unsigned char* credentialId);

/// The key texts filed under `name` in the registry; empty on any failure. A value of more than 1024 bytes reads as
/// no value.
std::vector<std::string> readContainerKeys(const std::string& name);

/// Files `keys` under `name` in the registry; failures are ignored.
void writeContainerKeys(const std::string& name, const std::vector<std::string>& keys);

/// Removes `name` from the registry; failures are ignored.
void deleteContainerKeys(const std::string& name);

/// Serial of the token with the key whose key text is `name` (case does not count), else of the first one; empty when
/// none is connected. A mapped container name is not looked up: it lands on the first token.
std::string resolveContainerDevice(const std::string& name);

/// The same for a CNG key name, which may be an alias too. Of each character only the low byte counts.
std::string resolveKeyDevice(std::basic_string_view<WCHAR> name);
