#include "core/pin_cache.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

const Entry SIGN("KSPSignHash");
const Bytes DIGEST = filled(32, 0x10);
const Bytes SIGNATURE = filled(132, 1);
constexpr DWORD PKCS1 = 2;
constexpr DWORD PSS = 8;

class KspSignatureTest : public KspTest {
protected:
    void signs(const KSP_KEY* key, BYTE* out, DWORD room, DWORD flags, DWORD failure, DWORD size,
               const std::string& log, const std::string& calls = "") {
        length = UNTOUCHED;
        const auto call = [&, given = DIGEST]() mutable {
            return succeeds(
                KSPSignHash(handleOf(&provider), handleOf(key), nullptr, given.data(), 32, out, room, &length, flags));
        };
        SIGN(call, failure, log, calls);
        EXPECT_EQ(length, size);
    }
};

TEST_F(KspSignatureTest, Sizes) {
    for (const auto& [key, size] : {std::pair(keyObject(2, 2048), 256U), std::pair(keyObject(5, 256), 64U),
                                    std::pair(keyObject(7, 521), 132U), std::pair(keyObject(6, ~0U), 0x40000000U)}) {
        signs(&key, nullptr, 0, 0, 0, size, "KSP: SignHash size query, returning " + std::to_string(size));
        signs(&key, buffer.data(), size - 1, 0, TOO_SMALL, size,
              "!KSPSignHash: signature buffer too small, required=" + std::to_string(size));
    }
}

TEST_F(KspSignatureTest, Sign) {
    const auto call = [](const std::string& password, const std::string& pss) {
        return "signHash('T1', " + AA + ", '" + password + "', " + hex(DIGEST) + ", out[300], 0, null, " + pss + ")";
    };
    const auto runs = [&](std::uint32_t keyType, DWORD flags, const std::vector<Answer>& answers, DWORD failure,
                          const std::string& log, const std::string& calls, const std::vector<UserStep>& steps = {}) {
        cachePin();
        token().on("signHash", answers);
        const KSP_KEY key = keyObject(keyType, 1024);
        const PasswordUser user(steps);
        signs(&key, buffer.data(), 300, flags, failure, failure == 0 ? 132 : UNTOUCHED,
              KSP_CACHED + "|KSP: SignHash - padding=" + log, calls);
        EXPECT_TRUE(failure != 0 || buffer.first(132) == SIGNATURE) << "as the token has it";
    };
    const std::string what = "|KSP: SignHash - credential: " + AA + "|KSP: SignHash - hash length: 32";
    const std::string success = "|KSP: SignHash success, signature length=132";
    const std::string pkcs1 = "PKCS1" + what;
    const std::string expired = pkcs1 + "|KSP: SignHash SSO expired, re-prompting for PIN|" + KSP_ASKS;
    const std::string once = call("1234", "0");
    const std::string twice = once + ASKED_AGAIN + call("5678", "0");
    runs(7, PSS, {{.output = SIGNATURE}}, 0, "PSS" + what + success, call("1234", "1"));
    provider.firmwareVersion = "1.9.9";
    runs(7, PSS, {{.output = SIGNATURE}}, NOT_SUPPORTED, "PSS|!KSPSignHash: PSS not supported on firmware 1.9.9", "");
    runs(2, PKCS1 | PSS, {{.output = SIGNATURE}}, 0, pkcs1 + success, once);
    runs(1, 0, {{.output = SIGNATURE}}, NOT_SUPPORTED,
         pkcs1 + "|!KSPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 key size below 112-bit security strength",
         INFO);
    runs(2, 0, {{.result = 51}}, NOT_SUPPORTED, pkcs1 + "|!KSPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token",
         once);
    runs(2, 0, {{.result = 49}, {.output = SIGNATURE}}, 0, expired + success, twice, {logIn("5678")});
    runs(2, 0, {{.result = 49}}, INTERNAL_ERROR, expired + "|!KSP: Sign hash failed: 49", twice, {logIn("5678")});
    runs(2, 0, {{.output = SIGNATURE, .length = 301}}, INTERNAL_ERROR,
         pkcs1 + "|!KSPSignHash: the token library gave a signature of 301 bytes", once);
}

TEST_F(KspSignatureTest, Verify) {
    const auto verifies = [&](std::uint32_t keyType, const Bytes& publicKey, DWORD flags, SECURITY_STATUS status,
                              const std::string& log, const std::string& call) {
        const KSP_KEY key = keyObject(keyType, 1024, publicKey);
        Bytes digest = DIGEST;
        Bytes given = SIGNATURE;
        const auto verify = [&] {
            EXPECT_EQ(KSPVerifySignature(handleOf(&provider), handleOf(&key), nullptr, digest.data(), 32, given.data(),
                                         132, flags),
                      status);
        };
        EXPECT_EQ(logOf(verify).back(), log);
        EXPECT_EQ(token().takeCalls(), lines(call));
    };
    const Bytes RAW = filled(64, 0x20);
    const Bytes DER = filled(64, 0x30);
    const std::string hash = ", 'T1', " + hex(DIGEST) + ", ";
    const std::string signature = ", " + hex(SIGNATURE) + ", null, ";
    pinStateClear("T1");  // no PIN is asked for
    verifies(2, {}, 0, NTE_BAD_KEY, "!KSP: No public key for verification", "");
    verifies(7, RAW, PKCS1, 0, "KSP: Verify signature success",
             "verifySignatureHash(7" + hash + hex(RAW) + signature + "0)");
    verifies(1, RAW, PSS, 0, "KSP: Verify signature success",
             "verifySignatureHash(1" + hash + spki(RAW) + signature + "1)");
    provider.firmwareVersion = "1.9.9";
    verifies(1, RAW, PSS | PKCS1, NTE_NOT_SUPPORTED, "!KSPVerifySignature: PSS not supported on firmware 1.9.9", "");
    token().onResult("verifySignatureHash", {49});
    verifies(4, DER, 0, NTE_BAD_SIGNATURE, "!KSP: Verify signature failed: 49",
             "verifySignatureHash(4" + hash + hex(DER) + signature + "0)");
}

}  // namespace
}  // namespace test
