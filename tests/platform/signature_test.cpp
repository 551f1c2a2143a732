// Documents signed through the platform, with the native openssl as the judge.
#include <algorithm>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

using SignatureTest = PlatformTest;

constexpr struct {
    const char* name;  ///< as openssl calls it
    ALG_ID algorithm;
} HASHES[] = {{"sha256", CALG_SHA_256}, {"sha384", CALG_SHA_384}, {"sha512", CALG_SHA_512}, {"sha1", CALG_SHA1}};

void appendDer(Bytes& der, unsigned char tag, const Bytes& content) {
    der.push_back(tag);
    if (content.size() > 0x7F) {
        der.push_back(0x81);
    }
    der.push_back(static_cast<unsigned char>(content.size()));
    der.insert(der.end(), content.begin(), content.end());
}

/// r and s side by side as the ECDSA-Sig-Value of RFC 3279.
Bytes derOfEcSignature(const Bytes& raw) {
    Bytes numbers;
    const auto half = raw.begin() + static_cast<std::ptrdiff_t>(raw.size() / 2);
    for (const auto& [begin, end] : {std::pair(raw.begin(), half), std::pair(half, raw.end())}) {
        Bytes number(std::find_if(begin, end, [](unsigned char byte) { return byte != 0; }), end);
        if (number.empty() || number.front() > 0x7F) {
            number.insert(number.begin(), 0);
        }
        appendDer(numbers, 0x02, number);
    }
    Bytes der;
    appendDer(der, 0x30, numbers);
    return der;
}

/// Signs the document and has the signature verified, by openssl and by the provider.
void signAndVerify(const Context& context, const std::string& publicKey, bool isEc, std::size_t size, DWORD keySpec,
                   const char* hashName, ALG_ID algorithm) {
    SCOPED_TRACE(std::string(hashName) + ", key spec " + std::to_string(keySpec));
    const Key key = userKey(context, keySpec);
    Bytes signature;
    ASSERT_EQ(sign(hashOf(context, document(), algorithm), signature, keySpec), OK);
    EXPECT_EQ(signature.size(), size);

    const ScratchFolder files;
    const Bytes foreign = isEc ? derOfEcSignature(signature) : Bytes(signature.rbegin(), signature.rend());
    const CommandResult openssl = runOpenssl({"dgst", std::string("-") + hashName, "-verify", publicKey, "-signature",
                                              files.write("signature", foreign), files.write("document", document())});
    EXPECT_EQ(openssl.exitCode, 0) << openssl.output;

    EXPECT_EQ(verify(hashOf(context, document(), algorithm), signature, key), OK);
    Bytes altered = signature;
    altered[altered.size() / 2] ^= 1;
    EXPECT_EQ(verify(hashOf(context, document(), algorithm), altered, key), code(NTE_BAD_SIGNATURE));
    EXPECT_EQ(verify(hashOf(context, {'o'}, algorithm), signature, key), code(NTE_BAD_SIGNATURE));
}

TEST_F(SignatureTest, OpensslAcceptsEveryKeyAndHash) {
    const struct {
        const char* name;
        FipsClass fipsClass;
        KeyType type;  ///< KEY_TYPE_ANY: made by CryptGenKey
        std::size_t size;
    } rows[] = {
        {"RSA-2048 of the platform's making", FipsClass::FIPS_140_2, KEY_TYPE_ANY, 256},
        {"the same on the stricter class", FipsClass::FIPS_140_3, KEY_TYPE_ANY, 256},
        {"RSA-3072", FipsClass::FIPS_140_2, KEY_TYPE_RSA_3072, 384},
        {"RSA-4096", FipsClass::FIPS_140_3, KEY_TYPE_RSA_4096, 512},
        {"EC P-256", FipsClass::FIPS_140_2, KEY_TYPE_EC_P256, 64},
        {"EC P-384", FipsClass::FIPS_140_3, KEY_TYPE_EC_P384, 96},
        {"EC P-521", FipsClass::FIPS_140_2, KEY_TYPE_EC_P521, 132},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Token token(row.fipsClass);
        const PasswordUser user({logIn(PIN)});
        const bool isGenerated = row.type == KEY_TYPE_ANY;
        const std::string name = container + row.name;
        std::string keyText = isGenerated ? "" : token.addKey(row.type);
        const Context context = acquire(isGenerated ? name : keyText);
        if (isGenerated) {
            generateKey(context);
            keyText = filedKeys(name);
        }
        for (const auto& hash : HASHES) {
            if (hash.algorithm == CALG_SHA1 && row.fipsClass == FipsClass::FIPS_140_3) {
                Hash refused;
                EXPECT_EQ(outcome(CryptCreateHash(context.get(), CALG_SHA1, 0, 0, refused.out())), code(NTE_BAD_ALGID));
                continue;
            }
            for (const DWORD keySpec : {AT_SIGNATURE, AT_KEYEXCHANGE}) {
                signAndVerify(context, token.publicKey(keyText), row.type >= KEY_TYPE_EC_P256, row.size, keySpec,
                              hash.name, hash.algorithm);
            }
        }
        forgetKeys(name);
    }
}

TEST_F(SignatureTest, WeakKeysAreRefused) {
    const Token token;
    const PasswordUser user({logIn(PIN)});
    const Context context = acquire(token.addKey(KEY_TYPE_RSA_1024));
    const Hash hash = hashOf(context, document());
    DWORD size = 0;
    EXPECT_EQ(outcome(CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, nullptr, &size)), OK);
    EXPECT_EQ(size, 256U);
    Bytes signature;
    EXPECT_EQ(sign(hash, signature), code(NTE_BAD_KEY));
    Key key;
    EXPECT_EQ(outcome(CryptGenKey(context.get(), AT_SIGNATURE, 1024U << 16U, key.out())), code(NTE_BAD_LEN));
}

}  // namespace
}  // namespace test
