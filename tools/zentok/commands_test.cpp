// Everything that a key is for, tried once through both provider interfaces.
#include <chrono>
#include <initializer_list>
#include <optional>

#include "tools/zentok/commands.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/findings.h"
#include "tools/zentok/key_storage.h"

namespace {

constexpr DWORD LARGEST_REFUSED = 1024;  ///< bits

/// What is encrypted; its 32 bytes also serve as a SHA-256 value.
const std::vector<BYTE>& sample() {
    static const std::vector<BYTE> bytes(32, 0x5A);
    return bytes;
}

/// The same with its last byte changed.
std::vector<BYTE> changed(std::vector<BYTE> bytes) {
    bytes.back() ^= 1;
    return bytes;
}

/// The steps of one interface. Each adds a line; a failure of one does not keep the others from being tried.
class Steps {
public:
    Steps(Findings& findings, std::string front) : findings_(findings), front_(std::move(front)) {}

    /// True when `step`, whose result is the line's text, did not throw.
    template <typename Step>
    bool attempt(const char* name, Step step) {
        Finding finding{front_ + " " + name};
        const auto start = std::chrono::steady_clock::now();
        try {
            finding.text = step();
        } catch (const Failure& failure) {
            finding = failedFinding(finding.topic, failure);
        }
        finding.time = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        findings_.push_back(finding);
        return finding.verdict == Verdict::Ok;
    }

    void skip(std::initializer_list<const char*> names, const char* reason) {
        for (const char* name : names) {
            findings_.push_back({front_ + " " + name, Verdict::Skipped, reason});
        }
    }

private:
    Findings& findings_;
    std::string front_;
};

std::string sizeText(const std::vector<BYTE>& bytes) {
    return std::to_string(bytes.size()) + " bytes";
}

struct KeyKind {
    bool isRsa;
    DWORD bits;
};

std::string kindText(const KeyKind& kind) {
    return (kind.isRsa ? "an RSA key of " : "an elliptic-curve key of ") + std::to_string(kind.bits) + " bits";
}

template <typename Sign, typename Verify>
void trySignature(Steps& steps, const KeyKind& kind, Sign sign, Verify verify) {
    if (kind.isRsa && kind.bits <= LARGEST_REFUSED) {
        steps.skip({"sign", "verify"}, "the provider signs with no RSA key of 1024 bits, on any token");
        return;
    }
    std::vector<BYTE> signature;
    if (!steps.attempt("sign", [&] { return sizeText(signature = sign(sample())); })) {
        steps.skip({"verify"}, "there is no signature");
        return;
    }
    steps.attempt("verify", [&]() -> std::string {
        if (!verify(sample(), signature)) {
            throw Failure("the signature is refused\nThe provider's log says more.");
        }
        if (verify(changed(sample()), signature)) {
            throw Failure("the signature is taken for other data, too\nDo not trust this provider's verdicts.");
        }
        return "the signature is good, and refused for other data";
    });
}

template <typename Encrypt, typename Decrypt>
void tryEncryption(Steps& steps, const KeyKind& kind, Encrypt encrypt, Decrypt decrypt) {
    if (!kind.isRsa) {
        steps.skip({"encrypt", "decrypt"}, "an elliptic-curve key does not encrypt");
        return;
    }
    std::vector<BYTE> secret;
    if (!steps.attempt("encrypt", [&] { return sizeText(secret = encrypt(sample())); })) {
        steps.skip({"decrypt"}, "there is no ciphertext");
        return;
    }
    steps.attempt("decrypt", [&]() -> std::string {
        if (decrypt(secret) != sample()) {
            throw Failure("something else came back than was encrypted\nThe provider's log says more.");
        }
        return "what was encrypted comes back";
    });
}

Hash hashOf(const Context& context, const std::vector<BYTE>& data) {
    Hash hash = startHash(context, CALG_SHA_256);
    if (CryptHashData(hash.get(), data.data(), static_cast<DWORD>(data.size()), 0) == FALSE) {
        throw platformFailure("hash the data", GetLastError());
    }
    return hash;
}

/// False when the PIN was refused.
bool tryCryptoApi(Steps steps, const std::string& container, const std::optional<std::string>& pin) {
    std::optional<Context> context;
    std::optional<Key> key;
    KeyKind kind = {};
    const bool isOpen = steps.attempt("open", [&] {
        context.emplace(openContainer(container));
        key.emplace(requireKey(*context, container));
        kind = {!isEllipticCurve(*key), keyNumber(*key, KP_KEYLEN)};
        return kindText(kind);
    });
    if (!isOpen) {
        return true;
    }
    if (pin && !steps.attempt("log in", [&] {
            logIn(*context, pin);
            return std::string("the PIN is right");
        })) {
        return false;
    }
    trySignature(
        steps, kind, [&](const auto& data) { return signHash(hashOf(*context, data)); },
        [&](const auto& data, const auto& signature) { return verifyHash(hashOf(*context, data), signature, *key); });
    tryEncryption(
        steps, kind,
        [&](std::vector<BYTE> data) {
            encryptByKey(*key, CRYPT_OAEP, data);
            return data;
        },
        [&](std::vector<BYTE> data) {
            decryptByKey(*key, CRYPT_OAEP, data);
            return data;
        });
    return true;
}

void tryKeyStorage(Steps steps, const std::string& container, const std::optional<std::string>& pin) {
    std::optional<KeyStorage> storage;
    std::optional<StorageKey> key;
    KeyKind kind = {};
    const bool isOpen = steps.attempt("open", [&] {
        storage.emplace();
        key.emplace(StorageKey::open(*storage, container));
        kind = {key->isRsa(), key->number(NCRYPT_LENGTH_PROPERTY)};
        return kindText(kind) + (storage->isRouted() ? "" : ", by the function table");
    });
    if (!isOpen || (pin && !steps.attempt("log in", [&] {
            storage->logIn(pin);
            return std::string("the PIN is right");
        }))) {
        return;
    }
    trySignature(
        steps, kind, [&](const auto& hash) { return key->sign(hash, false); },
        [&](const auto& hash, const auto& signature) { return key->verify(hash, signature, false); });
    tryEncryption(
        steps, kind, [&](const auto& data) { return key->encrypt(data, true); },
        [&](const auto& data) { return key->decrypt(data, true); });
}

void runTest(const Arguments& arguments) {
    const std::string& container = arguments.get("container");
    const std::optional<std::string> pin = arguments.find("pin");
    if (pin) {
        ansiPin(*pin);  // a PIN that cannot be one is refused before anything is tried
    }
    Findings findings;
    const QuietOutput output;
    Steps keyStorage(findings, "CNG");
    if (tryCryptoApi(Steps(findings, "CryptoAPI"), container, pin)) {
        tryKeyStorage(keyStorage, container, pin);
    } else {
        keyStorage.skip({"log in"}, "the PIN was refused already; another try could cost another attempt");
    }
    printFindings(output, findings, arguments.has("json"));
}

constexpr Option OPTIONS[] = {CONTAINER, PIN, JSON};

constexpr Command COMMANDS[] = {
    {"test", "Try a key: sign, verify, encrypt and decrypt, through CryptoAPI and CNG",
     "One line each, with the time that it took. Nothing on the token changes. RSA encrypts with OAEP; elliptic-curve\n"
     "keys do not encrypt, which is no error. The exit code is 1 when anything failed.",
     OPTIONS, runTest},
};

}  // namespace

std::span<const Command> testCommands() {
    return COMMANDS;
}
