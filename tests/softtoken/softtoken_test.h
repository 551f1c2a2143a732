// What the tests of the software token share: a folder of tokens of their own, and each operation in few words.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/token_library.h"
#include "softtoken/token_admin.h"
#include "tests/support/openssl.h"

namespace test {

using softtoken::FipsClass;

constexpr char PIN[] = "271828";
constexpr char WRONG_PIN[] = "314159";
constexpr char SERIAL[] = "TOKEN-1";

/// What an operation answered: its code, and its bytes when it is 0.
struct Answer {
    int code = -1;
    Bytes bytes;
};

/// Points ZENTOK_SOFTTOKEN_HOME at a folder of its own, and back at the end.
class TokenHome {
public:
    TokenHome();
    ~TokenHome();
    TokenHome(const TokenHome&) = delete;
    TokenHome& operator=(const TokenHome&) = delete;

    [[nodiscard]] std::string folder(const std::string& serial) const { return scratch.file(serial); }

private:
    ScratchFolder scratch;
    std::string previous;
};

/// A test with a token home and one token, made quickly: its PIN costs little.
class SoftTokenTest : public ::testing::Test {
protected:
    SoftTokenTest();

    TokenHome home;
    ScratchFolder scratch;
};

void createToken(FipsClass fipsClass = FipsClass::FIPS_140_2, const std::string& serial = SERIAL);

Bytes bytes(const std::string& text);
/// `count` bytes that count up from `first`.
Bytes counted(std::size_t count, unsigned char first = 0);
std::string hex(const Bytes& data);
Bytes publicKeyOf(const ZentokKeyPair& pair);
int lengthOf(const Bytes& data);

int validate(const char* pin, int* retries = nullptr, const char* serial = SERIAL);
Answer sign(const ZentokKeyPair& pair, const Bytes& digest, bool pss = false, const char* pin = PIN);
Answer decrypt(const ZentokKeyPair& pair, const Bytes& data, const char* pin = PIN, const char* serial = SERIAL);
Answer derive(const ZentokKeyPair& pair, const Bytes& peer, const char* pin = PIN);
int verify(int keyType, const Bytes& publicKey, const Bytes& digest, const Bytes& signature, bool pss = false);

/// A result that an operation allocated, taken over and freed.
Answer taken(int code, unsigned char* result, int length);

/// Runs openssl and expects it to succeed. Its output comes back.
std::string openssl(const std::vector<std::string>& arguments);

/// The SubjectPublicKeyInfo of a key in a PEM file (native path), or with `raw` the bytes of the EC point in it.
Bytes publicDer(const ScratchFolder& scratch, const std::string& pem, bool isPrivate);

}  // namespace test
