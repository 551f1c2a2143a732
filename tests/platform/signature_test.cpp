// Documents signed through the platform, with the native openssl as the judge.
#include "tests/platform/platform_test.h"
#include "tests/support/der.h"

namespace test {
namespace {

using SignatureTest = PlatformTest;

constexpr std::pair<const char*, ALG_ID> HASHES[] = {
    {"-sha256", CALG_SHA_256}, {"-sha384", CALG_SHA_384}, {"-sha512", CALG_SHA_512}, {"-sha1", CALG_SHA1}};

TEST_F(SignatureTest, OpensslAcceptsEveryKeyAndHash) {
    const struct {
        const char* name;
        FipsClass fipsClass;
        KeyType type;  ///< KEY_TYPE_ANY: made by CryptGenKey
        std::size_t size;
    } rows[] = {
        {"RSA-2048 of the platform's making", FipsClass::FIPS_140_2, KEY_TYPE_ANY, 256},
        {"RSA-3072", FipsClass::FIPS_140_3, KEY_TYPE_RSA_3072, 384},
        {"RSA-4096", FipsClass::FIPS_140_3, KEY_TYPE_RSA_4096, 512},
        {"EC P-256", FipsClass::FIPS_140_2, KEY_TYPE_EC_P256, 64},
        {"EC P-384", FipsClass::FIPS_140_3, KEY_TYPE_EC_P384, 96},
        {"EC P-521", FipsClass::FIPS_140_2, KEY_TYPE_EC_P521, 132},
    };
    for (const auto& row : rows) {
        const Token token(row.fipsClass);
        const PasswordUser user({logIn(PIN)});
        std::string keyText = row.type == KEY_TYPE_ANY ? "" : token.addKey(row.type);
        const Context context = acquire(row.type == KEY_TYPE_ANY ? container : keyText);
        if (row.type == KEY_TYPE_ANY) {
            generateKey(context);
            keyText = filedKeys(container);
        }
        for (const auto& [hashName, algorithm] : HASHES) {
            SCOPED_TRACE(std::string(row.name) + " " + hashName);
            if (algorithm == CALG_SHA1 && row.fipsClass == FipsClass::FIPS_140_3) {
                Hash refused;
                EXPECT_EQ(outcome(CryptCreateHash(context.get(), CALG_SHA1, 0, 0, refused.out())), code(NTE_BAD_ALGID));
                continue;
            }
            const DWORD keySpec = algorithm == CALG_SHA_384 ? AT_KEYEXCHANGE : AT_SIGNATURE;
            const Key key = userKey(context, keySpec);
            Bytes signature;
            ASSERT_EQ(sign(hashOf(context, document(), algorithm), signature, keySpec), OK);
            EXPECT_EQ(signature.size(), row.size);
            const ScratchFolder files;
            const Bytes foreign = row.type >= KEY_TYPE_EC_P256 ? derOfEcSignature(signature)
                                                               : Bytes(signature.rbegin(), signature.rend());
            const CommandResult openssl =
                runOpenssl({"dgst", hashName, "-verify", token.publicKey(keyText), "-signature",
                            files.write("signature", foreign), files.write("document", document())});
            EXPECT_EQ(openssl.exitCode, 0) << openssl.output;
            EXPECT_EQ(verify(hashOf(context, document(), algorithm), signature, key), OK);
            signature[signature.size() / 2] ^= 1;
            EXPECT_EQ(verify(hashOf(context, document(), algorithm), signature, key), code(NTE_BAD_SIGNATURE));
        }
    }
}

}  // namespace
}  // namespace test
