#include "capi/user_keys.h"

#include <algorithm>
#include <memory>

#include "core/container_map.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const std::string AA = idText(0xAA), BB = idText(0xBB), CC = idText(0xCC);

/// With an alias that has no terminator.
ZentokKeyPair fullRecord(unsigned char id, int usage, int type) {
    ZentokKeyPair key = keyPair(id, usage, type, "", filled(300, id));
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    return key;
}

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
    CALL(CPGenKey(0, 3, 0, nullptr), ERROR_INVALID_PARAMETER, "!@: phKey is NULL");
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
    token().generatedKey.publicKeyLength = 1025;
    EXPECT_FALSE(CPGenKey(on, CALG_RSA_SIGN, 0, &handle)) << "a length outside of its field";
}

TEST_F(UserKeysTest, GetUserKeyAndDestroy) {
    const std::string keyList = "getKeyPairList('T1', null)", named = "@ -> dwKeySpec : 1|@ - Container name : ";
    CALL(CPGetUserKey(0, 1, &handle), BAD_KEY, "!@: phUserKey or hProv is null");
    CALL(CPGetUserKey(OFF, 1, &handle), BAD_UID, "!@: context is not initialized");
    CALL(CPGetUserKey(on, 9, &handle), NO_KEY, "@ -> dwKeySpec : 9|!@: key list is empty", keyList);
    const std::vector<ZentokKeyPair>& keys = token().keyPairs["T1"] = {fullRecord(0xAA, 1, 2), fullRecord(0xBB, 2, 6)};
    context = contextOn("T1", CC);
    CALL(CPGetUserKey(on, 1, &handle), BAD_KEY,
         named + CC + "|!@: requested key not found, dwKeySpec=1 container=" + CC + ", return FALSE", keyList);
    context = contextOn("T1");
    CALL(CPGetUserKey(on, 1, &handle), 0,
         named +
             "|Key found (AT_KEYEXCHANGE, usage=1)|"
             "@: algo=41984 keyUsage=1 bits=2048, return TRUE",
         keyList);
    expectKey(keys[0], CALG_RSA_KEYX, 2048);
    context.exchangeKeyId[0] = 0x77;
    EXPECT_TRUE(CPGetUserKey(on, 1, &handle) && context.exchangeKeyId[0] == 0x77) << "what is remembered stays";
    CALL(CPDestroyKey(OFF, 0), BAD_UID, "!@: invalid or uninitialized context");
    CALL(CPDestroyKey(on, 0), BAD_KEY, "!@: pKeyHandle is NULL");
    CALL(CPDestroyKey(on, handle), 0, "");  // the key on the token stays
    const std::tuple<std::string, bool, DWORD, int, ALG_ID> rows[] = {{"", true, 2, 0, 0x2400},

                                                                      {"", true, 3, -1, 0},

                                                                      {BB, false, 2, 1, 0x2200}};
    for (const auto& [container, queried, keySpec, index, algId] : rows) {
        context = contextOn("T1", container);
        context.containerQueried = queried;
        ASSERT_EQ(CPGetUserKey(on, keySpec, &handle) != FALSE, index >= 0) << container << " " << keySpec;
        if (index >= 0) {
            expectKey(keys[static_cast<unsigned>(index)], algId, index == 1 ? 384 : 2048);
            EXPECT_TRUE((keySpec == 1 ? context.exchangeKeyIdLength : context.signatureKeyIdLength) == 16);
        }
    }
    token().keyPairs["T1"][0].keyLabelLength = -1;
    context = contextOn("T1");
    EXPECT_FALSE(CPGetUserKey(on, 1, &handle)) << "a length outside of its field";
}

}  // namespace
}  // namespace test
