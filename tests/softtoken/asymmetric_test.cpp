// Signatures, RSA encryption and ECDH, each against openssl.
#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {
namespace {

constexpr char PSS[] = " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest";

int verify(int type, const Bytes& key, const Bytes& digest, const Bytes& signature, bool pss) {
    return zentok_verifySignatureHash(static_cast<std::uint32_t>(type), SERIAL, digest.data(), lengthOf(digest),
                                      key.data(), lengthOf(key), signature.data(), lengthOf(signature), nullptr, pss);
}

Answer encrypt(PaddingMode padding, const Bytes& data, const Bytes& key) {
    Answer answer{-1, Bytes(256)};
    int length = 0;
    answer.code = zentok_encrypt(ENCRYPTION_RSA_2048, padding, data.data(), lengthOf(data), answer.bytes.data(),
                                 &length, key.data(), lengthOf(key), nullptr);
    return answer;
}

class AsymmetricTest : public SoftTokenTest {
protected:
    /// Puts a signature into @signature: an EC one, r || s, as the SEQUENCE that openssl takes.
    void writeSignature(const Bytes& signature, bool isEc) const {
        if (!isEc) {
            scratch.write("signature", signature);
            return;
        }
        const std::string both = hexText(signature);
        const std::string sequence = "asn1=SEQUENCE:both\n[both]\nr=INTEGER:0x" + both.substr(0, both.size() / 2) +
                                     "\ns=INTEGER:0x" + both.substr(both.size() / 2) + "\n";
        scratch.write("sequence", {sequence.begin(), sequence.end()});
        openssl("asn1parse -genconf @sequence -noout -out @signature");
    }

    /// Puts a key that openssl makes into @key. Its SubjectPublicKeyInfo comes back.
    Bytes foreignKey(const std::string& options) const {
        openssl("genpkey -out @key -algorithm " + options);
        openssl("pkey -in @key -pubout -outform DER -out @key.der");
        return scratch.read("key.der");
    }
};

TEST_F(AsymmetricTest, OpensslAcceptsEverySignature) {
    const std::pair<std::size_t, std::string> digests[] = {{16, "md5"},    {20, "sha1"},   {28, "sha224"},
                                                           {32, "sha256"}, {48, "sha384"}, {64, "sha512"}};
    for (int type = KEY_TYPE_RSA_1024; type <= KEY_TYPE_EC_P521; ++type) {
        const bool isEc = type >= KEY_TYPE_EC_P256;
        const ZentokKeyPair pair = newKey(static_cast<KeyType>(type));
        const Bytes der = publish(pair);
        for (const auto& [size, name] : digests) {
            for (const bool pss : {false, true}) {
                // A digest and a salt of 64 bytes each do not fit into 1024 bits of PSS; EC has no padding.
                if (pss && (isEc || (type == KEY_TYPE_RSA_1024 && size == 64))) {
                    continue;
                }
                SCOPED_TRACE(name + (pss ? " PSS" : "") + " key type " + std::to_string(type));
                const Bytes key = isEc ? publicKeyOf(pair) : der;
                const Bytes data = counted(size);
                Bytes signature = sign(pair, data, pss).bytes;
                scratch.write("digest", data);
                writeSignature(signature, isEc);
                openssl("pkeyutl -verify -pubin -inkey @token.pem -sigfile @signature -in @digest -pkeyopt digest:" +
                        name + (pss ? PSS : ""));
                EXPECT_EQ(verify(type, key, data, signature, pss), 0);
                signature.at(signature.size() - 1) ^= 1;
                EXPECT_NE(verify(type, key, data, signature, pss), 0);
            }
        }
    }
}

TEST_F(AsymmetricTest, VerifiesWhatOpensslSigned) {
    // Callers encode an exponent in a fixed width of three bytes, 3 as 00 00 03, which strict readers of DER refuse.
    // The layout of such a key is the one of the token's own.
    Bytes wide = publish(newKey(KEY_TYPE_RSA_2048));
    const Bytes key = foreignKey("RSA -pkeyopt rsa_keygen_pubexp:3");
    ASSERT_EQ(wide.size(), key.size() + 2);
    std::copy(key.end() - 3 - 256, key.end() - 3, wide.end() - 5 - 256);
    std::copy_n("\0\0\3", 3, wide.end() - 3);
    scratch.write("digest", counted(32));
    openssl("pkeyutl -sign -inkey @key -in @digest -out @signature -pkeyopt digest:sha256");
    EXPECT_EQ(verify(KEY_TYPE_RSA_2048, key, counted(32), scratch.read("signature"), false), 0);
    EXPECT_EQ(verify(KEY_TYPE_RSA_2048, wide, counted(32), scratch.read("signature"), false), 0);
}

TEST_F(AsymmetricTest, RsaEncryptionAgreesWithOpensslBothWays) {
    const Bytes key = foreignKey("RSA");
    const ZentokKeyPair pair = newKey(KEY_TYPE_RSA_2048);
    publish(pair);
    const Bytes secret = counted(48);
    scratch.write("secret", secret);
    const std::pair<PaddingMode, std::string> paddings[] = {{PADDING_PKCS1, "pkcs1"},
                                                            {PADDING_OAEP, "oaep -pkeyopt rsa_oaep_md:sha1"},
                                                            {PADDING_OAEP_SHA1, "oaep -pkeyopt rsa_oaep_md:sha1"},
                                                            {PADDING_OAEP_SHA256, "oaep -pkeyopt rsa_oaep_md:sha256"},
                                                            {PADDING_OAEP_SHA384, "oaep -pkeyopt rsa_oaep_md:sha384"},
                                                            {PADDING_OAEP_SHA512, "oaep -pkeyopt rsa_oaep_md:sha512"}};
    for (const auto& [mode, padding] : paddings) {
        SCOPED_TRACE(padding);
        const std::string options = " -pkeyopt rsa_padding_mode:" + padding;
        scratch.write("cipher", encrypt(mode, secret, key).bytes);
        openssl("pkeyutl -decrypt -inkey @key -in @cipher -out @plain" + options);
        EXPECT_EQ(scratch.read("plain"), secret);
        openssl("pkeyutl -encrypt -pubin -inkey @token.pem -in @secret -out @cipher" + options);
        EXPECT_EQ(decrypt(pair, scratch.read("cipher")).bytes, secret);
    }
    EXPECT_NE(encrypt(PADDING_PKCS1, Bytes(246), key).code, 0) << "too long for the padding";
    EXPECT_EQ(decrypt(pair, counted(256)).code, softtoken::RESULT_BAD_DATA) << "no padding fits";
}

TEST_F(AsymmetricTest, StricterClassRefusesWeakHashesAndPkcs1Decryption) {
    softtoken::removeToken(SERIAL);
    createToken(FipsClass::FIPS_140_3);
    const ZentokKeyPair pair = newKey(KEY_TYPE_RSA_2048);
    for (const std::size_t size : {16U, 20U, 36U, 28U}) {
        EXPECT_EQ(sign(pair, counted(size)).code, size == 28 ? 0 : TOKEN_WEAK_HASH);
    }
    const Bytes key = publish(pair);
    for (const PaddingMode padding : {PADDING_PKCS1, PADDING_OAEP_SHA384}) {
        EXPECT_EQ(decrypt(pair, encrypt(padding, counted(16), key).bytes).code == 0, padding != PADDING_PKCS1);
    }
}

TEST_F(AsymmetricTest, EcdhAgreesWithOpenssl) {
    for (const auto& [type, curve] :
         {std::pair{KEY_TYPE_EC_P256, "256"}, {KEY_TYPE_EC_P384, "384"}, {KEY_TYPE_EC_P521, "521"}}) {
        const ZentokKeyPair pair = newKey(type);
        publish(pair);
        const Bytes der = foreignKey(std::string("EC -pkeyopt ec_paramgen_curve:P-") + curve);
        const Bytes point(der.end() - pair.publicKeyLength, der.end());
        openssl("pkeyutl -derive -inkey @key -peerkey @token.pem -out @secret");
        EXPECT_EQ(derive(pair, point).bytes, scratch.read("secret")) << curve;
        for (const Bytes& bad : {Bytes(point.size(), 4), Bytes(point.begin(), point.end() - 1), Bytes(1)}) {
            EXPECT_EQ(derive(pair, bad).code, softtoken::RESULT_BAD_KEY) << hexText(bad);
        }
    }
}

}  // namespace
}  // namespace test
