// What the key storage provider does with keys: signatures, encryption, agreed secrets.
#include "cng/secret.h"
#include "core/pin_cache.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

const Bytes DIGEST = filled(32, 0x10), SIGNATURE = filled(132, 1), RAW = filled(64, 0x20), DER = filled(64, 0x30);
constexpr DWORD PKCS1 = 2, PSS = 8;
using KspSignatureTest = KspTest;

TEST_F(KspSignatureTest, Sizes) {
    for (const auto& [key, size] : {std::pair(keyObject(2, 2048), 256U), std::pair(keyObject(5, 256), 64U),
                                    std::pair(keyObject(7, 521), 132U), std::pair(keyObject(6, ~0U), 0x40000000U)}) {
        for (BYTE* out : {static_cast<BYTE*>(nullptr), buffer.data()}) {
            KSP_CALL(KSPSignHash(prov, handleOf(&key), nullptr, input(DIGEST), 32, out, size - 1, &length, 0),
                     out != nullptr ? TOO_SMALL : 0,
                     (out != nullptr ? "!@: signature buffer too small, required="
                                     : "KSP: SignHash size query, returning ") +
                         std::to_string(size));
            EXPECT_EQ(std::exchange(length, UNTOUCHED), size);
        }
    }
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
        {2, PKCS1 | PSS, {good}, 0, pkcs1 + success, once},
        {1, 0, {good}, NOT_SUPPORTED, pkcs1 + "|!@: RSA-1024 signing " + TOO_SHORT, INFO},
        {2, 0, {{.result = 51}}, NOT_SUPPORTED, pkcs1 + "|!@: SHA1/MD5 signing blocked on FIPS 140-3 token", once},
        {2, 0, {lapsed, good}, 0, expired + success, twice},
        {2, 0, {lapsed}, INTERNAL_ERROR, expired + "|!KSP: Sign hash failed: 49", twice},
        {2,
         0,
         {{.output = SIGNATURE, .length = 301}},
         INTERNAL_ERROR,
         pkcs1 + "|!@: the token library gave a signature of 301 bytes",
         once},
        {7, PSS, {good}, NOT_SUPPORTED, "PSS|!@: PSS not supported on firmware 1.9.9", ""}};
    for (const auto& [keyType, flags, answers, failure, log, calls] : rows) {
        cachePin();
        token().on("signHash", answers);
        provider.firmwareVersion = &log == &std::get<4>(rows[7]) ? "1.9.9" : "2.0.0";
        const KSP_KEY key = keyObject(keyType, 1024);
        const PasswordUser user(calls == twice ? std::vector{logIn("5678")} : std::vector<UserStep>());
        length = UNTOUCHED;
        KSP_CALL(KSPSignHash(prov, handleOf(&key), nullptr, input(DIGEST), 32, buffer.data(), 300, &length, flags),
                 failure, KSP_CACHED + "|KSP: SignHash - padding=" + log, calls);
        EXPECT_EQ(length, failure == 0 ? 132 : UNTOUCHED);
        EXPECT_TRUE(failure != 0 || buffer.first(132) == SIGNATURE) << "as the token has it";
    }
}

TEST_F(KspSignatureTest, Verify) {
    const auto verifies = [&](std::uint32_t keyType, const Bytes& publicKey, DWORD flags, SECURITY_STATUS status,
                              const std::string& log, const std::string& last = "") {
        const KSP_KEY key = keyObject(keyType, 1024, publicKey);
        const auto verify = [&] {
            EXPECT_EQ(
                KSPVerifySignature(prov, handleOf(&key), nullptr, input(DIGEST), 32, input(SIGNATURE), 132, flags),
                status);
        };
        EXPECT_EQ(logOf(verify).back(), log);
        const std::string call = "verifySignatureHash(" + std::to_string(keyType) + ", 'T1', " + hex(DIGEST) + ", ";
        EXPECT_EQ(token().takeCalls(), last.empty() ? Lines() : Lines{call + last});
    };
    const std::string signature = ", " + hex(SIGNATURE) + ", null, ";
    pinStateClear("T1");  // no PIN is asked for
    verifies(2, {}, 0, NTE_BAD_KEY, "!KSP: No public key for verification");
    verifies(7, RAW, PKCS1, 0, "KSP: Verify signature success", hex(RAW) + signature + "0)");
    verifies(1, RAW, PSS, 0, "KSP: Verify signature success", spki(RAW) + signature + "1)");
    provider.firmwareVersion = "1.9.9";
    verifies(1, RAW, PSS | PKCS1, NTE_NOT_SUPPORTED, "!KSPVerifySignature: PSS not supported on firmware 1.9.9");
    token().onResult("verifySignatureHash", {49});
    verifies(4, DER, 0, NTE_BAD_SIGNATURE, "!KSP: Verify signature failed: 49", hex(DER) + signature + "0)");
}

const Entry ENCRYPT("KSPEncrypt"), DECRYPT("KSPDecrypt");
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
        (entry == KSPEncrypt ? ENCRYPT : DECRYPT)(call, failure, log, calls);
        EXPECT_EQ(length, size);
    }
};

TEST_F(KspCipherTest, Aes) {
    pinStateClear("T1");
    const std::string lie = "|!@: the token library gave a result of -1 bytes";
    const auto check = [&](int keySize, std::uint8_t mode, const std::string& type, const std::string& iv) {
        KSP_KEY key;
        const std::string bytes = hex(Bytes(static_cast<std::size_t>(keySize), 0x70));
        const std::string passed = iv.empty() ? "null[0]" : iv;
        const std::string text = mode == 0 ? "crypt CBC mode" : "crypt ECB mode";
        std::fill_n(key.symmetricKey, keySize, static_cast<unsigned char>(0x70));
        key.symmetricKeyLength = keySize;
        key.chainingMode = mode;
        const auto both = [&](DWORD room, const Answer& answer, DWORD failure, DWORD size, const std::string& sealed,
                              const std::string& opened) {
            token().on("encrypt_aes", {answer});
            token().on("decryptSymetric", {answer});
            runs(KSPEncrypt, &key, room, 0, nullptr, failure, size, "KSP: Symmetric en" + text + sealed,
                 "encrypt_aes('T1', " + type + ", " + bytes + ", " + hex(INPUT) + ", block, 0, " + passed +
                     ", null[0], null)");
            runs(KSPDecrypt, &key, room, 0, nullptr, failure, size,
                 NO_PADDING + "KSP: Symmetric de" + text + "|KSP: Decrypt input iv : " + iv +
                     "|KSP: Decrypt input key : " + bytes + opened,
                 "decryptSymetric('T1', " + hex(INPUT) + ", out[0], " + passed + ", " + bytes + ", null)");
        };
        both(0, {.output = OUTPUT}, 0, 48, "", "|pbOutput == NULL ");
        both(47, {.output = OUTPUT}, TOO_SMALL, 48, "|!@: symmetric output buffer too small, required=48",
             "|!@: symmetric output buffer too small, required=48");
        both(48, {.output = OUTPUT}, 0, 48, "|KSP: Symmetric encrypt success, length: 48",
             "|KSP: Symmetric decrypt success, length: 48");
        EXPECT_EQ(buffer.first(48), OUTPUT);
        both(300, {.length = -1}, INTERNAL_ERROR, UNTOUCHED, lie, lie);
    };
    check(32, 0, "2", "");
    setProcessIv(filled(16, 0x90));
    check(16, 0, "1", hex(filled(16, 0x90)));
    check(24, 1, "6", "");
}

TEST_F(KspCipherTest, RsaEncrypt) {
    const std::string raw = "KSP: Public key is raw modulus, converting to DER|";
    token().on("encrypt", {{.output = RAW}});
    // The modulus and its size, padding and hash, what they are for the library.
    const std::tuple<Bytes, std::uint32_t, DWORD, const WCHAR*, std::string> rows[] = {
        {RAW, 1024, 2, TEXT("SHA256"), "7, 1"},
        {DER, 512, 4, TEXT("SHA1"), "8, 8"},
        {{}, 1024, 4, TEXT("SHA256"), "7, 5"}};
    for (const auto& [publicKey, bits, flags, hash, typeAndPadding] : rows) {
        const KSP_KEY key = keyObject(2, bits, publicKey);
        const std::string sent = publicKey == RAW ? spki(RAW) : publicKey.empty() ? "null[0]" : hex(publicKey);
        runs(KSPEncrypt, &key, bits / 8, flags, hash, 0, 64,
             (publicKey == RAW ? raw : "KSP: Public key is already DER encoded|") + "KSP: Encrypt success",
             "encrypt(" + typeAndPadding + ", " + hex(INPUT) + ", out[0], " + sent + ", null)");
    }
    // "Length" may say less than the modulus has: nothing is written behind the room that it asks for.
    const KSP_KEY shrunk = keyObject(2, 16, RAW);
    const Bytes before = buffer.first(300);
    runs(KSPEncrypt, &shrunk, 1, 0, nullptr, TOO_SMALL, 2, "!KSPEncrypt: output buffer too small, required=2");
    runs(KSPEncrypt, &shrunk, 2, 0, nullptr, TOO_SMALL, 64, raw + "!KSPEncrypt: output buffer too small, required=64",
         "encrypt");
    const KSP_KEY lean = keyObject(2, 1024, filled(290, 0x30));  // DER with less around its modulus than is usual
    token().on("encrypt", {{.output = filled(256)}});
    runs(KSPEncrypt, &lean, 255, 0, nullptr, TOO_SMALL, 256,
         "KSP: Public key is already DER encoded|!KSPEncrypt: output buffer too small, required=256", "encrypt");
    EXPECT_EQ(buffer.first(300), before);
}

TEST_F(KspCipherTest, RsaDecrypt) {
    const KSP_KEY key = keyObject(2, 2048);
    const auto call = [](const std::string& password) {
        return "decrypt('T1', " + AA + ", '" + password + "', " + hex(INPUT) + ", block, 0, null)";
    };
    const std::string oaep = "KSPDecrypt: dwFlags=0x00000044 padding=OAEP|KSPDecrypt: OAEP hash algorithm=SHA1|";
    const std::string expired = "|KSP: Decrypt SSO expired, re-prompting for PIN|" + KSP_ASKS;
    const auto check = [&](DWORD room, const std::vector<Answer>& answers, DWORD failure, DWORD size,
                           const std::string& log, const std::string& more = "", std::vector<UserStep> steps = {}) {
        cachePin();
        token().on("decrypt", answers);
        const PasswordUser user(std::move(steps));
        runs(KSPDecrypt, &key, room, 0x44, TEXT("SHA1"), failure, size, oaep + KSP_CACHED + log, call("1234") + more);
    };
    check(47, {{.output = OUTPUT}}, TOO_SMALL, 48, "|!KSPDecrypt: output buffer too small, required=48");
    check(48, {{.result = 49}, {.output = OUTPUT}}, 0, 48, expired + "|KSP: Decrypt success",
          ASKED_AGAIN + call("5678"), {logIn("5678")});
    EXPECT_EQ(buffer.first(48), OUTPUT);
    runs(KSPDecrypt, &key, 0, 0, nullptr, 0, 256, NO_PADDING, "",
         0);  // a size query needs no input
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
    token().on("ecdhDerive", {{.output = filled(32, 9)}, {.output = filled(67, 9)}, {.result = 7}, {.output = {}}});
    for (const std::size_t kept : {32U, 66U}) {
        KSP_CALL(KSPSecretAgreement(prov, handleOf(&own), handleOf(&peer), &handle, 7), 0,
                 KSP_CACHED + "|@: ECDH shared secret computed, len=" + std::to_string(kept),
                 "ecdhDerive('T1', " + AA + ", '1234', 040102, block, null)");
        const auto bytes = recordOf<KSP_SECRET>(handle)->bytes();
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), filled(kept, 9));
        EXPECT_EQ(KSPFreeSecret(0, std::exchange(handle, 0)), 0);
    }
    EXPECT_EQ(agree(&own), NTE_INTERNAL_ERROR);
    EXPECT_EQ(agree(&own), NTE_INTERNAL_ERROR) << "success without a value";
    for (const Bytes& publicKey : {Bytes{}, Bytes{4, 1}, Bytes{2, 1, 2}}) {
        peer = keyObject(5, 256, publicKey);
        EXPECT_EQ(agree(&own), NTE_BAD_KEY);
    }
    own.credentialIdLength = 0;
    EXPECT_EQ(agree(&own), NTE_BAD_KEY);
    provider.firmwareVersion = "1.9.9";
    EXPECT_EQ(agree(nullptr), NTE_NOT_SUPPORTED) << "asked before the keys";
    EXPECT_EQ(handle, 0U);
}

TEST_F(KspSecretTest, Derivation) {
    const KSP_SECRET secret = {.secretValue = {9, 9}, .secretLength = 2, .provider = &provider};
    Bytes data = {0xA1, 0xA2};
    WCHAR names[] = TEXT("SHA384\0SHA224SHA1SHA512\0sha1");
    // The function, the hash with its name's size, the room; sizes of the key and the digest, and what is hashed how.
    const std::tuple<const WCHAR*, WCHAR*, DWORD, DWORD, DWORD, DWORD, std::string, std::string> rows[] = {
        {TEXT("SP800_56ACONCAT"), names, 18, 100, 48, 48, "4", "A1A1A20909"},
        {TEXT("HASH"), names + 13, 8, 16, 16, 20, "2", "0909"},
        {nullptr, names + 17, 14, 65, 64, 64, "5", "0909"},
        {nullptr, nullptr, 10, 0, 32, 32, "3", "0909"}};  // a buffer without room
    for (const auto& [kdf, hash, nameSize, room, size, digest, selector, hashed] : rows) {
        NCryptBuffer parameters[] = {{1, KDF_LABEL, data.data()},
                                     {2, KDF_HASH_ALGORITHM, data.data()},
                                     {nameSize, KDF_HASH_ALGORITHM, hash},
                                     {2, KDF_CONTEXT, data.data()}};
        NCryptBufferDesc list = {77, static_cast<ULONG>(std::size(parameters)), parameters};
        RimmedBuffer key(room);
        token().hashCount = 0;
        token().on("finalHash", {{.output = filled(digest)}});
        KSP_CALL(KSPDeriveKey(0, handleOf(&secret), kdf, &list, key.data(), room, &length, 7),
                 room != 0 ? 0 : TOO_SMALL,
                 room != 0 ? "@: derived " + std::to_string(size) + " bytes" : "!@: output buffer too small",
                 "initHash('T1', " + selector + ", null, null)|updateHash(1, " + hashed + ", null)|finalHash");
        EXPECT_EQ(length, size);
        EXPECT_EQ(key.first(std::min(room, size)), filled(std::min(room, size)));
    }
    token().on("finalHash", {{.length = 33}});
    EXPECT_EQ(KSPDeriveKey(0, handleOf(&secret), nullptr, nullptr, buffer.data(), 300, &length, 0), NTE_INTERNAL_ERROR);
    provider.firmwareVersion = "";
    EXPECT_EQ(KSPDeriveKey(0, handleOf(&secret), nullptr, nullptr, buffer.data(), 300, &length, 0), NTE_NOT_SUPPORTED);
}

}  // namespace
}  // namespace test
