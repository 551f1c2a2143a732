// Encryption and foreign keys through the platform, with the native openssl on the other side.
#include <algorithm>
#include <cstring>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

using EncryptionTest = PlatformTest;

void logIn(const Context& context) {
    ASSERT_EQ(outcome(CryptSetProvParam(context.get(), PP_KEYEXCHANGE_PIN, reinterpret_cast<const BYTE*>(PIN), 0)), OK);
}

Bytes reversed(const Bytes& bytes) {
    return {bytes.rbegin(), bytes.rend()};
}

Code encrypt(const Key& key, DWORD flags, Bytes& data) {
    auto size = static_cast<DWORD>(data.size());
    data.resize(std::max<std::size_t>(data.size() + 16, 512));
    const Code result =
        outcome(CryptEncrypt(key.get(), 0, TRUE, flags, data.data(), &size, static_cast<DWORD>(data.size())));
    data.resize(size);
    return result;
}

Code decrypt(const Key& key, DWORD flags, Bytes& data) {
    auto size = static_cast<DWORD>(data.size());
    const Code result = outcome(CryptDecrypt(key.get(), 0, TRUE, flags, data.data(), &size));
    data.resize(result == OK ? size : data.size());
    return result;
}

TEST_F(EncryptionTest, RsaBothWays) {
    const Bytes secret = {'s', 'e', 'c', 'r', 'e', 't', 0, 1, 0xFF};
    const struct {
        FipsClass fipsClass;
        const char* padding;
        DWORD flags;
        Code decrypted;
    } rows[] = {
        {FipsClass::FIPS_140_2, "oaep", CRYPT_OAEP, OK},
        {FipsClass::FIPS_140_2, "pkcs1", 0, OK},
        {FipsClass::FIPS_140_3, "oaep", CRYPT_OAEP, OK},
        {FipsClass::FIPS_140_3, "pkcs1", 0, code(NTE_BAD_FLAGS)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.padding) + (row.fipsClass == FipsClass::FIPS_140_2 ? ", 140-2" : ", 140-3"));
        const Token token(row.fipsClass);
        const std::string keyText = token.addKey();
        const Context context = acquire(keyText);
        logIn(context);
        const Key key = userKey(context, AT_KEYEXCHANGE);
        Bytes data = reversed(throughOpenssl({"pkeyutl", "-encrypt", "-pubin", "-inkey", token.publicKey(keyText),
                                              "-pkeyopt", std::string("rsa_padding_mode:") + row.padding},
                                             secret));
        EXPECT_EQ(decrypt(key, row.flags, data), row.decrypted);
        EXPECT_TRUE(row.decrypted != OK || data == secret);
        data = secret;
        EXPECT_EQ(encrypt(key, row.flags, data), OK) << "the padding of an encryption is free on every token";
        EXPECT_EQ(data.size(), 256U);
        EXPECT_EQ(decrypt(key, row.flags, data), row.decrypted);
        EXPECT_TRUE(row.decrypted != OK || data == secret);
    }
}

TEST_F(EncryptionTest, ForeignSignaturesVerifyWithoutAToken) {
    const Context context = acquire("", CRYPT_VERIFYCONTEXT);
    for (const char* bits : {"2048", "4096"}) {
        SCOPED_TRACE(bits);
        const ScratchFolder files;
        const std::string privateKey = files.nativeFile("key");
        EXPECT_EQ(runOpenssl({"genrsa", "-out", privateKey, bits}).exitCode, 0);
        const Bytes publicKey = throughOpenssl({"rsa", "-pubout", "-outform", "DER"}, files.read("key"));
        EXPECT_EQ(runOpenssl({"dgst", "-sha256", "-sign", privateKey, "-out", files.nativeFile("signature"),
                              files.write("document", document())})
                      .exitCode,
                  0);
        Bytes info(4096);
        auto size = static_cast<DWORD>(info.size());
        ASSERT_EQ(outcome(CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, publicKey.data(),
                                              static_cast<DWORD>(publicKey.size()), 0, nullptr, info.data(), &size)),
                  OK);
        Key key;
        ASSERT_EQ(outcome(CryptImportPublicKeyInfo(context.get(), X509_ASN_ENCODING,
                                                   reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(info.data()), key.out())),
                  OK);
        Bytes signature = reversed(files.read("signature"));
        EXPECT_EQ(verify(hashOf(context, document()), signature, key), OK);
        signature[7] ^= 1;
        EXPECT_EQ(verify(hashOf(context, document()), signature, key), code(NTE_BAD_SIGNATURE));
    }
}

/// The ciphertext equals openssl's, and decrypts.
void compareAes(const Key& key, const Bytes& keyBytes, const char* mode, const Bytes& iv) {
    const std::string name = "-aes-" + std::to_string(8 * keyBytes.size()) + "-" + mode;
    SCOPED_TRACE(name);
    const DWORD keyMode = std::string(mode) == "ecb" ? CRYPT_MODE_ECB : CRYPT_MODE_CBC;
    ASSERT_EQ(outcome(CryptSetKeyParam(key.get(), KP_MODE, reinterpret_cast<const BYTE*>(&keyMode), 0)), OK);
    std::vector<std::string> command = {"enc", name, "-K", hexOf(keyBytes)};
    if (keyMode != CRYPT_MODE_ECB) {
        command.insert(command.end(), {"-iv", hexOf(iv)});
    }
    Bytes data = document();
    ASSERT_EQ(encrypt(key, 0, data), OK);
    EXPECT_EQ(data, throughOpenssl(command, document()));
    EXPECT_EQ(decrypt(key, 0, data), OK);
    EXPECT_EQ(data, document());
}

TEST_F(EncryptionTest, AesKeysDerivedAndWrapped) {
    const Token token;
    const std::string keyText = token.addKey();
    const Context context = acquire(keyText);
    logIn(context);
    // SHA-256 of "abc" (FIPS 180-4).
    const Bytes digest = {0xBA, 0x78, 0x16, 0xBF, 0x8F, 0x01, 0xCF, 0xEA, 0x41, 0x41, 0x40,
                          0xDE, 0x5D, 0xAE, 0x22, 0x23, 0xB0, 0x03, 0x61, 0xA3, 0x96, 0x17,
                          0x7A, 0x9C, 0xB4, 0x10, 0xFF, 0x61, 0xF2, 0x00, 0x15, 0xAD};
    const Bytes zeroIv(16, 0);
    const struct {
        ALG_ID algorithm;
        std::size_t size;
    } rows[] = {{CALG_AES_128, 16}, {CALG_AES_192, 24}, {CALG_AES_256, 32}};
    for (const auto& row : rows) {
        Key derived;
        const Hash hash = hashOf(context, {'a', 'b', 'c'});
        ASSERT_EQ(outcome(CryptDeriveKey(context.get(), row.algorithm, hash.get(), 0, derived.out())), OK);
        const Bytes keyBytes(digest.begin(), digest.begin() + static_cast<std::ptrdiff_t>(row.size));
        compareAes(derived, keyBytes, "cbc", zeroIv);
        compareAes(derived, keyBytes, "ecb", zeroIv);
    }

    const Key userKeyHandle = userKey(context, AT_KEYEXCHANGE);
    Bytes iv(16);
    std::generate(iv.begin(), iv.end(), [n = 1]() mutable { return static_cast<unsigned char>(n++); });
    for (const auto& row : rows) {
        const Bytes keyBytes(row.size, static_cast<unsigned char>(row.size));
        const Bytes wrapped = throughOpenssl(
            {"pkeyutl", "-encrypt", "-pubin", "-inkey", token.publicKey(keyText), "-pkeyopt", "rsa_padding_mode:oaep"},
            keyBytes);
        const BLOBHEADER header = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, row.algorithm};
        const ALG_ID wrapping = CALG_RSA_KEYX;
        Bytes blob(sizeof header + sizeof wrapping + wrapped.size());
        std::memcpy(blob.data(), &header, sizeof header);
        std::memcpy(blob.data() + sizeof header, &wrapping, sizeof wrapping);
        std::reverse_copy(wrapped.begin(), wrapped.end(), blob.begin() + sizeof header + sizeof wrapping);
        Key key;
        ASSERT_EQ(outcome(CryptImportKey(context.get(), blob.data(), static_cast<DWORD>(blob.size()),
                                         userKeyHandle.get(), 0, key.out())),
                  OK);
        if (row.algorithm != CALG_AES_128) {  // the provider takes an IV from the longer keys only, for all of them
            ASSERT_EQ(outcome(CryptSetKeyParam(key.get(), KP_IV, iv.data(), 0)), OK);
        }
        compareAes(key, keyBytes, "cbc", row.algorithm == CALG_AES_128 ? zeroIv : iv);
        if (row.algorithm != CALG_AES_128) {
            ASSERT_EQ(outcome(CryptSetKeyParam(key.get(), KP_IV, zeroIv.data(), 0)), OK);
        }
    }
}

}  // namespace
}  // namespace test
