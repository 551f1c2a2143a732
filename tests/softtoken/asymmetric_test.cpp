// Signatures, RSA encryption and ECDH, each against openssl.
#include <map>
#include <memory>

#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {

namespace {

constexpr KeyType ALL_TYPES[] = {KEY_TYPE_RSA_1024, KEY_TYPE_RSA_2048, KEY_TYPE_RSA_3072, KEY_TYPE_RSA_4096,
                                 KEY_TYPE_EC_P256,  KEY_TYPE_EC_P384,  KEY_TYPE_EC_P521};

struct DigestCase {
    std::size_t length;
    const char* name;  ///< openssl's
};
constexpr DigestCase DIGESTS[] = {{16, "md5"},    {20, "sha1"},   {28, "sha224"},
                                  {32, "sha256"}, {48, "sha384"}, {64, "sha512"}};

bool isRsa(int keyType) {
    return keyType <= KEY_TYPE_RSA_4096;
}

/// One token with a key of every type for all tests of this file: large keys take seconds to make.
class AsymmetricTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        home = std::make_unique<TokenHome>();
        createToken();
        for (const KeyType type : ALL_TYPES) {
            pairs[type] = softtoken::generateKeyPair(SERIAL, PIN, type, KEY_USAGE_BOTH, "");
        }
    }
    static void TearDownTestSuite() {
        pairs.clear();
        home.reset();
    }

    /// A key's public half as openssl reads it.
    static std::string pem(const ZentokKeyPair& pair) {
        return nativePath(softtoken::publicKeyFile(SERIAL, pair.credentialId));
    }

    /// r || s as the SEQUENCE that openssl takes.
    [[nodiscard]] std::string derSignature(const Bytes& both) const {
        const std::string text = hex(both);
        const std::string config = scratch.write(
            "signature.cnf", bytes("asn1=SEQUENCE:both\n[both]\nr=INTEGER:0x" + text.substr(0, text.size() / 2) +
                                   "\ns=INTEGER:0x" + text.substr(text.size() / 2) + "\n"));
        openssl({"asn1parse", "-genconf", config, "-noout", "-out", scratch.nativeFile("signature.der")});
        return scratch.nativeFile("signature.der");
    }

    void expectOpensslVerifies(const ZentokKeyPair& pair, const DigestCase& digest, const Bytes& signature,
                               bool pss) const {
        const std::string file = isRsa(pair.keyType) ? scratch.write("signature", signature) : derSignature(signature);
        std::vector<std::string> arguments = {"pkeyutl",
                                              "-verify",
                                              "-pubin",
                                              "-inkey",
                                              pem(pair),
                                              "-sigfile",
                                              file,
                                              "-in",
                                              scratch.write("digest", counted(digest.length)),
                                              "-pkeyopt",
                                              std::string("digest:") + digest.name};
        if (pss) {
            arguments.insert(arguments.end(),
                             {"-pkeyopt", "rsa_padding_mode:pss", "-pkeyopt", "rsa_pss_saltlen:digest"});
        }
        openssl(arguments);
    }

    static inline std::unique_ptr<TokenHome> home;
    static inline std::map<KeyType, ZentokKeyPair> pairs;
    ScratchFolder scratch;
};

/// Does openssl know this public key, in the form of the record, as the one in the token's PEM file?
TEST_F(AsymmetricTest, PublicKeyFileAndRecordAgree) {
    for (const auto& [type, pair] : pairs) {
        const Bytes der = publicDer(scratch, pem(pair), false);
        const Bytes raw = publicKeyOf(pair);
        ASSERT_GT(der.size(), raw.size());
        const std::string text = openssl({"pkey", "-pubin", "-in", pem(pair), "-noout", "-text_pub"});
        EXPECT_NE(hex(der).find(hex(raw)), std::string::npos) << "key type " << type << "\n" << text;
        EXPECT_EQ(text.find("65537") != std::string::npos, isRsa(type));
    }
}

TEST_F(AsymmetricTest, OpensslAcceptsEverySignature) {
    for (const auto& [type, pair] : pairs) {
        for (const bool pss : {false, true}) {
            for (const DigestCase& digest : DIGESTS) {
                // A digest and a salt of 64 bytes each do not fit into 1024 bits of PSS; EC has no padding.
                if (pss && (!isRsa(type) || (type == KEY_TYPE_RSA_1024 && digest.length == 64))) {
                    continue;
                }
                const Bytes data = counted(digest.length);
                SCOPED_TRACE(std::string(digest.name) + (pss ? " PSS" : "") + " key type " + std::to_string(type));
                const Answer signature = sign(pair, data, pss);
                ASSERT_EQ(signature.code, 0);
                expectOpensslVerifies(pair, digest, signature.bytes, pss);

                const Bytes key = isRsa(type) ? publicDer(scratch, pem(pair), false) : publicKeyOf(pair);
                EXPECT_EQ(verify(type, key, data, signature.bytes, pss), 0);
                Bytes altered = signature.bytes;
                altered.back() ^= 1;
                EXPECT_NE(verify(type, key, data, altered, pss), 0);
                EXPECT_NE(verify(type, key, counted(digest.length, 1), signature.bytes, pss), 0);
            }
        }
    }
}

// The pair of digests that TLS 1.0 signs has no DigestInfo: openssl recovers the bare 36 bytes.
TEST_F(AsymmetricTest, ConcatenatedDigestsAreSignedBare) {
    const ZentokKeyPair& pair = pairs[KEY_TYPE_RSA_2048];
    const Answer signature = sign(pair, counted(36));
    ASSERT_EQ(signature.code, 0);
    openssl({"pkeyutl", "-verifyrecover", "-pubin", "-inkey", pem(pair), "-in",
             scratch.write("signature", signature.bytes), "-out", scratch.nativeFile("recovered"), "-pkeyopt",
             "rsa_padding_mode:pkcs1"});
    EXPECT_EQ(scratch.read("recovered"), counted(36));
    EXPECT_NE(sign(pair, counted(36), true).code, 0) << "PSS names one hash";
    EXPECT_NE(sign(pairs[KEY_TYPE_EC_P256], counted(36)).code, 0) << "ECDSA needs one digest";
}

TEST_F(AsymmetricTest, VerifiesWhatOpensslSigned) {
    struct {
        KeyType type;
        std::vector<std::string> generation;
        bool pss;
    } const cases[] = {
        {KEY_TYPE_RSA_2048, {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"}, false},
        {KEY_TYPE_RSA_2048, {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"}, true},
        {KEY_TYPE_RSA_2048,
         {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-pkeyopt", "rsa_keygen_pubexp:3"},
         false},
    };
    for (const auto& item : cases) {
        std::vector<std::string> generation = {"genpkey", "-out", scratch.nativeFile("key.pem")};
        generation.insert(generation.end(), item.generation.begin(), item.generation.end());
        openssl(generation);
        std::vector<std::string> signing = {"pkeyutl",  "-sign",
                                            "-inkey",   scratch.nativeFile("key.pem"),
                                            "-in",      scratch.write("digest", counted(32)),
                                            "-out",     scratch.nativeFile("signature"),
                                            "-pkeyopt", "digest:sha256"};
        if (item.pss) {
            signing.insert(signing.end(), {"-pkeyopt", "rsa_padding_mode:pss", "-pkeyopt", "rsa_pss_saltlen:digest"});
        }
        openssl(signing);
        const Bytes key = publicDer(scratch, scratch.nativeFile("key.pem"), true);
        EXPECT_EQ(verify(item.type, key, counted(32), scratch.read("signature"), item.pss), 0);
        EXPECT_NE(verify(item.type, key, counted(32), scratch.read("signature"), !item.pss), 0);
    }
}

// Callers encode an exponent in a fixed width of three bytes, 3 as 00 00 03, which strict readers of DER refuse.
TEST_F(AsymmetricTest, ExponentWithLeadingZerosIsRead) {
    openssl({"genpkey", "-out", scratch.nativeFile("key.pem"), "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048",
             "-pkeyopt", "rsa_keygen_pubexp:3"});
    const Bytes minimal = publicDer(scratch, scratch.nativeFile("key.pem"), true);
    // The layout of a 2048-bit key with a three-byte exponent is the one of the token's own key.
    Bytes wide = publicDer(scratch, pem(pairs[KEY_TYPE_RSA_2048]), false);
    ASSERT_EQ(wide.size(), 294U);
    ASSERT_EQ(minimal.size(), 292U);
    std::copy(minimal.end() - 3 - 256, minimal.end() - 3, wide.end() - 5 - 256);
    wide[291] = 0;
    wide[292] = 0;
    wide[293] = 3;

    const Bytes secret = bytes("fixed width");
    Bytes cipher(256);
    int length = 0;
    ASSERT_EQ(zentok_encrypt(ENCRYPTION_RSA_2048, PADDING_OAEP_SHA256, secret.data(), lengthOf(secret), cipher.data(),
                             &length, wide.data(), lengthOf(wide), nullptr),
              0);
    openssl({"pkeyutl", "-decrypt", "-inkey", scratch.nativeFile("key.pem"), "-in", scratch.write("cipher", cipher),
             "-out", scratch.nativeFile("plain"), "-pkeyopt", "rsa_padding_mode:oaep", "-pkeyopt",
             "rsa_oaep_md:sha256"});
    EXPECT_EQ(scratch.read("plain"), secret);
}

struct PaddingCase {
    PaddingMode mode;
    std::vector<std::string> options;  ///< openssl's
};

const std::vector<PaddingCase>& paddings() {
    static const std::vector<PaddingCase> all = {
        {PADDING_PKCS1, {"-pkeyopt", "rsa_padding_mode:pkcs1"}},
        {PADDING_OAEP, {"-pkeyopt", "rsa_padding_mode:oaep", "-pkeyopt", "rsa_oaep_md:sha1"}},
        {PADDING_OAEP_SHA1, {"-pkeyopt", "rsa_padding_mode:oaep", "-pkeyopt", "rsa_oaep_md:sha1"}},
        {PADDING_OAEP_SHA256, {"-pkeyopt", "rsa_padding_mode:oaep", "-pkeyopt", "rsa_oaep_md:sha256"}},
        {PADDING_OAEP_SHA384, {"-pkeyopt", "rsa_padding_mode:oaep", "-pkeyopt", "rsa_oaep_md:sha384"}},
        {PADDING_OAEP_SHA512, {"-pkeyopt", "rsa_padding_mode:oaep", "-pkeyopt", "rsa_oaep_md:sha512"}},
    };
    return all;
}

TEST_F(AsymmetricTest, EncryptsForOpenssl) {
    openssl(
        {"genpkey", "-out", scratch.nativeFile("key.pem"), "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"});
    const Bytes key = publicDer(scratch, scratch.nativeFile("key.pem"), true);
    const Bytes secret = counted(48);
    for (const PaddingCase& padding : paddings()) {
        Bytes cipher(256);
        int length = 0;
        ASSERT_EQ(zentok_encrypt(ENCRYPTION_RSA_4096, padding.mode, secret.data(), lengthOf(secret), cipher.data(),
                                 &length, key.data(), lengthOf(key), nullptr),
                  0);
        EXPECT_EQ(length, 256) << "the modulus decides, not the type argument";
        std::vector<std::string> arguments = {"pkeyutl", "-decrypt",
                                              "-inkey",  scratch.nativeFile("key.pem"),
                                              "-in",     scratch.write("cipher", cipher),
                                              "-out",    scratch.nativeFile("plain")};
        arguments.insert(arguments.end(), padding.options.begin(), padding.options.end());
        openssl(arguments);
        EXPECT_EQ(scratch.read("plain"), secret) << "padding " << padding.mode;
    }
    const Bytes tooLong(246);
    Bytes cipher(256);
    int length = 0;
    EXPECT_NE(zentok_encrypt(ENCRYPTION_RSA_2048, PADDING_PKCS1, tooLong.data(), lengthOf(tooLong), cipher.data(),
                             &length, key.data(), lengthOf(key), nullptr),
              0);
    EXPECT_NE(zentok_encrypt(ENCRYPTION_RSA_2048, static_cast<PaddingMode>(9), secret.data(), 1, cipher.data(), &length,
                             key.data(), lengthOf(key), nullptr),
              0);
    EXPECT_NE(zentok_encrypt(ENCRYPTION_RSA_2048, PADDING_PKCS1, secret.data(), 1, cipher.data(), &length, key.data(),
                             lengthOf(key) - 1, nullptr),
              0);
}

TEST_F(AsymmetricTest, DecryptsWhatOpensslEncrypted) {
    for (const KeyType type : {KEY_TYPE_RSA_1024, KEY_TYPE_RSA_2048, KEY_TYPE_RSA_4096}) {
        for (const PaddingCase& padding : paddings()) {
            if (type == KEY_TYPE_RSA_1024 && padding.mode == PADDING_OAEP_SHA512) {
                continue;  // two SHA-512 digests fill 1024 bits
            }
            std::vector<std::string> arguments = {"pkeyutl",
                                                  "-encrypt",
                                                  "-pubin",
                                                  "-inkey",
                                                  pem(pairs[type]),
                                                  "-in",
                                                  scratch.write("plain", counted(16)),
                                                  "-out",
                                                  scratch.nativeFile("cipher")};
            arguments.insert(arguments.end(), padding.options.begin(), padding.options.end());
            openssl(arguments);
            const Answer plain = decrypt(pairs[type], scratch.read("cipher"));
            EXPECT_EQ(plain.code, 0) << "padding " << padding.mode << " key type " << type;
            EXPECT_EQ(plain.bytes, counted(16));
        }
    }
    EXPECT_NE(decrypt(pairs[KEY_TYPE_RSA_2048], counted(256)).code, 0) << "no padding fits";
    EXPECT_NE(decrypt(pairs[KEY_TYPE_RSA_2048], counted(255)).code, 0);
    EXPECT_NE(decrypt(pairs[KEY_TYPE_EC_P256], counted(32)).code, 0);
}

TEST_F(AsymmetricTest, StricterClassRefusesWeakHashesAndPkcs1Decryption) {
    const TokenHome strictHome;
    createToken(FipsClass::FIPS_140_3);
    const ZentokKeyPair pair = softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_RSA_2048, KEY_USAGE_BOTH, "");
    struct {
        std::size_t length;
        int code;
    } const cases[] = {{16, TOKEN_WEAK_HASH},
                       {20, TOKEN_WEAK_HASH},
                       {36, TOKEN_WEAK_HASH},
                       {28, 0},
                       {32, 0},
                       {48, 0},
                       {64, 0},
                       {33, softtoken::RESULT_BAD_LENGTH}};
    for (const auto& item : cases) {
        EXPECT_EQ(sign(pair, counted(item.length)).code, item.code) << item.length << " bytes";
    }
    const Bytes key = publicDer(scratch, nativePath(softtoken::publicKeyFile(SERIAL, pair.credentialId)), false);
    for (const PaddingMode padding : {PADDING_PKCS1, PADDING_OAEP_SHA384}) {
        Bytes cipher(256);
        int length = 0;
        ASSERT_EQ(zentok_encrypt(ENCRYPTION_RSA_2048, padding, cipher.data(), 16, cipher.data(), &length, key.data(),
                                 lengthOf(key), nullptr),
                  0);
        EXPECT_EQ(decrypt(pair, cipher).code == 0, padding != PADDING_PKCS1);
    }
}

TEST_F(AsymmetricTest, EcdhAgreesWithOpenssl) {
    struct {
        KeyType type;
        const char* curve;
        std::size_t field;
    } const cases[] = {
        {KEY_TYPE_EC_P256, "P-256", 32}, {KEY_TYPE_EC_P384, "P-384", 48}, {KEY_TYPE_EC_P521, "P-521", 66}};
    for (const auto& item : cases) {
        openssl({"genpkey", "-out", scratch.nativeFile("key.pem"), "-algorithm", "EC", "-pkeyopt",
                 std::string("ec_paramgen_curve:") + item.curve});
        openssl({"pkeyutl", "-derive", "-inkey", scratch.nativeFile("key.pem"), "-peerkey", pem(pairs[item.type]),
                 "-out", scratch.nativeFile("secret")});
        const Bytes der = publicDer(scratch, scratch.nativeFile("key.pem"), true);
        const Bytes point(der.end() - static_cast<std::ptrdiff_t>(1 + 2 * item.field), der.end());
        const Answer secret = derive(pairs[item.type], point);
        EXPECT_EQ(secret.code, 0);
        EXPECT_EQ(secret.bytes, scratch.read("secret"));

        Bytes offCurve = point;
        offCurve.at(offCurve.size() - 1) ^= 1;
        Bytes compressed(point.begin(), point.begin() + static_cast<std::ptrdiff_t>(1 + item.field));
        compressed.at(0) = static_cast<unsigned char>(2 + (point.back() & 1));
        Bytes hybrid = point;
        hybrid.at(0) = static_cast<unsigned char>(6 + (point.back() & 1));
        const Bytes cut(point.begin(), point.end() - 1);
        const Bytes infinity(1, 0);
        Bytes zeros(point.size(), 0);
        zeros.at(0) = 4;
        Bytes huge(point.size(), 0xFF);
        huge.at(0) = 4;
        for (const Bytes& bad : {offCurve, compressed, hybrid, cut, infinity, zeros, huge}) {
            EXPECT_EQ(derive(pairs[item.type], bad).code, softtoken::RESULT_BAD_KEY) << hex(bad);
            EXPECT_NE(verify(item.type, bad, counted(32), Bytes(2 * item.field, 1)), 0);
        }
        EXPECT_NE(derive(pairs[item.type == KEY_TYPE_EC_P256 ? KEY_TYPE_EC_P384 : KEY_TYPE_EC_P256], point).code, 0)
            << "a point of another curve";
    }
    EXPECT_EQ(derive(pairs[KEY_TYPE_RSA_2048], counted(65, 4)).code, softtoken::RESULT_WRONG_KEY_TYPE);
}

TEST_F(AsymmetricTest, SignatureNeedsItsRoom) {
    for (const auto& [type, size] : {std::pair{KEY_TYPE_RSA_2048, 256}, std::pair{KEY_TYPE_EC_P521, 132}}) {
        Bytes room(512, 0xEE);
        int length = size - 1;
        EXPECT_EQ(zentok_signHash(SERIAL, pairs[type].credentialId, PIN, room.data(), 32, room.data(), &length, false,
                                  nullptr, false),
                  softtoken::RESULT_BUFFER_TOO_SMALL);
        EXPECT_EQ(room, Bytes(512, 0xEE));
        EXPECT_EQ(length, size - 1);
        length = size;
        EXPECT_EQ(zentok_signHash(SERIAL, pairs[type].credentialId, PIN, room.data(), 32, room.data(), &length, false,
                                  nullptr, false),
                  0);
        EXPECT_EQ(length, size);
        EXPECT_EQ(room[static_cast<std::size_t>(size)], 0xEE);
    }
}

}  // namespace

}  // namespace test
