// The key storage provider under the call sequences of real clients.
#include "tests/platform/authority.h"
#include "tests/platform/ksp_test.h"

#include <optional>

namespace test {
namespace {

using KspClientsTest = PlatformTest;

constexpr std::tuple<Kind, DWORD, const char*> SIGNERS[] = {
    {RSA_2048, BCRYPT_PAD_PKCS1, "SHA256"}, {RSA_2048, BCRYPT_PAD_PSS, "SHA256"}, {ECDSA_P384, 0, "SHA384"}};

TEST_F(KspClientsTest, ABrowsersKeyAndAManagedRuntimes) {
    for (const auto& [kind, padding, hash] : SIGNERS) {
        SCOPED_TRACE(kind.option());
        const Token token;
        const KeyStorage storage(nullptr);
        const std::string keyText = token.addKey(kind.tokenType);
        const KspKey key = storage.open(keyText);
        // What the browser may expect of the key, it decides by the provider's name.
        EXPECT_EQ(storage.property(key, TEXT("Provider Handle")), bytesOf(storage.get()));
        EXPECT_EQ(answer(0, table().GetProviderProperty, storage.get(), NCRYPT_NAME_PROPERTY), wideBytes(PROVIDER));
        DWORD size = 0;
        EXPECT_EQ(code(table().GetKeyProperty(storage.get(), key.get(), TEXT("A property of its own"), nullptr, 0,
                                              &size, NCRYPT_SILENT_FLAG)),
                  code(NTE_NOT_SUPPORTED));
        EXPECT_EQ(storage.property(key, NCRYPT_ALGORITHM_GROUP_PROPERTY), wideBytes(kind.group));
        EXPECT_EQ(storage.property(key, NCRYPT_LENGTH_PROPERTY), bytesOf(kind.bits));
        EXPECT_EQ(storage.property(key, NCRYPT_KEY_USAGE_PROPERTY), bytesOf(DWORD{3}));
        Bytes digest = digestOf(hash, document());
        // The runtime knows the size, and wants nobody to be asked for a PIN.
        Bytes signature(kind.signatureSize());
        const auto signSilently = [&, flags = padding | NCRYPT_SILENT_FLAG] {
            return code(table().SignHash(storage.get(), key.get(), nullptr, digest.data(), sizeOf(digest),
                                         signature.data(), sizeOf(signature), &size, flags));
        };
        EXPECT_EQ(signSilently(), code(NTE_SILENT_CONTEXT));
        EXPECT_EQ(storage.logIn(WRONG_PIN), code(NTE_VALIDATION_FAILED));
        EXPECT_EQ(storage.logIn(PIN), OK);
        EXPECT_EQ(signSilently(), OK);
        expectAccepted(token.publicKey(keyText), !kind.isRsa(), hash, signature, padding == BCRYPT_PAD_PSS);
        const KspKey imported = storage.import(kind.blobType(), storage.exportPublic(key, kind.blobType()));
        EXPECT_EQ(storage.verify(imported, digest, signature, padding), OK);
    }
}

TEST_F(KspClientsTest, AnEnrolment) {
    const Authority authority;
    for (const Kind& kind : {RSA_2048, ECDSA_P521}) {
        SCOPED_TRACE(kind.option());
        const Token token;
        Bytes certificate;
        {
            const KeyStorage storage;
            const KspKey key = storage.create(kind);
            certificate = authority.issue(spkiOf(storage.publicKey(token, key)), kind.isRsa(), [&](const Bytes& info) {
                return storage.sign(key, digestOf("SHA256", info), BCRYPT_PAD_PKCS1);
            });
            ASSERT_FALSE(certificate.empty());
            EXPECT_EQ(storage.setProperty(key, NCRYPT_CERTIFICATE_PROPERTY, certificate), OK);
        }
        EXPECT_EQ(softtoken::listTokens().at(0).certificates, 3U) << "root, intermediate and leaf";

        const KeyStorage storage(nullptr);
        NCryptKeyName* name = nullptr;
        PVOID state = nullptr;
        const auto nextKey = [&] { return code(table().EnumKeys(storage.get(), nullptr, &name, &state, 0)); };
        ASSERT_EQ(nextKey(), OK);
        EXPECT_EQ(name->pszAlgid, wide(kind.algorithm));
        KspKey key;
        ASSERT_EQ(code(table().OpenKey(storage.get(), key.out(), name->pszName, name->dwLegacyKeySpec, 0)), OK);
        EXPECT_EQ(storage.property(key, NCRYPT_CERTIFICATE_PROPERTY), certificate);
        EXPECT_EQ(nextKey(), code(NTE_NO_MORE_ITEMS));
        table().FreeBuffer(name);
        table().FreeBuffer(state);
    }
}

TEST_F(KspClientsTest, ASigningToolOnTheSecondToken) {
    const Token first;
    const Token second;
    const std::string keyText = second.addKey();
    const Bytes digest = digestOf("SHA256", document());
    for (const DWORD keySpec : {DWORD{0}, DWORD{AT_KEYEXCHANGE}, DWORD{AT_SIGNATURE}}) {
        for (const bool keyEndsFirst : {true, false}) {
            std::optional<KeyStorage> storage(std::in_place, nullptr);
            std::optional<KspKey> key(storage->open(keyText, keySpec));
            ASSERT_EQ(storage->logIn(PIN), OK);  // at the token that holds the key
            expectAccepted(second.publicKey(keyText), false, "SHA256", storage->sign(*key, digest, BCRYPT_PAD_PKCS1));
            if (keyEndsFirst) {
                key.reset();
            }
            storage.reset();
        }
    }
}

}  // namespace
}  // namespace test
