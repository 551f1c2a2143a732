#include "capi/user_keys.h"

#include <algorithm>
#include <memory>

#include "core/container_map.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const Entry GEN_KEY("CPGenKey");
const Entry GET_USER_KEY("CPGetUserKey");
const Entry DESTROY("CPDestroyKey");

const std::string KEYS = "getKeyPairList('T1', null)";
const std::string AA = idText(0xAA);
const std::string BB = idText(0xBB);
const std::string CC = idText(0xCC);

std::string generate(int usage) {
    return "generateKeyPair('T1', '1234', 'all else zero', " + std::to_string(usage) + ", 0, null)";
}

/// A record with something in every field that a key object copies, and an alias without a terminator.
ZentokKeyPair fullRecord(unsigned char id, int usage, int type) {
    ZentokKeyPair key = keyPair(id, usage, type, "", filled(300, id));
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    std::fill(std::begin(key.keyLabel), std::end(key.keyLabel), static_cast<unsigned char>(id + 1));
    key.keyLabelLength = 77;
    key.tokenFlag = true;
    return key;
}

void expectCopied(const KEY_HANDLE& key, const ZentokKeyPair& record) {
    EXPECT_EQ(keyText(key.credentialId), keyText(record.credentialId));
    EXPECT_EQ(Bytes(key.keyLabel, std::end(key.keyLabel)), Bytes(128, record.keyLabel[0]));
    EXPECT_TRUE(key.credentialIdLength == 16 && key.keyLabelLength == 77 && key.symmetricKeyLength == 0);
    EXPECT_EQ(std::string(key.alias), std::string(128, 'n'));
    EXPECT_EQ(key.keyUsage, static_cast<std::uint32_t>(record.keyUsage));
    EXPECT_EQ(Bytes(key.publicKey, key.publicKey + key.publicKeyLength), filled(300, record.credentialId[0]));
}

class UserKeysTest : public ProviderTest {};

TEST_F(UserKeysTest, Checks) {
    CSP_CONTEXT silent = contextOn("T1");
    silent.silent = true;
    const CSP_CONTEXT on = contextOn("T1", "before");
    const std::string tooShort =
        PIN_CACHED +
        "|!CPGenKey: RSA-1024 key generation not allowed \xE2\x80\x94 key size below 112-bit security strength";
    const auto make = [](const CSP_CONTEXT* context, ALG_ID algId, DWORD bits) {
        return [=] {
            HCRYPTKEY handle = 0x1234;
            const BOOL result = CPGenKey(handleOf(context), algId, bits << 16 | 0xFFFF, &handle);
            EXPECT_EQ(handle, 0U);
            return result != FALSE;
        };
    };
    GEN_KEY([] { return CPGenKey(0, 3, 0, nullptr); }, ERROR_INVALID_PARAMETER, "!CPGenKey: phKey is NULL");
    GEN_KEY(make(nullptr, 3, 0), BAD_UID, "!Invalid CSP context");
    GEN_KEY(make(&UNINITIALISED, 3, 0), BAD_UID, "!Invalid CSP context");
    GEN_KEY(make(&silent, CALG_ECDSA, 0), BAD_ALGID, "!Unsupported algorithm8707");
    GEN_KEY(make(&silent, CALG_AES_256, 2048), BAD_ALGID, "!Unsupported algorithm26128");
    GEN_KEY(make(&silent, AT_SIGNATURE, 0), BAD_LEN, "rsa sign|!Unsupported Length2");
    GEN_KEY(make(&silent, AT_KEYEXCHANGE, 0), BAD_LEN, "key exhange|!Unsupported Length1");
    GEN_KEY(make(&silent, CALG_RSA_SIGN, 1024), SILENT,
            "rsa sign|" + REFUSED_SILENTLY + "|!CPGenKey: ensurePasswordValidated failed");
    cachePin();
    GEN_KEY(make(&on, CALG_RSA_KEYX, 1024), BAD_LEN, "key exhange|" + tooShort, "getTokenInfo('T1', null)");
    GEN_KEY(make(&on, AT_SIGNATURE, 512), BAD_LEN, "rsa sign|" + tooShort, "getTokenInfo('T1', null)");
    token().onResult("generateKeyPair", {-5});
    GEN_KEY(make(&on, AT_KEYEXCHANGE, 1025), NO_TOKEN,
            "key exhange|" + PIN_CACHED + "|!RSA Keypair Generation Failed, code=-5", generate(2));
    EXPECT_EQ(on.containerName, "before");

    HCRYPTKEY handle = 0x1234;
    const auto get = [&](const CSP_CONTEXT* context, HCRYPTKEY* phKey) {
        return [=] { return CPGetUserKey(handleOf(context), 9, phKey); };
    };
    GET_USER_KEY(get(&UNINITIALISED, nullptr), BAD_KEY, "!CPGetUserKey: phUserKey or hProv is null");
    GET_USER_KEY(get(nullptr, &handle), BAD_KEY, "!CPGetUserKey: phUserKey or hProv is null");
    GET_USER_KEY(get(&UNINITIALISED, &handle), BAD_UID, "!CPGetUserKey: context is not initialized");
    GET_USER_KEY(get(&on, &handle), NO_KEY, "CPGetUserKey -> dwKeySpec : 9|!CPGetUserKey: key list is empty", KEYS);
    EXPECT_EQ(handle, 0x1234U);

    const auto destroy = [](const CSP_CONTEXT* context, const KEY_HANDLE* key) {
        return [=] { return CPDestroyKey(handleOf(context), handleOf(key)); };
    };
    DESTROY(destroy(nullptr, nullptr), BAD_UID, "!CPDestroyKey: invalid or uninitialized context");
    DESTROY(destroy(&UNINITIALISED, nullptr), BAD_UID, "!CPDestroyKey: invalid or uninitialized context");
    DESTROY(destroy(&on, nullptr), BAD_KEY, "!CPDestroyKey: pKeyHandle is NULL");
    DESTROY(destroy(&on, new KEY_HANDLE()), 0, "");  // the key on the token stays
}

TEST_F(UserKeysTest, Generate) {
    token().generatedKey = fullRecord(0xCC, 3, 4);  // what the token makes is its own affair
    cachePin();
    const auto generates = [](ALG_ID requested, DWORD bits, bool exchange, DWORD bitSize, const std::string& container,
                              const Lines& mapped, const Lines& filed) {
        g_containerMap = {{"box", mapped}};
        CSP_CONTEXT context = contextOn("T1", "before");
        context.requestedContainer = container;
        context.signatureKeyIdLength = context.exchangeKeyIdLength = 16;  // overwritten
        HCRYPTKEY handle = 0;
        GEN_KEY([&] { return CPGenKey(handleOf(&context), requested, bits << 16, &handle); }, 0,
                (exchange ? "key exhange|" : "rsa sign|") + PIN_CACHED + "|Key generated successfully, Algid=" +
                    std::to_string(requested) + " bits=" + std::to_string(bitSize),
                generate(exchange ? 2 : 1));
        const std::unique_ptr<KEY_HANDLE> key(recordOf<KEY_HANDLE>(handle));
        ASSERT_NE(key, nullptr);
        expectCopied(*key, token().generatedKey);
        EXPECT_EQ(key->algId, exchange ? 0xA400U : 0x2400U);
        EXPECT_EQ(key->bitSize, bitSize);
        EXPECT_TRUE(key->mode == 0 && !key->tokenFlag);
        EXPECT_EQ(context.containerName, CC);
        EXPECT_EQ(keyText(context.signatureKeyId) + keyText(context.exchangeKeyId), CC + CC) << "whatever its usage";
        EXPECT_EQ(context.signatureKeyIdLength + context.exchangeKeyIdLength, 32U);
        EXPECT_EQ(g_containerMap, (std::map<std::string, Lines>{{"box", filed}}));
        EXPECT_EQ(readContainerKeys("box"), container.empty() ? Lines() : filed) << "written also when nothing changed";
    };
    generates(AT_KEYEXCHANGE, 4096, true, 4096, "", {AA}, {AA});
    generates(CALG_RSA_SIGN, 0xFFFF, false, 0xFFFF, "", {}, {});
    generates(CALG_RSA_SIGN, 0, false, 2048, "box", {CC, BB}, {CC, BB});
    generates(CALG_RSA_KEYX, 0, true, 2048, "box", {}, {CC});
    generates(AT_SIGNATURE, 2047, false, 2047, "box", {AA}, {AA, CC});
}

TEST_F(UserKeysTest, GetUserKey) {
    const auto gets = [](const std::string& container, bool queried, DWORD keySpec, unsigned char id, ALG_ID algId = 0,
                         unsigned bits = 0, const std::string& log = "") {
        SCOPED_TRACE(container + " " + std::to_string(keySpec));
        CSP_CONTEXT context = contextOn("T1", container);
        context.containerQueried = queried;
        const std::vector<ZentokKeyPair>& keys = token().keyPairs["T1"];
        const auto record =
            std::find_if(keys.begin(), keys.end(), [&](const auto& key) { return key.credentialId[0] == id; });
        const std::string last = record == keys.end()
                                     ? "!CPGetUserKey: requested key not found, dwKeySpec=" + std::to_string(keySpec) +
                                           " container=" + container + ", return FALSE"
                                     : "CPGetUserKey: algo=" + std::to_string(algId) +
                                           " keyUsage=" + std::to_string(record->keyUsage) +
                                           " bits=" + std::to_string(bits) + ", return TRUE";
        HCRYPTKEY handle = 0;
        GET_USER_KEY([&] { return CPGetUserKey(handleOf(&context), keySpec, &handle); }, id == 0 ? BAD_KEY : 0,
                     "CPGetUserKey -> dwKeySpec : " + std::to_string(keySpec) +
                         "|CPGetUserKey - Container name : " + container + "|" + log + last,
                     KEYS);
        const std::unique_ptr<KEY_HANDLE> key(recordOf<KEY_HANDLE>(handle));
        ASSERT_EQ(key != nullptr, id != 0);
        EXPECT_EQ(context.signatureKeyIdLength, key != nullptr && keySpec == 2 ? 16U : 0U);
        EXPECT_EQ(context.exchangeKeyIdLength, key != nullptr && keySpec == 1 ? 16U : 0U);
        if (key != nullptr) {
            expectCopied(*key, *record);
            EXPECT_TRUE(key->tokenFlag && key->mode == 1 && key->algId == algId && key->bitSize == bits);
            unsigned char* const remembered = keySpec == 2 ? context.signatureKeyId : context.exchangeKeyId;
            EXPECT_EQ(keyText(remembered), idText(id));
            remembered[0] = 0x77;
            EXPECT_TRUE(CPGetUserKey(handleOf(&context), keySpec, &handle));
            EXPECT_EQ(remembered[0], 0x77) << "what is remembered stays";
            delete recordOf<KEY_HANDLE>(handle);
        }
    };
    token().keyPairs["T1"] = {fullRecord(0xAA, 1, 2), fullRecord(0xBB, 2, 6)};
    gets("", false, 1, 0xAA, 0xA400, 2048, "Key found (AT_KEYEXCHANGE, usage=1)|");
    gets("", false, 2, 0);  // until the container was asked for
    gets("", true, 2, 0xAA, 0x2400, 2048);
    gets("", true, 1, 0xAA, 0xA400, 2048);
    gets(AA, false, 1, 0xAA, 0xA400, 2048);  // a key that only signs
    gets(BB, false, 2, 0xBB, 0x2200, 384);
    gets(CC, false, 1, 0);  // no fallback for a name
    gets(std::string(32, 'a'), false, 2, 0);
    for (const DWORD keySpec : std::vector<DWORD>{0, 3}) {
        gets("", true, keySpec, 0);
        gets("", false, keySpec, 0);
        gets(AA, false, keySpec, 0);
    }
    token().keyPairs["T1"] = {fullRecord(0xBB, 2, 5), fullRecord(0xAA, 3, 9)};
    gets("", false, 1, 0xBB, 0xA400, 256, "Key found (AT_KEYEXCHANGE, usage=2)|");
    gets("", true, 2, 0xBB, 0x2200, 256);
    gets(AA, true, 2, 0xAA, 0x2400, 0);
}

TEST_F(UserKeysTest, LyingRecords) {
    cachePin();
    CSP_CONTEXT context = contextOn("T1");
    for (const int lie : {-1, 1025, 0x7FFFFFFF}) {
        for (const bool inLabel : {false, true}) {
            ZentokKeyPair key = fullRecord(0xAA, 1, 2);
            (inLabel ? key.keyLabelLength : key.publicKeyLength) = lie;
            token().keyPairs["T1"] = {key};
            token().generatedKey = key;
            HCRYPTKEY handle = 0;
            EXPECT_FALSE(CPGetUserKey(handleOf(&context), AT_KEYEXCHANGE, &handle)) << lie;
            EXPECT_FALSE(CPGenKey(handleOf(&context), CALG_RSA_SIGN, 0, &handle)) << lie;
            EXPECT_EQ(handle, 0U);
        }
    }
}

}  // namespace
}  // namespace test
