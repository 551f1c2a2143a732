#include "tools/zentok/key_storage.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <utility>

#include <wincrypt.h>

#include "tools/zentok/csp.h"
#include "tools/zentok/encoding.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/installation.h"

namespace {

// --- The router's functions in the form of the table: they take no provider beside a key. ---

SECURITY_STATUS WINAPI routeOpenProvider(NCRYPT_PROV_HANDLE* provider, LPCWSTR name, DWORD flags) {
    return NCryptOpenStorageProvider(provider, name, flags);
}
SECURITY_STATUS WINAPI routeGetKeyProperty(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, LPCWSTR name,
                                           PBYTE output, DWORD size, DWORD* result, DWORD flags) {
    return NCryptGetProperty(key, name, output, size, result, flags);
}
SECURITY_STATUS WINAPI routeSetProviderProperty(NCRYPT_PROV_HANDLE provider, LPCWSTR name, PBYTE input, DWORD size,
                                                DWORD flags) {
    return NCryptSetProperty(provider, name, input, size, flags);
}
SECURITY_STATUS WINAPI routeSetKeyProperty(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, LPCWSTR name,
                                           PBYTE input, DWORD size, DWORD flags) {
    return NCryptSetProperty(key, name, input, size, flags);
}
SECURITY_STATUS WINAPI routeFinalizeKey(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, DWORD flags) {
    return NCryptFinalizeKey(key, flags);
}
SECURITY_STATUS WINAPI routeDeleteKey(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, DWORD flags) {
    return NCryptDeleteKey(key, flags);
}
SECURITY_STATUS WINAPI routeFreeProvider(NCRYPT_PROV_HANDLE provider) {
    return NCryptFreeObject(provider);
}
SECURITY_STATUS WINAPI routeFreeKey(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key) {
    return NCryptFreeObject(key);
}
SECURITY_STATUS WINAPI routeEncrypt(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD size,
                                    VOID* padding, PBYTE output, DWORD room, DWORD* result, DWORD flags) {
    return NCryptEncrypt(key, input, size, padding, output, room, result, flags);
}
SECURITY_STATUS WINAPI routeDecrypt(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD size,
                                    VOID* padding, PBYTE output, DWORD room, DWORD* result, DWORD flags) {
    return NCryptDecrypt(key, input, size, padding, output, room, result, flags);
}
SECURITY_STATUS WINAPI routeExportKey(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key,
                                      NCRYPT_KEY_HANDLE exporter, LPCWSTR type, NCryptBufferDesc* parameters,
                                      PBYTE output, DWORD room, DWORD* result, DWORD flags) {
    return NCryptExportKey(key, exporter, type, parameters, output, room, result, flags);
}
SECURITY_STATUS WINAPI routeSignHash(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash,
                                     DWORD hashSize, PBYTE signature, DWORD room, DWORD* result, DWORD flags) {
    return NCryptSignHash(key, padding, hash, hashSize, signature, room, result, flags);
}
SECURITY_STATUS WINAPI routeVerifySignature(NCRYPT_PROV_HANDLE /*provider*/, NCRYPT_KEY_HANDLE key, VOID* padding,
                                            PBYTE hash, DWORD hashSize, PBYTE signature, DWORD size, DWORD flags) {
    return NCryptVerifySignature(key, padding, hash, hashSize, signature, size, flags);
}

/// The slots that this program uses.
NCRYPT_KEY_STORAGE_FUNCTION_TABLE routerTable() {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE table = {};
    table.OpenProvider = routeOpenProvider;
    table.OpenKey = NCryptOpenKey;
    table.CreatePersistedKey = NCryptCreatePersistedKey;
    table.GetKeyProperty = routeGetKeyProperty;
    table.SetProviderProperty = routeSetProviderProperty;
    table.SetKeyProperty = routeSetKeyProperty;
    table.FinalizeKey = routeFinalizeKey;
    table.DeleteKey = routeDeleteKey;
    table.FreeProvider = routeFreeProvider;
    table.FreeKey = routeFreeKey;
    table.FreeBuffer = NCryptFreeBuffer;
    table.Encrypt = routeEncrypt;
    table.Decrypt = routeDecrypt;
    table.EnumKeys = NCryptEnumKeys;
    table.ExportKey = routeExportKey;
    table.SignHash = routeSignHash;
    table.VerifySignature = routeVerifySignature;
    return table;
}

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* providerTable() {
    // The file that CryptoAPI's registration names, else the one that the system finds by its name.
    const WideText path = registeredPath().value_or(PROVIDER_LIBRARY);
    const HMODULE library = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (library == nullptr) {
        throw platformFailure("load " + toUtf8(path), GetLastError());
    }
    const auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(library, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    if (getInterface == nullptr || getInterface(PROVIDER_NAME, &table, 0) != 0 || table == nullptr) {
        throw Failure(toUtf8(path) + " offers no key storage interface\nInstall the provider again.");
    }
    return table;
}

/// False with the reason when the router does not lead to a provider for a removable token: Wine's opens a provider of
/// its own under any name.
bool openByRouter(NCRYPT_PROV_HANDLE& provider, std::string& reason) {
    constexpr DWORD TOKEN = NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG;
    if (const SECURITY_STATUS status = NCryptOpenStorageProvider(&provider, PROVIDER_NAME, 0);
        status != ERROR_SUCCESS) {
        reason = codeText(static_cast<DWORD>(status));
        return false;
    }
    DWORD type = 0;
    DWORD size = 0;
    if (NCryptGetProperty(provider, NCRYPT_IMPL_TYPE_PROPERTY, reinterpret_cast<BYTE*>(&type), sizeof type, &size, 0) !=
            ERROR_SUCCESS ||
        type != TOKEN) {
        NCryptFreeObject(provider);
        provider = 0;
        reason = "it opened one of its own";
        return false;
    }
    return true;
}

void require(SECURITY_STATUS status, const std::string& action, const std::string& advice = {}) {
    if (status != ERROR_SUCCESS) {
        throw platformFailure(action, static_cast<DWORD>(status), advice);
    }
}

/// The platform's structures and functions take bytes that they only read as writable ones.
BYTE* bytesOf(std::span<const BYTE> bytes) {
    return const_cast<BYTE*>(bytes.data());
}
DWORD sizeOf(std::span<const BYTE> bytes) {
    return static_cast<DWORD>(bytes.size());
}

/// Calls for the size of an answer and for the answer.
template <typename Call>
std::vector<BYTE> sizedAnswer(const std::string& action, Call call, const std::string& advice = {}) {
    DWORD size = 0;
    require(call(nullptr, 0, &size), action, advice);
    std::vector<BYTE> answer(size);
    require(call(answer.data(), size, &size), action, advice);
    answer.resize(size);
    return answer;
}

WideText keyTextOf(const std::string& container) {
    const std::optional<Container> filed = findContainer(container);
    return toWide(filed && !filed->keys.empty() ? filed->keys[0] : container);
}

}  // namespace

std::optional<std::string> routerRefusal() {
    NCRYPT_PROV_HANDLE provider = 0;
    std::string reason;
    if (!openByRouter(provider, reason)) {
        return reason;
    }
    NCryptFreeObject(provider);
    return std::nullopt;
}

KeyStorage::KeyStorage() {
    static const NCRYPT_KEY_STORAGE_FUNCTION_TABLE router = routerTable();
    functions_ = &router;
    std::string reason;
    routed_ = openByRouter(provider_, reason);
    if (!routed_) {
        std::cerr << "The platform's key storage router does not know the provider (" << reason
                  << "); its function table is used directly.\n";
        functions_ = providerTable();
        require(functions_->OpenProvider(&provider_, PROVIDER_NAME, 0), "open the key storage provider");
    }
}

KeyStorage::~KeyStorage() {
    functions_->FreeProvider(provider_);
}

void KeyStorage::logIn(const std::optional<std::string>& pin) const {
    if (!pin) {
        return;
    }
    std::string ansi = ansiPin(*pin);
    require(functions_->SetProviderProperty(provider_, NCRYPT_PIN_PROPERTY, reinterpret_cast<BYTE*>(ansi.data()),
                                            static_cast<DWORD>(ansi.size() + 1), 0),
            "log in to the token", "No token is connected, or it refused the PIN. Wrong PINs use up its attempts.");
}

std::vector<std::string> KeyStorage::listKeys() const {
    std::vector<std::string> keys;
    void* state = nullptr;
    NCryptKeyName* name = nullptr;
    SECURITY_STATUS status = ERROR_SUCCESS;
    while ((status = functions_->EnumKeys(provider_, nullptr, &name, &state, 0)) == ERROR_SUCCESS) {
        keys.push_back(toUtf8(name->pszName));
        functions_->FreeBuffer(name);
    }
    functions_->FreeBuffer(state);
    if (status != NTE_NO_MORE_ITEMS) {
        require(status, "list the keys of the token");
    }
    return keys;
}

StorageKey StorageKey::open(const KeyStorage& storage, const std::string& container) {
    NCRYPT_KEY_HANDLE handle = 0;
    require(storage.functions().OpenKey(storage.handle(), &handle, keyTextOf(container).c_str(), 0, 0),
            "open the key of the container \"" + container + "\"",
            "`zentok show --cng` lists the keys of the token, whose 32 digits serve as names.");
    return {storage, handle};
}

StorageKey StorageKey::generate(const KeyStorage& storage, const WCHAR* algorithm, DWORD bits, DWORD usage) {
    NCRYPT_KEY_HANDLE handle = 0;
    const auto& functions = storage.functions();
    require(functions.CreatePersistedKey(storage.handle(), &handle, algorithm, nullptr, 0, 0), "create a key object");
    StorageKey key(storage, handle);
    const auto set = [&](const WCHAR* name, DWORD value) {
        require(
            functions.SetKeyProperty(storage.handle(), handle, name, reinterpret_cast<BYTE*>(&value), sizeof value, 0),
            "set what the key is to be");
    };
    if (key.isRsa()) {
        set(NCRYPT_LENGTH_PROPERTY, bits);
    }
    set(NCRYPT_KEY_USAGE_PROPERTY, usage);
    require(functions.FinalizeKey(storage.handle(), handle, 0), "generate a key");
    return key;
}

StorageKey::StorageKey(StorageKey&& other) noexcept
    : storage_(other.storage_), handle_(std::exchange(other.handle_, 0)) {
}

StorageKey::~StorageKey() {
    if (handle_ != 0) {
        storage_->functions().FreeKey(storage_->handle(), handle_);
    }
}

std::vector<BYTE> StorageKey::property(const WCHAR* name, const char* action) const {
    return sizedAnswer(action, [&](BYTE* output, DWORD room, DWORD* size) {
        return storage_->functions().GetKeyProperty(storage_->handle(), handle_, name, output, room, size, 0);
    });
}

std::string StorageKey::text(const WCHAR* name) const {
    const std::vector<BYTE> bytes = property(name, "read what the provider knows about the key");
    WideText wide(bytes.size() / sizeof(WCHAR), 0);
    std::memcpy(wide.data(), bytes.data(), wide.size() * sizeof(WCHAR));
    return toUtf8(wide.c_str());
}

DWORD StorageKey::number(const WCHAR* name) const {
    const std::vector<BYTE> bytes = property(name, "read what the provider knows about the key");
    DWORD value = 0;
    std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
    return value;
}

std::vector<BYTE> StorageKey::publicKeyInfo() const {
    const bool isRsaKey = isRsa();
    const std::vector<BYTE> blob = sizedAnswer("export the public key", [&](BYTE* output, DWORD room, DWORD* size) {
        return storage_->functions().ExportKey(storage_->handle(), handle_, 0,
                                               isRsaKey ? LEGACY_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB, nullptr,
                                               output, room, size, 0);
    });
    return isRsaKey ? rsaPublicKeyInfo(blob) : ecPublicKeyInfo(blob);
}

std::vector<BYTE> StorageKey::certificate() const {
    DWORD size = 0;
    if (storage_->functions().GetKeyProperty(storage_->handle(), handle_, NCRYPT_CERTIFICATE_PROPERTY, nullptr, 0,
                                             &size, 0) == NTE_NOT_FOUND) {
        return {};
    }
    return property(NCRYPT_CERTIFICATE_PROPERTY, "read the certificate");
}

void StorageKey::storeCertificate(std::span<const BYTE> der) const {
    require(storage_->functions().SetKeyProperty(storage_->handle(), handle_, NCRYPT_CERTIFICATE_PROPERTY, bytesOf(der),
                                                 sizeOf(der), 0),
            "store the certificate", "The token refused it, or it is too large; the provider's log says more.");
}

std::vector<BYTE> StorageKey::sign(std::span<const BYTE> hash, bool pss) const {
    const DWORD flags = !isRsa() ? 0 : pss ? BCRYPT_PAD_PSS : BCRYPT_PAD_PKCS1;
    return sizedAnswer("sign", [&](BYTE* output, DWORD room, DWORD* size) {
        return storage_->functions().SignHash(storage_->handle(), handle_, nullptr, bytesOf(hash), sizeOf(hash), output,
                                              room, size, flags);
    });
}

bool StorageKey::verify(std::span<const BYTE> hash, std::span<const BYTE> signature, bool pss) const {
    const DWORD flags = !isRsa() ? 0 : pss ? BCRYPT_PAD_PSS : BCRYPT_PAD_PKCS1;
    const SECURITY_STATUS status =
        storage_->functions().VerifySignature(storage_->handle(), handle_, nullptr, bytesOf(hash), sizeOf(hash),
                                              bytesOf(signature), sizeOf(signature), flags);
    if (status != NTE_BAD_SIGNATURE) {
        require(status, "verify the signature");
    }
    return status == ERROR_SUCCESS;
}

std::vector<BYTE> StorageKey::encrypt(std::span<const BYTE> data, bool oaep) const {
    return sizedAnswer("encrypt", [&](BYTE* output, DWORD room, DWORD* size) {
        return storage_->functions().Encrypt(storage_->handle(), handle_, bytesOf(data), sizeOf(data), nullptr, output,
                                             room, size, oaep ? NCRYPT_PAD_OAEP_FLAG : NCRYPT_PAD_PKCS1_FLAG);
    });
}

std::vector<BYTE> StorageKey::decrypt(std::span<const BYTE> data, bool oaep) const {
    const char* const advice = oaep ? "The file was not encrypted to this key, or is damaged."
                                    : "This token may decrypt no PKCS#1 v1.5; encrypt with `--padding oaep`.";
    return sizedAnswer(
        "decrypt",
        [&](BYTE* output, DWORD room, DWORD* size) {
            return storage_->functions().Decrypt(storage_->handle(), handle_, bytesOf(data), sizeOf(data), nullptr,
                                                 output, room, size,
                                                 oaep ? NCRYPT_PAD_OAEP_FLAG : NCRYPT_PAD_PKCS1_FLAG);
        },
        advice);
}

void StorageKey::remove() {
    require(storage_->functions().DeleteKey(storage_->handle(), handle_, 0), "delete the key");
    handle_ = 0;  // gone with the key
}
