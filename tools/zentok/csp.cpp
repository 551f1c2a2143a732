#include "tools/zentok/csp.h"

#include <algorithm>
#include <sstream>

#include "tools/zentok/failure.h"
#include "tools/zentok/files.h"
#include "tools/zentok/text.h"

namespace {

constexpr WCHAR CONTAINERS_KEY[] = TEXT("SOFTWARE\\Zentok\\CSP\\Containers");
constexpr DWORD MAX_VALUE_NAME = 16384;  ///< characters, the registry's own limit with its terminator
constexpr DWORD MAX_VALUE_SIZE = 65536;  ///< bytes, more than the provider ever writes

std::vector<std::string> splitKeys(const std::string& text) {
    std::vector<std::string> keys;
    std::istringstream stream(text);
    for (std::string key; std::getline(stream, key, ',');) {
        if (!key.empty()) {
            keys.push_back(key);
        }
    }
    return keys;
}

}  // namespace

BOOL releaseContext(ULONG_PTR handle) {
    return CryptReleaseContext(handle, 0);
}

BOOL destroyKey(ULONG_PTR handle) {
    return CryptDestroyKey(handle);
}

BOOL destroyHash(ULONG_PTR handle) {
    return CryptDestroyHash(handle);
}

Context openContainer(const std::string& name) {
    toAnsi(name, "the container's name");
    HCRYPTPROV handle = 0;
    if (CryptAcquireContextW(&handle, toWide(name).c_str(), PROVIDER_NAME, PROV_RSA_FULL, 0) == FALSE) {
        throw platformFailure("open the container \"" + name + "\"", GetLastError());
    }
    return Context(handle);
}

std::optional<Key> findKey(const Context& context) {
    HCRYPTKEY handle = 0;
    if (CryptGetUserKey(context.get(), AT_SIGNATURE, &handle) != FALSE) {
        return Key(handle);
    }
    const DWORD code = GetLastError();
    if (code == static_cast<DWORD>(NTE_BAD_KEY) || code == static_cast<DWORD>(NTE_NO_KEY)) {
        return std::nullopt;
    }
    throw platformFailure("look up the container's key", code);
}

Hash startHash(const Context& context, ALG_ID algorithm) {
    HCRYPTHASH handle = 0;
    if (CryptCreateHash(context.get(), algorithm, 0, 0, &handle) == FALSE) {
        throw platformFailure("start the hash", GetLastError());
    }
    return Hash(handle);
}

Hash hashFile(const Context& context, ALG_ID algorithm, const std::string& file) {
    Hash hash = startHash(context, algorithm);
    readBlocks(file, [&](std::string_view block) {
        const auto* bytes = reinterpret_cast<const BYTE*>(block.data());
        if (CryptHashData(hash.get(), bytes, static_cast<DWORD>(block.size()), 0) == FALSE) {
            throw platformFailure("hash " + file, GetLastError());
        }
    });
    return hash;
}

DWORD signatureSize(const Hash& hash) {
    DWORD size = 0;
    if (CryptSignHashW(hash.get(), AT_SIGNATURE, nullptr, 0, nullptr, &size) == FALSE) {
        throw platformFailure("find the size of a signature", GetLastError());
    }
    return size;
}

bool verifyHash(const Hash& hash, std::span<const BYTE> signature, const Key& key) {
    const auto size = static_cast<DWORD>(signature.size());
    if (CryptVerifySignatureW(hash.get(), signature.data(), size, key.get(), nullptr, 0) != FALSE) {
        return true;
    }
    const DWORD code = GetLastError();
    if (code == static_cast<DWORD>(NTE_BAD_SIGNATURE)) {
        return false;
    }
    throw platformFailure("verify the signature", code);
}

std::vector<Container> listContainers() {
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExW(HKEY_CURRENT_USER, CONTAINERS_KEY, 0, KEY_READ, &key);
    if (status == ERROR_FILE_NOT_FOUND) {
        return {};
    }
    if (status != ERROR_SUCCESS) {
        throw platformFailure("read the list of containers", static_cast<DWORD>(status));
    }
    std::vector<Container> containers;
    std::vector<WCHAR> name(MAX_VALUE_NAME);
    std::vector<WCHAR> value(MAX_VALUE_SIZE / sizeof(WCHAR));
    for (DWORD index = 0; status != ERROR_NO_MORE_ITEMS; ++index) {
        auto nameLength = static_cast<DWORD>(name.size());
        DWORD valueSize = MAX_VALUE_SIZE;
        DWORD type = 0;
        status = RegEnumValueW(key, index, name.data(), &nameLength, nullptr, &type,
                               reinterpret_cast<BYTE*>(value.data()), &valueSize);
        if (status == ERROR_SUCCESS && type == REG_SZ) {
            const std::string keys = toUtf8({value.data(), valueSize / sizeof(WCHAR)});
            // The stored text ends at its terminator, wherever that is.
            containers.push_back({toUtf8({name.data(), nameLength}), splitKeys(keys.substr(0, keys.find('\0')))});
        } else if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA && status != ERROR_NO_MORE_ITEMS) {
            break;
        }
    }
    RegCloseKey(key);
    std::ranges::sort(containers, {}, &Container::name);
    return containers;
}

std::optional<Container> findContainer(const std::string& name) {
    // The registry's value names do not tell upper from lower case.
    for (Container& container : listContainers()) {
        if (CompareStringOrdinal(toWide(container.name).c_str(), -1, toWide(name).c_str(), -1, TRUE) == CSTR_EQUAL) {
            return std::move(container);
        }
    }
    return std::nullopt;
}
