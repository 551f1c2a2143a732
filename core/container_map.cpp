#include "core/container_map.h"

#include <algorithm>
#include <array>

#include "cert/key_encoding.h"
#include "core/key_record.h"
#include "core/wide_text.h"

namespace {

constexpr char CONTAINERS_KEY[] = "SOFTWARE\\Zentok\\CSP\\Containers";
constexpr DWORD MAX_VALUE_SIZE = 1024;  // bytes

/// An open registry key, closed once.
class RegistryKey {
public:
    RegistryKey() = default;
    ~RegistryKey() {
        if (handle != nullptr) {
            RegCloseKey(handle);
        }
    }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    bool open(REGSAM access) {
        return RegOpenKeyExA(HKEY_CURRENT_USER, CONTAINERS_KEY, 0, access, &handle) == ERROR_SUCCESS;
    }
    bool create(REGSAM access) {
        return RegCreateKeyExA(HKEY_CURRENT_USER, CONTAINERS_KEY, 0, nullptr, 0, access, nullptr, &handle, nullptr) ==
               ERROR_SUCCESS;
    }
    HKEY get() const { return handle; }

private:
    HKEY handle = nullptr;
};

std::vector<std::string> splitKeys(std::string_view text) {
    std::vector<std::string> keys;
    while (!text.empty()) {
        const std::size_t comma = std::min(text.find(','), text.size());
        if (comma > 0) {
            keys.emplace_back(text.substr(0, comma));
        }
        text.remove_prefix(std::min(comma + 1, text.size()));
    }
    return keys;
}

char lowerAscii(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

using KeyDigits = std::array<char, 2 * std::size_t{CREDENTIAL_ID_SIZE}>;

/// Key text in place.
KeyDigits keyDigits(const unsigned char* credentialId) {
    KeyDigits digits = {};
    writeHex({credentialId, CREDENTIAL_ID_SIZE}, digits.data());
    return digits;
}

std::string_view viewOf(const KeyDigits& digits) {
    return {digits.data(), digits.size()};
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lowerAscii(a) == lowerAscii(b); });
}

/// The first connected device with a key that `matches`, else the first one; empty when none is connected.
template <typename Match>
std::string findDevice(bool anyKey, Match matches) {
    const std::vector<std::string> devices = zentok_getConnectedDeviceList(false, nullptr);
    if (devices.empty()) {
        return {};
    }
    if (anyKey) {
        return devices.front();
    }
    for (const std::string& device : devices) {
        const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(device.c_str(), nullptr);
        if (std::any_of(keys.begin(), keys.end(), matches)) {
            return device;
        }
    }
    return devices.front();
}

}  // namespace

std::string keyText(const unsigned char* credentialId) {
    return bytesToHex(credentialId, CREDENTIAL_ID_SIZE);
}

bool isKeyText(std::string_view text, const unsigned char* credentialId) {
    return text == viewOf(keyDigits(credentialId));
}

std::vector<std::string> readContainerKeys(const std::string& name) {
    RegistryKey key;
    if (!key.open(KEY_READ)) {
        return {};
    }
    char data[MAX_VALUE_SIZE] = {};
    DWORD size = sizeof data;
    DWORD type = REG_NONE;
    if (RegQueryValueExA(key.get(), name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(data), &size) !=
            ERROR_SUCCESS ||
        type != REG_SZ) {
        return {};
    }
    // A value that fills the buffer need not end in a terminator.
    const char* const end = std::find(data, std::end(data), '\0');
    return splitKeys({data, static_cast<std::size_t>(end - data)});
}

void writeContainerKeys(const std::string& name, const std::vector<std::string>& keys) {
    RegistryKey key;
    if (!key.create(KEY_SET_VALUE)) {
        return;
    }
    std::string text;
    for (const std::string& keyName : keys) {
        text += (text.empty() ? "" : ",") + keyName;
    }
    RegSetValueExA(key.get(), name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>(text.size() + 1));
}

void deleteContainerKeys(const std::string& name) {
    RegistryKey key;
    if (key.open(KEY_SET_VALUE)) {
        RegDeleteValueA(key.get(), name.c_str());
    }
}

std::string resolveContainerDevice(const std::string& name) {
    return findDevice(name.empty(), [&](const ZentokKeyPair& key) {
        return equalIgnoringCase(viewOf(keyDigits(key.credentialId)), name);
    });
}

std::string resolveKeyDevice(std::basic_string_view<WCHAR> name) {
    const std::string narrow = narrowed(name);
    return findDevice(narrow.empty(), [&](const ZentokKeyPair& key) {
        return equalIgnoringCase(narrow, viewOf(keyDigits(key.credentialId))) ||
               equalIgnoringCase(narrow, aliasText(key));
    });
}
