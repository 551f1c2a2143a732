// Signatures, encryption and foreign keys through the platform, with the native openssl on the other side.
#include <numeric>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

using CryptographyTest = PlatformTest;

constexpr std::pair<const char*, ALG_ID> HASHES[] = {
    {"sha256", CALG_SHA_256}, {"sha384", CALG_SHA_384}, {"sha512", CALG_SHA_512}, {"sha1", CALG_SHA1}};

TEST_F(CryptographyTest, OpensslAcceptsEveryKeyAndHash) {
    const std::tuple<KeyType, FipsClass, std::size_t> rows[] = {
        {KEY_TYPE_RSA_2048, FipsClass::FIPS_140_2, 256}, {KEY_TYPE_RSA_3072, FipsClass::FIPS_140_3, 384},
        {KEY_TYPE_RSA_4096, FipsClass::FIPS_140_3, 512}, {KEY_TYPE_EC_P256, FipsClass::FIPS_140_2, 64},
        {KEY_TYPE_EC_P384, FipsClass::FIPS_140_3, 96},   {KEY_TYPE_EC_P521, FipsClass::FIPS_140_2, 132}};
    for (const auto& [type, fipsClass, size] : rows) {
        const Token token(fipsClass);
        const std::string keyText = token.addKey(type);
        const Context context = acquire(keyText);
        ASSERT_EQ(logIn(context), OK);
        for (const auto& [hashName, algorithm] : HASHES) {
            SCOPED_TRACE(std::to_string(type) + " " + hashName);
            if (algorithm == CALG_SHA1 && fipsClass == FipsClass::FIPS_140_3) {
                Hash refused;
                EXPECT_EQ(outcome(CryptCreateHash(context.get(), CALG_SHA1, 0, 0, refused.out())), code(NTE_BAD_ALGID));
                continue;
            }
            const DWORD keySpec = algorithm == CALG_SHA_384 ? AT_KEYEXCHANGE : AT_SIGNATURE;
            const Key key = userKey(context, keySpec);
            Bytes signature;
            ASSERT_EQ(sign(hashOf(context, document(), algorithm), signature, keySpec), OK);
            EXPECT_EQ(signature.size(), size);
            const bool isEc = type >= KEY_TYPE_EC_P256;
            expectAccepted(token.publicKey(keyText), isEc, hashName, isEc ? signature : reversed(signature));
            EXPECT_EQ(verify(hashOf(context, document(), algorithm), signature, key), OK);
            signature[signature.size() / 2] ^= 1;
            EXPECT_EQ(verify(hashOf(context, document(), algorithm), signature, key), code(NTE_BAD_SIGNATURE));
        }
    }
}

TEST_F(CryptographyTest, RsaBothWays) {
    const Bytes secret = {'s', 'e', 'c', 'r', 'e', 't', 0, 1, 0xFF};
    for (const FipsClass fipsClass : {FipsClass::FIPS_140_2, FipsClass::FIPS_140_3}) {
        const Token token(fipsClass);
        const std::string keyText = token.addKey();
        const Context context = acquire(keyText);
        ASSERT_EQ(logIn(context), OK);
        const Key key = userKey(context, AT_KEYEXCHANGE);
        for (const DWORD flags : {DWORD{CRYPT_OAEP}, DWORD{0}}) {
            const Code decrypted = flags != 0 || fipsClass == FipsClass::FIPS_140_2 ? OK : code(NTE_BAD_FLAGS);
            Bytes own = secret;
            EXPECT_EQ(encrypt(key, flags, own), OK) << "the padding of an encryption is free on every token";
            EXPECT_EQ(own.size(), 256U);
            for (Bytes data :
                 {own, reversed(token.encrypted(keyText, secret,
                                                {flags != 0 ? "rsa_padding_mode:oaep" : "rsa_padding_mode:pkcs1"}))}) {
                EXPECT_EQ(decrypt(key, flags, data), decrypted);
                EXPECT_TRUE(decrypted != OK || data == secret);
            }
        }
    }
}

TEST_F(CryptographyTest, ForeignSignaturesVerifyWithoutAToken) {
    const Context context = acquire("", CRYPT_VERIFYCONTEXT);
    for (const auto& [exponent, bits] : {std::pair("-3", "2048"), std::pair("-F4", "4096")}) {
        SCOPED_TRACE(bits);
        const ScratchFolder files;
        const std::string privateKey = files.nativeFile("key");
        openssl({"genrsa", exponent, "-out", privateKey, bits});
        const Bytes publicKey = fromOpenssl({"rsa", "-in", privateKey, "-pubout", "-outform", "DER"});
        Bytes info = answerOf([&](BYTE* data, DWORD* size) {
            return CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, publicKey.data(), sizeOf(publicKey), 0,
                                       nullptr, data, size);
        });
        Key key;
        ASSERT_EQ(outcome(CryptImportPublicKeyInfo(context.get(), X509_ASN_ENCODING,
                                                   reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(info.data()), key.out())),
                  OK);
        Bytes signature =
            reversed(fromOpenssl({"dgst", "-sha256", "-sign", privateKey, files.write("document", document())}));
        EXPECT_EQ(verify(hashOf(context, document()), signature, key), OK);
        signature[7] ^= 1;
        EXPECT_EQ(verify(hashOf(context, document()), signature, key), code(NTE_BAD_SIGNATURE));
    }
}

/// The ciphertext equals openssl's, and decrypts.
void compareAes(const Key& key, const Bytes& keyBytes, const char* mode, const Bytes& iv) {
    SCOPED_TRACE(mode + hexOf(keyBytes));
    const DWORD keyMode = std::string(mode) == "ecb" ? CRYPT_MODE_ECB : CRYPT_MODE_CBC;
    ASSERT_EQ(outcome(CryptSetKeyParam(key.get(), KP_MODE, reinterpret_cast<const BYTE*>(&keyMode), 0)), OK);
    for (const std::size_t size : {1U, 15U, 16U, 17U, 200000U}) {
        const Bytes clear(document().begin(), document().begin() + static_cast<std::ptrdiff_t>(size));
        Bytes data = clear;
        ASSERT_EQ(encrypt(key, 0, data), OK);
        EXPECT_EQ(data, aesByOpenssl(mode, keyBytes, iv, clear));
        EXPECT_EQ(decrypt(key, 0, data), OK);
        EXPECT_EQ(data, clear);
    }
}

TEST_F(CryptographyTest, AesKeysDerivedAndWrapped) {
    const Token token;
    const std::string keyText = token.addKey();
    const Context context = acquire(keyText);
    ASSERT_EQ(logIn(context), OK);
    const Key rsaKey = userKey(context, AT_KEYEXCHANGE);
    const ScratchFolder files;
    const Bytes digest = fromOpenssl({"dgst", "-sha256", "-binary", files.write("document", document())});
    Bytes iv(16);
    std::iota(iv.begin(), iv.end(), static_cast<unsigned char>(1));
    const Bytes zeroIv(16, 0);
    for (const auto& [algorithm, size] : {std::pair(ALG_ID{CALG_AES_128}, 16), std::pair(ALG_ID{CALG_AES_192}, 24),
                                          std::pair(ALG_ID{CALG_AES_256}, 32)}) {
        Key derived, imported;
        const Hash hash = hashOf(context, document());
        ASSERT_EQ(outcome(CryptDeriveKey(context.get(), algorithm, hash.get(), 0, derived.out())), OK);
        compareAes(derived, {digest.begin(), digest.begin() + size}, "cbc", zeroIv);
        compareAes(derived, {digest.begin(), digest.begin() + size}, "ecb", {});

        const Bytes keyBytes(static_cast<std::size_t>(size), static_cast<unsigned char>(size));
        Bytes header = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, 0, 0, 0x66, 0, 0, 0, 0xA4, 0, 0};
        header[4] = static_cast<unsigned char>(algorithm);
        const Bytes blob = joined({header, reversed(token.encrypted(keyText, keyBytes))});
        ASSERT_EQ(outcome(CryptImportKey(context.get(), blob.data(), sizeOf(blob), rsaKey.get(), 0, imported.out())),
                  OK);
        const bool takesIv = size != 16;  // the provider takes an IV from the longer keys only, for all of them
        ASSERT_TRUE(!takesIv || CryptSetKeyParam(imported.get(), KP_IV, iv.data(), 0));
        compareAes(imported, keyBytes, "cbc", takesIv ? iv : zeroIv);
        ASSERT_TRUE(!takesIv || CryptSetKeyParam(imported.get(), KP_IV, zeroIv.data(), 0));
    }
}

}  // namespace
}  // namespace test
