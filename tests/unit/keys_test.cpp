// Keys of the token behind CryptoAPI handles, and their parameters.
#include <algorithm>
#include <cstring>
#include <memory>

#include "capi/user_keys.h"
#include "core/container_map.h"
#include "core/process_iv.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

class UserKeysTest : public ProviderTest {
protected:
    /// Holds the key object against the token's record, and drops it.
    void expectKey(const ZentokKeyPair& record, ALG_ID algId, unsigned bits) {
        const std::unique_ptr<KEY_HANDLE> key(recordOf<KEY_HANDLE>(handle));
        EXPECT_EQ(keyText(key->credentialId) + key->alias, keyText(record.credentialId) + std::string(128, 'n'));
        EXPECT_EQ(Bytes(key->publicKey, key->publicKey + key->publicKeyLength), filled(300, record.credentialId[0]));
        EXPECT_TRUE(key->algId == algId && key->bitSize == bits && key->symmetricKeyLength == 0);
    }
    HCRYPTKEY handle = 0x1234;
};

TEST_F(UserKeysTest, GenKey) {
    const std::string generate = "generateKeyPair('T1', '1234', 'all else zero', ";
    CALL(CPGenKey(OFF, 3, 0, &handle), BAD_UID, "!Invalid CSP context");
    CALL(CPGenKey(on, CALG_ECDSA, 0U << 16, &handle), BAD_ALGID, "!Unsupported algorithm8707");
    CALL(CPGenKey(on, AT_SIGNATURE, 0U << 16, &handle), BAD_LEN, "rsa sign|!Unsupported Length2");
    context.silent = true;
    CALL(CPGenKey(on, CALG_RSA_SIGN, 1024U << 16, &handle), SILENT,
         "rsa sign|" + REFUSED_SILENTLY + "|!@: ensurePasswordValidated failed");
    cachePin();
    CALL(CPGenKey(on, AT_KEYEXCHANGE, 1024U << 16, &handle), BAD_LEN,
         "key exhange|" + PIN_CACHED + "|!@: RSA-1024 key generation " + TOO_SHORT, INFO);
    token().onResult("generateKeyPair", {-5, 0});
    CALL(CPGenKey(on, AT_KEYEXCHANGE, 1025U << 16, &handle), NO_TOKEN,
         "key exhange|" + PIN_CACHED + "|!RSA Keypair Generation Failed, code=-5", generate + "2, 0, null)");
    EXPECT_EQ(handle, 0U);
    token().generatedKey = fullRecord(0xBB, 3, 4);  // what the token makes is its own affair
    context.requestedContainer = "box";
    for (const Lines& filed : {Lines{BB}, Lines{AA, BB}}) {
        CALL(CPGenKey(on, CALG_RSA_SIGN, 0, &handle), 0,
             "rsa sign|" + PIN_CACHED + "|Key generated successfully, Algid=9216 bits=2048", generate + "1, 0, null)");
        expectKey(token().generatedKey, CALG_RSA_SIGN, 2048);
        EXPECT_EQ(keyText(context.signatureKeyId) + keyText(context.exchangeKeyId) + context.containerName,
                  BB + BB + BB);
        EXPECT_TRUE(g_containerMap["box"] == filed && readContainerKeys("box") == filed);
        g_containerMap["box"] = {AA};
    }
}

TEST_F(UserKeysTest, GetUserKeyAndDestroy) {
    const std::string keyList = "getKeyPairList('T1', null)", named = "@ -> dwKeySpec : 1|@ - Container name : ";
    CALL(CPGetUserKey(OFF, 1, &handle), BAD_UID, "!@: context is not initialized");
    CALL(CPGetUserKey(on, 9, &handle), NO_KEY, "@ -> dwKeySpec : 9|!@: key list is empty", keyList);
    const std::vector<ZentokKeyPair>& keys = token().keyPairs["T1"] = {fullRecord(0xAA, 1, 2), fullRecord(0xBB, 2, 6)};
    context = contextOn("T1", CC);
    CALL(CPGetUserKey(on, 1, &handle), BAD_KEY,
         named + CC + "|!@: requested key not found, dwKeySpec=1 container=" + CC + ", return FALSE", keyList);
    context = contextOn("T1");
    CALL(CPGetUserKey(on, 1, &handle), 0,
         named + "|Key found (AT_KEYEXCHANGE, usage=1)|@: algo=41984 keyUsage=1 bits=2048, return TRUE", keyList);
    expectKey(keys[0], CALG_RSA_KEYX, 2048);
    context.exchangeKeyId[0] = 0x77;
    EXPECT_TRUE(CPGetUserKey(on, 1, &handle) && context.exchangeKeyId[0] == 0x77) << "what is remembered stays";
    CALL(CPDestroyKey(OFF, 0), BAD_UID, "!@: invalid or uninitialized context");
    CALL(CPDestroyKey(on, handle), 0, "");  // the key on the token stays
    context = contextOn("T1", BB);
    EXPECT_TRUE(CPGetUserKey(on, 2, &handle) && context.signatureKeyIdLength == 16);
    expectKey(keys[1], 0x2200, 384);
    EXPECT_FALSE(CPGetUserKey(on, 3, &handle));
}

using Answer = std::tuple<BOOL, DWORD, DWORD>;  // result, last error, length afterwards

class KeyParamsTest : public ProviderTest {
protected:
    Answer get(DWORD param, BYTE* data, DWORD size) {
        length = size;
        SetLastError(UNTOUCHED);
        return {CPGetKeyParam(handleOf(&context), handleOf(&key), param, data, &length, 7), GetLastError(), length};
    }
    bool set(DWORD param, const BYTE* data) {
        return CPSetKeyParam(handleOf(&context), handleOf(&key), param, data, 7) != FALSE;
    }
    CSP_CONTEXT context = contextOn("T1");
    KEY_HANDLE key = {};
    Guarded buffer{64};
    DWORD length = 0;
};

TEST_F(KeyParamsTest, Values) {
    key.mode = 2;
    key.algId = 0xA400;
    key.bitSize = 3072;
    const Answer told(TRUE, UNTOUCHED, 4);
    const Answer tooSmall(FALSE, ERROR_MORE_DATA, 4);
    for (const auto& [param, value] : {std::pair{4U, 2U}, {6U, 12U}, {7U, 0xA400U}, {8U, 3072U}, {9U, 3072U}}) {
        EXPECT_EQ(get(param, nullptr, 9), told) << param;
        EXPECT_EQ(get(param, buffer.data(), 0), param == KP_MODE ? tooSmall : told) << param;
        EXPECT_EQ(get(param, buffer.data(), 3), tooSmall) << param;
        EXPECT_EQ(get(param, buffer.data(), 9), told) << param;
        EXPECT_EQ(std::memcmp(buffer.data(), &value, 4), 0) << param;
    }
    for (key.keyUsage = 1; key.keyUsage < 5; ++key.keyUsage) {
        get(KP_PERMISSIONS, buffer.data(), 4);
        EXPECT_EQ(buffer.data()[0], 12 + key.keyUsage % 4);
    }
    EXPECT_EQ(get(KP_IV, nullptr, 5), Answer(FALSE, BAD_TYPE, 5));
}

TEST_F(KeyParamsTest, Writes) {
    const Bytes data = filled(16);
    EXPECT_TRUE(set(KP_MODE, nullptr) && key.mode == 0 && set(KP_MODE, data.data()) && key.mode == 0x03020100);
    for (const auto& [algId, size] : {std::pair{10U, 16U}, {0x6610U, 16U}, {11U, 8U}, {8U, 8U}}) {
        key.algId = algId;
        EXPECT_TRUE(set(KP_IV, data.data()));
        EXPECT_EQ(*processIv(), filled(size)) << algId;
    }
    setProcessIv({});
}

TEST_F(KeyParamsTest, CertificateWrite) {
    EXPECT_TRUE(!set(26, Bytes{0x31, 0}.data()) && GetLastError() == static_cast<DWORD>(NTE_BAD_DATA));
    EXPECT_EQ(token().takeCalls(), Lines()) << "refused before the login";
    const Bytes least = {0x30, 0};
    context.silent = true;
    EXPECT_TRUE(!set(26, least.data()) && GetLastError() == FAILED);

    std::strcpy(key.alias, "name");
    key.keyLabelLength = 2;
    cachePin();
    for (auto& [der, size] : {std::pair<Bytes, std::size_t>({0x30, 0x82, 0x0B, 0xFC}, 3072), {{0x30, 0x7F}, 0x81}}) {
        Bytes bytes = der;
        bytes.resize(size + 10, 0x55);  // what follows is not the certificate's
        EXPECT_TRUE(set(26, bytes.data()));
        bytes.resize(size);
        const Lines calls = token().takeCalls();
        EXPECT_EQ(
            std::count(calls.begin(), calls.end(),
                       "importCertificate('T1', '1234', " + idText(0) + ", " + hex(bytes) + ", 0000, 'name', null)"),
            1);
    }
}

}  // namespace
}  // namespace test
