// The platform's CryptoAPI calls, made on the Zentok provider: handles that close themselves, failures that throw.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include <wincrypt.h>

/// What the provider is registered as, under the type PROV_RSA_FULL.
inline constexpr WCHAR PROVIDER_NAME[] = TEXT("Zentok Cryptographic Provider CSP");

/// Owns one CryptoAPI handle; `close` gives it back.
template <BOOL (*close)(ULONG_PTR)>
class OwnedHandle {
public:
    explicit OwnedHandle(ULONG_PTR handle) : handle_(handle) {}
    OwnedHandle(OwnedHandle&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
    OwnedHandle& operator=(OwnedHandle&&) = delete;
    OwnedHandle(const OwnedHandle&) = delete;
    OwnedHandle& operator=(const OwnedHandle&) = delete;
    ~OwnedHandle() {
        if (handle_ != 0) {
            close(handle_);
        }
    }

    ULONG_PTR get() const { return handle_; }

private:
    ULONG_PTR handle_;
};

BOOL releaseContext(ULONG_PTR handle);
BOOL destroyKey(ULONG_PTR handle);
BOOL destroyHash(ULONG_PTR handle);

/// Keys and hashes end before the context that they came from.
using Context = OwnedHandle<releaseContext>;
using Key = OwnedHandle<destroyKey>;
using Hash = OwnedHandle<destroyHash>;

/// Acquires the container with that name, or the key with that key text. A name that nothing is filed under opens too,
/// and the empty one opens the first token.
Context openContainer(const std::string& name);

/// A PIN (UTF-8) as the provider takes it; throws UsageError for a text that cannot be one, which would cost an
/// attempt.
std::string ansiPin(const std::string& pin);

/// Logs in to the token with a PIN (UTF-8) that the user gave as an option; without one the provider's own dialog asks
/// when an operation with a private key comes. Throws when the token refuses the PIN, which costs one attempt.
void logIn(const Context& context, const std::optional<std::string>& pin);

/// The container's key; nothing when the token has none for it.
std::optional<Key> findKey(const Context& context);

/// The same, and throws when there is none.
Key requireKey(const Context& context, const std::string& container);

/// A number that the provider knows about a key, KP_KEYLEN for one.
DWORD keyNumber(const Key& key, DWORD parameter);

/// True for an elliptic-curve key, false for RSA.
bool isEllipticCurve(const Key& key);

/// "RSA-2048, for signing".
std::string keyDescription(const Key& key);

/// The key texts of the token that the context works with.
std::vector<std::string> listKeys(const Context& context);

/// The DER of the key's certificate on the token; empty when it has none.
std::vector<BYTE> readCertificate(const Key& key);

/// The certificates of the container's key up to the last issuer that the token has, as a PKCS#7 message; empty when
/// the key has none.
std::vector<BYTE> readCertificateChain(const Context& context);

Hash startHash(const Context& context, ALG_ID algorithm);

/// The content of a file, hashed.
Hash hashFile(const Context& context, ALG_ID algorithm, const std::string& file);

/// Room that a signature of the hash takes with the container's signature key, in bytes.
DWORD signatureSize(const Hash& hash);

/// Signs with the container's signature key; little-endian for RSA.
std::vector<BYTE> signHash(const Hash& hash);

/// True when the signature is good, false when it is not; little-endian for RSA, as CryptoAPI has it.
bool verifyHash(const Hash& hash, std::span<const BYTE> signature, const Key& key);

/// RSA in place, with big-endian ciphertext. `flags` as CryptEncrypt has them: CRYPT_OAEP, or 0 for PKCS#1 v1.5.
void encryptByKey(const Key& key, DWORD flags, std::vector<BYTE>& data);
void decryptByKey(const Key& key, DWORD flags, std::vector<BYTE>& data);

struct Container {
    std::string name;
    std::vector<std::string> keys;  ///< key texts; the first one is the key in use
};

/// What the user's containers are filed as. Read from the registry.
std::vector<Container> listContainers();
std::optional<Container> findContainer(const std::string& name);
