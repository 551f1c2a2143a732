// Damaged files, null arguments and many threads: codes, never a crash.
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include <windows.h>

#include "softtoken/files.h"
#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {

namespace {

class RobustnessTest : public SoftTokenTest {
protected:
    RobustnessTest() : pair(softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P256, KEY_USAGE_BOTH, "alias")) {
        openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                 scratch.nativeFile("key"), "-outform", "DER", "-out", scratch.nativeFile("der"), "-subj", "/CN=x"});
        const Bytes der = scratch.read("der");
        ZentokCertificate certificate = {};
        std::copy(der.begin(), der.end(), certificate.certificate);
        certificate.certificateLength = lengthOf(der);
        std::copy_n(pair.credentialId, 16, certificate.credentialId);
        EXPECT_EQ(zentok_importCertificate(SERIAL, PIN, &certificate, nullptr), 0);
        ZentokSymmetricKey aes = {};
        aes.keyValueLength = 32;
        aes.keyType = KEY_TYPE_AES_256;
        EXPECT_EQ(zentok_importAesKey(SERIAL, PIN, &aes, nullptr), 0);
        std::copy_n(aes.credentialId, 16, aesReference);
    }

    int useAesKey() const {
        unsigned char* result = nullptr;
        int length = 0;
        const Bytes data = counted(16);
        // Data that no key opens: any code but those of a key that cannot be used means that the key was there.
        const int code = zentok_decrypt_aes(SERIAL, aesReference, 32, data.data(), 16, &result, &length, true,
                                            data.data(), 16, nullptr);
        std::free(code == 0 ? result : nullptr);
        return code;
    }

    /// What works on the token, as a set of names.
    std::map<std::string, bool> working() const {
        return {
            {"token", zentok_initDevice(SERIAL, false, nullptr) == 0 &&
                          !zentok_getConnectedDeviceList(false, nullptr).empty() &&
                          !zentok_getTokenInfo(SERIAL, nullptr).text1.empty()},
            {"pin", validate(PIN) == 0},
            {"sso", zentok_getTokenInfo(SERIAL, nullptr).ssoValidated == 1},
            {"sign", sign(pair, counted(32)).code == 0},
            {"key pair list", zentok_getKeyPairList(SERIAL, nullptr).size() == 1},
            {"certificate", zentok_findCertificateForKey(SERIAL, pair.credentialId, nullptr) != nullptr},
            {"AES key list", zentok_getAesKeyList(SERIAL, nullptr).size() == 1},
            {"AES key", useAesKey() == softtoken::RESULT_BAD_DATA},
        };
    }

    ZentokKeyPair pair;
    unsigned char aesReference[32] = {};
};

TEST_F(RobustnessTest, ADamagedFileTakesItsObjectAndNothingElse) {
    softtoken::enableSso(SERIAL, PIN, 3600);
    const auto all = working();
    for (const auto& [name, works] : all) {
        ASSERT_TRUE(works) << name;
    }
    // What each file takes with it, by the beginning of its path in the token folder.
    const std::map<std::string, std::vector<std::string>> losses = {
        {"token.txt", {"token", "pin", "sso", "sign", "key pair list", "certificate", "AES key list", "AES key"}},
        {"pin.txt", {"pin", "sign", "AES key"}},
        {"sso.txt", {"sso"}},
        {"keys", {"sign", "key pair list"}},
        {"certificates", {"certificate"}},
        {"aes", {"AES key list", "AES key"}},
    };
    std::size_t damaged = 0;
    const std::filesystem::path folder = home.folder(SERIAL);
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.path().extension() == ".txt") {
            files.push_back(entry.path());
        }
    }
    for (const auto& file : files) {
        const softtoken::WideText path = file.native();
        const Bytes whole = softtoken::readFile(path, 65536);
        std::vector<Bytes> variants = {{},
                                       Bytes(whole.begin(), whole.end() - 1),
                                       Bytes(whole.size(), 0),
                                       Bytes(70000, 'x'),
                                       bytes("sum=\n"),
                                       bytes("\n\n=\n")};
        for (std::size_t position = 0; position < whole.size(); position += whole.size() / 12 + 1) {
            variants.push_back(whole);
            variants.back()[position] ^= 4;
            variants.emplace_back(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(position));
        }
        auto expected = all;
        const std::string relative = std::filesystem::relative(file, folder).begin()->string();
        for (const std::string& lost : losses.at(relative)) {
            expected[lost] = false;
        }
        for (const Bytes& variant : variants) {
            softtoken::writeFile(path, variant);
            EXPECT_EQ(working(), expected) << file.string() << " " << variant.size() << " bytes";
            ++damaged;
        }
        DeleteFileW(path.c_str());
        EXPECT_EQ(working(), expected) << file.string() << " deleted";
        softtoken::writeFile(path, whole);
        EXPECT_EQ(working(), all) << file.string() << " restored";
    }
    EXPECT_GE(damaged, 6U * 20U);
}

TEST_F(RobustnessTest, AnObjectStaysWhereItIsWhenItCannotBeReplaced) {
    // A folder in the place of the file to be written: the write fails, what was there stays.
    const std::filesystem::path keys = std::filesystem::path(home.folder(SERIAL)) / "keys";
    std::filesystem::rename(keys, keys.native() + L".away");
    EXPECT_THROW(softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P256, KEY_USAGE_SIGN, ""), softtoken::Error);
    ZentokKeyPair made = {};
    made.keyUsage = KEY_USAGE_SIGN;
    made.keyType = KEY_TYPE_EC_P256;
    EXPECT_EQ(zentok_generateKeyPair(SERIAL, PIN, &made, nullptr), softtoken::RESULT_STORAGE);
    EXPECT_EQ(made.publicKeyLength, 0) << "a failed generation leaves the record as it was";
    std::filesystem::rename(keys.native() + L".away", keys);
    EXPECT_EQ(sign(pair, counted(32)).code, 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home.folder(SERIAL))) {
        EXPECT_NE(entry.path().extension(), ".tmp") << entry.path().string();
    }
}

TEST_F(RobustnessTest, NullAndNegativeArgumentsAreRefused) {
    unsigned char data[64] = {};
    unsigned char* out = nullptr;
    int length = 64;
    const unsigned char* const id = pair.credentialId;
    const auto type = ENCRYPTION_AES_128_CBC;
    CertificateDetails details;
    const std::function<int()> calls[] = {
        [&] { return zentok_initDevice(nullptr, false, nullptr); },
        [&] { return zentok_validatePassword(nullptr, PIN, 1, &length, nullptr); },
        [&] { return zentok_generateKeyPair(SERIAL, PIN, nullptr, nullptr); },
        [&] { return zentok_deleteKeyPair(SERIAL, nullptr, PIN, true, nullptr); },
        [&] { return zentok_updateKeyPairDetails(SERIAL, id, PIN, nullptr, nullptr, 0, nullptr); },
        [&] { return zentok_updateKeyPairDetails(SERIAL, nullptr, PIN, "x", nullptr, 0, nullptr); },
        [&] { return zentok_importCertificate(SERIAL, PIN, nullptr, nullptr); },
        [&] { return zentok_importAesKey(SERIAL, PIN, nullptr, nullptr); },
        [&] { return zentok_signHash(SERIAL, nullptr, PIN, data, 32, data, &length, false, nullptr, false); },
        [&] { return zentok_signHash(SERIAL, id, PIN, nullptr, 32, data, &length, false, nullptr, false); },
        [&] { return zentok_signHash(SERIAL, id, PIN, data, -1, data, &length, false, nullptr, false); },
        [&] { return zentok_signHash(SERIAL, id, PIN, data, 0, data, &length, false, nullptr, false); },
        [&] { return zentok_signHash(SERIAL, id, PIN, data, 32, nullptr, &length, false, nullptr, false); },
        [&] { return zentok_signHash(SERIAL, id, PIN, data, 32, data, nullptr, false, nullptr, false); },
        [&] { return zentok_verifySignatureHash(5, SERIAL, nullptr, 32, data, 64, data, 64, nullptr, false); },
        [&] { return zentok_verifySignatureHash(5, SERIAL, data, 32, nullptr, 64, data, 64, nullptr, false); },
        [&] { return zentok_verifySignatureHash(5, SERIAL, data, 32, data, 64, nullptr, 64, nullptr, false); },
        [&] { return zentok_verifySignatureHash(5, SERIAL, data, 32, data, -64, data, -64, nullptr, false); },
        [&] { return zentok_verifySignatureHash(0, SERIAL, data, 32, data, 64, data, 64, nullptr, false); },
        [&] { return zentok_verifySignatureHash(0xFFFFFFFF, SERIAL, data, 32, data, 64, data, 64, nullptr, false); },
        [&] {
            return zentok_encrypt(ENCRYPTION_RSA_2048, PADDING_OAEP, data, 16, nullptr, &length, data, 64, nullptr);
        },
        [&] { return zentok_encrypt(ENCRYPTION_RSA_2048, PADDING_OAEP, data, 16, data, nullptr, data, 64, nullptr); },
        [&] { return zentok_encrypt(ENCRYPTION_RSA_2048, PADDING_OAEP, data, 16, data, &length, nullptr, 0, nullptr); },
        [&] { return zentok_decrypt(SERIAL, id, PIN, nullptr, 256, &out, &length, true, nullptr); },
        [&] { return zentok_decrypt(SERIAL, id, PIN, data, -5, &out, &length, true, nullptr); },
        [&] { return zentok_decrypt(SERIAL, id, PIN, data, 64, nullptr, &length, true, nullptr); },
        [&] {
            return zentok_encrypt_aes("", type, nullptr, 16, data, 16, &out, &length, true, nullptr, 0, nullptr, 0,
                                      nullptr);
        },
        [&] {
            return zentok_encrypt_aes("", type, data, 16, nullptr, 16, &out, &length, true, nullptr, 0, nullptr, 0,
                                      nullptr);
        },
        [&] {
            return zentok_encrypt_aes("", type, data, 16, data, -1, &out, &length, true, nullptr, 0, nullptr, 0,
                                      nullptr);
        },
        [&] {
            return zentok_encrypt_aes("", type, data, 16, data, 16, &out, &length, true, data, -16, nullptr, 0,
                                      nullptr);
        },
        [&] { return zentok_decrypt_aes("", data, 16, data, 16, nullptr, &length, false, nullptr, 0, nullptr); },
        [&] { return zentok_decrypt_aes(nullptr, data, 16, data, 16, &out, &length, true, nullptr, 0, nullptr); },
        [&] { return zentok_decryptSymetric("", data, 16, nullptr, &length, nullptr, 0, data, 16, nullptr); },
        [&] { return zentok_ecdhDerive(SERIAL, id, PIN, nullptr, 65, &out, &length, nullptr); },
        [&] { return zentok_generateRamdomNumber("", 16, nullptr, true, nullptr); },
        [&] { return zentok_generateRamdomNumber("", 0, data, true, nullptr); },
        [&] { return zentok_generateRamdomNumber("", -1, data, true, nullptr); },
        [&] { return zentok_initHash("", HASH_SHA1, nullptr, nullptr); },
        [&] { return zentok_updateHash(nullptr, data, 1, nullptr); },
        [&] { return zentok_finalHash(nullptr, data, &length, nullptr); },
        [&] { return zentok_getCertificateDetails(nullptr, 10, details, nullptr); },
        [&] { return zentok_getCertificateDetails(data, -10, details, nullptr); },
    };
    std::size_t index = 0;
    for (const auto& call : calls) {
        length = 64;
        EXPECT_NE(call(), 0) << "call " << index;
        EXPECT_EQ(out, nullptr) << "call " << index;
        ++index;
    }
    EXPECT_TRUE(zentok_getTokenInfo(nullptr, nullptr).text1.empty());
    EXPECT_TRUE(zentok_getKeyPairList(nullptr, nullptr).empty());
    EXPECT_EQ(zentok_findCertificateForKey(SERIAL, nullptr, nullptr), nullptr);
}

TEST_F(RobustnessTest, AnyThreadMayCallAnything) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread) {
        threads.emplace_back([this, thread, &failures] {
            for (int round = 0; round < 15; ++round) {
                failures += sign(pair, counted(32)).code != 0 ? 1 : 0;
                const std::vector<ZentokKeyPair> copy = zentok_getKeyPairList(SERIAL, nullptr);
                failures += copy.empty() ? 1 : 0;
                if (thread < 2) {
                    ZentokKeyPair made = {};
                    made.keyUsage = KEY_USAGE_SIGN;
                    made.keyType = KEY_TYPE_EC_P256;
                    failures += zentok_generateKeyPair(SERIAL, PIN, &made, nullptr) != 0 ? 1 : 0;
                    failures += zentok_deleteKeyPair(SERIAL, made.credentialId, PIN, true, nullptr) != 0 ? 1 : 0;
                }
                void* hash = nullptr;
                unsigned char digest[32] = {};
                int length = 32;
                failures += zentok_initHash("", HASH_SHA256, &hash, nullptr) != 0 ? 1 : 0;
                failures += zentok_updateHash(hash, digest, 32, nullptr) != 0 ? 1 : 0;
                failures += zentok_finalHash(hash, digest, &length, nullptr) != 0 ? 1 : 0;
                failures += zentok_getConnectedDeviceList(false, nullptr).size() != 1 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(zentok_getKeyPairList(SERIAL, nullptr).size(), 1U);
}

}  // namespace

}  // namespace test
