// What the tests of the software token share: a folder of tokens of their own, and each operation in few words.
#pragma once

#include <cstdlib>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "core/token_library.h"
#include "softtoken/files.h"
#include "softtoken/token_admin.h"
#include "tests/support/openssl.h"

namespace test {

using softtoken::FipsClass;
using softtoken::hexText;
using Texts = std::vector<std::string>;

constexpr char PIN[] = "271828";
constexpr char SERIAL[] = "TOKEN-1";

inline void createToken(FipsClass fipsClass = FipsClass::FIPS_140_2, const char* name = SERIAL, unsigned cost = 1024) {
    softtoken::createToken({.serial = name, .fipsClass = fipsClass, .pin = PIN, .pinCost = cost});
}

/// A test with a folder of tokens and one token in it, made quickly: its PIN costs little.
class SoftTokenTest : public ::testing::Test {
protected:
    SoftTokenTest() {
        SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", home.path().c_str());
        createToken();
    }

    [[nodiscard]] std::string folder(const std::string& serial = SERIAL) const { return home.file(serial); }
    [[nodiscard]] softtoken::WideText path(const char* name) const { return softtoken::widen(folder() + "\\" + name); }

    /// Takes the token out and puts it back, which ends its login.
    void replug() const {
        ASSERT_TRUE(MoveFileA(folder().c_str(), folder(".pulled").c_str()));
        EXPECT_EQ(zentok_getConnectedDeviceList(false, nullptr), Texts());
        ASSERT_TRUE(MoveFileA(folder(".pulled").c_str(), folder().c_str()));
    }

    /// Runs openssl, which must succeed. "@x" in the command is the file x of `scratch`.
    void openssl(const std::string& command) const {
        Texts arguments;
        std::istringstream words(command);
        for (std::string word; words >> word;) {
            arguments.push_back(word.front() == '@' ? scratch.nativeFile(word.substr(1)) : word);
        }
        const CommandResult result = runOpenssl(arguments);
        EXPECT_EQ(result.exitCode, 0) << command << "\n" << result.output;
    }

    /// Puts a key's public half into @token.pem. Its SubjectPublicKeyInfo comes back.
    Bytes publish(const ZentokKeyPair& pair) const {
        const std::string file = softtoken::publicKeyFile(SERIAL, pair.credentialId);
        scratch.write("token.pem", softtoken::readFile(softtoken::widen(file), 4096));
        openssl("pkey -pubin -in @token.pem -outform DER -out @public.der");
        return scratch.read("public.der");
    }

    ScratchFolder home;
    ScratchFolder scratch;
};

/// What an operation answered: its code, and its bytes when it is 0.
struct Answer {
    int code = -1;
    Bytes bytes;
};

/// Runs an operation that allocates its result, which is taken over and freed.
template <typename Operation>
Answer taken(Operation operation) {
    unsigned char* result = nullptr;
    int length = 0;
    Answer answer{operation(&result, &length), {}};
    EXPECT_EQ(answer.code == 0, result != nullptr);
    answer.bytes.assign(result, result + length);
    std::free(result);
    return answer;
}

/// `count` bytes that count up from `first`.
inline Bytes counted(std::size_t count, unsigned char first = 0) {
    Bytes result(count);
    std::iota(result.begin(), result.end(), first);
    return result;
}

inline int lengthOf(const Bytes& data) {
    return static_cast<int>(data.size());
}

inline ZentokKeyPair newKey(KeyType type) {
    return softtoken::generateKeyPair(SERIAL, PIN, type, KEY_USAGE_BOTH, "");
}

inline Bytes publicKeyOf(const ZentokKeyPair& pair) {
    return {pair.publicKey, pair.publicKey + pair.publicKeyLength};
}

inline int validate(const std::string& pin, int* retries = nullptr, const char* serial = SERIAL) {
    return zentok_validatePassword(serial, pin.c_str(), 1, retries, nullptr);
}

inline Answer sign(const ZentokKeyPair& pair, const Bytes& digest, bool pss = false, const char* pin = PIN) {
    Answer answer{-1, Bytes(512)};
    int length = 512;
    answer.code = zentok_signHash(SERIAL, pair.credentialId, pin, digest.data(), lengthOf(digest), answer.bytes.data(),
                                  &length, false, nullptr, pss);
    answer.bytes.resize(answer.code == 0 ? static_cast<std::size_t>(length) : 0);
    return answer;
}

inline Answer decrypt(const ZentokKeyPair& pair, const Bytes& data, const char* pin = PIN) {
    return taken([&](auto** result, int* size) {
        return zentok_decrypt(SERIAL, pair.credentialId, pin, data.data(), lengthOf(data), result, size, true, nullptr);
    });
}

inline Answer derive(const ZentokKeyPair& pair, const Bytes& peer) {
    return taken([&](auto** result, int* length) {
        return zentok_ecdhDerive(SERIAL, pair.credentialId, PIN, peer.data(), lengthOf(peer), result, length, nullptr);
    });
}

}  // namespace test
