// Key objects of the key storage provider, from the token and from blobs.
#include <memory>

#include "core/container_map.h"
#include "core/wide_text.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

void expectCopied(const KSP_KEY& key, unsigned char id, std::uint32_t type, std::uint32_t usage, std::uint32_t bits) {
    EXPECT_EQ(keyText(key.credentialId) + std::string(key.alias, sizeof key.alias), idText(id) + std::string(128, 'n'));
    EXPECT_EQ(Bytes(key.publicKey, key.publicKey + key.publicKeyLength), filled(300, id));
    EXPECT_TRUE(key.credentialIdLength == 16 && key.keyLabelLength == 128 && key.keyLabel[127] == id && key.tokenFlag);
    EXPECT_TRUE(key.keyType == type && key.keyUsage == usage && key.bitSize == bits);
}

using KspKeysTest = KspTest;

TEST_F(KspKeysTest, Open) {
    NCRYPT_KEY_HANDLE handle = 0;
    const auto open = [&](const std::string& name) { return KSPOpenKey(prov, &handle, widened(name).c_str(), 1, 7); };
    token().setDevices({"T1", "T2"});
    EXPECT_EQ(open(AA), NTE_NO_KEY) << "no key at all";
    token().keyPairs["T1"] = {fullRecord(0xAA, 1, 2)};
    token().keyPairs["T2"] = {keyPair(0xCC, 2, 5, BB), keyPair(0xBB, 2, 7, "mine")};
    // An alias leads to the token, but opens its key only when it looks like a key's text; the first that fits wins.
    for (const auto& [name, id] : {std::pair<std::string, int>(AA, 0xAA), {"mine", 0}, {"", 0}, {BB, 0xCC}}) {
        ASSERT_EQ(open(name), id != 0 ? 0 : NTE_NO_KEY) << name;
        if (id != 0) {
            EXPECT_EQ(std::unique_ptr<KSP_KEY>(recordOf<KSP_KEY>(handle))->credentialId[15], id);
        }
    }
    EXPECT_EQ(provider.deviceName, "T2") << "it has moved";
    EXPECT_EQ(open(AA), 0);
    expectCopied(*recordOf<KSP_KEY>(handle), 0xAA, 2, 1, 2048);
    EXPECT_EQ(KSPFreeKey(0, handle), 0);
}

TEST_F(KspKeysTest, CreateAndFinalize) {
    token().generatedKey = fullRecord(0xCC, 3, 4);  // what the token makes is its own affair
    NCRYPT_KEY_HANDLE handle = 0;
    ASSERT_EQ(KSPCreatePersistedKey(prov, &handle, TEXT("RSA"), TEXT("any"), 0, 0x80), 0);
    const std::unique_ptr<KSP_KEY> key(recordOf<KSP_KEY>(handle));
    key->bitSize = 1024;
    EXPECT_NE(KSPFinalizeKey(prov, handle, 7), 0) << "too short";
    key->bitSize = 1500;
    token().takeCalls();
    EXPECT_EQ(KSPFinalizeKey(prov, handle, 7) | KSPFinalizeKey(prov, handle, 7), 0);
    EXPECT_EQ(token().takeCalls(), Lines{"generateKeyPair('T1', '1234', 'all else zero', 1, 2, null)"});
    expectCopied(*key, 0xCC, 2, 1, 1500);
}

constexpr DWORD RSA1 = 0x31415352, KDBM = 0x4D42444B;

class KspBlobsTest : public KspTest {
protected:
    void imports(const WCHAR* type, const Bytes& data, DWORD failure, const std::string& log,
                 const std::string& calls = "") {
        NCRYPT_KEY_HANDLE handle = 0;
        const auto size = static_cast<DWORD>(data.size());
        KSP_CALL(KSPImportKey(prov, handleOf(importKey), type, nullptr, &handle, input(data), size, 0), failure, log,
                 calls);
        imported.reset(recordOf<KSP_KEY>(handle));
        EXPECT_EQ(imported != nullptr, failure == 0);
    }
    KSP_KEY* importKey = nullptr;
    std::unique_ptr<KSP_KEY> imported;
};

TEST_F(KspBlobsTest, BadBlobs) {
    const WCHAR *const rsa = TEXT("RSAPUBLICBLOB"), *const ecc = TEXT("ECCPUBLICBLOB");
    const std::tuple<const WCHAR*, Bytes, std::string> rows[] = {
        {rsa, filled(23), "BCRYPT_RSAPUBLIC_BLOB data too small"},
        {rsa, blob({RSA1, 1024, 0, 1025, 0, 0}, Bytes(1025)),
         "BCRYPT_RSAPUBLIC_BLOB modulus too large, cbModulus=1025"},
        {ecc, blob({0x31534345, 512}, Bytes(1024)), "BCRYPT_ECCPUBLIC_BLOB point too large, cbKey=512"},
        {TEXT("KeyDataBlob"), blob({KDBM, 1, ~0U}, filled(16)), "BCRYPT_KEY_DATA_BLOB data too small for key material"},
        {TEXT("CAPIPUBLICBLOB"), blob({0, 0, RSA1, 16, 3}, {1}), "LEGACY_RSAPUBLIC_BLOB data too small for modulus"}};
    for (const auto& [type, data, log] : rows) {
        imports(type, data, BAD_DATA, "!@: " + log);
    }
}

TEST_F(KspBlobsTest, PublicKeysKeepToTheRoom) {
    imports(TEXT("PUBLICBLOB"), blob({RSA1, 1024, 0, 128, 0, 0}, filled(128, 0x81)), 0,
            "KSP: RSA public key imported, bits=1024");
    const auto exports = [&](const WCHAR* type, DWORD room) {
        return KSPExportKey(prov, handleOf(imported.get()), 0, type, nullptr, buffer.data(), room, &length, 0);
    };
    EXPECT_TRUE(exports(TEXT("RSAPUBLICBLOB"), 154) == NTE_BUFFER_TOO_SMALL && length == 155);
    EXPECT_TRUE(exports(TEXT("CAPIPUBLICBLOB"), 147) == NTE_BUFFER_TOO_SMALL && length == 148);
    imports(TEXT("ECCPUBLICBLOB"), blob({0x334B4345, 2}, {1, 2, 3, 4}), 0, "@: ECC public key imported, cbKey=2");
    EXPECT_TRUE(exports(TEXT("ECCPUBLICBLOB"), 11) == NTE_BUFFER_TOO_SMALL && length == 12);
}

TEST_F(KspBlobsTest, DecryptedKeyTooLong) {
    KSP_KEY rsa = keyObject(2, 2048);
    importKey = &rsa;
    token().on("decrypt", {{.output = filled(33)}});
    imports(TEXT("whatever"), {1}, NOT_SUPPORTED,
            "KSP: Input key id : " + AA + "|!KSP: Unsupported decrypted key length: 33",
            "decrypt('T1', " + AA + ", '1234', 01, block, 0, null)");
}

}  // namespace
}  // namespace test
