#include <algorithm>

#include "capi/hash.h"
#include "capi/user_keys.h"
#include "core/container_map.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

#define SIGN(...) expectEntry("CPSignHash", __VA_ARGS__)
#define VERIFY(...) expectEntry("CPVerifySignature", __VA_ARGS__)
const std::string KEYS = "getKeyPairList('T1', null)", A2 = idText(0xA2);
const Bytes DIGEST = filled(32, 0x10), OUTER = filled(32, 0x90), RAW_KEY = filled(64, 0x20);
const Bytes SIGNATURE = filled(132, 1);

/// The library's call.
std::string verification(int type, const std::string& publicKey, const Bytes& signature) {
    return "verifySignatureHash(" + std::to_string(type) + ", 'T1', " + hex(DIGEST) + ", " + publicKey + ", " +
           hex(signature) + ", null, 0)";
}

class SignatureTest : public ProviderTest {
protected:
    /// Makes `hash` a SHA-256 that runs in the library, or that has its value and is bound to a key of this type.
    HCRYPTHASH hashFor(int mechanism, bool bound) {
        hash = {};
        hash.mechanism = mechanism;
        hash.hashAlgorithm = 3;
        hash.tokenHash = reinterpret_cast<void*>(7);
        hash.valid = true;
        hash.digestLen = 32;
        hash.credentialIdLength = bound ? 16 : 0;
        hash.hashLen = bound ? 32 : 0;
        std::fill_n(hash.credentialId, 16, static_cast<BYTE>(0xAA));
        std::copy_n(DIGEST.begin(), hash.hashLen, hash.hashValue);
        length = 300;
        return handleOf(&hash);
    }
    std::function<bool()> sign(HCRYPTHASH h, BYTE* signature, DWORD keySpec = AT_SIGNATURE) {
        return [=, this] { return CPSignHash(on, h, keySpec, TEXT("x"), 77, signature, &length); };
    }
    std::function<bool()> verify(HCRYPTPROV hProv, HCRYPTHASH h) {
        return [=, this] { return CPVerifySignature(hProv, h, SIGNATURE.data(), 132, handleOf(&key), TEXT("x"), 77); };
    }

    HASH_CONTEXT hash = {};
    KEY_HANDLE key = {};
    Guarded buffer{300};
    BYTE* const out = buffer.data();
    DWORD length = 300;
};

TEST_F(SignatureTest, KeySearch) {
    CALL(CPSignHash(OFF, 0, 2, nullptr, 0, nullptr, &length), BAD_UID, "!@: context is null or not initialized");
    SIGN(sign(0, nullptr), BAD_HASH, "!@: hash handle is null");
    const HCRYPTHASH h = hashFor(3, false);
    token().on("finalHash", {{.output = DIGEST}});
    SIGN(sign(h, nullptr), NO_KEY, "!@: sign key not found for container=", "finalHash(7, out[128], null)|" + KEYS);
    token().keyPairs["T1"] = {keyPair(0xA1, 0, 4), keyPair(0xA2, 2, 3), keyPair(0xAA, 3, 4), keyPair(0xBB, 1, 5)};
    const std::tuple<std::string, BYTE, BYTE, DWORD, std::string, DWORD> rows[] = {
        {"", 0, 0, 2, AA, 512},       {A2, 0, 0, 2, A2, 384},
        {AA, 0xBB, 0xA2, 2, BB, 256}, {AA, 0xBB, 0xA2, 1, A2, 384},
        {"", 0xBB, 0xA2, 3, AA, 512}, {"", 0x99, 0, 2, idText(0x99), 384}};  // the last is gone from the token
    for (const auto& [container, signatureKey, exchangeKey, keySpec, id, size] : rows) {
        context = contextOn("T1", container);
        std::fill_n(context.signatureKeyId, context.signatureKeyIdLength = signatureKey != 0 ? 16 : 0, signatureKey);
        std::fill_n(context.exchangeKeyId, context.exchangeKeyIdLength = exchangeKey != 0 ? 16 : 0, exchangeKey);
        const std::string log = signatureKey != 0 && keySpec != 3 ? "@: using stored credentialId=" + id : "";
        SIGN(sign(hashFor(3, false), nullptr, keySpec), 0, log, "finalHash|" + KEYS);
        EXPECT_TRUE(length == size && keyText(hash.credentialId) == id && !hash.finalized) << id;
        SIGN(sign(h, nullptr, 3 - keySpec), 0, "");  // finished once and bound for life
    }
}

TEST_F(SignatureTest, Sign) {
    context.silent = true;  // the PIN comes before the refusal of a weak key
    SIGN(sign(hashFor(1, true), out), SILENT, REFUSED_SILENTLY + "|!@: ensurePasswordValidated failed");
    context.silent = false;
    const std::string once = "signHash('T1', " + AA + ", '1234', " + hex(DIGEST) + ", out[300], 0, null, 0)";
    const std::string twice = once + "|" + INFO + "|validatePassword|signHash";
    const std::string expired = "|@: SSO expired, re-prompting for PIN|" + ASKS_FOR_PIN + ONE_DIALOG;
    const Answer good = {.output = SIGNATURE}, lapsed = {.result = TOKEN_SSO_EXPIRED};
    const std::string cancelled = expired + CANCELLED + "|!@: ensurePasswordValidated failed after SSO expiry";
    const std::tuple<int, std::vector<Answer>, DWORD, std::string, std::string, std::vector<UserStep>> rows[] = {
        {1, {}, BAD_KEY, "|!@: RSA-1024 signing " + TOO_SHORT, INFO, {}},
        {2, {{.result = 51}}, BAD_ALGID, "|!@: SHA1/MD5 signing blocked on FIPS 140-3 token", once, {}},
        {2, {lapsed, good}, 0, expired + LOGGED_IN, twice, {logIn("5678")}},
        {2, {lapsed}, FAILED, cancelled, once + "|" + INFO, {cancel()}}};
    for (const auto& [mechanism, answers, failure, log, calls, steps] : rows) {
        cachePin();
        token().on("signHash", answers);
        const PasswordUser user(steps);
        SIGN(sign(hashFor(mechanism, true), out), failure,
             PIN_CACHED + "|@ dwFlags : 77|@ hashAlgorithm : 3|@ key mechanism : " + std::to_string(mechanism) + log,
             calls);
    }
}

TEST_F(SignatureTest, Verify) {
    VERIFY(verify(OFF, 0), BAD_UID, "!CSP Context Not Initialized");
    VERIFY(verify(on, 0), BAD_HASH, "!Hash Context is not Initialized");
    token().keyPairs["T1"] = {keyPair(0xBB, 1, 6, "", RAW_KEY)};
    const std::string byContainer = "!Key Handle Not Initialized or Public Key Length is zero|Container name : ";
    const std::string missing = "|!@: container not found in key list, containerName=";
    context.containerName = idText(0xA1);
    VERIFY(verify(on, hashFor(3, true)), BAD_KEY, byContainer + context.containerName + missing + context.containerName,
           KEYS);
    context.containerName = BB;
    token().onResult("verifySignatureHash", {51, 0});
    VERIFY(verify(on, hashFor(3, true)), BAD_SIGNATURE, byContainer + BB + "|!VERIFY SIGNATURE FAILED :: 51",
           KEYS + "|" + verification(6, hex(RAW_KEY), SIGNATURE));
}

TEST_F(SignatureTest, OnlyVerifyingTakesTheWholeHmac) {
    cachePin();
    key.publicKeyLength = 1;
    for (const bool verifies : {false, true}) {
        const HCRYPTHASH h = hashFor(3, false);
        hash.isHmac = true;
        hash.credentialIdLength = 16;
        token().on("finalHash", {{.output = DIGEST}, {.output = OUTER}});
        EXPECT_TRUE(verifies ? verify(on, h)() : sign(h, out)());
        EXPECT_NE(token().takeCalls().back().find(hex(verifies ? OUTER : DIGEST)), std::string::npos);
        EXPECT_EQ(hash.finalized, verifies);
    }
    EXPECT_FALSE(verify(on, hashFor(5, false))() || GetLastError() != BAD_HASH) << "a key type is no hash's mechanism";
}

}  // namespace
}  // namespace test
