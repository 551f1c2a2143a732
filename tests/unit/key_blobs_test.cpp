#include <algorithm>
#include <memory>

#include "capi/user_keys.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

constexpr auto BAD_DATA = static_cast<DWORD>(NTE_BAD_DATA);

const std::string PLAIN = "PLAINTEXTKEYBLOB imported successfully (AES)";
const std::string WRAPPED = "SYMMETRICWRAPKEYBLOB imported successfully";
const std::string SIMPLE = "Output key id : " + idText(0) + "|SIMPLEBLOB imported successfully (AES)";
const std::string TOO_LONG = "!CPImportKey: AES key of ";

class KeyBlobsTest : public ProviderTest {
protected:
    KeyBlobsTest() {
        std::fill(std::begin(privateKey.credentialId), std::end(privateKey.credentialId), '\xAA');
        privateKey.tokenFlag = true;
        privateKey.algId = CALG_RSA_KEYX;
    }
    /// One import, held against what it logs behind the lines that all have; the key that comes of it.
    KEY_HANDLE import(const Bytes& bytes, DWORD failure, const std::string& log, const std::string& calls = "") {
        HCRYPTKEY handle = 0x1234;
        const auto size = static_cast<DWORD>(bytes.size());
        const Bytes header = blob({}, {bytes.begin(), bytes.begin() + 8});
        const std::uint32_t algorithm = header[4] | header[5] << 8U | header[6] << 16U;
        CALL(CPImportKey(handleOf(on), bytes.data(), size, handleOf(wrapping), 7, &handle), failure,
             "Input length : " + std::to_string(size) + "|Input flag : 7|@ - input type : " +
                 std::to_string(header[0]) + "|@ - input version : 2|@ - input alg : " + std::to_string(algorithm) +
                 "|@ - input data length : " + std::to_string(static_cast<int>(size) - 12) + "|" + log,
             calls);
        EXPECT_EQ(handle == 0x1234, failure != 0);
        const std::unique_ptr<KEY_HANDLE> key(failure == 0 ? recordOf<KEY_HANDLE>(handle) : nullptr);
        EXPECT_TRUE(key == nullptr || (key->mode == 1 && key->credentialIdLength == 16));
        return key != nullptr ? *key : KEY_HANDLE();
    }

    CSP_CONTEXT context = contextOn("T1");
    const CSP_CONTEXT* on = &context;
    KEY_HANDLE privateKey = {};
    const KEY_HANDLE* wrapping = nullptr;
};

TEST_F(KeyBlobsTest, ImportChecks) {
    import(blob({0x0208, 0x660E, 16}), static_cast<DWORD>(NTE_INVALID_PARAMETER),
           "!CPImportKey - Input data to import is empty");
    for (const unsigned type : {7U, 10U}) {
        import(blob({0x0200 + type, 0xA400}), BAD_TYPE, "!Key Block Not Implemented yet");
    }
    import(blob({0x0209, 0xA400}), BAD_TYPE, "!CPImportKey - Unsupported type : 9");
    import(blob({0x0201, 0x660E}), BAD_TYPE, "!SIMPLEBLOB requires public key handle");
    import(blob({0x0208, 0x660E}, {1}), BAD_DATA, "!CPImportKey: no key data in a blob of 9 bytes");
    const Bytes plain = blob({0x0208, 0x660E, 16, 1});
    on = &UNINITIALISED;
    EXPECT_FALSE(CPImportKey(handleOf(on), plain.data(), 16, 0, 0, nullptr) || GetLastError() != BAD_UID);
    EXPECT_FALSE(CPImportKey(0, nullptr, 16, 0, 0, nullptr) || GetLastError() != ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(CPImportKey(handleOf(&context), plain.data(), 16, 0, 0, nullptr));
    EXPECT_TRUE(token().takeCalls().empty());
}

TEST_F(KeyBlobsTest, ImportPublicKey) {
    const std::string mismatch = "!CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=";
    import(blob({0x0206, 0xA400, 0x31415352, 3072, 65537}, Bytes(383)), BAD_DATA, mismatch + "403 required=404");
    import(blob({0x0206, 0xA400, 0x31415352, 2000, 65537}, Bytes(250)), BAD_DATA,
           "Public exponent : 010001|!Unsupported RSA key size");
    import(blob({0x0206, 0xA400, 0xABCDEF, 0}), BAD_DATA,
           "!CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0xabcdef");
}

TEST_F(KeyBlobsTest, ImportSimpleBlob) {
    wrapping = &privateKey;
    const std::string again = "!SIMPLEBLOB decryption failed|";
    const std::string first = "decrypt('T1', " + AA + ", '', 030201, block, 1, null)";
    const std::string both = first + "|decrypt('T1', " + AA + ", '', 010203, block, 1, null)";
    const auto imports = [&](ALG_ID algorithm, const std::vector<Answer>& answers, DWORD failure,
                             const std::string& log, const std::string& calls) {
        token().on("decrypt", answers);
        return import(blob({0x0201, algorithm, 0}, {1, 2, 3}), failure, "Input key id : " + AA + "|" + log, calls);
    };
    const KEY_HANDLE key = imports(0x660F, {{.result = 9}, {.output = filled(24, 5)}}, 0, again + SIMPLE, both);
    EXPECT_TRUE(key.algId == 10 && key.symmetricKeyLength == 24 && key.symmetricKey[23] == filled(24, 5)[23]);
    imports(0x6610, {{.result = 49}}, FAILED, again + "!SIMPLEBLOB decryption failed (both orderings)", both);
    imports(0x6601, {{.output = filled(8)}}, BAD_ALGID, "!Unsupported algorithm for SIMPLEBLOB: 26113", first);
    imports(0x6610, {{.output = filled(33)}}, BAD_DATA, "!CPImportKey: no AES key has 33 bytes", first);
}

TEST_F(KeyBlobsTest, ImportOntoToken) {
    ZentokSymmetricKey& record = token().importedAesKey;
    std::fill(std::begin(record.credentialId), std::end(record.credentialId), '\xBB');
    record.keyLabelLength = 128;
    const auto stores = [](const Bytes& key, int keyType) {
        return "importAesKey('T1', '', " + hex(key) + ", " + std::to_string(keyType) + ", null)";
    };
    const auto copied = [&](const KEY_HANDLE& key, ALG_ID algorithm) {
        return key.algId == algorithm && key.credentialId[15] == 0xBB && key.keyLabelLength == 128 &&
               key.symmetricKeyLength == 0;
    };
    const Bytes aes = filled(16, 5);
    EXPECT_TRUE(copied(import(blob({0x0208, 0x660F, 0}, filled(128)), 0, PLAIN, stores(filled(128), 10)), 0x660F));
    import(blob({0x0208, 0x6610, 0}, filled(129)), BAD_DATA, TOO_LONG + "129 bytes is too long");
    import(blob({0x0208, 0x6601, 0}, aes), BAD_ALGID, "!Unsupported algorithm for PLAINTEXTKEYBLOB: 26113");

    ZentokSymmetricKey kek = {};
    kek.keyValueLength = 2;
    kek.keyType = 8;
    kek.tokenFlag = true;
    const Bytes wrapped = blob({0x020B, 0x6601}, {1, 2, 3, 4, 5, 6, 7});
    const std::string log = "SYMMETRICWRAPKEYBLOB: wrapped key length = 3|";
    const std::string none = "!Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK";
    const std::string list = "getAesKeyList('T1', null)";
    const std::string tries = "|decrypt_aes|decrypt_aes('T1', 0900, 010203, block, 1, null[0], null)";
    import(wrapped, BAD_KEY, log + none, list);
    std::vector<ZentokSymmetricKey>& keys = token().aesKeys["T1"] = {3, kek};
    keys[0].keyType = 11;
    keys[2].keyType = 10;
    keys[2].keyValue[0] = 9;
    const std::string found = log + "Successfully unwrapped key with KEK: " + idText(0) + "|";
    const auto unwraps = [&](const Answer& answer, DWORD failure, const std::string& end,
                             const std::string& call = "") {
        token().on("decrypt_aes", {{.result = 1}, answer});
        return import(wrapped, failure, end, list + tries + call);
    };
    EXPECT_TRUE(copied(unwraps({.output = aes}, 0, found + WRAPPED, "|" + stores(aes, 10)), 0x6601));
    token().onResult("importAesKey", {9});
    unwraps({.output = aes}, BAD_TYPE, found + "!Import of unwrapped AES key failed", "|importAesKey");
    import(blob({0x0208, 0x660E, 0}, aes), BAD_TYPE, "!PLAINTEXTKEYBLOB import failed", "importAesKey");
}

TEST_F(KeyBlobsTest, Export) {
    const Bytes modulus = filled(64, 0x30);
    Guarded buffer(84);
    DWORD length = 0;
    const auto exports = [&](DWORD type, DWORD room) {
        length = room;
        BYTE* const data = room != 0 ? buffer.data() : nullptr;
        return CPExportKey(handleOf(on), handleOf(&privateKey), 5, type, 7, data, &length) ? 0 : GetLastError();
    };
    EXPECT_EQ(exports(7, 0), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(exports(1, 0), BAD_TYPE);
    token().keyPairs["T1"] = {keyPair(0xAA, 1, 5, "", modulus)};
    EXPECT_EQ(exports(6, 0), BAD_TYPE) << "no RSA key";
    token().keyPairs["T1"] = {keyPair(0xBB, 1, 2), keyPair(0xAA, 1, 4, "", modulus)};
    EXPECT_TRUE(exports(6, 83) == ERROR_MORE_DATA && length == 84);
    EXPECT_TRUE(exports(6, 0) == 0 && GetLastError() == ERROR_MORE_DATA && length == 84);
    EXPECT_EQ(exports(6, 84), 0U);
    EXPECT_EQ(buffer.first(84), blob({0x0206, 0xA400, 0x31415352, 512, 65537}, {modulus.rbegin(), modulus.rend()}));
}

}  // namespace
}  // namespace test
