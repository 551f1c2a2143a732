// Values of the registry, below HKEY_LOCAL_MACHINE.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include "tools/zentok/text.h"

/// A text, with the environment variables in it expanded; nothing when there is none.
std::optional<WideText> readRegistryText(const WideText& key, const WCHAR* name);
std::optional<DWORD> readRegistryNumber(const WideText& key, const WCHAR* name);

/// A value as it is stored.
struct RegistryValue {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;

    bool operator==(const RegistryValue&) const = default;
};

/// A key that is open for writing, and created when it was not there.
class RegistryKey {
public:
    /// Throws when the registry refuses; `action` says what it was wanted for.
    RegistryKey(const WideText& path, const std::string& action);
    ~RegistryKey() { RegCloseKey(key_); }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    bool wasCreated() const { return created_; }

    /// Nothing when there is no such value.
    std::optional<RegistryValue> read(const WCHAR* name) const;
    void write(const WCHAR* name, const RegistryValue& value) const;
    void remove(const WCHAR* name) const;

private:
    std::string action_;
    HKEY key_ = nullptr;
    bool created_ = false;
};

RegistryValue registryNumber(DWORD number);
RegistryValue registryText(const WideText& text);

/// Throws unless the registry's answer is success. A refusal gets the advice to run as administrator.
void requireRegistry(LSTATUS status, const std::string& action);
