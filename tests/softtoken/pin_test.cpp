// The PIN with its counter, and single sign-on.
#include <atomic>
#include <thread>

#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {
namespace {

class PinTest : public SoftTokenTest {
protected:
    PinTest() { replug(); }

    /// The counter as it lies on disk.
    [[nodiscard]] int storedRetries() const {
        return static_cast<int>(softtoken::Record::read(path("pin.txt")).number("retries", 0, 99));
    }

    static std::pair<int, int> ssoState() {
        const TokenInfo info = zentok_getTokenInfo(SERIAL, nullptr);
        return {info.ssoEnabled, info.ssoValidated};
    }

    const ZentokKeyPair pair = newKey(KEY_TYPE_EC_P256);
};

TEST_F(PinTest, CountsDownLocksAndStaysLocked) {
    const auto tryUntil = [&](int last) {
        for (int left = 9; left >= last; --left) {
            int retries = 0;
            EXPECT_EQ(validate("wrong" + std::to_string(left), &retries), softtoken::RESULT_WRONG_PIN);
            EXPECT_EQ(std::pair(retries, storedRetries()), std::pair(left, left));
        }
    };
    tryUntil(5);
    EXPECT_EQ(validate(PIN), 0);
    EXPECT_EQ(storedRetries(), 10) << "the right PIN gives all attempts back";
    tryUntil(0);
    EXPECT_EQ(sign(pair), softtoken::RESULT_PIN_LOCKED) << "also the right PIN, verified before";
    softtoken::resetRetryCounter(SERIAL);
    EXPECT_EQ(sign(pair), 0);
}

TEST_F(PinTest, TheSameWrongPinCostsOneAttempt) {
    int retries = 0;
    for (const auto& [pin, left] : {std::pair{"old PIN", 9}, {"old PIN", 9}, {"older PIN", 8}, {"old PIN", 7}}) {
        EXPECT_EQ(validate(pin, &retries), softtoken::RESULT_WRONG_PIN);
        EXPECT_EQ(retries, left);
    }
    // What works without a private key wants the PIN as well.
    const unsigned char* const id = pair.credentialId;
    ZentokCertificate certificate = {};
    EXPECT_EQ(zentok_deleteKeyPair(SERIAL, id, "old PIN", true, nullptr), softtoken::RESULT_WRONG_PIN);
    EXPECT_EQ(zentok_updateKeyPairDetails(SERIAL, id, "old PIN", "", nullptr, 0, nullptr), softtoken::RESULT_WRONG_PIN);
    EXPECT_EQ(zentok_importCertificate(SERIAL, "old PIN", &certificate, nullptr), softtoken::RESULT_WRONG_PIN);
    softtoken::changePin(SERIAL, PIN, "old PIN");
    EXPECT_EQ(sign(pair, 32, "old PIN"), 0) << "what was wrong may become right";
    EXPECT_EQ(sign(pair), softtoken::RESULT_WRONG_PIN) << "a verified PIN ends with its record";
}

TEST_F(PinTest, CounterIsLoweredBeforeTheTry) {
    createToken(FipsClass::FIPS_140_2, "SLOW", 262144);  // seconds
    std::atomic<bool> done{false};
    std::thread attempt([&done] {
        validate("wrong", nullptr, "SLOW");
        done = true;
    });
    bool loweredMeanwhile = false;
    while (!done) {
        // A record that is replaced in one piece is whole whenever it is read.
        const auto record = softtoken::Record::read(softtoken::widen(folder("SLOW") + "\\pin.txt"));
        loweredMeanwhile = loweredMeanwhile || (record.number("retries", 0, 99) == 9 && !done);
        Sleep(1);
    }
    attempt.join();
    EXPECT_TRUE(loweredMeanwhile) << "a process killed in the middle would have won an attempt";
}

TEST_F(PinTest, SingleSignOnOpensUntilItExpires) {
    const auto signWithout = [&] { return sign(pair, 32, ""); };
    softtoken::enableSso(SERIAL, PIN, 3600);
    replug();
    EXPECT_EQ(ssoState(), std::pair(1, 1));
    EXPECT_EQ(signWithout(), 0);
    softtoken::Record record = softtoken::Record::read(path("sso.txt"));
    record.setNumber("expires", record.number("expires", 0, INT64_MAX) + 3600);
    record.write(path("sso.txt"));
    EXPECT_EQ(signWithout(), TOKEN_SSO_EXPIRED) << "nobody moves the end of its life";
    softtoken::enableSso(SERIAL, PIN, 0);
    EXPECT_EQ(ssoState(), std::pair(1, 0));
    EXPECT_EQ(decrypt(pair, counted(32), "").code, TOKEN_SSO_EXPIRED);
    EXPECT_FALSE(softtoken::Record::read(path("sso.txt")).has("key")) << "an expired key must not stay on disk";
    softtoken::disableSso(SERIAL);
    EXPECT_EQ(signWithout(), softtoken::RESULT_WRONG_PIN);
}

// A folder in the place of the lock file is denied as a whole folder is that cannot be written.
TEST_F(PinTest, ADeniedFolderFailsSoonAndExpiredSingleSignOnStaysExpired) {
    softtoken::enableSso(SERIAL, PIN, 0);
    replug();
    softtoken::removeFile(path("lock"));
    ASSERT_TRUE(CreateDirectoryW(path("lock").c_str(), nullptr));
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(validate(PIN), softtoken::RESULT_STORAGE);
    EXPECT_EQ(ssoState(), std::pair(1, 0));
    EXPECT_LT(GetTickCount64() - start, 3000U);
}

}  // namespace
}  // namespace test
