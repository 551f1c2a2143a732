#include <algorithm>

#include "capi/hash.h"
#include "capi/user_keys.h"
#include "core/container_map.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const Entry SIGN("CPSignHash");
const Entry VERIFY("CPVerifySignature");

const std::string KEYS = "getKeyPairList('T1', null)";
const std::string INFO = "getTokenInfo('T1', null)";
const std::string AA = idText(0xAA);
const std::string BB = idText(0xBB);
const std::string A2 = idText(0xA2);
const Bytes DIGEST = filled(32, 0x10);
const Bytes SIGNATURE = filled(132, 1);
const Bytes REVERSED(SIGNATURE.rbegin(), SIGNATURE.rend());
const Bytes RAW_KEY = filled(64, 0x20);
const Bytes DER_KEY = filled(64, 0x30);

/// A SHA-256 hash that runs in the library, for `mechanism` the type of a key that signed it.
HASH_CONTEXT runningHash(int mechanism = 3) {
    HASH_CONTEXT hash = {};
    hash.valid = true;
    hash.mechanism = mechanism;
    hash.hashAlgorithm = 3;
    hash.digestLen = 32;
    hash.tokenHash = reinterpret_cast<void*>(7);
    return hash;
}

/// One that has its value, bound to the key of type `mechanism`.
HASH_CONTEXT boundHash(int mechanism) {
    HASH_CONTEXT hash = runningHash(mechanism);
    hash.finalized = true;
    hash.hashLen = 32;
    std::copy(DIGEST.begin(), DIGEST.end(), hash.hashValue);
    std::fill(std::begin(hash.credentialId), std::end(hash.credentialId), static_cast<unsigned char>(0xAA));
    hash.credentialIdLength = 16;
    return hash;
}

KEY_HANDLE keyObject(ALG_ID algId, unsigned bits, const Bytes& publicKey) {
    KEY_HANDLE key = {};
    key.algId = algId;
    key.bitSize = bits;
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
    return key;
}

class SignatureTest : public ProviderTest {
protected:
    std::function<bool()> sign(const CSP_CONTEXT* on, HASH_CONTEXT* hash, bool hasBuffer, DWORD keySpec = 2) {
        return [=, this] {
            BYTE* const signature = hasBuffer ? buffer.data() : nullptr;
            return CPSignHash(handleOf(on), handleOf(hash), keySpec, TEXT("x"), 77, signature, &length) != FALSE;
        };
    }
    static std::function<bool()> verify(const CSP_CONTEXT* on, HASH_CONTEXT* hash, const KEY_HANDLE* key) {
        return [=] {
            const Bytes given = SIGNATURE;
            const BOOL result =
                CPVerifySignature(handleOf(on), handleOf(hash), given.data(), 132, handleOf(key), TEXT("x"), 77);
            EXPECT_EQ(given, SIGNATURE) << "the caller's buffer stays";
            return result != FALSE;
        };
    }
    /// The library's call for verifying.
    static std::string verification(int type, const std::string& publicKey, const Bytes& signature,
                                    const Bytes& digest = DIGEST) {
        return "verifySignatureHash(" + std::to_string(type) + ", 'T1', " + hex(digest) + ", " + publicKey + ", " +
               hex(signature) + ", null, 0)";
    }
    /// The SubjectPublicKeyInfo of a modulus of 64 bytes without its top bit, and the exponent 65537.
    static std::string spki(const Bytes& modulus) {
        return "305B300D06092A864886F70D0101010500034A0030470240" + hex(modulus) + "0203010001";
    }

    CSP_CONTEXT context = contextOn("T1");
    RimmedBuffer buffer{300};
    DWORD length = 300;
};

TEST_F(SignatureTest, SignChecks) {
    const CSP_CONTEXT named = contextOn("T1", "box");
    HASH_CONTEXT running = runningHash();
    HASH_CONTEXT unbound = boundHash(3);
    unbound.credentialIdLength = 0;
    SIGN(sign(nullptr, &running, false), BAD_UID, "!CPSignHash: context is null or not initialized");
    SIGN(sign(&UNINITIALISED, nullptr, false), BAD_UID, "!CPSignHash: context is null or not initialized");
    SIGN(sign(&named, nullptr, false), BAD_HASH, "!CPSignHash: hash handle is null");
    SIGN(sign(&named, &unbound, false), NO_KEY, "!CPSignHash: sign key not found for container=box", KEYS);
    token().onResult("finalHash", {8});
    SIGN(sign(&named, &running, false), FAILED, "!CPSignHash: zentok_finalHash failed with ret=8",
         "finalHash(7, out[128], null)");
    for (const int lie : {-1, 129, 0x7FFFFFFF}) {
        token().on("finalHash", {{.length = lie}});
        EXPECT_FALSE(sign(&named, &running, false)() || running.hashLen != 0) << lie;
    }
    context.silent = true;
    HASH_CONTEXT weakKey = boundHash(1);  // the PIN comes before its refusal
    SIGN(sign(&context, &weakKey, true), SILENT, REFUSED_SILENTLY + "|!CPSignHash: ensurePasswordValidated failed");
}

TEST_F(SignatureTest, KeySearch) {
    const auto finds = [&](const std::string& container, unsigned char signatureKey, unsigned char exchangeKey,
                           DWORD keySpec, const std::string& id, int mechanism, DWORD size, bool stored = false) {
        context.containerName = container;
        std::fill(std::begin(context.signatureKeyId), std::end(context.signatureKeyId), signatureKey);
        std::fill(std::begin(context.exchangeKeyId), std::end(context.exchangeKeyId), exchangeKey);
        context.signatureKeyIdLength = signatureKey != 0 ? 16 : 0;
        context.exchangeKeyIdLength = exchangeKey != 0 ? 16 : 0;
        HASH_CONTEXT hash = runningHash();
        SIGN(sign(&context, &hash, false, keySpec), 0, stored ? "CPSignHash: using stored credentialId=" + id : "",
             "finalHash(7, out[128], null)|" + KEYS);
        EXPECT_EQ(length, size);
        SIGN(sign(&context, &hash, false, 3 - keySpec), 0, "");  // finished once and bound for life
        EXPECT_EQ(keyText(hash.credentialId), id);
        EXPECT_EQ(hash.mechanism, mechanism);
        EXPECT_TRUE(hash.hashAlgorithm == 3 && !hash.finalized);
    };
    token().on("finalHash", {{.output = DIGEST}});
    token().keyPairs["T1"] = {keyPair(0xA1, 0, 4), keyPair(0xA2, 2, 3), keyPair(0xAA, 3, 4), keyPair(0xBB, 1, 5)};
    finds("", 0, 0, 2, AA, 4, 512);
    finds(BB, 0, 0, 1, BB, 5, 256);
    finds(A2, 0, 0, 2, A2, 3, 384);  // usage 2 signs when nothing else in the container does
    finds(AA, 0xBB, 0xA2, 2, BB, 5, 256, true);
    finds(AA, 0xBB, 0xA2, 1, A2, 3, 384, true);
    finds("", 0, 0xA2, 2, AA, 4, 512);
    finds("", 0xBB, 0xA2, 3, AA, 4, 512);
    finds("", 0x99, 0, 2, idText(0x99), 3, 384, true);  // gone from the token: the hash's own mechanism stays
    token().keyPairs["T1"] = {keyPair(0xA1, 4, 4), keyPair(0xA2, 2, 3)};
    finds("", 0, 0, 2, A2, 3, 384);
    for (const int type : {1, 2, 99}) {
        token().keyPairs["T1"] = {keyPair(0xAA, 1, type)};
        finds("", 0, 0, 2, AA, type, 256);
    }
}

TEST_F(SignatureTest, Sign) {
    const std::string expired = "|CPSignHash: SSO expired, re-prompting for PIN|" + ASKS_FOR_PIN + ONE_DIALOG;
    const std::string weak = "|!CPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token";
    const auto call = [](const std::string& password) {
        return "signHash('T1', " + AA + ", '" + password + "', " + hex(DIGEST) + ", out[300], 0, null, 0)";
    };
    const std::string once = call("1234");
    const std::string twice = once + "|" + INFO + "|validatePassword('T1', '5678', 1, 0, null)|" + call("5678");
    const auto signs = [&](int mechanism, const std::vector<Answer>& answers, DWORD failure, const std::string& log,
                           const std::string& calls, const Bytes& output = {},
                           const std::vector<UserStep>& steps = {}) {
        cachePin();
        token().on("signHash", answers);
        HASH_CONTEXT hash = boundHash(mechanism);
        length = 300;
        const PasswordUser user(steps);
        SIGN(sign(&context, &hash, true), failure,
             PIN_CACHED + "|CPSignHash dwFlags : 77|CPSignHash hashAlgorithm : 3|CPSignHash key mechanism : " +
                 std::to_string(mechanism) + log,
             calls);
        EXPECT_EQ(length, failure == 0 ? output.size() : 300U);
        EXPECT_EQ(buffer.first(output.size()), output);
    };
    const Answer good = {.output = SIGNATURE};
    for (const int rsa : {2, 3, 4}) {
        signs(rsa, {good}, 0, "", once, REVERSED);
    }
    for (const int other : {0, 5, 6, 7}) {
        signs(other, {good}, 0, "", once, SIGNATURE);
    }
    signs(1, {good}, BAD_KEY,
          "|!CPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 key size below 112-bit security strength", INFO);
    signs(2, {{.result = 51}}, BAD_ALGID, weak, once);
    signs(2, {{.result = 48}}, DLL_FAIL, "|!Sign hash failed : 48", once);
    const Answer lapsed = {.result = 49};
    signs(2, {lapsed, good}, 0, expired + LOGGED_IN, twice, REVERSED, {logIn("5678")});
    signs(2, {lapsed}, DLL_FAIL, expired + LOGGED_IN + "|!Sign hash failed : 49", twice, {}, {logIn("5678")});
    signs(2, {lapsed, {.result = 51}}, BAD_ALGID, expired + LOGGED_IN + weak, twice, {}, {logIn("5678")});
    signs(2, {lapsed}, FAILED, expired + CANCELLED + "|!CPSignHash: ensurePasswordValidated failed after SSO expiry",
          once + "|" + INFO, {}, {cancel()});
    for (const int lie : {-1, 301, 0x7FFFFFFF}) {
        for (const int mechanism : {2, 5}) {
            cachePin();
            token().on("signHash", {{.output = filled(300), .length = lie}});
            HASH_CONTEXT hash = boundHash(mechanism);
            length = 300;
            EXPECT_FALSE(sign(&context, &hash, true)()) << lie;
            EXPECT_EQ(GetLastError(), DLL_FAIL);
        }
    }
}

TEST_F(SignatureTest, VerifyByKeyObject) {
    const auto verifies = [&](ALG_ID algId, unsigned bits, const Bytes& publicKey, int type, const std::string& road) {
        HASH_CONTEXT hash = boundHash(3);
        const KEY_HANDLE key = keyObject(algId, bits, publicKey);
        const bool isRaw = road.find("raw modulus") != std::string::npos;
        VERIFY(verify(&context, &hash, &key), 0, "key handle available|CPVerifySignature: " + road,
               verification(type, isRaw ? spki(publicKey) : hex(publicKey), algId == 0x2200 ? SIGNATURE : REVERSED));
    };
    context.silent = true;  // no PIN is asked for
    verifies(0x2200, 256, DER_KEY, 5, "ECC public key, using raw EC point");
    verifies(0x2200, 384, RAW_KEY, 6, "ECC public key, using raw EC point");
    verifies(0x2200, 521, RAW_KEY, 7, "ECC public key, using raw EC point");
    verifies(0x2200, 2048, RAW_KEY, 5, "ECC public key, using raw EC point");
    verifies(0xA400, 1024, DER_KEY, 1, "RSA public key already DER encoded");
    verifies(2, 3072, DER_KEY, 3, "RSA public key already DER encoded");
    verifies(0x2400, 4096, RAW_KEY, 4, "RSA raw modulus, converting to DER");
    verifies(0x2400, 521, RAW_KEY, 2, "RSA raw modulus, converting to DER");
}

TEST_F(SignatureTest, VerifyByContainer) {
    HASH_CONTEXT hash = boundHash(3);
    hash.credentialIdLength = 0;
    const KEY_HANDLE withoutPublicKey = {};
    const auto verifies = [&](const std::string& container, const std::string& call) {
        context.containerName = container;
        for (const KEY_HANDLE* key : {static_cast<const KEY_HANDLE*>(nullptr), &withoutPublicKey}) {
            VERIFY(
                verify(&context, &hash, key), call.empty() ? BAD_KEY : 0,
                "!Key Handle Not Initialized or Public Key Length is zero|Container name : " + container +
                    (call.empty() ? "|!CPVerifySignature: container not found in key list, containerName=" + container
                                  : ""),
                KEYS + (call.empty() ? "" : "|" + call));
        }
    };
    token().keyPairs["T1"] = {keyPair(0xA1, 0, 2, "", RAW_KEY), keyPair(0xAA, 2, 3, "", DER_KEY),
                              keyPair(0xBB, 1, 6, "", RAW_KEY), keyPair(0xA2, 3, 1, "", RAW_KEY),
                              keyPair(0xA3, 3, 9, "", RAW_KEY)};
    verifies("", verification(3, spki(DER_KEY), REVERSED));  // its first byte is not looked at
    verifies(AA, verification(3, spki(DER_KEY), REVERSED));
    verifies(BB, verification(6, hex(RAW_KEY), SIGNATURE));
    verifies(A2, verification(1, spki(RAW_KEY), REVERSED));
    verifies(idText(0xA3), verification(9, hex(RAW_KEY), SIGNATURE));
    verifies(idText(0xA1), "");
    EXPECT_EQ(hash.credentialIdLength, 0U) << "nothing is remembered";
    context.containerName = AA;
    for (const int lie : {-1, 1025, 0x7FFFFFFF}) {
        token().keyPairs["T1"][1].publicKeyLength = lie;
        EXPECT_FALSE(verify(&context, &hash, nullptr)()) << lie;
    }
}

TEST_F(SignatureTest, VerifyHashes) {
    const KEY_HANDLE key = keyObject(0x2200, 256, {9});
    const Bytes digest = filled(32, 0x60);
    const std::string chosen = "key handle available|CPVerifySignature: ECC public key, using raw EC point";
    const auto query = [](const std::string& mechanism) {
        return "CPGetHashParam|CPGetHashParam dwParam : 2|CPGetHashParam mechanism : " + mechanism + "|";
    };
    const std::string finish = "finalHash(7, out[32], null)";
    HASH_CONTEXT finished = boundHash(3);
    HASH_CONTEXT running = runningHash();
    HASH_CONTEXT p256Signed = runningHash(5);
    HASH_CONTEXT p521Signed = runningHash(7);
    VERIFY(verify(nullptr, nullptr, nullptr), BAD_UID, "!CSP Context Not Initialized");
    VERIFY(verify(&UNINITIALISED, nullptr, nullptr), BAD_UID, "!CSP Context Not Initialized");
    VERIFY(verify(&context, nullptr, nullptr), BAD_HASH, "!Hash Context is not Initialized");
    VERIFY(verify(&context, &p256Signed, &key), BAD_HASH, query("5") + "!Hash size larger than expected");
    VERIFY(verify(&context, &p521Signed, &key), BAD_HASH,
           query("7") + "!CPGetHashParam: HP_HASHVAL unsupported mechanism=7|!CPGetHashParam failed to get hash size");
    token().on("finalHash", {{.result = 3}, {.output = digest}});
    VERIFY(verify(&context, &running, &key), BAD_HASH,
           query("3") + query("3") +
               "!CPGetHashParam: zentok_finalHash failed, ret=3|!CPGetHashParam failed to get hash value",
           finish);
    VERIFY(verify(&context, &running, &key), 0,
           query("3") + query("3") + "Hash obtained using CPGetHashParam|" + chosen,
           finish + "|" + verification(5, "09", SIGNATURE, digest));
    EXPECT_TRUE(running.finalized && running.hashLen == 32);
    token().onResult("verifySignatureHash", {51});
    VERIFY(verify(&context, &finished, &key), BAD_SIGNATURE, chosen + "|!VERIFY SIGNATURE FAILED :: 51",
           verification(5, "09", SIGNATURE));
}

TEST_F(SignatureTest, OnlyVerifyingTakesTheWholeHmac) {
    cachePin();
    const KEY_HANDLE key = keyObject(0x2200, 256, {9});
    for (const bool verifies : {false, true}) {
        HASH_CONTEXT hmac = runningHash();
        hmac.isHmac = true;
        hmac.hmacKeyLen = 64;
        hmac.credentialIdLength = 16;
        token().on("finalHash", {{.output = DIGEST}, {.output = filled(32, 0x90)}});
        EXPECT_TRUE((verifies ? verify(&context, &hmac, &key) : sign(&context, &hmac, true))());
        const std::string call = token().takeCalls().back();
        EXPECT_NE(call.find(hex(verifies ? filled(32, 0x90) : DIGEST)), std::string::npos) << call;
        EXPECT_EQ(hmac.finalized, verifies);
    }
}

}  // namespace
}  // namespace test
