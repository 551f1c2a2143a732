// The key storage provider on software tokens, with the native openssl on the other side.
#include "tests/platform/ksp_test.h"

#include <numeric>

namespace test {
namespace {

using KspTest = PlatformTest;

/// A key pair of openssl's making.
struct ForeignKey {
    explicit ForeignKey(const Kind& kind) {
        openssl({"genpkey", "-algorithm", kind.isRsa() ? "RSA" : "EC", "-pkeyopt", kind.option(), "-out", privateKey});
        openssl({"pkey", "-in", privateKey, "-pubout", "-out", files.nativeFile("public")});
        blob = blobOf(kind, spkiOf(files.nativeFile("public")));
    }
    const ScratchFolder files;
    const std::string privateKey = files.nativeFile("private");
    Bytes blob;
};

TEST_F(KspTest, SignaturesBothWays) {
    for (const Kind& kind : {RSA_2048, RSA_3072, RSA_4096, ECDSA_P256, ECDSA_P384, ECDSA_P521}) {
        SCOPED_TRACE(kind.option());
        const Token token(FipsClass::FIPS_140_2);
        const KeyStorage storage;
        const KspKey key = storage.create(kind);
        const std::string publicKey = storage.publicKey(token, key);
        EXPECT_EQ(storage.property(key, TEXT("Provider Handle")), bytesOf(storage.get()));
        EXPECT_EQ(storage.property(key, NCRYPT_ALGORITHM_GROUP_PROPERTY), wideBytes(kind.group));
        EXPECT_EQ(storage.property(key, NCRYPT_LENGTH_PROPERTY), bytesOf(kind.bits));
        EXPECT_EQ(storage.property(key, NCRYPT_KEY_USAGE_PROPERTY), bytesOf(DWORD{3}));
        EXPECT_EQ(storage.exportPublic(key, kind.blobType()), blobOf(kind, spkiOf(publicKey)));
        const ForeignKey foreign(kind);
        const KspKey foreignKey = storage.import(kind.blobType(), foreign.blob);
        for (const DWORD padding : {DWORD{BCRYPT_PAD_PKCS1}, DWORD{BCRYPT_PAD_PSS}}) {  // no matter for an EC key
            for (const std::string hash : {"MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
                const bool pss = padding == BCRYPT_PAD_PSS && kind.isRsa();
                SCOPED_TRACE(hash + (pss ? ", PSS" : ""));
                const Bytes digest = digestOf(hash, document());
                Bytes signature = storage.sign(key, digest, padding);
                EXPECT_EQ(signature.size(), kind.signatureSize());
                expectAccepted(publicKey, !kind.isRsa(), hash, signature, pss);
                EXPECT_EQ(storage.verify(key, digest, signature, padding), OK);
                EXPECT_EQ(storage.verify(foreignKey, digest, signature, padding), code(NTE_BAD_SIGNATURE));

                std::vector<std::string> command = dgst(hash, pss, "-sign", foreign.privateKey);
                command.push_back(foreign.files.write("document", document()));
                signature = fromOpenssl(command);
                signature = kind.isRsa() ? signature : rawEcSignature(signature, kind.signatureSize());
                EXPECT_EQ(storage.verify(foreignKey, digest, signature, padding), OK);
            }
        }
    }
}

TEST_F(KspTest, RsaEncryptionBothWays) {
    const Bytes secret = {'s', 'e', 'c', 'r', 'e', 't', 0, 1, 0xFF};
    const ForeignKey foreign(RSA_2048);
    for (const FipsClass fipsClass : {FipsClass::FIPS_140_2, FipsClass::FIPS_140_3}) {
        const Token token(fipsClass);
        const KeyStorage storage;
        const std::string keyText = token.addKey();
        const KspKey key = storage.open(keyText);
        // Through the legacy blob as well.
        const KspKey foreignRaw = storage.import(BCRYPT_RSAPUBLIC_BLOB, foreign.blob);
        const KspKey foreignKey =
            storage.import(LEGACY_RSAPUBLIC_BLOB, storage.exportPublic(foreignRaw, LEGACY_RSAPUBLIC_BLOB));
        for (const std::string hash : {"SHA1", "SHA256", "SHA384", "SHA512", ""}) {
            SCOPED_TRACE(hash);
            const DWORD flags = hash.empty() ? NCRYPT_PAD_PKCS1_FLAG : NCRYPT_PAD_OAEP_FLAG;
            const std::string padding = hash.empty() ? "rsa_padding_mode:pkcs1" : "rsa_padding_mode:oaep";
            const std::string md = hash.empty() ? padding : "rsa_oaep_md:" + hash;
            const Bytes sealed = storage.crypt(table().Encrypt, foreignKey, secret, flags, hash);
            EXPECT_EQ(
                throughOpenssl(
                    {"pkeyutl", "-decrypt", "-inkey", foreign.privateKey, "-pkeyopt", padding, "-pkeyopt", md}, sealed),
                secret);
            if (!hash.empty() || fipsClass == FipsClass::FIPS_140_2) {
                const Bytes given = token.encrypted(keyText, secret, {padding, md});
                EXPECT_EQ(storage.crypt(table().Decrypt, key, given, flags, hash), secret);
            }
        }
    }
}

TEST_F(KspTest, SecretsAreOpenssls) {
    const Token token;
    const KeyStorage storage;
    Bytes label = {'l', 'a', 'b', 'e', 'l'};
    Bytes context(100, 0xC7);
    for (const Kind& kind : {ECDH_P256, ECDH_P384, ECDH_P521}) {
        SCOPED_TRACE(kind.option());
        const KspKey key = storage.create(kind);
        const std::string publicKey = storage.publicKey(token, key);
        EXPECT_EQ(storage.exportPublic(key, BCRYPT_ECCPUBLIC_BLOB), blobOf(kind, spkiOf(publicKey)));
        const ForeignKey peer(kind);
        const KspKey peerKey = storage.import(BCRYPT_ECCPUBLIC_BLOB, peer.blob);
        const Bytes z = fromOpenssl({"pkeyutl", "-derive", "-inkey", peer.privateKey, "-peerkey", publicKey});
        ASSERT_EQ(z.size(), kind.bytes());
        KspSecret secret;
        ASSERT_EQ(code(table().SecretAgreement(storage.get(), key.get(), peerKey.get(), secret.out(), 0)), OK);
        for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
            Bytes name = wideBytes(hash);
            NCryptBuffer buffers[] = {{sizeOf(name), KDF_HASH_ALGORITHM, name.data()},
                                      {sizeOf(label), KDF_LABEL, label.data()},
                                      {sizeOf(context), KDF_CONTEXT, context.data()}};
            NCryptBufferDesc list = {NCRYPTBUFFER_VERSION, ARRAYSIZE(buffers), buffers};
            const auto derive = [&](const WCHAR* kdf) {
                return answer(0, table().DeriveKey, 0, secret.get(), kdf, &list);
            };
            EXPECT_EQ(derive(BCRYPT_KDF_HASH), digestOf(hash, z)) << hash;
            // One hash, without the counter that the name promises.
            EXPECT_EQ(derive(TEXT("SP800_56ACONCAT")), digestOf(hash, joined({label, context, z}))) << hash;
        }
    }
}

TEST_F(KspTest, AesKeysEncryptedToTheToken) {
    const Token token;
    const KeyStorage storage;
    const std::string keyText = token.addKey();
    const KspKey rsaKey = storage.open(keyText);
    const Bytes data(document().begin(), document().begin() + 4096);
    Bytes iv(16);
    std::iota(iv.begin(), iv.end(), static_cast<unsigned char>(1));
    // One IV serves all keys, and through an RSA key it may have any length.
    EXPECT_EQ(storage.setProperty(rsaKey, TEXT("IV"), iv), OK);
    const std::pair<const WCHAR*, std::size_t> rows[] = {
        {TEXT("OpaqueTransport"), 16}, {TEXT("PKCS8_PRIVATEKEY"), 24}, {TEXT("a client's own"), 32}};
    for (const auto& [type, size] : rows) {
        const Bytes clear(size, static_cast<unsigned char>(size));
        const KspKey key = storage.import(type, token.encrypted(keyText, clear), rsaKey);
        for (const std::string mode : {"cbc", "ecb"}) {
            SCOPED_TRACE(mode);
            EXPECT_EQ(storage.setProperty(key, TEXT("ChainingMode"),
                                          wideBytes(mode == "cbc" ? "ChainingModeCBC" : "ChainingModeECB")),
                      OK);
            const Bytes sealed = storage.crypt(table().Encrypt, key, data);
            Bytes expected = aesByOpenssl(mode, clear, iv, data);
            expected.resize(data.size());  // no padding here
            EXPECT_EQ(sealed, expected);
            EXPECT_EQ(storage.crypt(table().Decrypt, key, sealed), data);
        }
    }
    EXPECT_EQ(storage.setProperty(rsaKey, TEXT("IV"), {}), OK);
}

TEST_F(KspTest, WrappedKeysFindTheirKeyEncryptionKey) {
    const Token token;
    const KeyStorage storage;
    std::vector<Bytes> keys;
    const auto addKey = [&](std::size_t size) {
        return keys.emplace_back(size, static_cast<unsigned char>(0xA0 + keys.size()));
    };
    const auto wrap = [](const Bytes& key, const Bytes& under) {  // RFC 3394
        const std::string cipher = "-id-aes" + std::to_string(8 * under.size()) + "-wrap";
        return throughOpenssl({"enc", cipher, "-K", hexOf(under), "-iv", "A6A6A6A6A6A6A6A6"}, key);
    };
    for (const std::size_t size : {16U, 24U, 32U}) {
        const BCRYPT_KEY_DATA_BLOB_HEADER header = {BCRYPT_KEY_DATA_BLOB_MAGIC, 1, static_cast<ULONG>(size)};
        const KspKey key = storage.import(BCRYPT_KEY_DATA_BLOB, joined({bytesOf(header), addKey(size)}));
    }
    // The later ones are wrapped by keys that came wrapped, and so tell that those have their bytes.
    for (const auto& [under, size] : {std::pair(2U, 16U), std::pair(0U, 32U), std::pair(3U, 24U), std::pair(4U, 16U)}) {
        const Bytes clear = addKey(size);
        const KspKey key = storage.import(BCRYPT_OPAQUE_KEY_BLOB, wrap(clear, keys[under]));
    }
    EXPECT_EQ(softtoken::listTokens().at(0).aesKeys, keys.size());
    // A key of 192 bits unwraps nothing; the other is not on the token.
    for (const Bytes& under : {keys[1], Bytes(32, 0x77)}) {
        const KspKey none = storage.import(BCRYPT_OPAQUE_KEY_BLOB, wrap(keys[0], under), {}, code(NTE_BAD_KEY));
    }
}

}  // namespace
}  // namespace test
