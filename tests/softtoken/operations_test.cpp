// What cryptographic operations refuse, and what they keep. Their results are compared with openssl's through the
// provider.
#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {
namespace {

TEST_F(SoftTokenTest, StricterClassRefusesWeakHashesAndPkcs1Decryption) {
    softtoken::removeToken(SERIAL);
    createToken(FipsClass::FIPS_140_3);
    const ZentokKeyPair pair = newKey(KEY_TYPE_RSA_2048);
    for (const std::size_t size : {16U, 20U, 36U, 28U}) {
        EXPECT_EQ(sign(pair, size), size == 28 ? 0 : TOKEN_WEAK_HASH);
    }
    const std::string publicKey = nativePath(softtoken::publicKeyFile(SERIAL, pair.credentialId));
    const std::string secret = scratch.write("secret", counted(16));
    for (const std::string padding : {"pkcs1", "oaep"}) {
        const CommandResult result =
            runOpenssl({"pkeyutl", "-encrypt", "-pubin", "-inkey", publicKey, "-pkeyopt", "rsa_padding_mode:" + padding,
                        "-in", secret, "-out", scratch.nativeFile("cipher")});
        ASSERT_EQ(result.exitCode, 0) << result.output;
        EXPECT_EQ(decrypt(pair, scratch.read("cipher")).bytes, padding == "oaep" ? counted(16) : Bytes());
    }
    EXPECT_EQ(decrypt(pair, counted(256)).code, softtoken::RESULT_BAD_DATA) << "no padding fits";
}

int derive(const ZentokKeyPair& pair, const Bytes& peer) {
    return taken([&](auto** result, int* length) {
               return zentok_ecdhDerive(SERIAL, pair.credentialId, PIN, peer.data(), lengthOf(peer), result, length,
                                        nullptr);
           })
        .code;
}

TEST_F(SoftTokenTest, ASecretNeedsAPointOnTheCurve) {
    for (const KeyType type : {KEY_TYPE_EC_P256, KEY_TYPE_EC_P384, KEY_TYPE_EC_P521}) {
        const ZentokKeyPair pair = newKey(type);
        const Bytes point(pair.publicKey, pair.publicKey + pair.publicKeyLength);
        EXPECT_EQ(derive(pair, point), 0);
        for (const Bytes& bad : {Bytes(point.size(), 4), Bytes(point.begin(), point.end() - 1), Bytes(1)}) {
            EXPECT_EQ(derive(pair, bad), softtoken::RESULT_BAD_KEY) << hexText(bad);
        }
    }
}

TEST_F(SoftTokenTest, TheListShowsNoClearAesKey) {
    ZentokSymmetricKey key = {};
    std::fill_n(key.keyValue, 32, 0x5A);
    key.keyType = KEY_TYPE_AES_256;
    key.keyValueLength = 32;
    ASSERT_EQ(zentok_importAesKey(SERIAL, PIN, &key, nullptr), 0);
    key = zentok_getAesKeyList(SERIAL, nullptr).at(0);
    EXPECT_NE(Bytes(key.keyValue, key.keyValue + 32), Bytes(32, 0x5A));
    const auto unwrap = [&] {
        return taken([&](auto** result, int* length) {
            return zentok_decrypt_aes(SERIAL, key.keyValue, 32, counted(40).data(), 40, result, length, true, nullptr,
                                      0, nullptr);
        });
    };
    EXPECT_EQ(unwrap().code, softtoken::RESULT_BAD_DATA);
    replug();
    EXPECT_EQ(unwrap().code, softtoken::RESULT_NOT_LOGGED_IN);
}

void* newHash() {
    void* hash = nullptr;
    EXPECT_EQ(zentok_initHash("", HASH_SHA1, &hash, nullptr), 0);
    return hash;
}

// Unfinished hashes cannot be released. When there are too many, one in use outlives those that nobody touches.
TEST_F(SoftTokenTest, AbandonedHashesGoFirst) {
    void* const used = newHash();
    void* const abandoned = newHash();
    unsigned char digest[20] = {};
    int length = sizeof digest;
    for (int count = 0; count < 20000; ++count) {
        newHash();
        ASSERT_EQ(zentok_updateHash(used, digest, 1, nullptr), 0) << count;
    }
    EXPECT_EQ(zentok_finalHash(used, digest, &length, nullptr), 0);
    for (void* const spent : {used, abandoned}) {
        EXPECT_EQ(zentok_finalHash(spent, digest, &length, nullptr), softtoken::RESULT_SPENT_HASH);
    }
}

}  // namespace
}  // namespace test
