// What the tests of the software token share: a folder of tokens of their own, and each operation in few words.
#pragma once

#include <cstdlib>
#include <numeric>
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

/// `count` bytes that count up from 0.
inline Bytes counted(std::size_t count) {
    Bytes result(count);
    std::iota(result.begin(), result.end(), static_cast<unsigned char>(0));
    return result;
}

inline int lengthOf(const Bytes& data) {
    return static_cast<int>(data.size());
}

inline ZentokKeyPair newKey(KeyType type) {
    return softtoken::generateKeyPair(SERIAL, PIN, type, KEY_USAGE_BOTH, "");
}

inline int validate(const std::string& pin, int* retries = nullptr, const char* serial = SERIAL) {
    return zentok_validatePassword(serial, pin.c_str(), 1, retries, nullptr);
}

/// By PKCS#1 v1.5 or ECDSA.
inline int sign(const ZentokKeyPair& pair, std::size_t digestSize = 32, const char* pin = PIN) {
    const Bytes digest = counted(digestSize);
    Bytes signature(512);
    int length = lengthOf(signature);
    return zentok_signHash(SERIAL, pair.credentialId, pin, digest.data(), lengthOf(digest), signature.data(), &length,
                           false, nullptr, false);
}

inline Answer decrypt(const ZentokKeyPair& pair, const Bytes& data, const char* pin = PIN) {
    return taken([&](auto** result, int* size) {
        return zentok_decrypt(SERIAL, pair.credentialId, pin, data.data(), lengthOf(data), result, size, true, nullptr);
    });
}

}  // namespace test
