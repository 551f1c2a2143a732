#include <map>
#include <memory>

#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

const Entry IMPORT("KSPImportKey");
const Entry EXPORT("KSPExportKey");
constexpr DWORD RSA1 = 0x31415352;
constexpr DWORD KDBM = 0x4D42444B;

/// Little-endian words, and bytes behind them.
Bytes blob(const std::vector<DWORD>& words, const Bytes& rest = {}) {
    Bytes bytes;
    for (const DWORD word : words) {
        for (const int shift : {0, 8, 16, 24}) {
            bytes.push_back(static_cast<unsigned char>(word >> shift));
        }
    }
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
}

class KspBlobsTest : public KspTest {
protected:
    /// One import; `result` is "keyType bitSize keyUsage credentialIdLength publicKey/symmetricKey" of its object.
    void imports(const WCHAR* type, const Bytes& data, DWORD failure, const std::string& log,
                 const std::string& result = "", const std::string& calls = "") {
        NCRYPT_KEY_HANDLE handle = 0;
        const auto call = [&, given = data]() mutable {
            return succeeds(KSPImportKey(handleOf(&provider), handleOf(importKey), type, nullptr, &handle, given.data(),
                                         static_cast<DWORD>(given.size()), 0));
        };
        IMPORT(call, failure, log, calls);
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
        const auto call = [&] {
            return succeeds(KSPExportKey(handleOf(&provider), handleOf(key), 0, type, nullptr,
                                         room != 0 ? buffer.data() : nullptr, room, &length, 0));
        };
        EXPORT(call, failure, log, calls);
    }
    void exportsImported(const WCHAR* type, const Bytes& expected, const std::string& start,
                         const std::string& tooSmall, const std::string& success) {
        const auto size = static_cast<DWORD>(expected.size());
        exports(imported.get(), type, 0, 0, start);
        exports(imported.get(), type, length - 1, TOO_SMALL,
                start + "!KSPExportKey: " + tooSmall + " buffer too small, required=" + std::to_string(size));
        exports(imported.get(), type, length, 0, start + success);
        EXPECT_EQ(length, size);
        EXPECT_EQ(buffer.first(size), expected);
    }

    KSP_KEY* importKey = nullptr;
    std::unique_ptr<KSP_KEY> imported;
};

TEST_F(KspBlobsTest, BadBlobs) {
    const auto refuses = [&](const WCHAR* type, const Bytes& data, const std::string& log) {
        imports(type, data, BAD_DATA, "!KSPImportKey: " + log);
    };
    const auto *const rsa = TEXT("RSAPUBLICBLOB"), *const ecc = TEXT("ECCPUBLICBLOB"), *const aes = TEXT("KeyDataBlob");
    const std::string tooSmall = "data too small for key material";
    refuses(rsa, filled(23), "BCRYPT_RSAPUBLIC_BLOB data too small");
    refuses(rsa, blob({RSA1, 1024, ~0U, 5, 0, 0}, filled(4)), "BCRYPT_RSAPUBLIC_BLOB " + tooSmall);
    refuses(rsa, blob({RSA1, 1024, 0, 1025, 0, 0}, Bytes(1025)),
            "BCRYPT_RSAPUBLIC_BLOB modulus too large, cbModulus=1025");
    refuses(ecc, filled(7), "BCRYPT_ECCPUBLIC_BLOB too small");
    refuses(ecc, blob({1, 0x80000000}), "BCRYPT_ECCPUBLIC_BLOB " + tooSmall);
    refuses(ecc, blob({0x31534345, 512}, Bytes(1024)), "BCRYPT_ECCPUBLIC_BLOB point too large, cbKey=512");
    refuses(aes, filled(11), "BCRYPT_KEY_DATA_BLOB data too small for header");
    refuses(aes, blob({KDBM, 1, ~0U}, filled(16)), "BCRYPT_KEY_DATA_BLOB " + tooSmall);
    refuses(TEXT("CAPIPUBLICBLOB"), filled(19), "LEGACY_RSAPUBLIC_BLOB data too small for header");
    refuses(TEXT("CAPIPUBLICBLOB"), blob({0, 0, RSA1, 16, 3}, {1}), "LEGACY_RSAPUBLIC_BLOB data too small for modulus");
}

TEST_F(KspBlobsTest, PublicKeysThereAndBack) {
    const Bytes modulus = filled(128, 0x81);
    const Bytes legacy = blob({0x0206, 0xA400, RSA1, 1024, 65537}, Bytes(modulus.rbegin(), modulus.rend()));
    Bytes rsa = blob({RSA1, 1024, 3, 128, 0, 0}, {1, 0, 1});
    rsa.insert(rsa.end(), modulus.begin(), modulus.end());
    imports(TEXT("CAPIPUBLICBLOB"), legacy, 0,
            "KSP: Public exponent : 010001|KSP: Legacy RSA public key imported successfully",
            "1 1024 0 16 30819F300D06092A864886F70D010101050003818D0030818902818100" + hex(modulus) + "0203010001/");
    imports(TEXT("PUBLICBLOB"), rsa, 0, "KSP: RSA public key imported, bits=1024", "1 1024 0 0 " + hex(modulus) + "/");
    exportsImported(TEXT("RSAPUBLICBLOB"), rsa, "", "BCRYPT_RSAPUBLIC_BLOB output",
                    "KSP: Public key exported, bits=1024");
    exportsImported(TEXT("CAPIPUBLICBLOB"), legacy, "", "LEGACY_RSAPUBLIC_BLOB output", "");
    for (const auto& [magic, object] : std::map<DWORD, std::string>{
             {0x31534345, "5 256 1 0 "}, {0x35534345, "7 521 1 0 "}, {0x334B4345, "6 384 2 0 "}}) {
        const Bytes ecc = blob({magic, 2}, {1, 2, 3, 4});
        imports(TEXT("ECCPUBLICBLOB"), ecc, 0, "KSPImportKey: ECC public key imported, cbKey=2",
                object + "0401020304/");
        exportsImported(TEXT("ECCPUBLICBLOB"), ecc, "Enter to the BCRYPT_ECCPUBLIC_BLOB|", "BCRYPT_ECCPUBLIC_BLOB",
                        "KSPExportKey: ECC public key exported, cbKey=2");
    }
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
