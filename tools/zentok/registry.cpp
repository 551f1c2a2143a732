#include "tools/zentok/registry.h"

#include <cstring>

#include "tools/zentok/failure.h"

std::optional<WideText> readRegistryText(const WideText& key, const WCHAR* name) {
    DWORD size = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    // Room for one more: a stored text may lack its terminator.
    WideText text(size / sizeof(WCHAR) + 1, 0);
    size = static_cast<DWORD>(text.size() * sizeof(WCHAR));
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text.data(), &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    const DWORD length = ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
    WideText expanded(length, 0);
    ExpandEnvironmentStringsW(text.c_str(), expanded.data(), length);
    expanded.resize(length > 0 ? length - 1 : 0);  // without the terminator
    return expanded;
}

std::optional<DWORD> readRegistryNumber(const WideText& key, const WCHAR* name) {
    DWORD number = 0;
    DWORD size = sizeof number;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_DWORD, nullptr, &number, &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    return number;
}

RegistryKey::RegistryKey(const WideText& path, const std::string& action) : action_(action) {
    DWORD disposition = 0;
    requireRegistry(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr,
                                    &key_, &disposition),
                    action);
    created_ = disposition == REG_CREATED_NEW_KEY;
}

std::optional<RegistryValue> RegistryKey::read(const WCHAR* name) const {
    RegistryValue value;
    DWORD size = 0;
    LSTATUS status = RegQueryValueExW(key_, name, nullptr, &value.type, nullptr, &size);
    if (status == ERROR_FILE_NOT_FOUND) {
        return std::nullopt;
    }
    requireRegistry(status, action_);
    value.data.resize(size);
    status = RegQueryValueExW(key_, name, nullptr, &value.type, value.data.data(), &size);
    requireRegistry(status, action_);
    value.data.resize(size);
    return value;
}

void RegistryKey::write(const WCHAR* name, const RegistryValue& value) const {
    requireRegistry(RegSetValueExW(key_, name, 0, value.type, value.data.data(), static_cast<DWORD>(value.data.size())),
                    action_);
}

void RegistryKey::remove(const WCHAR* name) const {
    requireRegistry(RegDeleteValueW(key_, name), action_);
}

RegistryValue registryNumber(DWORD number) {
    RegistryValue value{REG_DWORD, std::vector<BYTE>(sizeof number)};
    std::memcpy(value.data.data(), &number, sizeof number);
    return value;
}

RegistryValue registryText(const WideText& text) {
    const auto* bytes = reinterpret_cast<const BYTE*>(text.c_str());
    return {REG_SZ, {bytes, bytes + (text.size() + 1) * sizeof(WCHAR)}};
}

void requireRegistry(LSTATUS status, const std::string& action) {
    if (status != ERROR_SUCCESS) {
        throw platformFailure(action, static_cast<DWORD>(status),
                              status == ERROR_ACCESS_DENIED
                                  ? "This takes administrator rights: start the command prompt with \"Run as "
                                    "administrator\" and repeat the command."
                                  : "");
    }
}
