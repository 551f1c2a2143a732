// The Zentok key storage provider (CNG): its keys by the platform's router, or by the provider's own table of functions
// where the router does not know the provider.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include <windows.h>

#include "cng/key_storage_interface.h"
#include "tools/zentok/text.h"

/// Why the platform's router does not lead to the provider; nothing when it does.
std::optional<std::string> routerRefusal();

/// An opened provider. Both roads have one table, so that the code behind it is the same.
class KeyStorage {
public:
    /// Says on the error output when the router does not know the provider, and drives the table itself then.
    KeyStorage();
    ~KeyStorage();
    KeyStorage(const KeyStorage&) = delete;
    KeyStorage& operator=(const KeyStorage&) = delete;

    bool isRouted() const { return routed_; }
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& functions() const { return *functions_; }
    NCRYPT_PROV_HANDLE handle() const { return provider_; }

    /// Logs in with a PIN that the user gave as an option; without one the provider's dialog asks when it is needed.
    void logIn(const std::optional<std::string>& pin) const;

    /// The key texts of the provider's token.
    std::vector<std::string> listKeys() const;

private:
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* functions_ = nullptr;
    NCRYPT_PROV_HANDLE provider_ = 0;
    bool routed_ = false;
};

/// A key of the provider, which has to outlive it. Failures throw.
class StorageKey {
public:
    /// The first key of the container with that name, or the key with that key text.
    static StorageKey open(const KeyStorage& storage, const std::string& container);

    /// Generates a key on the token. `algorithm` is a CNG name such as "ECDSA_P256"; `bits` counts for RSA only.
    static StorageKey generate(const KeyStorage& storage, const WCHAR* algorithm, DWORD bits, DWORD usage);

    StorageKey(StorageKey&& other) noexcept;
    StorageKey& operator=(StorageKey&&) = delete;
    StorageKey(const StorageKey&) = delete;
    StorageKey& operator=(const StorageKey&) = delete;
    ~StorageKey();

    std::string text(const WCHAR* name) const;
    DWORD number(const WCHAR* name) const;
    bool isRsa() const { return text(NCRYPT_ALGORITHM_GROUP_PROPERTY) == "RSA"; }

    /// DER SubjectPublicKeyInfo.
    std::vector<BYTE> publicKeyInfo() const;

    /// DER of the key's certificate; empty when it has none.
    std::vector<BYTE> certificate() const;
    void storeCertificate(std::span<const BYTE> der) const;

    /// Big-endian RSA signature, or r || s. `pss` is for RSA.
    std::vector<BYTE> sign(std::span<const BYTE> hash, bool pss) const;
    bool verify(std::span<const BYTE> hash, std::span<const BYTE> signature, bool pss) const;

    /// RSA with big-endian ciphertext; OAEP with SHA-1, else PKCS#1 v1.5.
    std::vector<BYTE> encrypt(std::span<const BYTE> data, bool oaep) const;
    std::vector<BYTE> decrypt(std::span<const BYTE> data, bool oaep) const;

    /// Deletes the key from the token.
    void remove();

private:
    StorageKey(const KeyStorage& storage, NCRYPT_KEY_HANDLE handle) : storage_(&storage), handle_(handle) {}
    std::vector<BYTE> property(const WCHAR* name, const char* action) const;

    const KeyStorage* storage_;
    NCRYPT_KEY_HANDLE handle_;
};
