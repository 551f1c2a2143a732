// AES, key wrapping and hashes, each against openssl.
#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {
namespace {

Answer encryptAes(EncryptionType type, const Bytes& key, const Bytes& iv, const Bytes& data, bool final) {
    return taken([&](auto** result, int* length) {
        return zentok_encrypt_aes("", type, key.data(), lengthOf(key), data.data(), lengthOf(data), result, length,
                                  final, iv.data(), lengthOf(iv), nullptr, 0, nullptr);
    });
}

Answer decryptAes(const Bytes& key, const Bytes& iv, const Bytes& data, bool flag = false) {
    return taken([&](auto** result, int* length) {
        return zentok_decrypt_aes(SERIAL, key.data(), lengthOf(key), data.data(), lengthOf(data), result, length, flag,
                                  iv.data(), lengthOf(iv), nullptr);
    });
}

Bytes decryptRaw(const Bytes& key, const Bytes& iv, Bytes data) {
    int length = 0;
    zentok_decryptSymetric("", data.data(), lengthOf(data), data.data(), &length, iv.data(), lengthOf(iv), key.data(),
                           lengthOf(key), nullptr);
    return data;
}

TEST_F(SoftTokenTest, AesAgreesWithOpenssl) {
    for (const std::size_t keySize : {16U, 24U, 32U}) {
        for (const std::size_t size : {1U, 15U, 16U, 17U, 1000U}) {
            for (const bool cbc : {true, false}) {
                const std::string name = std::to_string(keySize * 8) + (cbc ? "-cbc" : "-ecb");
                SCOPED_TRACE(name + " " + std::to_string(size));
                const EncryptionType type = keySize == 16 ? (cbc ? ENCRYPTION_AES_128_CBC : ENCRYPTION_AES_128_ECB)
                                                          : (cbc ? ENCRYPTION_AES_LONG_CBC : ENCRYPTION_AES_LONG_ECB);
                const Bytes key = counted(keySize);
                const Bytes iv = cbc ? counted(16, 0xA0) : Bytes();
                const Bytes data = counted(size, 7);
                scratch.write("plain", data);
                openssl("enc -aes-" + name + " -K " + hexText(key) + (cbc ? " -iv " + hexText(iv) : "") +
                        " -in @plain -out @cipher");
                const Bytes padded = scratch.read("cipher");
                EXPECT_EQ(encryptAes(type, key, iv, data, true).bytes, padded);
                EXPECT_EQ(decryptAes(key, iv, padded).bytes, data);
                // Without Final nothing is padded: the same blocks, without the last one.
                const Answer open = encryptAes(type, key, iv, data, false);
                EXPECT_EQ(open.bytes, size % 16 == 0 ? Bytes(padded.begin(), padded.end() - 16) : Bytes());
                EXPECT_EQ(decryptRaw(key, iv, open.bytes), size % 16 == 0 ? data : Bytes());
            }
        }
    }
}

TEST_F(SoftTokenTest, AKeyOfTheListUnwraps) {
    ZentokSymmetricKey key = {};
    std::fill_n(key.keyValue, 32, 0x5A);
    key.keyType = KEY_TYPE_AES_256;
    key.keyValueLength = 32;
    ASSERT_EQ(zentok_importAesKey(SERIAL, PIN, &key, nullptr), 0);
    scratch.write("inner", counted(32));
    openssl("enc -id-aes256-wrap -K " + hexText(Bytes(32, 0x5A)) + " -iv A6A6A6A6A6A6A6A6 -in @inner -out @wrapped");
    key = zentok_getAesKeyList(SERIAL, nullptr).at(0);
    const Bytes reference(key.keyValue, key.keyValue + 32);
    EXPECT_NE(reference, Bytes(32, 0x5A)) << "the list must not show the clear key";
    EXPECT_EQ(decryptAes(reference, {}, scratch.read("wrapped"), true).bytes, counted(32));
    EXPECT_EQ(decryptAes(reference, {}, counted(40), true).code, softtoken::RESULT_BAD_DATA);
    replug();
    EXPECT_EQ(decryptAes(reference, {}, scratch.read("wrapped"), true).code, softtoken::RESULT_NOT_LOGGED_IN);
}

void* newHash(int selector = HASH_SHA1) {
    void* hash = nullptr;
    EXPECT_EQ(zentok_initHash("", selector, &hash, nullptr), 0);
    return hash;
}

TEST_F(SoftTokenTest, HashesAgreeWithOpenssl) {
    const Bytes data = counted(3000);
    scratch.write("data", data);
    const std::string names[] = {"sha1", "sha256", "sha384", "sha512", "sha224"};
    for (int selector = HASH_SHA1; selector <= HASH_SHA224; ++selector) {
        openssl("dgst -binary -out @digest -" + names[selector - HASH_SHA1] + " @data");
        void* const hash = newHash(selector);
        ASSERT_EQ(zentok_updateHash(hash, data.data(), 1, nullptr), 0);
        ASSERT_EQ(zentok_updateHash(hash, data.data() + 1, lengthOf(data) - 1, nullptr), 0);
        Bytes digest(128);
        int length = 128;
        EXPECT_EQ(zentok_finalHash(hash, digest.data(), &length, nullptr), 0);
        digest.resize(static_cast<std::size_t>(length));
        EXPECT_EQ(digest, scratch.read("digest"));
        EXPECT_EQ(zentok_updateHash(hash, data.data(), 1, nullptr), softtoken::RESULT_SPENT_HASH);
    }
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
    EXPECT_EQ(zentok_finalHash(abandoned, digest, &length, nullptr), softtoken::RESULT_SPENT_HASH);
}

}  // namespace
}  // namespace test
