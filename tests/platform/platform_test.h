// What the platform tests share: software tokens that can be pulled out, the platform's handles and calls in few words,
// and this program run again as another process. The provider is reached through the platform alone.
#pragma once

#include <algorithm>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <wincrypt.h>

#include "softtoken/token_admin.h"
#include "tests/support/der.h"
#include "tests/support/log_capture.h"
#include "tests/support/openssl.h"
#include "tests/support/password_user.h"

namespace test {

using softtoken::FipsClass;

constexpr char PIN[] = "271828";
constexpr char WRONG_PIN[] = "314159";
constexpr char PROVIDER[] = "Zentok Cryptographic Provider CSP";

/// A platform call's failure as GetLastError or its status tells it, shown in hexadecimal; OK is success.
enum class Code : DWORD {};
constexpr Code OK{};
constexpr Code NO_TOKEN{static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL)};
constexpr Code code(long value) {
    return static_cast<Code>(value);
}
inline Code outcome(BOOL result) {
    return result != FALSE ? OK : static_cast<Code>(GetLastError());
}
inline Code outcome(Code result) {
    return result;
}
inline void PrintTo(Code value, std::ostream* stream) {
    *stream << "0x" << std::hex << static_cast<DWORD>(value) << std::dec;
}

struct Closing {
    static BOOL context(ULONG_PTR handle) { return CryptReleaseContext(handle, 0); }
    static BOOL key(ULONG_PTR handle) { return CryptDestroyKey(handle); }
    static BOOL hash(ULONG_PTR handle) { return CryptDestroyHash(handle); }
};

/// Owns one handle of the platform's; `close` gives it back. Keys and hashes end before their context.
template <BOOL (*close)(ULONG_PTR)>
class Owned {
public:
    Owned() = default;
    Owned(Owned&& other) noexcept : handle(std::exchange(other.handle, 0)) {}
    Owned& operator=(Owned&& other) = delete;
    ~Owned() { static_cast<void>(handle != 0 && close(handle)); }

    [[nodiscard]] ULONG_PTR get() const { return handle; }
    ULONG_PTR* out() { return &handle; }

private:
    ULONG_PTR handle = 0;
};

using Context = Owned<Closing::context>;
using Key = Owned<Closing::key>;
using Hash = Owned<Closing::hash>;

inline Code tryAcquire(Context& context, const std::string& container, DWORD flags = 0) {
    const char* const name = container.empty() ? nullptr : container.c_str();
    return outcome(CryptAcquireContextA(context.out(), name, PROVIDER, PROV_RSA_FULL, flags));
}
inline Code tryAcquire(const std::string& container, DWORD flags = 0) {
    Context context;
    const Code result = tryAcquire(context, container, flags);
    *context.out() = (flags & CRYPT_DELETEKEYSET) != 0 ? 0 : context.get();  // a deletion gives no handle
    return result;
}
inline Context acquire(const std::string& container, DWORD flags = 0) {
    Context context;
    EXPECT_EQ(tryAcquire(context, container, flags), OK) << container;
    return context;
}
/// Through the PIN parameter: no dialog.
inline Code logIn(const Context& context) {
    return outcome(CryptSetProvParam(context.get(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(PIN), 0));
}
inline Code findKey(const Context& context) {
    Key key;
    return outcome(CryptGetUserKey(context.get(), AT_SIGNATURE, key.out()));
}
inline Key userKey(const Context& context, DWORD keySpec = AT_SIGNATURE) {
    Key key;
    EXPECT_EQ(outcome(CryptGetUserKey(context.get(), keySpec, key.out())), OK);
    return key;
}
inline Key generateKey(const Context& context) {  // RSA-2048
    Key key;
    EXPECT_EQ(outcome(CryptGenKey(context.get(), CALG_RSA_SIGN, 0, key.out())), OK);
    return key;
}
inline DWORD sizeOf(const Bytes& bytes) {
    return static_cast<DWORD>(bytes.size());
}
inline Hash hashOf(const Context& context, const Bytes& data, ALG_ID algorithm = CALG_SHA_256) {
    Hash hash;
    EXPECT_EQ(outcome(CryptCreateHash(context.get(), algorithm, 0, 0, hash.out())), OK);
    // In two pieces, as from a stream.
    EXPECT_EQ(outcome(CryptHashData(hash.get(), data.data(), 1, 0)), OK);
    EXPECT_EQ(outcome(CryptHashData(hash.get(), data.data() + 1, sizeOf(data) - 1, 0)), OK);
    return hash;
}
/// Signs as programs do: first the size, then the signature, little-endian for RSA.
inline Code sign(const Hash& hash, Bytes& signature, DWORD keySpec = AT_SIGNATURE) {
    DWORD size = 0;
    const Code asked = outcome(CryptSignHashA(hash.get(), keySpec, nullptr, 0, nullptr, &size));
    signature.assign(size, 0);
    const Code result =
        asked == OK ? outcome(CryptSignHashA(hash.get(), keySpec, nullptr, 0, signature.data(), &size)) : asked;
    signature.resize(size);
    return result;
}
/// Signs something.
inline Code sign(const Context& context) {
    Bytes signature;
    return sign(hashOf(context, {'x'}), signature);
}
inline Code verify(const Hash& hash, const Bytes& signature, const Key& key) {
    return outcome(CryptVerifySignatureA(hash.get(), signature.data(), sizeOf(signature), key.get(), nullptr, 0));
}
/// In one final piece, which takes the place of `data`.
inline Code encrypt(const Key& key, DWORD flags, Bytes& data) {
    DWORD size = sizeOf(data);
    data.resize(std::max<std::size_t>(data.size() + 16, 512));
    const Code result = outcome(CryptEncrypt(key.get(), 0, TRUE, flags, data.data(), &size, sizeOf(data)));
    data.resize(size);
    return result;
}
inline Code decrypt(const Key& key, DWORD flags, Bytes& data) {
    DWORD size = sizeOf(data);
    const Code result = outcome(CryptDecrypt(key.get(), 0, TRUE, flags, data.data(), &size));
    data.resize(result == OK ? size : data.size());
    return result;
}

inline const Bytes& document() {
    static const Bytes text(200000, 'x');
    return text;
}
inline Bytes reversed(const Bytes& bytes) {
    return {bytes.rbegin(), bytes.rend()};
}
inline std::basic_string<WCHAR> wide(const std::string& text) {
    return {text.begin(), text.end()};
}

/// Calls a function of the platform for the size of its answer and for the answer; both have to succeed.
template <typename Call>
Bytes answerOf(Call call) {
    DWORD size = 0;
    EXPECT_EQ(outcome(call(nullptr, &size)), OK);
    Bytes answer(size);
    EXPECT_EQ(outcome(call(answer.data(), &size)), OK);
    answer.resize(size);
    return answer;
}

/// Runs openssl, which has to succeed.
inline void openssl(const std::vector<std::string>& arguments) {
    const CommandResult result = runOpenssl(arguments);
    ASSERT_EQ(result.exitCode, 0) << result.output;
}
/// What an openssl command puts into the file that it is told to write, and what it makes of `input`.
inline Bytes fromOpenssl(std::vector<std::string> arguments) {
    const ScratchFolder files;
    arguments.insert(arguments.begin() + 1, {"-out", files.nativeFile("out")});
    openssl(arguments);
    return files.read("out");
}
inline Bytes throughOpenssl(std::vector<std::string> arguments, const Bytes& input) {
    const ScratchFolder files;
    arguments.insert(arguments.begin() + 1, {"-in", files.write("in", input)});
    return fromOpenssl(std::move(arguments));
}
/// As openssl takes bytes in its arguments.
inline std::string hexOf(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        constexpr char DIGITS[] = "0123456789ABCDEF";
        text += {DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return text;
}
// PKCS#7 padding.
inline Bytes aesByOpenssl(const std::string& mode, const Bytes& key, const Bytes& iv, const Bytes& data) {
    std::vector<std::string> command = {"enc", "-aes-" + std::to_string(8 * key.size()) + "-" + mode, "-K", hexOf(key)};
    if (mode != "ecb") {
        command.insert(command.end(), {"-iv", hexOf(iv)});
    }
    return throughOpenssl(command, data);
}
/// The arguments for a signature of the document by the hash, with PSS and a salt as long as the digest if wanted.
inline std::vector<std::string> dgst(const std::string& hash, bool pss, const std::string& role,
                                     const std::string& keyFile) {
    std::vector<std::string> command = {"dgst", "-" + hash, role, keyFile};
    if (pss) {
        command.insert(command.end(), {"-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:digest"});
    }
    return command;
}
/// openssl takes the document's big-endian signature.
inline void expectAccepted(const std::string& publicKeyFile, bool isEc, const std::string& hash, const Bytes& signature,
                           bool pss = false) {
    const ScratchFolder files;
    std::vector<std::string> command = dgst(hash, pss, "-verify", publicKeyFile);
    command.insert(command.end(),
                   {"-signature", files.write("signature", isEc ? derOfEcSignature(signature) : signature),
                    files.write("document", document())});
    openssl(command);
}

/// One connected token. Its end takes it away for good.
class Token {
public:
    // The provider lists tokens in the order of these serials; their PIN costs little to try.
    explicit Token(FipsClass fipsClass = FipsClass::FIPS_140_3) {
        softtoken::TokenOptions options;
        options.serial = serial;
        options.fipsClass = fipsClass;
        options.pin = PIN;
        options.pinCost = 1024;
        softtoken::createToken(options);
    }
    ~Token() {
        pullOut();
        std::error_code ignored;  // what cannot go now goes with the folder of all tokens
        std::filesystem::remove_all(folder("."), ignored);
    }
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

    /// Returns the new key's text, which opens it as a container.
    [[nodiscard]] std::string addKey(KeyType type = KEY_TYPE_RSA_2048) const {
        const ZentokKeyPair pair = softtoken::generateKeyPair(serial, PIN, type, KEY_USAGE_BOTH, "");
        return hexOf({std::begin(pair.credentialId), std::end(pair.credentialId)});
    }
    /// The PEM file of a public key as openssl sees it.
    [[nodiscard]] std::string publicKey(const std::string& key) const {
        Bytes id;
        for (std::size_t i = 0; i < key.size(); i += 2) {
            id.push_back(static_cast<unsigned char>(std::stoi(key.substr(i, 2), nullptr, 16)));
        }
        return nativePath(softtoken::publicKeyFile(serial, id.data()));
    }
    /// What openssl encrypts to a key, OAEP with SHA-1 unless the options say otherwise.
    [[nodiscard]] Bytes encrypted(const std::string& keyText, const Bytes& clear,
                                  const std::vector<std::string>& options = {"rsa_padding_mode:oaep"}) const {
        std::vector<std::string> command = {"pkeyutl", "-encrypt", "-pubin", "-inkey", publicKey(keyText)};
        for (const std::string& option : options) {
            command.insert(command.end(), {"-pkeyopt", option});
        }
        return throughOpenssl(command, clear);
    }
    [[nodiscard]] std::string folder(const char* hidden = "") const {
        return softtoken::tokenHome() + "/" + hidden + serial;
    }
    void pullOut() const { move(folder(), folder(".")); }  // no serial begins with a dot
    void plugIn() const { move(folder("."), folder()); }

    const std::string serial = "TOKEN-" + std::to_string(++count);

private:
    static void move(const std::string& from, const std::string& to);
    static inline int count = 1000;
};

/// Log level 3, and a container name for each test, whose entry in the registry ends with it.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { setLogLevel(3); }
    void TearDown() override {
        RegDeleteKeyValueA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok\\CSP\\Containers", container.c_str());
    }

    const std::string container =
        std::string("platform test ") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

/// Waits for the log to show that the provider misses the token. Lines before `start` do not count.
bool logShowsRemoval(const Token& token, std::size_t start);

/// Waits until the condition holds; false when it does not come to that.
bool comes(const std::function<bool()>& condition);

/// Plays a role of child_roles.cpp in another process, which ends as `how` says: its exit code, or that it hung.
DWORD runChild(const std::string& role, const std::string& container, const std::string& how = "--exit");
constexpr DWORD CHILD_SUCCEEDED = 42;
/// That other process.
[[noreturn]] void playRole(const std::string& how, const std::string& role, const std::string& container);

}  // namespace test
