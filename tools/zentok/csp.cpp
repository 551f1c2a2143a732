#include "tools/zentok/csp.h"

#include <algorithm>
#include <sstream>

#include "tools/zentok/failure.h"
#include "tools/zentok/files.h"
#include "tools/zentok/sized_answer.h"
#include "tools/zentok/text.h"

namespace {

constexpr WCHAR CONTAINERS_KEY[] = TEXT("SOFTWARE\\Zentok\\CSP\\Containers");
constexpr std::size_t SHORTEST_PIN = 4;
constexpr std::size_t LONGEST_PIN = 63;
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
        const DWORD code = GetLastError();
        throw platformFailure(name.empty() ? "open the token" : "open the container \"" + name + "\"", code);
    }
    return Context(handle);
}

std::string ansiPin(const std::string& pin) {
    std::string ansi = toAnsi(pin, "the PIN");
    if (ansi.size() < SHORTEST_PIN || ansi.size() > LONGEST_PIN) {
        throw UsageError("a PIN has 4 to 63 characters");
    }
    return ansi;
}

void logIn(const Context& context, const std::optional<std::string>& pin) {
    if (!pin) {
        return;
    }
    const std::string ansi = ansiPin(*pin);
    if (CryptSetProvParam(context.get(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(ansi.c_str()), 0) == FALSE) {
        throw platformFailure("log in to the token", GetLastError());
    }
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

Key requireKey(const Context& context, const std::string& container) {
    std::optional<Key> key = findKey(context);
    if (!key) {
        throw Failure("the container \"" + container +
                      "\" has no key on a connected token\n`zentok containers` lists the containers, `zentok key "
                      "generate` makes one.");
    }
    return std::move(*key);
}

DWORD keyNumber(const Key& key, DWORD parameter) {
    DWORD number = 0;
    DWORD size = sizeof number;
    if (CryptGetKeyParam(key.get(), parameter, reinterpret_cast<BYTE*>(&number), &size, 0) == FALSE) {
        throw platformFailure("read what the provider knows about the key", GetLastError());
    }
    return number;
}

bool isEllipticCurve(const Key& key) {
    constexpr DWORD ALG_EC_KEY = 0x2200;
    return keyNumber(key, KP_ALGID) == ALG_EC_KEY;
}

std::string keyDescription(const Key& key) {
    const DWORD permissions = keyNumber(key, KP_PERMISSIONS);
    const bool signs = (permissions & CRYPT_ENCRYPT) != 0;
    const bool decrypts = (permissions & CRYPT_DECRYPT) != 0;
    return (isEllipticCurve(key) ? "EC P-" : "RSA-") + std::to_string(keyNumber(key, KP_KEYLEN)) +
           (signs && decrypts ? ", for signing and key exchange"
            : signs           ? ", for signing"
            : decrypts        ? ", for key exchange"
                              : "");
}

std::vector<std::string> listKeys(const Context& context) {
    std::vector<std::string> keys;
    // Always with room for a key text: a size query would step past an entry.
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        char text[MAX_PATH] = {};
        DWORD size = sizeof text;
        if (CryptGetProvParam(context.get(), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(text), &size, flags) == FALSE) {
            if (GetLastError() == ERROR_NO_MORE_ITEMS) {
                return keys;
            }
            throw platformFailure("list the keys of the token", GetLastError());
        }
        keys.emplace_back(text);
    }
}

std::vector<BYTE> readCertificate(const Key& key) {
    return sizedAnswer(
        "read the certificate",
        [&](BYTE* data, DWORD* size) { return CryptGetKeyParam(key.get(), KP_CERTIFICATE, data, size, 0); },
        static_cast<DWORD>(NTE_NOT_FOUND));
}

std::vector<BYTE> readCertificateChain(const Context& context) {
    return sizedAnswer(
        "read the certificate chain",
        [&](BYTE* data, DWORD* size) { return CryptGetProvParam(context.get(), PP_CERTCHAIN, data, size, 0); },
        static_cast<DWORD>(NTE_NO_KEY));
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

std::vector<BYTE> signHash(const Hash& hash) {
    DWORD size = signatureSize(hash);
    std::vector<BYTE> signature(size);
    if (CryptSignHashW(hash.get(), AT_SIGNATURE, nullptr, 0, signature.data(), &size) == FALSE) {
        throw platformFailure("sign", GetLastError());
    }
    signature.resize(size);
    return signature;
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

void encryptByKey(const Key& key, DWORD flags, std::vector<BYTE>& data) {
    auto size = static_cast<DWORD>(data.size());
    data.resize(std::max<std::size_t>(keyNumber(key, KP_KEYLEN) / 8, data.size()));
    if (CryptEncrypt(key.get(), 0, TRUE, flags, data.data(), &size, static_cast<DWORD>(data.size())) == FALSE) {
        throw platformFailure("encrypt", GetLastError());
    }
    data.resize(size);
    std::ranges::reverse(data);  // CryptoAPI has it little-endian, the file the order of the standards
}

void decryptByKey(const Key& key, DWORD flags, std::vector<BYTE>& data) {
    std::ranges::reverse(data);
    auto size = static_cast<DWORD>(data.size());
    if (CryptDecrypt(key.get(), 0, TRUE, flags, data.data(), &size) == FALSE) {
        const DWORD code = GetLastError();
        throw platformFailure("decrypt", code,
                              code == static_cast<DWORD>(NTE_BAD_FLAGS)
                                  ? "This token decrypts no PKCS#1 v1.5; encrypt with `--padding oaep`."
                              : code == static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL)
                                  ? "The file was not encrypted to this key, or is damaged."
                                  : "");
    }
    data.resize(size);
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
