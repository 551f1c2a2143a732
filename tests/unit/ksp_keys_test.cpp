// Key objects of the key storage provider, from the token and from blobs.
#include <memory>

#include "core/container_map.h"
#include "core/wide_text.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

/// A record with something in every field that a key object copies, and an alias without a terminator.
ZentokKeyPair fullRecord(unsigned char id, int usage, int type) {
    ZentokKeyPair key = keyPair(id, usage, type, "", filled(300, id));
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    key.keyLabel[127] = id;
    key.keyLabelLength = 128;
    key.tokenFlag = true;
    return key;
}

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
    token().keyPairs["T2"] = {keyPair(0xCC, 2, 5, idText(0xBB)), keyPair(0xBB, 2, 7, "mine")};
    const std::string available = "|KSP: Available key: ";
    const std::string onT1 = "|KSP: Resolved key to device: T1" + available + AA;
    const std::string onT2 = available + idText(0xCC) + available + idText(0xBB);
    const std::string found = "|KSP: Key match found, proceeding...|KSP: Key opened, algorithm=";
    const std::tuple<std::string, unsigned char, std::string> rows[] = {
        {AA, 0xAA, onT1 + found + "2 bits=2048"},
        {"mine", 0, "|KSP: Resolved key to device: T2" + onT2},
        {"", 0, onT2},  // the provider has moved
        {idText(0xBB), 0xCC, "|KSP: Resolved key to device: T2" + onT2 + found + "5 bits=256"},
        {std::string(32, 'a'), 0, onT1}};
    for (const auto& [name, id, log] : rows) {
        KSP_CALL(KSPOpenKey(prov, &handle, widened(name).c_str(), 1, 7), id != 0 ? 0 : NO_KEY,
                 "KSP: Opening key: " + name + log + (id != 0 ? "" : "|!KSP: Input key not found on token: " + name),
                 ANY_CALLS);
        if (id != 0) {
            const std::unique_ptr<KSP_KEY> key(recordOf<KSP_KEY>(handle));
            EXPECT_EQ(keyText(key->credentialId), idText(id));
        }
    }
    EXPECT_EQ(open(AA), 0);
    expectCopied(*recordOf<KSP_KEY>(handle), 0xAA, 2, 1, 2048);
    EXPECT_EQ(KSPFreeKey(0, handle), 0);
    for (const int lie : {-1, 1025}) {
        token().keyPairs["T1"][0].publicKeyLength = lie;
        EXPECT_EQ(open(AA), NTE_INTERNAL_ERROR);
    }
}

TEST_F(KspKeysTest, CreateAndFinalize) {
    token().generatedKey = fullRecord(0xCC, 3, 4);  // what the token makes is its own affair
    // The algorithm, the key spec and the size asked for; usage, type (0: refused) and size of the
    // result.
    const std::tuple<const WCHAR*, DWORD, DWORD, std::uint32_t, std::uint32_t, std::uint32_t> rows[] = {
        {TEXT("RSA"), 0, 0, 1, 2, 2048}, {TEXT("RSA"), 1, 3072, 2, 3, 3072},    {TEXT("RSA"), 0, 1500, 1, 2, 1500},
        {TEXT("RSA"), 0, 1024, 1, 0, 0}, {TEXT("ECDSA_P256"), 1, 9, 1, 5, 256}, {TEXT("ECDH_P521"), 0, 0, 2, 7, 521}};
    for (const auto& [algorithm, spec, setBits, usage, type, bits] : rows) {
        NCRYPT_KEY_HANDLE handle = 0;
        ASSERT_EQ(KSPCreatePersistedKey(prov, &handle, algorithm, TEXT("any"), spec, 0x80), 0);
        const std::unique_ptr<KSP_KEY> key(recordOf<KSP_KEY>(handle));
        key->bitSize = setBits;
        if (type == 0) {
            EXPECT_NE(KSPFinalizeKey(prov, handle, 7), 0);
            continue;
        }
        const std::string log = KSP_CACHED + "|KSP: FinalizeKey - generating key, algorithm=" + std::to_string(type) +
                                " bitSize=" + std::to_string(bits);
        const std::string call = "generateKeyPair('T1', '1234', 'all else zero', " + std::to_string(usage) + ", " +
                                 std::to_string(type) + ", null)";
        token().onResult("generateKeyPair", {-7, 0});
        KSP_CALL(KSPFinalizeKey(prov, handle, 7), INTERNAL_ERROR, log + "|!KSP: Key generation failed: -7", call);
        KSP_CALL(KSPFinalizeKey(prov, handle, 7), 0, log + "|KSP: Key finalized successfully", call);
        expectCopied(*key, 0xCC, type, usage, bits);
        KSP_CALL(KSPFinalizeKey(prov, handle, 7), 0, "");
    }
}

TEST_F(KspKeysTest, Delete) {
    auto* key = new KSP_KEY(keyObject(2, 2048));
    key->tokenFlag = true;
    token().onResult("deleteKeyPair", {13, 0});
    EXPECT_NE(KSPDeleteKey(prov, handleOf(key), 7), 0);
    KSP_CALL(KSPDeleteKey(prov, handleOf(key), 7), 0, KSP_CACHED + "|KSP: Key deleted successfully",
             "deleteKeyPair('T1', " + AA + ", '1234', 1, null)");
}

constexpr DWORD RSA1 = 0x31415352, KDBM = 0x4D42444B;

class KspBlobsTest : public KspTest {
protected:
    /// One import; `result` is "keyType bitSize keyUsage credentialIdLength publicKey/symmetricKey" of its object.
    void imports(const WCHAR* type, const Bytes& data, DWORD failure, const std::string& log,
                 const std::string& result = "", const std::string& calls = "") {
        NCRYPT_KEY_HANDLE handle = 0;
        const auto size = static_cast<DWORD>(data.size());
        KSP_CALL(KSPImportKey(prov, handleOf(importKey), type, nullptr, &handle, input(data), size, 0), failure, log,
                 calls);
        imported.reset(recordOf<KSP_KEY>(handle));
        std::string text;
        if (const KSP_KEY* key = imported.get(); key != nullptr && key->finalized) {
            for (const std::uint32_t number : {key->keyType, key->bitSize, key->keyUsage, key->credentialIdLength}) {
                text += std::to_string(number) + " ";
            }
            text += hex({key->publicKey, key->publicKey + key->publicKeyLength}) + "/" +
                    hex({key->symmetricKey, key->symmetricKey + key->symmetricKeyLength});
        }
        EXPECT_EQ(text, result);
    }
    void exports(KSP_KEY* key, const WCHAR* type, DWORD room, DWORD failure, const std::string& log,
                 const std::string& calls = "") {
        BYTE* const out = room != 0 ? buffer.data() : nullptr;
        KSP_CALL(KSPExportKey(prov, handleOf(key), 0, type, nullptr, out, room, &length, 0), failure, log, calls);
    }
    KSP_KEY* importKey = nullptr;
    std::unique_ptr<KSP_KEY> imported;
};

TEST_F(KspBlobsTest, BadBlobs) {
    const auto *const rsa = TEXT("RSAPUBLICBLOB"), *const ecc = TEXT("ECCPUBLICBLOB"), *const aes = TEXT("KeyDataBlob");
    const std::string tooSmall = "data too small for key material";
    const std::tuple<const WCHAR*, Bytes, std::string> rows[] = {
        {rsa, filled(23), "BCRYPT_RSAPUBLIC_BLOB data too small"},
        {rsa, blob({RSA1, 1024, ~0U, 5, 0, 0}, filled(4)), "BCRYPT_RSAPUBLIC_BLOB " + tooSmall},
        {rsa, blob({RSA1, 1024, 0, 1025, 0, 0}, Bytes(1025)),
         "BCRYPT_RSAPUBLIC_BLOB modulus too large, cbModulus=1025"},
        {ecc, filled(7), "BCRYPT_ECCPUBLIC_BLOB too small"},
        {ecc, blob({1, 0x80000000}), "BCRYPT_ECCPUBLIC_BLOB " + tooSmall},
        {ecc, blob({0x31534345, 512}, Bytes(1024)), "BCRYPT_ECCPUBLIC_BLOB point too large, cbKey=512"},
        {aes, filled(11), "BCRYPT_KEY_DATA_BLOB data too small for header"},
        {aes, blob({KDBM, 1, ~0U}, filled(16)), "BCRYPT_KEY_DATA_BLOB " + tooSmall},
        {TEXT("CAPIPUBLICBLOB"), filled(19), "LEGACY_RSAPUBLIC_BLOB data too small for header"},
        {TEXT("CAPIPUBLICBLOB"), blob({0, 0, RSA1, 16, 3}, {1}), "LEGACY_RSAPUBLIC_BLOB data too small for modulus"}};
    for (const auto& [type, data, log] : rows) {
        imports(type, data, BAD_DATA, "!@: " + log);
    }
}

TEST_F(KspBlobsTest, PublicKeysThereAndBack) {
    const Bytes modulus = filled(128, 0x81);
    const Bytes legacy = blob({0x0206, 0xA400, RSA1, 1024, 65537}, Bytes(modulus.rbegin(), modulus.rend()));
    imports(TEXT("CAPIPUBLICBLOB"), legacy, 0,
            "KSP: Public exponent : 010001|KSP: Legacy RSA public key imported successfully",
            "1 1024 0 16 30819F300D06092A864886F70D010101050003818D0030818902818100" + hex(modulus) + "0203010001/");
    imports(TEXT("PUBLICBLOB"), blob({RSA1, 1024, 0, 128, 0, 0}, modulus), 0, "KSP: RSA public key imported, bits=1024",
            "1 1024 0 0 " + hex(modulus) + "/");
    for (const auto& [type, size] : {std::pair(TEXT("RSAPUBLICBLOB"), 155U), {TEXT("CAPIPUBLICBLOB"), 148U}}) {
        const std::string kind = size == 155 ? "BCRYPT" : "LEGACY";
        exports(imported.get(), type, size - 1, TOO_SMALL,
                "!@: " + kind + "_RSAPUBLIC_BLOB output buffer too small, required=" + std::to_string(size));
        EXPECT_EQ(length, size);
        exports(imported.get(), type, size, 0, size == 155 ? "KSP: Public key exported, bits=1024" : "");
    }
    EXPECT_EQ(buffer.first(148), legacy);
    imports(TEXT("ECCPUBLICBLOB"), blob({0x334B4345, 2}, {1, 2, 3, 4}), 0, "@: ECC public key imported, cbKey=2",
            "6 384 2 0 0401020304/");
    exports(imported.get(), TEXT("ECCPUBLICBLOB"), 11, TOO_SMALL,
            "Enter to the BCRYPT_ECCPUBLIC_BLOB|!@: BCRYPT_ECCPUBLIC_BLOB buffer too small, required=12");
}

TEST_F(KspBlobsTest, AesKeys) {
    token().aesKeys["T1"].resize(3);
    token().aesKeys["T1"][0].keyType = 11;
    token().aesKeys["T1"][2].keyType = 10;
    token().importedAesKey.keyUsage = 3;
    KSP_KEY rsa = keyObject(2, 2048);
    const auto check = [&](std::size_t size, const std::string& type, const std::string& unwrappedType) {
        const Bytes value = filled(size);
        const std::string call = "importAesKey('T1', '1234', " + hex(value) + ", ";
        token().on("decrypt_aes", {{.output = value}});
        token().on("decrypt", {{.output = value}});
        imports(TEXT("KeyDataBlob"), blob({KDBM, 1, static_cast<DWORD>(size)}, value), 0,
                "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)", type + " 0 3 16 /", call + type + ", null)");
        imports(TEXT("OpaqueKeyBlob"), {1, 2, 3}, 0,
                "KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = 3|KSP: Successfully unwrapped key with KEK: " +
                    idText(0) + "|KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully",
                unwrappedType + " 0 3 16 /", "getAesKeyList|decrypt_aes|" + call + unwrappedType + ", null)");
        importKey = &rsa;
        imports(TEXT("whatever"), {1, 2}, 0, "KSP: Input key id : " + AA + "|KSP: Encrypted key imported successfully",
                type + " 0 0 16 /" + hex(value), "decrypt('T1', " + AA + ", '1234', 0102, block, 0, null)");
    };
    check(16, "8", "8");
    check(24, "11", "10");
    check(32, "10", "10");
    token().on("decrypt", {{.output = filled(33)}});
    imports(TEXT("whatever"), {1}, NOT_SUPPORTED,
            "KSP: Input key id : " + AA + "|!KSP: Unsupported decrypted key length: 33", "", "decrypt");
}

TEST_F(KspBlobsTest, ExportRefillsAndRefuses) {
    const std::string list = "getKeyPairList('T1', null)";
    KSP_KEY key = keyObject(2, 2048);
    exports(&key, TEXT("PRIVATEBLOB"), 0, NOT_SUPPORTED, "!KSPExportKey: private key export not supported");
    exports(&key, TEXT("PUBLICBLOB"), 0, BAD_KEY, "!KSP: No public key data available for export", list);
    token().keyPairs["T1"] = {keyPair(0xBB, 1, 2, "", {1}), keyPair(0xAA, 1, 2, "", {4, 1, 2, 3})};
    exports(&key, TEXT("ECCPUBLICBLOB"), 0, NOT_SUPPORTED,
            "Enter to the BCRYPT_ECCPUBLIC_BLOB|!KSPExportKey: key is not ECC", list);
    exports(&key, TEXT("CAPIPUBLICBLOB"), 0, 0, "");
    EXPECT_EQ(length, 24U) << "kept in the object";
}

}  // namespace
}  // namespace test
