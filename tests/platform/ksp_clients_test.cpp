// The key storage provider under the call sequences of real clients.
#include "tests/platform/authority.h"
#include "tests/platform/ksp_test.h"

namespace test {
namespace {

using KspClientsTest = PlatformTest;

constexpr struct {
    Kind kind;
    DWORD padding;
    const char* hash;
} SIGNERS[] = {
    {RSA_2048, BCRYPT_PAD_PKCS1, "SHA256"},
    {RSA_2048, BCRYPT_PAD_PSS, "SHA256"},
    {ECDSA_P256, 0, "SHA256"},
    {ECDSA_P384, 0, "SHA384"},
};

TEST_F(KspClientsTest, ABrowserAuthenticatesItsUser) {
    for (const auto& row : SIGNERS) {
        SCOPED_TRACE(row.kind.option);
        const Token token;
        const KeyStorage storage;
        const KspKey key = storage.open(token.addKey(row.kind.tokenType));
        // What it may expect of the key, it decides by the provider's name.
        EXPECT_EQ(storage.property(key, TEXT("Provider Handle")), bytesOf(storage.get()));
        for (int reading = 0; reading < 2; ++reading) {
            EXPECT_EQ(answer(0, table().GetProviderProperty, storage.get(), NCRYPT_NAME_PROPERTY),
                      wideBytes("Zentok Cryptographic Provider CSP"));
        }
        expectAccepted(row.kind, storage.exportPublic(key, row.kind.blobType()), row.hash, row.padding,
                       storage.sign(key, digestOf(row.hash, document()), row.padding));
    }
}

TEST_F(KspClientsTest, AManagedRuntimesKeyObjects) {
    for (const auto& row : SIGNERS) {
        SCOPED_TRACE(row.kind.option);
        const Token token;
        const KeyStorage storage(nullptr);
        const KspKey key = storage.open(token.addKey(row.kind.tokenType));
        DWORD size = 0;
        EXPECT_EQ(outcome(table().GetKeyProperty(storage.get(), key.get(), TEXT("A property of its own"), nullptr, 0,
                                                 &size, NCRYPT_SILENT_FLAG)),
                  code(NTE_NOT_SUPPORTED));
        EXPECT_EQ(storage.property(key, NCRYPT_ALGORITHM_GROUP_PROPERTY), wideBytes(row.kind.group));
        EXPECT_EQ(storage.property(key, NCRYPT_LENGTH_PROPERTY), bytesOf(row.kind.bits));
        EXPECT_EQ(storage.property(key, NCRYPT_KEY_USAGE_PROPERTY), bytesOf(DWORD{3}));
        const Bytes blob = storage.exportPublic(key, row.kind.blobType());
        Bytes digest = digestOf(row.hash, document());
        // It knows the size, and wants nobody to be asked for a PIN.
        Bytes signature(row.kind.signatureSize());
        const auto signSilently = [&] {
            return outcome(table().SignHash(storage.get(), key.get(), nullptr, digest.data(), sizeOf(digest),
                                            signature.data(), sizeOf(signature), &size,
                                            row.padding | NCRYPT_SILENT_FLAG));
        };
        EXPECT_EQ(signSilently(), code(NTE_SILENT_CONTEXT));
        EXPECT_EQ(storage.logIn(WRONG_PIN), code(NTE_VALIDATION_FAILED));
        EXPECT_EQ(storage.logIn(PIN), OK);
        EXPECT_EQ(signSilently(), OK);
        expectAccepted(row.kind, blob, row.hash, row.padding, signature);
        EXPECT_EQ(storage.verify(storage.import(row.kind.blobType(), blob), digest, signature, row.padding), OK);
    }
}

/// A PKCS#10 request (RFC 2986) signed with SHA-256.
Bytes requestOf(const KeyStorage& storage, const KspKey& key, const Kind& kind) {
    const Bytes rsaSha256 = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B, 0x05, 0x00};
    const Bytes ecdsaSha256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
    const Bytes commonName = {0x06, 0x03, 0x55, 0x04, 0x03, 0x0C, 0x05, 'O', 'w', 'n', 'e', 'r'};
    const Bytes name = der(0x30, {der(0x31, {der(0x30, {commonName})})});
    const Bytes spki = spkiOfBlob(kind, storage.exportPublic(key, kind.blobType()));
    const Bytes info = der(0x30, {derInteger({0}), name, spki, der(0xA0, {})});
    const Bytes signature = storage.sign(key, digestOf("SHA256", info), kind.isRsa() ? BCRYPT_PAD_PKCS1 : 0);
    return der(0x30, {info, der(0x30, {kind.isRsa() ? rsaSha256 : ecdsaSha256}),
                      der(0x03, {{0}, kind.isRsa() ? signature : derOfEcSignature(signature)})});
}

TEST_F(KspClientsTest, AnEnrolment) {
    const Authority authority;
    for (const Kind& kind : {RSA_2048, ECDSA_P521}) {
        SCOPED_TRACE(kind.option);
        const Token token;
        Bytes certificate;
        {
            const KeyStorage storage;
            const KspKey key = storage.create(kind);
            certificate = authority.issue(requestOf(storage, key, kind));
            ASSERT_FALSE(certificate.empty());
            EXPECT_EQ(storage.setProperty(key, NCRYPT_CERTIFICATE_PROPERTY, certificate), OK);
        }
        EXPECT_EQ(softtoken::listTokens().at(0).certificates, 3U) << "root, intermediate and leaf";

        const KeyStorage storage(nullptr);
        NCryptKeyName* name = nullptr;
        PVOID state = nullptr;
        const auto nextKey = [&] { return outcome(table().EnumKeys(storage.get(), nullptr, &name, &state, 0)); };
        ASSERT_EQ(nextKey(), OK);
        EXPECT_EQ(name->pszAlgid, wide(kind.algorithm));
        KspKey key;
        ASSERT_EQ(outcome(table().OpenKey(storage.get(), key.out(), name->pszName, name->dwLegacyKeySpec, 0)), OK);
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
            expectAccepted(RSA_2048, storage->exportPublic(*key, BCRYPT_RSAPUBLIC_BLOB), "SHA256", BCRYPT_PAD_PKCS1,
                           storage->sign(*key, digest, BCRYPT_PAD_PKCS1));
            if (keyEndsFirst) {
                key.reset();
            }
            storage.reset();
        }
    }
}

}  // namespace
}  // namespace test
