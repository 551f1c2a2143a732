// The key storage provider on software tokens, with the native openssl on the other side.
#include "tests/platform/ksp_test.h"

#include <numeric>

namespace test {
namespace {

const Bytes EXPONENT = {1, 0, 1};

Bytes lastBytes(const Bytes& bytes, std::size_t size) {
    return {bytes.end() - static_cast<std::ptrdiff_t>(size), bytes.end()};
}

}  // namespace

Bytes digestOf(const std::string& hash, const Bytes& data) {
    const ScratchFolder files;
    openssl({"dgst", "-" + hash, "-binary", "-out", files.nativeFile("out"), files.write("in", data)});
    return files.read("out");
}

Bytes spkiOfBlob(const Kind& kind, const Bytes& blob) {
    if (kind.isRsa()) {
        const Bytes encryption = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
        const Bytes key = der(0x30, {derInteger(lastBytes(blob, kind.bytes())), derInteger(EXPONENT)});
        return der(0x30, {der(0x30, {encryption}), der(0x03, {{0}, key})});
    }
    const Bytes ecPublicKey = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
    const Bytes prime256v1 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    const Bytes secp = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, static_cast<unsigned char>(kind.bits == 384 ? 0x22 : 0x23)};
    const Bytes point = joined({{0x04}, lastBytes(blob, std::size_t{2} * kind.bytes())});
    return der(0x30, {der(0x30, {ecPublicKey, kind.bits == 256 ? prime256v1 : secp}), der(0x03, {{0}, point})});
}

Bytes blobOfSpki(const Kind& kind, const Bytes& spki) {
    if (kind.isRsa()) {
        const BCRYPT_RSAKEY_BLOB header = {kind.magic, kind.bits, sizeOf(EXPONENT), kind.bytes(), 0, 0};
        const Bytes end = lastBytes(spki, kind.bytes() + derInteger(EXPONENT).size());
        return joined({bytesOf(header), EXPONENT, {end.begin(), end.begin() + static_cast<int>(kind.bytes())}});
    }
    const BCRYPT_ECCKEY_BLOB header = {kind.magic, kind.bytes()};
    return joined({bytesOf(header), lastBytes(spki, std::size_t{2} * kind.bytes())});
}

void dgst(const std::string& hash, DWORD padding, const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {"dgst", "-" + hash};
    if (padding == BCRYPT_PAD_PSS) {
        command.insert(command.end(), {"-sigopt", "rsa_padding_mode:pss", "-sigopt", "rsa_pss_saltlen:digest"});
    }
    command.insert(command.end(), arguments.begin(), arguments.end());
    openssl(command);
}

void expectAccepted(const Kind& kind, const Bytes& blob, const std::string& hash, DWORD padding,
                    const Bytes& signature) {
    EXPECT_EQ(signature.size(), kind.signatureSize());
    EXPECT_EQ(blob, blobOfSpki(kind, spkiOfBlob(kind, blob))) << "the header";
    const ScratchFolder files;
    dgst(hash, padding,
         {"-verify", files.write("key", spkiOfBlob(kind, blob)), "-signature",
          files.write("signature", kind.isRsa() ? signature : derOfEcSignature(signature)),
          files.write("document", document())});
}

namespace {

using KspTest = PlatformTest;

/// A key pair of openssl's making.
struct ForeignKey {
    explicit ForeignKey(const Kind& kind) {
        openssl({"genpkey", "-algorithm", kind.isRsa() ? "RSA" : "EC", "-pkeyopt", kind.option, "-out", privateKey});
        openssl({"pkey", "-in", privateKey, "-pubout", "-outform", "DER", "-out", files.nativeFile("public")});
        blob = blobOfSpki(kind, files.read("public"));
    }
    const ScratchFolder files;
    const std::string privateKey = files.nativeFile("private");
    Bytes blob;
};

TEST_F(KspTest, SignaturesBothWays) {
    for (const Kind& kind : {RSA_2048, RSA_3072, RSA_4096, ECDSA_P256, ECDSA_P384, ECDSA_P521}) {
        SCOPED_TRACE(kind.option);
        const Token token(FipsClass::FIPS_140_2);
        const KeyStorage storage;
        const KspKey key = storage.create(kind);
        const Bytes blob = storage.exportPublic(key, kind.blobType());
        const ForeignKey foreign(kind);
        const KspKey foreignKey = storage.import(kind.blobType(), foreign.blob);
        for (const DWORD padding :
             kind.isRsa() ? std::vector<DWORD>{BCRYPT_PAD_PKCS1, BCRYPT_PAD_PSS} : std::vector<DWORD>{0}) {
            for (const std::string hash : {"SHA1", "SHA256", "SHA384", "SHA512"}) {
                SCOPED_TRACE(hash + ", padding " + std::to_string(padding));
                const Bytes digest = digestOf(hash, document());
                Bytes signature = storage.sign(key, digest, padding);
                expectAccepted(kind, blob, hash, padding, signature);
                EXPECT_EQ(storage.verify(key, digest, signature, padding), OK);
                EXPECT_EQ(storage.verify(foreignKey, digest, signature, padding), code(NTE_BAD_SIGNATURE));

                dgst(hash, padding,
                     {"-sign", foreign.privateKey, "-out", foreign.files.nativeFile("signed"),
                      foreign.files.write("document", document())});
                const Bytes made = foreign.files.read("signed");
                signature = kind.isRsa() ? made : rawEcSignature(made, kind.signatureSize());
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
            const auto run = [&](std::vector<std::string> command, const Bytes& input) {
                const std::string pkcs1 = "rsa_padding_mode:pkcs1";
                const std::string md = hash.empty() ? pkcs1 : "rsa_oaep_md:" + hash;
                const std::string padding = hash.empty() ? pkcs1 : "rsa_padding_mode:oaep";
                command.insert(command.end(), {"-pkeyopt", padding, "-pkeyopt", md});
                return throughOpenssl(command, input);
            };
            const Bytes encrypted = storage.crypt(table().Encrypt, foreignKey, secret, flags, hash);
            EXPECT_EQ(run({"pkeyutl", "-decrypt", "-inkey", foreign.privateKey}, encrypted), secret);
            if (!hash.empty() || fipsClass == FipsClass::FIPS_140_2) {
                const Bytes given = run({"pkeyutl", "-encrypt", "-pubin", "-inkey", token.publicKey(keyText)}, secret);
                EXPECT_EQ(storage.crypt(table().Decrypt, key, given, flags, hash), secret);
            }
        }
        DWORD size = 0;
        EXPECT_EQ(outcome(table().Decrypt(storage.get(), key.get(), nullptr, 0, nullptr, nullptr, 0, &size,
                                          NCRYPT_PAD_PKCS1_FLAG)),
                  fipsClass == FipsClass::FIPS_140_2 ? OK : code(NTE_NOT_SUPPORTED));
    }
}

TEST_F(KspTest, SecretsAreOpenssls) {
    const Token token;
    const KeyStorage storage;
    Bytes label = {'l', 'a', 'b', 'e', 'l'};
    Bytes context(100, 0xC7);
    for (const Kind& kind : {ECDH_P256, ECDH_P384, ECDH_P521}) {
        SCOPED_TRACE(kind.option);
        const KspKey key = storage.create(kind);
        const Bytes spki = spkiOfBlob(kind, storage.exportPublic(key, BCRYPT_ECCPUBLIC_BLOB));
        const ForeignKey peer(kind);
        const KspKey peerKey = storage.import(BCRYPT_ECCPUBLIC_BLOB, peer.blob);
        openssl({"pkeyutl", "-derive", "-inkey", peer.privateKey, "-peerkey", peer.files.write("peer", spki), "-out",
                 peer.files.nativeFile("z")});
        const Bytes z = peer.files.read("z");
        ASSERT_EQ(z.size(), kind.bytes());
        KspSecret secret;
        ASSERT_EQ(outcome(table().SecretAgreement(storage.get(), key.get(), peerKey.get(), secret.out(), 0)), OK);
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
        const Bytes wrapped = throughOpenssl(
            {"pkeyutl", "-encrypt", "-pubin", "-inkey", token.publicKey(keyText), "-pkeyopt", "rsa_padding_mode:oaep"},
            clear);
        const KspKey key = storage.import(type, wrapped, rsaKey);
        for (const std::string mode : {"CBC", "ECB"}) {
            const std::string cipher = "-aes-" + std::to_string(8 * size) + (mode == "CBC" ? "-cbc" : "-ecb");
            SCOPED_TRACE(cipher);
            EXPECT_EQ(storage.setProperty(key, TEXT("ChainingMode"), wideBytes("ChainingMode" + mode)), OK);
            std::vector<std::string> command = {"enc", cipher, "-nopad", "-K", hexOf(clear)};
            if (mode == "CBC") {
                command.insert(command.end(), {"-iv", hexOf(iv)});
            }
            const Bytes encrypted = storage.crypt(table().Encrypt, key, data);
            EXPECT_EQ(encrypted, throughOpenssl(command, data));
            EXPECT_EQ(storage.crypt(table().Decrypt, key, encrypted), data);
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
