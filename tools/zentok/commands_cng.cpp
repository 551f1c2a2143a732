// The commands as they run with --cng: through the key storage provider instead of CryptoAPI.
#include "tools/zentok/commands_cng.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>

#include <bcrypt.h>

#include "tools/zentok/certificates.h"
#include "tools/zentok/commands.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/files.h"
#include "tools/zentok/key_storage.h"

namespace cng {

namespace {

constexpr std::array<std::string_view, 4> KEY_TYPES = {"rsa", "p256", "p384", "p521"};
constexpr std::array<std::string_view, 2> SIGNATURE_PADDINGS = {"pkcs1", "pss"};

/// In the order of KEY_TYPES, for signing and for key exchange.
constexpr const WCHAR* ALGORITHMS[][2] = {
    {BCRYPT_RSA_ALGORITHM, BCRYPT_RSA_ALGORITHM},
    {BCRYPT_ECDSA_P256_ALGORITHM, BCRYPT_ECDH_P256_ALGORITHM},
    {BCRYPT_ECDSA_P384_ALGORITHM, BCRYPT_ECDH_P384_ALGORITHM},
    {BCRYPT_ECDSA_P521_ALGORITHM, BCRYPT_ECDH_P521_ALGORITHM},
};

/// In the order of HASH_NAMES.
constexpr const WCHAR* HASH_ALGORITHMS[] = {BCRYPT_SHA256_ALGORITHM, BCRYPT_SHA384_ALGORITHM, BCRYPT_SHA512_ALGORITHM,
                                            BCRYPT_SHA1_ALGORITHM};

void require(NTSTATUS status, const std::string& action) {
    if (status < 0) {
        throw platformFailure(action, static_cast<DWORD>(status));
    }
}

struct AlgorithmCloser {
    void operator()(void* algorithm) const { BCryptCloseAlgorithmProvider(algorithm, 0); }
};
struct HashCloser {
    void operator()(void* hash) const { BCryptDestroyHash(hash); }
};

/// A hash that the platform computes.
class Digest {
public:
    explicit Digest(const WCHAR* name) {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        require(BCryptOpenAlgorithmProvider(&algorithm, name, nullptr, 0), "start the hash");
        algorithm_.reset(algorithm);
        BCRYPT_HASH_HANDLE hash = nullptr;
        require(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0), "start the hash");
        hash_.reset(hash);
    }
    void add(std::string_view bytes) {
        auto* data = reinterpret_cast<PUCHAR>(const_cast<char*>(bytes.data()));
        require(BCryptHashData(hash_.get(), data, static_cast<ULONG>(bytes.size()), 0), "hash the data");
    }
    Bytes finish() {
        DWORD size = 0;
        DWORD read = 0;
        require(BCryptGetProperty(algorithm_.get(), BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&size), sizeof size,
                                  &read, 0),
                "finish the hash");
        Bytes value(size);
        require(BCryptFinishHash(hash_.get(), value.data(), size, 0), "finish the hash");
        return value;
    }

private:
    std::unique_ptr<void, AlgorithmCloser> algorithm_;
    std::unique_ptr<void, HashCloser> hash_;
};

Bytes hashFile(const Arguments& arguments) {
    Digest digest(HASH_ALGORITHMS[arguments.getChoice("hash", HASH_NAMES)]);
    readBlocks(arguments.get("in"), [&digest](std::string_view block) { digest.add(block); });
    return digest.finish();
}

bool isPss(const Arguments& arguments) {
    return arguments.getChoice("padding", SIGNATURE_PADDINGS) == 1;
}

/// Between the order of a signature's file and big-endian; r || s has one order only.
void convertOrder(Bytes& signature, const StorageKey& key, const Arguments& arguments) {
    if (arguments.getChoice("order", SIGNATURE_ORDERS) == 1 && key.isRsa()) {
        std::ranges::reverse(signature);
    }
}

std::string keyDescription(const StorageKey& key) {
    const DWORD usage = key.number(NCRYPT_KEY_USAGE_PROPERTY);
    const bool signs = (usage & NCRYPT_ALLOW_SIGNING_FLAG) != 0;
    const bool decrypts = (usage & NCRYPT_ALLOW_DECRYPT_FLAG) != 0;
    return key.text(NCRYPT_ALGORITHM_PROPERTY) + ", " + std::to_string(key.number(NCRYPT_LENGTH_PROPERTY)) + " bits" +
           (signs && decrypts ? ", for signing and key exchange"
            : signs           ? ", for signing"
            : decrypts        ? ", for key exchange"
                              : "");
}

/// The size that is generated when at least `bits` are asked for.
DWORD rsaSize(unsigned long bits) {
    constexpr DWORD SIZES[] = {2048, 3072, 4096};
    const auto* size = std::ranges::find_if(SIZES, [=](DWORD candidate) { return candidate >= bits; });
    if (bits <= 1024 || size == std::end(SIZES)) {
        throw UsageError("RSA keys have 2048, 3072 or 4096 bits");
    }
    return *size;
}

}  // namespace

void generate(const Arguments& arguments) {
    const std::size_t type = arguments.getChoice("type", KEY_TYPES);
    const std::size_t usage = arguments.getChoice("usage", KEY_USAGES);
    const DWORD bits = rsaSize(arguments.getNumber("bits", 1, 0xFFFF));
    const KeyStorage storage;
    storage.logIn(arguments.find("pin"));
    const StorageKey key = StorageKey::generate(storage, ALGORITHMS[type][usage], bits,
                                                usage == 0 ? NCRYPT_ALLOW_SIGNING_FLAG : NCRYPT_ALLOW_DECRYPT_FLAG);
    std::cout << "Generated the key " << key.text(NCRYPT_NAME_PROPERTY) << ": " << keyDescription(key)
              << "\nThe key storage provider files keys under these digits alone: give them as --container.\n";
}

void remove(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const KeyStorage storage;
    StorageKey key = StorageKey::open(storage, name);
    storage.logIn(arguments.find("pin"));
    key.remove();
    std::cout << "Deleted the key of the container \"" << name << "\".\n";
}

void show() {
    const KeyStorage storage;
    const std::vector<std::string> keys = storage.listKeys();
    if (keys.empty()) {
        std::cout << "No keys on a connected token. `zentok key generate` makes one.\n";
    }
    for (const std::string& text : keys) {
        const StorageKey key = StorageKey::open(storage, text);
        std::cout << "key " << text << "\n  " << keyDescription(key) << "\n"
                  << certificateDescription(key.certificate());
    }
}

Bytes publicKeyInfo(const Arguments& arguments) {
    const KeyStorage storage;
    return StorageKey::open(storage, arguments.get("container")).publicKeyInfo();
}

Bytes sign(const Arguments& arguments) {
    const KeyStorage storage;
    const StorageKey key = StorageKey::open(storage, arguments.get("container"));
    const Bytes hash = hashFile(arguments);
    storage.logIn(arguments.find("pin"));
    Bytes signature = key.sign(hash, isPss(arguments));
    convertOrder(signature, key, arguments);
    return signature;
}

bool verify(const Arguments& arguments, Bytes signature) {
    const KeyStorage storage;
    const StorageKey key = StorageKey::open(storage, arguments.get("container"));
    convertOrder(signature, key, arguments);
    return key.verify(hashFile(arguments), signature, isPss(arguments));
}

Bytes encrypt(const Arguments& arguments, std::span<const BYTE> data, bool oaep) {
    const KeyStorage storage;
    return StorageKey::open(storage, arguments.get("container")).encrypt(data, oaep);
}

Bytes decrypt(const Arguments& arguments, std::span<const BYTE> data, bool oaep) {
    const KeyStorage storage;
    const StorageKey key = StorageKey::open(storage, arguments.get("container"));
    storage.logIn(arguments.find("pin"));
    return key.decrypt(data, oaep);
}

Bytes request(const Arguments& arguments) {
    const KeyStorage storage;
    const StorageKey key = StorageKey::open(storage, arguments.get("container"));
    const Bytes info = certificationRequestInfo(arguments.get("subject"), key.publicKeyInfo());
    Digest digest(BCRYPT_SHA256_ALGORITHM);
    digest.add({reinterpret_cast<const char*>(info.data()), info.size()});
    storage.logIn(arguments.find("pin"));
    return certificationRequest(info, key.sign(digest.finish(), false), key.isRsa());
}

void storeCertificate(const Arguments& arguments, const Certificate& certificate) {
    const KeyStorage storage;
    const StorageKey key = StorageKey::open(storage, arguments.get("container"));
    requireSameKey(certificate, key.publicKeyInfo(), arguments);
    storage.logIn(arguments.find("pin"));
    key.storeCertificate({certificate->pbCertEncoded, certificate->cbCertEncoded});
}

Bytes readCertificate(const Arguments& arguments) {
    const KeyStorage storage;
    return StorageKey::open(storage, arguments.get("container")).certificate();
}

std::string requireRouter(const Arguments& arguments) {
    const KeyStorage storage;
    if (!storage.isRouted()) {
        throw Failure(
            "the platform makes messages with a key storage provider only when its router knows it\nRegister the "
            "provider with `regsvr32 ZentokCSP.dll`, or leave out `--cng`.");
    }
    return StorageKey::open(storage, arguments.get("container")).text(NCRYPT_NAME_PROPERTY);
}

}  // namespace cng
