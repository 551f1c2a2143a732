// AES, key wrapping, hashes and random bytes.
#include <windows.h>

#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {

namespace {

constexpr char WRAP_IV[] = "A6A6A6A6A6A6A6A6";

Answer encryptAes(EncryptionType type, const Bytes& key, const Bytes& iv, const Bytes& data, bool final) {
    unsigned char* result = nullptr;
    int length = 0;
    const int code =
        zentok_encrypt_aes("", type, key.data(), lengthOf(key), data.data(), lengthOf(data), &result, &length, final,
                           iv.empty() ? nullptr : iv.data(), lengthOf(iv), nullptr, 0, nullptr);
    return taken(code, result, length);
}

Answer decryptAes(const Bytes& key, const Bytes& iv, const Bytes& data, bool flag = false, const char* serial = "") {
    unsigned char* result = nullptr;
    int length = 0;
    const int code = zentok_decrypt_aes(serial, key.data(), lengthOf(key), data.data(), lengthOf(data), &result,
                                        &length, flag, iv.empty() ? nullptr : iv.data(), lengthOf(iv), nullptr);
    return taken(code, result, length);
}

Answer decryptRaw(const Bytes& key, const Bytes& iv, const Bytes& data) {
    Answer answer;
    answer.bytes.resize(data.size());
    int length = 0;
    answer.code =
        zentok_decryptSymetric("", data.data(), lengthOf(data), answer.bytes.data(), &length,
                               iv.empty() ? nullptr : iv.data(), lengthOf(iv), key.data(), lengthOf(key), nullptr);
    answer.bytes.resize(answer.code == 0 ? static_cast<std::size_t>(length) : 0);
    return answer;
}

EncryptionType typeOf(std::size_t keySize, bool cbc) {
    return keySize == 16 ? (cbc ? ENCRYPTION_AES_128_CBC : ENCRYPTION_AES_128_ECB)
                         : (cbc ? ENCRYPTION_AES_LONG_CBC : ENCRYPTION_AES_LONG_ECB);
}

TEST_F(SoftTokenTest, AesAgreesWithOpenssl) {
    const Bytes iv = counted(16, 0xA0);
    for (const std::size_t keySize : {16U, 24U, 32U}) {
        for (const bool cbc : {true, false}) {
            for (const std::size_t size : {1U, 15U, 16U, 17U, 32U, 1000U}) {
                SCOPED_TRACE(std::to_string(keySize * 8) + (cbc ? " CBC " : " ECB ") + std::to_string(size));
                const Bytes key = counted(keySize, 0x40);
                const Bytes data = counted(size, 7);
                const bool whole = size % 16 == 0;
                std::vector<std::string> arguments = {
                    "enc",  "-aes-" + std::to_string(keySize * 8) + (cbc ? "-cbc" : "-ecb"),
                    "-K",   hex(key),
                    "-in",  scratch.write("plain", data),
                    "-out", scratch.nativeFile("cipher")};
                if (cbc) {
                    arguments.insert(arguments.end(), {"-iv", hex(iv)});
                }
                openssl(arguments);
                const Bytes padded = scratch.read("cipher");
                const Answer final = encryptAes(typeOf(keySize, cbc), key, cbc ? iv : Bytes(), data, true);
                EXPECT_EQ(final.code, 0);
                EXPECT_EQ(final.bytes, padded);
                EXPECT_EQ(decryptAes(key, cbc ? iv : Bytes(), padded).bytes, data);

                // Without Final nothing is padded: the same blocks, without the last one.
                const Answer open = encryptAes(typeOf(keySize, cbc), key, cbc ? iv : Bytes(), data, false);
                EXPECT_EQ(open.code == 0, whole);
                if (whole) {
                    EXPECT_EQ(open.bytes, Bytes(padded.begin(), padded.end() - 16));
                    EXPECT_EQ(decryptRaw(key, cbc ? iv : Bytes(), open.bytes).bytes, data);
                }
            }
        }
    }
}

TEST_F(SoftTokenTest, AesArguments) {
    const Bytes key = counted(16);
    const Bytes block = counted(16);
    EXPECT_EQ(encryptAes(ENCRYPTION_AES_128_CBC, key, {}, block, false).bytes,
              encryptAes(ENCRYPTION_AES_128_CBC, key, Bytes(16), block, false).bytes)
        << "no IV is an IV of zeros";
    EXPECT_EQ(encryptAes(ENCRYPTION_AES_128_CBC, key, {}, {}, true).bytes.size(), 16U);
    struct {
        const char* what;
        int code;
    } const refused[] = {
        {"IV of 15", encryptAes(ENCRYPTION_AES_128_CBC, key, Bytes(15), block, true).code},
        {"IV of 17", decryptAes(key, Bytes(17), block).code},
        {"key of 15", encryptAes(ENCRYPTION_AES_128_CBC, Bytes(15), {}, block, true).code},
        {"key of 33", decryptAes(Bytes(33), {}, block).code},
        {"long key, short type", encryptAes(ENCRYPTION_AES_128_ECB, Bytes(32), {}, block, true).code},
        {"RSA type", encryptAes(ENCRYPTION_RSA_2048, key, {}, block, true).code},
        {"no data, not final", encryptAes(ENCRYPTION_AES_128_CBC, key, {}, {}, false).code},
        {"half a block to decrypt", decryptAes(key, {}, Bytes(24)).code},
        {"half a block raw", decryptRaw(key, {}, Bytes(24)).code},
        {"nothing to decrypt", decryptRaw(key, {}, {}).code},
    };
    for (const auto& item : refused) {
        EXPECT_NE(item.code, 0) << item.what;
    }
    // The last byte of the plaintext, and whether it is padding: 16 equal bytes of value 16, or not.
    for (const auto& [last, valid] :
         {std::pair{16, true}, {1, true}, {0, false}, {17, false}, {2, false}, {255, false}}) {
        Bytes plain(16, last == 16 ? 16 : 9);
        plain.back() = static_cast<unsigned char>(last);
        const Bytes cipher = encryptAes(ENCRYPTION_AES_128_ECB, key, {}, plain, false).bytes;
        EXPECT_EQ(decryptAes(key, {}, cipher).code == 0, valid) << last;
    }
}

ZentokSymmetricKey importAes(const Bytes& clear, SymmetricKeyType type) {
    ZentokSymmetricKey record = {};
    std::copy(clear.begin(), clear.end(), record.keyValue);
    record.keyValueLength = lengthOf(clear);
    record.keyType = type;
    EXPECT_EQ(zentok_importAesKey(SERIAL, PIN, &record, nullptr), 0);
    return record;
}

/// The keys of the list that unwrap this, as their positions.
std::vector<std::size_t> unwrapping(const Bytes& wrapped, Bytes* unwrapped = nullptr) {
    std::vector<std::size_t> found;
    const std::vector<ZentokSymmetricKey> keys = zentok_getAesKeyList(SERIAL, nullptr);
    for (std::size_t index = 0; index < keys.size(); ++index) {
        const Bytes reference(keys[index].keyValue, keys[index].keyValue + keys[index].keyValueLength);
        const Answer answer = decryptAes(reference, {}, wrapped, keys[index].tokenFlag, SERIAL);
        if (answer.code == 0) {
            found.push_back(index);
            if (unwrapped != nullptr) {
                *unwrapped = answer.bytes;
            }
        }
    }
    return found;
}

TEST_F(SoftTokenTest, TheRightKeyOfTheListUnwraps) {
    const struct {
        SymmetricKeyType type;
        std::size_t size;
    } kinds[] = {{KEY_TYPE_AES_128, 16}, {KEY_TYPE_AES_192, 24}, {KEY_TYPE_AES_256, 32}};
    for (const auto& kind : kinds) {
        const Bytes clear = counted(kind.size, static_cast<unsigned char>(kind.size));
        const ZentokSymmetricKey record = importAes(clear, kind.type);
        EXPECT_TRUE(record.tokenFlag);
        EXPECT_GT(record.keyLabelLength, 0);
        EXPECT_EQ(Bytes(record.keyValue, record.keyValue + record.keyValueLength), clear);
    }
    const std::vector<ZentokSymmetricKey> keys = zentok_getAesKeyList(SERIAL, nullptr);
    ASSERT_EQ(keys.size(), 3U);
    const Bytes inner = counted(32, 0x77);
    for (std::size_t index = 0; index < 3; ++index) {
        const Bytes clear = counted(kinds[index].size, static_cast<unsigned char>(kinds[index].size));
        EXPECT_EQ(keys[index].keyType, kinds[index].type);
        EXPECT_EQ(keys[index].keyValueLength, lengthOf(clear));
        EXPECT_NE(Bytes(keys[index].keyValue, keys[index].keyValue + 16), Bytes(clear.begin(), clear.begin() + 16))
            << "the list must not show the clear key";
        openssl({"enc", "-id-aes" + std::to_string(clear.size() * 8) + "-wrap", "-K", hex(clear), "-iv", WRAP_IV, "-in",
                 scratch.write("inner", inner), "-out", scratch.nativeFile("wrapped")});
        Bytes unwrapped;
        EXPECT_EQ(unwrapping(scratch.read("wrapped"), &unwrapped), std::vector<std::size_t>{index});
        EXPECT_EQ(unwrapped, inner);
    }
    EXPECT_TRUE(unwrapping(counted(40)).empty());
    EXPECT_TRUE(unwrapping(counted(16)).empty());

    // With an IV a key of the list decrypts data; without the flag its reference is just a key.
    const Bytes cipher = encryptAes(ENCRYPTION_AES_128_CBC, counted(16, 16), counted(16), inner, true).bytes;
    const Bytes reference(keys[0].keyValue, keys[0].keyValue + 16);
    EXPECT_EQ(decryptAes(reference, counted(16), cipher, true, SERIAL).bytes, inner);
    EXPECT_NE(decryptAes(reference, counted(16), cipher, false, SERIAL).bytes, inner);
    EXPECT_NE(decryptAes(counted(16), counted(16), cipher, true, SERIAL).code, 0) << "no such key";

    // A token that was pulled out has lost its login.
    const std::string pulled = home.folder(".pulled");
    ASSERT_TRUE(MoveFileA(home.folder(SERIAL).c_str(), pulled.c_str()));
    EXPECT_TRUE(zentok_getConnectedDeviceList(false, nullptr).empty());
    ASSERT_TRUE(MoveFileA(pulled.c_str(), home.folder(SERIAL).c_str()));
    EXPECT_EQ(decryptAes(reference, counted(16), cipher, true, SERIAL).code, softtoken::RESULT_NOT_LOGGED_IN);
    EXPECT_EQ(validate(PIN), 0);
    EXPECT_EQ(decryptAes(reference, counted(16), cipher, true, SERIAL).bytes, inner);

    ZentokSymmetricKey odd = {};
    odd.keyType = KEY_TYPE_AES_128;
    for (const int length : {0, -16, 15, 33, 129}) {
        odd.keyValueLength = length;
        EXPECT_NE(zentok_importAesKey(SERIAL, PIN, &odd, nullptr), 0) << length;
    }
}

TEST_F(SoftTokenTest, HashesAgreeWithOpenssl) {
    const struct {
        int selector;
        const char* name;
        int size;
    } cases[] = {{HASH_SHA1, "-sha1", 20},
                 {HASH_SHA224, "-sha224", 28},
                 {HASH_SHA256, "-sha256", 32},
                 {HASH_SHA384, "-sha384", 48},
                 {HASH_SHA512, "-sha512", 64}};
    const Bytes data = counted(3000);
    const std::string file = scratch.write("data", data);
    for (const auto& item : cases) {
        openssl({"dgst", item.name, "-binary", "-out", scratch.nativeFile("digest"), file});
        void* hash = nullptr;
        ASSERT_EQ(zentok_initHash("", item.selector, &hash, nullptr), 0);
        ASSERT_EQ(zentok_updateHash(hash, data.data(), 1, nullptr), 0);
        ASSERT_EQ(zentok_updateHash(hash, nullptr, 0, nullptr), 0);
        ASSERT_EQ(zentok_updateHash(hash, data.data() + 1, lengthOf(data) - 1, nullptr), 0);
        Bytes digest(128);
        int length = item.size - 1;
        EXPECT_EQ(zentok_finalHash(hash, digest.data(), &length, nullptr), softtoken::RESULT_BUFFER_TOO_SMALL);
        length = 128;
        ASSERT_EQ(zentok_finalHash(hash, digest.data(), &length, nullptr), 0) << "a refused room ends nothing";
        digest.resize(static_cast<std::size_t>(length));
        EXPECT_EQ(digest, scratch.read("digest"));
    }
}

TEST_F(SoftTokenTest, SpentAndForeignHashesAreRefused) {
    Bytes digest(64);
    int length = 64;
    void* hash = nullptr;
    ASSERT_EQ(zentok_initHash("", HASH_SHA256, &hash, nullptr), 0);
    ASSERT_EQ(zentok_finalHash(hash, digest.data(), &length, nullptr), 0);
    int elsewhere = 0;
    for (void* const handle : {hash, static_cast<void*>(nullptr), static_cast<void*>(&elsewhere)}) {
        length = 64;
        EXPECT_NE(zentok_updateHash(handle, digest.data(), 1, nullptr), 0);
        EXPECT_NE(zentok_finalHash(handle, digest.data(), &length, nullptr), 0);
    }
    for (const int selector : {0, 1, 7, -1}) {
        EXPECT_NE(zentok_initHash("", selector, &hash, nullptr), 0) << selector;
    }
    // Unfinished hashes cannot be released: the oldest goes when there are too many.
    void* oldest = nullptr;
    ASSERT_EQ(zentok_initHash("", HASH_SHA1, &oldest, nullptr), 0);
    for (int count = 0; count < 16384; ++count) {
        ASSERT_EQ(zentok_initHash("", HASH_SHA1, &hash, nullptr), 0);
    }
    length = 64;
    EXPECT_NE(zentok_finalHash(oldest, digest.data(), &length, nullptr), 0);
    EXPECT_EQ(zentok_finalHash(hash, digest.data(), &length, nullptr), 0);
}

TEST_F(SoftTokenTest, RandomBytes) {
    Bytes first(64);
    Bytes second(64);
    EXPECT_EQ(zentok_generateRamdomNumber("", 64, first.data(), true, nullptr), 0);
    EXPECT_EQ(zentok_generateRamdomNumber(SERIAL, 64, second.data(), false, nullptr), 0);
    EXPECT_NE(first, second);
    EXPECT_NE(first, Bytes(64));
    EXPECT_NE(zentok_generateRamdomNumber("ABSENT", 64, first.data(), false, nullptr), 0);
    EXPECT_NE(zentok_generateRamdomNumber("", 64, first.data(), false, nullptr), 0);
}

}  // namespace

}  // namespace test
