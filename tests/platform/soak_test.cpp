// Everything that a host can do with both fronts, over and over, while the figures of the process have to stay flat.
// ZENTOK_SOAK_ROUNDS and ZENTOK_SOAK_MINUTES say for how long; scripts/soak does.
#include <cstdio>
#include <filesystem>

#include "tests/platform/figures.h"
#include "tests/platform/ksp_test.h"

namespace test {
namespace {

class SoakTest : public PlatformTest {
protected:
    void SetUp() override {
        setLogLevel(2);
        const std::string folder = "ZentokDSC/Certificates/";
        std::filesystem::create_directories(files.file(folder));
        const std::string issuer = files.nativeFile(folder + "issuer.pem"), issuerKey = files.nativeFile("issuer.key");
        SetEnvironmentVariableA("ZENTOK_HOME", files.path().c_str());
        openssl({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=Issuer", "-keyout",
                 issuerKey, "-out", issuer});
        certificate = fromOpenssl({"x509", "-new", "-force_pubkey", token.publicKey(rsaKey), "-subj", "/CN=Owner",
                                   "-CA", issuer, "-CAkey", issuerKey, "-outform", "DER"});
    }
    void TearDown() override {
        PlatformTest::TearDown();
        SetEnvironmentVariableA("ZENTOK_HOME", nullptr);
    }
    void useCryptoApi() const;
    void useKeyStorage() const;
    void useWhatTakesSeconds() const;

    const ScratchFolder files;
    const Token token;
    const std::string rsaKey = token.addKey(), ecKey = token.addKey(KEY_TYPE_EC_P256);
    Bytes certificate;
};

void SoakTest::useCryptoApi() const {
    const Context context = acquire(rsaKey, CRYPT_SILENT);
    const Key key = userKey(context, AT_KEYEXCHANGE);
    Key imported, aesKey, none;
    Hash hmac, copy;
    Bytes clear(48), signature, block(4096), garbage(256);
    DWORD size = sizeOf(clear);
    EXPECT_EQ(outcome(CryptGenRandom(context.get(), size, clear.data())), OK);
    const Hash hash = hashOf(context, clear), other = hashOf(context, certificate);
    const Bytes blob = answerOf(
        [&](BYTE* data, DWORD* length) { return CryptExportKey(key.get(), 0, PUBLICKEYBLOB, 0, data, length); });
    EXPECT_EQ(outcome(CryptImportKey(context.get(), blob.data(), sizeOf(blob), 0, 0, imported.out())), OK);
    EXPECT_EQ(sign(hash, signature), OK);
    EXPECT_EQ(verify(hash, signature, imported), OK);
    EXPECT_EQ(verify(other, signature, key), code(NTE_BAD_SIGNATURE));
    EXPECT_EQ(outcome(CryptDeriveKey(context.get(), CALG_AES_256, other.get(), 0, aesKey.out())), OK);
    const std::pair<const Key*, DWORD> ways[] = {{&key, CRYPT_OAEP}, {&aesKey, 0}};
    for (const auto& [used, flags] : ways) {
        Bytes data = clear;
        EXPECT_EQ(encrypt(*used, flags, data), OK);
        EXPECT_EQ(decrypt(*used, flags, data), OK);
        EXPECT_EQ(data, clear);
    }
    EXPECT_EQ(outcome(CryptCreateHash(context.get(), CALG_HMAC, aesKey.get(), 0, hmac.out())), OK);
    HMAC_INFO info = {CALG_SHA_256, nullptr, 0, nullptr, 0};
    EXPECT_EQ(outcome(CryptSetHashParam(hmac.get(), HP_HMAC_INFO, reinterpret_cast<BYTE*>(&info), 0)), OK);
    EXPECT_EQ(outcome(CryptDuplicateHash(hmac.get(), nullptr, 0, copy.out())), OK);
    for (const DWORD parameter : {PP_NAME, PP_CONTAINER, PP_KEYSET_SEC_DESCR, PP_ENUMCONTAINERS, PP_ENUMALGS_EX}) {
        size = sizeOf(block);
        EXPECT_EQ(outcome(CryptGetProvParam(context.get(), parameter, block.data(), &size, CRYPT_FIRST)), OK);
    }
    size = sizeOf(block);
    EXPECT_EQ(outcome(CryptGetKeyParam(key.get(), KP_CERTIFICATE, block.data(), &size, 0)), OK);
    EXPECT_EQ(outcome(CryptGetKeyParam(key.get(), KP_SALT, block.data(), &size, 0)), code(NTE_BAD_TYPE));
    EXPECT_EQ(outcome(CryptImportKey(context.get(), certificate.data(), sizeOf(certificate), 0, 0, none.out())),
              code(NTE_BAD_TYPE));
    EXPECT_EQ(decrypt(key, CRYPT_OAEP, garbage), code(NTE_PROVIDER_DLL_FAIL));
}

void SoakTest::useKeyStorage() const {
    const KeyStorage storage(nullptr);
    const Bytes digest(32, 0x5A);
    const KspKey rsa = storage.open(rsaKey), ec = storage.open(ecKey);
    const KspKey foreignRsa = storage.import(BCRYPT_RSAPUBLIC_BLOB, storage.exportPublic(rsa, BCRYPT_RSAPUBLIC_BLOB));
    const KspKey foreignEc = storage.import(BCRYPT_ECCPUBLIC_BLOB, storage.exportPublic(ec, BCRYPT_ECCPUBLIC_BLOB));
    for (const auto& [key, foreign, padding] :
         {std::tuple(&rsa, &foreignRsa, BCRYPT_PAD_PKCS1), std::tuple(&rsa, &foreignRsa, BCRYPT_PAD_PSS),
          std::tuple(&ec, &foreignEc, 0)}) {
        Bytes signature = storage.sign(*key, digest, static_cast<DWORD>(padding));
        EXPECT_EQ(storage.verify(*foreign, digest, signature, static_cast<DWORD>(padding)), OK);
        signature.back() ^= 1;
        EXPECT_EQ(storage.verify(*key, digest, signature, static_cast<DWORD>(padding)), code(NTE_BAD_SIGNATURE));
    }
    const Bytes sealed = storage.crypt(table().Encrypt, foreignRsa, digest, NCRYPT_PAD_OAEP_FLAG, "SHA1");
    EXPECT_EQ(storage.crypt(table().Decrypt, rsa, sealed, NCRYPT_PAD_OAEP_FLAG, "SHA1"), digest);
    const KspKey aes = storage.import(TEXT("OpaqueTransport"), sealed, rsa);
    EXPECT_EQ(storage.setProperty(aes, TEXT("IV"), Bytes(16, 1)), OK);
    EXPECT_EQ(storage.crypt(table().Decrypt, aes, storage.crypt(table().Encrypt, aes, digest)), digest);
    const KspKey none = storage.import(TEXT("OpaqueTransport"), digest, rsa, code(NTE_BAD_DATA));
    EXPECT_EQ(storage.property(rsa, NCRYPT_CERTIFICATE_PROPERTY), certificate);
    KspSecret secret;
    EXPECT_EQ(code(table().SecretAgreement(storage.get(), ec.get(), foreignEc.get(), secret.out(), 0)), OK);
    EXPECT_EQ(answer(0, table().DeriveKey, 0, secret.get(), BCRYPT_KDF_HASH, nullptr).size(), 32U);
    KspKey made = storage.create(ECDSA_P256), missing;
    EXPECT_EQ(code(table().DeleteKey(storage.get(), std::exchange(*made.out(), 0), 0)), OK);
    EXPECT_EQ(code(table().OpenKey(storage.get(), missing.out(), TEXT("none"), 0, 0)), code(NTE_NO_KEY));
}

/// A certificate stored anew, a container that comes and goes with two keys, and a token pulled out until its login is
/// gone, which the user then types again.
void SoakTest::useWhatTakesSeconds() const {
    const KeyStorage storage;
    EXPECT_EQ(storage.setProperty(storage.open(rsaKey), NCRYPT_CERTIFICATE_PROPERTY, certificate), OK);
    EXPECT_EQ(softtoken::listTokens().at(0).certificates, 2U) << "with its issuer";
    for (const DWORD flags : {CRYPT_NEWKEYSET, 0}) {
        generateKey(acquire(container, flags | CRYPT_SILENT));
    }
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), OK);
    EXPECT_EQ(softtoken::listTokens().at(0).keyPairs, 2U) << "both keys of the container are gone, and no other";
    const Context silent = acquire(rsaKey, CRYPT_SILENT);
    EXPECT_EQ(outcome(CryptSetKeyParam(userKey(silent).get(), KP_CERTIFICATE, certificate.data(), 0)), OK);
    const Hash hash = hashOf(silent, certificate);
    Bytes signature;
    EXPECT_EQ(sign(hash, signature), OK);
    token.pullOut();
    EXPECT_TRUE(comes([&] { return sign(hash, signature) == code(NTE_SILENT_CONTEXT); }));
    EXPECT_EQ(tryAcquire(rsaKey), NO_TOKEN);
    token.plugIn();
    const PasswordUser user({test::logIn(PIN)});
    EXPECT_EQ(sign(acquire(rsaKey)), OK);
}

TEST_F(SoakTest, FiguresStayFlat) {
    // The software token keeps its last 16 lists, three of which change each time: that is over before the first tenth
    // of a long run, and happens once in a short one.
    constexpr std::uint64_t RARELY = 25;
    const std::uint64_t rounds = setting("ZENTOK_SOAK_ROUNDS", 20);
    const std::uint64_t milliseconds = setting("ZENTOK_SOAK_MINUTES", 0) * 60000;
    const ULONGLONG start = GetTickCount64();
    Reading warm = {}, now = {};
    std::uint64_t tenths = 0;
    for (std::uint64_t round = 0; tenths <= 10 && !HasFailure(); ++round) {
        if (round % RARELY == 0) {
            useWhatTakesSeconds();
        }
        useCryptoApi();
        useKeyStorage();
        const ULONGLONG elapsed = GetTickCount64() - start;
        if (10 * round >= tenths * rounds && 10 * elapsed >= tenths * milliseconds) {
            now = readFigures();
            std::printf("%6llu s, round %llu:", elapsed / 1000, static_cast<unsigned long long>(round));
            for (std::size_t i = 0; i < now.size(); ++i) {
                std::printf("  %s %lld", FIGURES[i].name, static_cast<long long>(now.at(i)));
            }
            std::puts("");
            std::fflush(stdout);
            warm = tenths++ == 1 ? now : warm;
        }
    }
    EXPECT_EQ(growth(warm, now), "");
}

}  // namespace
}  // namespace test
