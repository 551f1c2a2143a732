// What the tests of the key storage provider share: its function table as the platform's router gets it, the calls
// through it in few words, and its public keys as openssl has them.
#pragma once

#include "cng/key_storage_interface.h"
#include "tests/platform/platform_test.h"

namespace test {

inline const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table() {
    static NCRYPT_KEY_STORAGE_FUNCTION_TABLE* loaded = nullptr;
    if (loaded == nullptr) {
        const FARPROC entry = GetProcAddress(LoadLibraryA("ZentokCSP.dll"), "GetKeyStorageInterface");
        reinterpret_cast<decltype(&GetKeyStorageInterface)>(reinterpret_cast<void*>(entry))(TEXT(""), &loaded, 0);
    }
    return *loaded;
}

inline BOOL freeProvider(ULONG_PTR handle) {
    return table().FreeProvider(handle) == ERROR_SUCCESS;
}
template <auto function>
BOOL freeObject(ULONG_PTR handle) {
    return (table().*function)(0, handle) == ERROR_SUCCESS;
}
using KspKey = Owned<freeObject<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FreeKey>>;
using KspSecret = Owned<freeObject<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FreeSecret>>;

/// A kind of key as the provider and the token call it.
struct Kind {
    const char* algorithm;
    const char* group;
    DWORD bits;
    KeyType tokenType;
    ULONG magic;  ///< of its public blob

    [[nodiscard]] bool isRsa() const { return tokenType < KEY_TYPE_EC_P256; }
    [[nodiscard]] DWORD bytes() const { return (bits + 7) / 8; }
    [[nodiscard]] DWORD signatureSize() const { return isRsa() ? bytes() : 2 * bytes(); }
    [[nodiscard]] const WCHAR* blobType() const { return isRsa() ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB; }
    /// As openssl's genpkey takes it.
    [[nodiscard]] std::string option() const {
        return (isRsa() ? "rsa_keygen_bits:" : "ec_paramgen_curve:P-") + std::to_string(bits);
    }
};
constexpr Kind RSA_2048 = {"RSA", "RSA", 2048, KEY_TYPE_RSA_2048, BCRYPT_RSAPUBLIC_MAGIC};
constexpr Kind RSA_3072 = {"RSA", "RSA", 3072, KEY_TYPE_RSA_3072, BCRYPT_RSAPUBLIC_MAGIC};
constexpr Kind RSA_4096 = {"RSA", "RSA", 4096, KEY_TYPE_RSA_4096, BCRYPT_RSAPUBLIC_MAGIC};
constexpr Kind ECDSA_P256 = {"ECDSA_P256", "ECDSA", 256, KEY_TYPE_EC_P256, 0x31534345};
constexpr Kind ECDSA_P384 = {"ECDSA_P384", "ECDSA", 384, KEY_TYPE_EC_P384, 0x33534345};
constexpr Kind ECDSA_P521 = {"ECDSA_P521", "ECDSA", 521, KEY_TYPE_EC_P521, 0x35534345};
constexpr Kind ECDH_P256 = {"ECDH_P256", "ECDH", 256, KEY_TYPE_EC_P256, 0x314B4345};
constexpr Kind ECDH_P384 = {"ECDH_P384", "ECDH", 384, KEY_TYPE_EC_P384, 0x334B4345};
constexpr Kind ECDH_P521 = {"ECDH_P521", "ECDH", 521, KEY_TYPE_EC_P521, 0x354B4345};

template <typename Value>
Bytes bytesOf(const Value& value) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&value);
    return {bytes, bytes + sizeof value};
}
/// With the terminator.
inline Bytes wideBytes(const std::string& text) {
    Bytes bytes;
    for (const char character : text + '\0') {
        bytes.insert(bytes.end(), {static_cast<unsigned char>(character), 0});
    }
    return bytes;
}

/// Asks a function whose last arguments are the buffer, its size, the answer's size and flags.
template <typename Function, typename... Arguments>
Bytes answer(DWORD flags, Function function, Arguments... arguments) {
    return answerOf([&](BYTE* data, DWORD* size) { return code(function(arguments..., data, *size, size, flags)); });
}

/// An opened provider. Its calls expect success, unless they give a code.
class KeyStorage {
public:
    explicit KeyStorage(const char* pin = PIN) {
        EXPECT_EQ(code(table().OpenProvider(provider.out(), TEXT(""), 0)), OK);
        EXPECT_TRUE(pin == nullptr || logIn(pin) == OK);
    }

    /// Through the PIN property: no dialog.
    [[nodiscard]] Code logIn(std::string pin) const {
        auto* const text = reinterpret_cast<BYTE*>(pin.data());
        return code(table().SetProviderProperty(get(), NCRYPT_PIN_PROPERTY, text, 1, 0));
    }
    [[nodiscard]] KspKey open(const std::string& keyText, DWORD keySpec = 0) const {
        KspKey key;
        EXPECT_EQ(code(table().OpenKey(get(), key.out(), wide(keyText).c_str(), keySpec, 0)), OK);
        return key;
    }
    /// An RSA key comes from the size, and an ECDH key is one by its usage.
    [[nodiscard]] KspKey create(const Kind& kind) const {
        KspKey key;
        const DWORD usage = kind.group == std::string("ECDH") ? NCRYPT_ALLOW_DECRYPT_FLAG : NCRYPT_ALLOW_ALL_USAGES;
        EXPECT_EQ(code(table().CreatePersistedKey(get(), key.out(), wide(kind.algorithm).c_str(), TEXT(""), 0, 0)), OK);
        EXPECT_EQ(setProperty(key, NCRYPT_LENGTH_PROPERTY, bytesOf(kind.bits)), OK);
        EXPECT_EQ(setProperty(key, NCRYPT_KEY_USAGE_PROPERTY, bytesOf(usage)), OK);
        EXPECT_EQ(code(table().FinalizeKey(get(), key.get(), 0)), OK);
        return key;
    }
    [[nodiscard]] KspKey import(const WCHAR* type, Bytes blob, const KspKey& by = {}, Code result = OK) const {
        KspKey key;
        EXPECT_EQ(code(table().ImportKey(get(), by.get(), type, nullptr, key.out(), blob.data(), sizeOf(blob), 0)),
                  result);
        return key;
    }
    [[nodiscard]] Bytes exportPublic(const KspKey& key, const WCHAR* type) const {
        return answer(0, table().ExportKey, get(), key.get(), 0, type, nullptr);
    }
    [[nodiscard]] Bytes property(const KspKey& key, const WCHAR* name) const {
        return answer(0, table().GetKeyProperty, get(), key.get(), name);
    }
    /// The file of a token key's public half.
    [[nodiscard]] std::string publicKey(const Token& token, const KspKey& key) const {
        const Bytes name = property(key, NCRYPT_NAME_PROPERTY);
        std::string keyText;
        for (std::size_t i = 0; i + 2 < name.size(); i += 2) {
            keyText += static_cast<char>(name[i]);
        }
        return token.publicKey(keyText);
    }
    [[nodiscard]] Code setProperty(const KspKey& key, const WCHAR* name, Bytes value) const {
        return code(table().SetKeyProperty(get(), key.get(), name, value.data(), sizeOf(value), 0));
    }
    [[nodiscard]] Bytes sign(const KspKey& key, Bytes digest, DWORD padding) const {
        return answer(padding, table().SignHash, get(), key.get(), nullptr, digest.data(), sizeOf(digest));
    }
    [[nodiscard]] Code verify(const KspKey& key, Bytes digest, Bytes signature, DWORD padding) const {
        return code(table().VerifySignature(get(), key.get(), nullptr, digest.data(), sizeOf(digest), signature.data(),
                                            sizeOf(signature), padding));
    }
    /// `function`: the table's Encrypt or Decrypt.
    [[nodiscard]] Bytes crypt(NCryptEncryptFn function, const KspKey& key, Bytes input, DWORD flags = 0,
                              const std::string& oaepHash = "") const {
        const auto hash = wide(oaepHash);
        BCRYPT_OAEP_PADDING_INFO info = {hash.c_str(), nullptr, 0};
        return answer(flags, function, get(), key.get(), input.data(), sizeOf(input), &info);
    }
    [[nodiscard]] ULONG_PTR get() const { return provider.get(); }

private:
    Owned<freeProvider> provider;
};

inline const Bytes EXPONENT = {1, 0, 1};

inline Bytes lastBytes(const Bytes& bytes, std::size_t size) {
    return {bytes.end() - static_cast<std::ptrdiff_t>(size), bytes.end()};
}

inline Bytes digestOf(const std::string& hash, const Bytes& data) {
    const ScratchFolder files;
    return fromOpenssl({"dgst", "-" + hash, "-binary", files.write("in", data)});
}
/// A public key file as SubjectPublicKeyInfo, and that as the public blob; the exponent of an RSA key is 65537.
inline Bytes spkiOf(const std::string& publicKeyFile) {
    return fromOpenssl({"pkey", "-pubin", "-in", publicKeyFile, "-outform", "DER"});
}

inline Bytes blobOf(const Kind& kind, const Bytes& spki) {
    if (kind.isRsa()) {
        const BCRYPT_RSAKEY_BLOB header = {kind.magic, kind.bits, sizeOf(EXPONENT), kind.bytes(), 0, 0};
        const Bytes end = lastBytes(spki, kind.bytes() + derInteger(EXPONENT).size());
        return joined({bytesOf(header), EXPONENT, {end.begin(), end.begin() + static_cast<int>(kind.bytes())}});
    }
    const BCRYPT_ECCKEY_BLOB header = {kind.magic, kind.bytes()};
    return joined({bytesOf(header), lastBytes(spki, std::size_t{2} * kind.bytes())});
}

}  // namespace test
