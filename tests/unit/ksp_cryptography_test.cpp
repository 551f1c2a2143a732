// What the key storage provider does with keys: signatures, encryption, agreed secrets.
#include "cng/secret.h"
#include "core/pin_cache.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

const Bytes DIGEST = filled(32, 0x10), SIGNATURE = filled(132, 1), RAW = filled(64, 0x20), DER = filled(64, 0x30);
constexpr DWORD PSS = 8;
using KspSignatureTest = KspTest;

TEST_F(KspSignatureTest, TooSmall) {
    const KSP_KEY key = keyObject(7, 521);
    KSP_CALL(KSPSignHash(prov, handleOf(&key), nullptr, input(DIGEST), 32, buffer.data(), 131, &length, 0), TOO_SMALL,
             "!@: signature buffer too small, required=132");
    EXPECT_EQ(length, 132U);
}

TEST_F(KspSignatureTest, Sign) {
    const auto call = [](const std::string& password, const std::string& pss) {
        return "signHash('T1', " + AA + ", '" + password + "', " + hex(DIGEST) + ", out[300], 0, null, " + pss + ")";
    };
    const std::string what = "|KSP: SignHash - credential: " + AA + "|KSP: SignHash - hash length: 32";
    const std::string success = "|KSP: SignHash success, signature length=132", pkcs1 = "PKCS1" + what;
    const std::string expired = pkcs1 + "|KSP: SignHash SSO expired, re-prompting for PIN|" + KSP_ASKS;
    const std::string once = call("1234", "0"), twice = once + ASKED_AGAIN + call("5678", "0");
    const Answer good = {.output = SIGNATURE}, lapsed = {.result = 49};
    const std::tuple<std::uint32_t, DWORD, std::vector<Answer>, DWORD, std::string, std::string> rows[] = {
        {7, PSS, {good}, 0, "PSS" + what + success, call("1234", "1")},
        {1, 0, {good}, NOT_SUPPORTED, pkcs1 + "|!@: RSA-1024 signing " + TOO_SHORT, INFO},
        {2, 0, {{.result = 51}}, NOT_SUPPORTED, pkcs1 + "|!@: SHA1/MD5 signing blocked on FIPS 140-3 token", once},
        {2, 0, {lapsed, good}, 0, expired + success, twice},
        {7, PSS, {good}, NOT_SUPPORTED, "PSS|!@: PSS not supported on firmware 1.9.9", ""}};
    for (const auto& [keyType, flags, answers, failure, log, calls] : rows) {
        cachePin();
        token().on("signHash", answers);
        provider.firmwareVersion = &log == &std::get<4>(std::end(rows)[-1]) ? "1.9.9" : "2.0.0";
        const KSP_KEY key = keyObject(keyType, 1024);
        const PasswordUser user(calls == twice ? std::vector{logIn("5678")} : std::vector<UserStep>());
        length = UNTOUCHED;
        KSP_CALL(KSPSignHash(prov, handleOf(&key), nullptr, input(DIGEST), 32, buffer.data(), 300, &length, flags),
                 failure, KSP_CACHED + "|KSP: SignHash - padding=" + log, calls);
        EXPECT_EQ(length, failure == 0 ? 132 : UNTOUCHED);
    }
}

TEST_F(KspSignatureTest, VerifyTakesPssForBothPaddings) {
    const KSP_KEY key = keyObject(2, 1024, RAW);
    provider.firmwareVersion = "1.9.9";
    const auto verify = [&] {
        return KSPVerifySignature(prov, handleOf(&key), nullptr, input(DIGEST), 32, input(SIGNATURE), 132,
                                  PSS | NCRYPT_PAD_PKCS1_FLAG);
    };
    EXPECT_EQ(verify(), NTE_NOT_SUPPORTED);
}

const Bytes INPUT = filled(64, 0x40), OUTPUT = filled(48, 1);
const std::string NO_PADDING = "KSPDecrypt: dwFlags=0x00000000 padding=NONE (defaulting to OAEP)|";

class KspCipherTest : public KspTest {
protected:
    /// One call, for room 0 without a buffer; `size` is what it says of the result's.
    void runs(decltype(KSPEncrypt)* entry, const KSP_KEY* key, DWORD room, DWORD flags, const WCHAR* hash,
              DWORD failure, DWORD size, const std::string& log, const std::string& calls = "", DWORD cbInput = 64) {
        length = UNTOUCHED;
        BCRYPT_OAEP_PADDING_INFO padding = {hash, nullptr, 0};
        BYTE* const out = room != 0 ? buffer.data() : nullptr;
        const auto call = [&] {
            return succeeds(entry(prov, handleOf(key), input(INPUT), cbInput, &padding, out, room, &length, flags));
        };
        expectEntry(entry == KSPEncrypt ? "KSPEncrypt" : "KSPDecrypt", call, failure, log, calls);
        EXPECT_EQ(length, size);
    }
};

TEST_F(KspCipherTest, Aes) {
    const std::string small = "|!@: symmetric output buffer too small, required=48";
    const std::string bytes(32, '7');
    KSP_KEY key;
    std::fill_n(key.symmetricKey, key.symmetricKeyLength = 16, static_cast<unsigned char>(0x77));
    pinStateClear("T1");
    token().on("encrypt_aes", {{.output = OUTPUT}});
    token().on("decryptSymetric", {{.output = OUTPUT}});
    for (const auto& [room, failure] : {std::pair{DWORD{0}, DWORD{0}}, {DWORD{47}, TOO_SMALL}}) {
        runs(KSPEncrypt, &key, room, 0, nullptr, failure, 48,
             "KSP: Symmetric encrypt CBC mode" + (room != 0 ? small : ""),
             "encrypt_aes('T1', 1, " + bytes + ", " + hex(INPUT) + ", block, 0, null[0], null[0], null)");
        runs(KSPDecrypt, &key, room, 0, nullptr, failure, 48,
             NO_PADDING + "KSP: Symmetric decrypt CBC mode|KSP: Decrypt input iv : |KSP: Decrypt input key : " + bytes +
                 (room != 0 ? small : "|pbOutput == NULL "),
             "decryptSymetric('T1', " + hex(INPUT) + ", out[0], null[0], " + bytes + ", null)");
    }
}

TEST_F(KspCipherTest, RsaEncryptKeepsToTheRoom) {
    const std::string der = "KSP: Public key is already DER encoded|", small = "!KSPEncrypt: output buffer too small, ";
    const Bytes before = buffer.first(300);
    // "Length" may say less than the modulus has, and DER may have less around its modulus than is usual.
    const KSP_KEY shrunk = keyObject(2, 16, DER), lean = keyObject(2, 1024, filled(290, 0x30));
    token().on("encrypt", {{.output = RAW}, {.output = filled(256)}});
    runs(KSPEncrypt, &shrunk, 2, 4, TEXT("SHA256"), TOO_SMALL, 64, der + small + "required=64",
         "encrypt(8, 5, " + hex(INPUT) + ", out[0], " + hex(DER) + ", null)");
    runs(KSPEncrypt, &lean, 255, 0, nullptr, TOO_SMALL, 256, der + small + "required=256", "encrypt");
    EXPECT_EQ(buffer.first(300), before);
}

TEST_F(KspCipherTest, RsaDecryptFailing) {
    const KSP_KEY key = keyObject(2, 2048);
    token().on("decrypt", {{.output = OUTPUT}});
    runs(KSPDecrypt, &key, 47, 0x44, TEXT("SHA1"), TOO_SMALL, 48,
         "KSPDecrypt: dwFlags=0x00000044 padding=OAEP|KSPDecrypt: OAEP hash algorithm=SHA1|" + KSP_CACHED +
             "|!KSPDecrypt: output buffer too small, required=48",
         "decrypt('T1', " + AA + ", '1234', " + hex(INPUT) + ", block, 0, null)");
    runs(KSPDecrypt, &key, 9, 0, nullptr, INVALID_PARAMETER, UNTOUCHED,
         NO_PADDING + "!KSPDecrypt: pbInput is null or cbInput is zero", "", 0);
}

TEST_F(KspCipherTest, Pkcs1GateComesBeforeTheKey) {
    const auto refuses = [&](DWORD failure, const std::string& log, const std::string& calls = "") {
        runs(KSPDecrypt, nullptr, 0, 6, nullptr, failure, UNTOUCHED,
             "KSPDecrypt: dwFlags=0x00000006 padding=PKCS1|!KSPDecrypt: " + log, calls);
    };
    refuses(NOT_SUPPORTED, "PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)", INFO);
    token().infos["T1"] = tokenInfo("xx1");
    refuses(INVALID_PARAMETER, "key handle or pcbResult is null", INFO);
    provider.deviceName = "";
    refuses(INVALID_PARAMETER, "key handle or pcbResult is null");
    provider.initialized = false;
    refuses(INVALID_HANDLE, "provider handle is null or not initialized");
}

using KspSecretTest = KspTest;

TEST_F(KspSecretTest, Agreement) {
    KSP_KEY own = keyObject(5, 256);
    KSP_KEY peer = keyObject(5, 256, {4, 1, 2});
    own.credentialIdLength = 16;
    NCRYPT_SECRET_HANDLE handle = 0;
    const auto agree = [&](const KSP_KEY* privateKey) {
        return KSPSecretAgreement(prov, handleOf(privateKey), handleOf(&peer), &handle, 7);
    };
    token().on("ecdhDerive", {{.output = filled(67, 9)}});
    ASSERT_EQ(agree(&own), 0);
    EXPECT_EQ(recordOf<KSP_SECRET>(handle)->bytes().size(), 66U);
    EXPECT_EQ(KSPFreeSecret(0, std::exchange(handle, 0)), 0);
    peer.publicKey[0] = 2;
    EXPECT_EQ(agree(&own), NTE_BAD_KEY);
    provider.firmwareVersion = "1.9.9";
    EXPECT_EQ(agree(nullptr), NTE_NOT_SUPPORTED) << "asked before the keys";
    EXPECT_EQ(handle, 0U);
}

TEST_F(KspSecretTest, DerivationKeepsToTheBuffers) {
    const KSP_SECRET secret = {.secretValue = {9, 9}, .secretLength = 2, .provider = &provider};
    WCHAR names[] = TEXT("SHA384SHA1");
    NCryptBuffer hash = {12, KDF_HASH_ALGORITHM, names};  // the name ends where its buffer does
    NCryptBufferDesc list = {77, 1, &hash};
    const auto derive = [&](BYTE* out, DWORD room) {
        return KSPDeriveKey(0, handleOf(&secret), nullptr, &list, out, room, &length, 7);
    };
    token().on("finalHash", {{.output = filled(48)}});
    for (const DWORD room : {0U, 16U, 49U}) {
        Guarded key(room);
        EXPECT_EQ(derive(key.data(), room), room != 0 ? 0 : NTE_BUFFER_TOO_SMALL);
        EXPECT_EQ(length, room == 16 ? 16U : 48U);
        EXPECT_EQ(key.first(std::min<DWORD>(room, 48)), filled(std::min<DWORD>(room, 48)));
    }
    EXPECT_EQ(token().takeCalls()[0], "initHash('T1', 4, null, null)");
    provider.firmwareVersion = "";
    EXPECT_EQ(derive(buffer.data(), 300), NTE_NOT_SUPPORTED);
}

}  // namespace
}  // namespace test
