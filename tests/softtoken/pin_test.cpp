// The PIN with its counter, and single sign-on.
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <windows.h>

#include "softtoken/files.h"
#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {

namespace {

class PinTest : public SoftTokenTest {
protected:
    PinTest() : pair(softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P256, KEY_USAGE_BOTH, "")) {}

    [[nodiscard]] softtoken::WideText path(const char* name) const {
        return softtoken::widen(home.folder(SERIAL) + "\\" + name);
    }

    /// The counter as it lies on disk.
    [[nodiscard]] int storedRetries() const {
        return static_cast<int>(softtoken::Record::read(path("pin.txt")).number("retries", 0, 99));
    }

    void forgetLogin() const {
        ASSERT_TRUE(MoveFileA(home.folder(SERIAL).c_str(), home.folder(".pulled").c_str()));
        zentok_getConnectedDeviceList(false, nullptr);
        ASSERT_TRUE(MoveFileA(home.folder(".pulled").c_str(), home.folder(SERIAL).c_str()));
    }

    ZentokKeyPair pair;
};

TEST_F(PinTest, CountsDownLocksAndStaysLocked) {
    forgetLogin();
    int retries = 0;
    for (int left = 9; left >= 5; --left) {
        EXPECT_NE(validate(WRONG_PIN, &retries), 0);
        EXPECT_EQ(retries, left);
        EXPECT_EQ(storedRetries(), left);
    }
    EXPECT_EQ(validate(PIN), 0);
    EXPECT_EQ(storedRetries(), 10) << "the right PIN gives all attempts back";
    for (int left = 9; left >= 0; --left) {
        EXPECT_EQ(validate(WRONG_PIN, &retries), softtoken::RESULT_WRONG_PIN);
        EXPECT_EQ(retries, left);
    }
    retries = 7;
    EXPECT_EQ(validate(PIN, &retries), softtoken::RESULT_PIN_LOCKED) << "also the right PIN, also when verified before";
    EXPECT_EQ(retries, 0);
    EXPECT_EQ(sign(pair, counted(32)).code, softtoken::RESULT_PIN_LOCKED);
    softtoken::resetRetryCounter(SERIAL);
    EXPECT_EQ(sign(pair, counted(32)).code, 0);
}

TEST_F(PinTest, CounterIsLoweredBeforeTheTry) {
    softtoken::TokenOptions options;
    options.serial = "SLOW";
    options.pin = PIN;
    options.pinCost = 262144;  // seconds
    softtoken::createToken(options);
    std::atomic<bool> done{false};
    std::thread attempt([&done] {
        validate(WRONG_PIN, nullptr, "SLOW");
        done = true;
    });
    bool loweredMeanwhile = false;
    while (!done) {
        const auto record = softtoken::Record::read(softtoken::widen(home.folder("SLOW") + "\\pin.txt"));
        const bool lowered = record.number("retries", 0, 99) == 9;
        loweredMeanwhile = loweredMeanwhile || (lowered && !done);
        Sleep(1);
    }
    attempt.join();
    EXPECT_TRUE(loweredMeanwhile) << "a process killed in the middle would have won an attempt";
}

TEST_F(PinTest, EveryOperationChecksItsPin) {
    ZentokCertificate certificate = {};
    certificate.certificateLength = 1;
    ZentokSymmetricKey aes = {};
    aes.keyType = KEY_TYPE_AES_128;
    aes.keyValueLength = 16;
    ZentokKeyPair generated = {};
    generated.keyType = KEY_TYPE_EC_P256;
    generated.keyUsage = KEY_USAGE_SIGN;
    const std::function<int(const char*)> operations[] = {
        [&](const char* pin) { return validate(pin); },
        [&](const char* pin) { return zentok_generateKeyPair(SERIAL, pin, &generated, nullptr); },
        [&](const char* pin) { return zentok_deleteKeyPair(SERIAL, pair.credentialId, pin, true, nullptr); },
        [&](const char* pin) {
            return zentok_updateKeyPairDetails(SERIAL, pair.credentialId, pin, "x", nullptr, 0, nullptr);
        },
        [&](const char* pin) { return zentok_importCertificate(SERIAL, pin, &certificate, nullptr); },
        [&](const char* pin) { return zentok_importAesKey(SERIAL, pin, &aes, nullptr); },
        [&](const char* pin) { return sign(pair, counted(32), false, pin).code; },
        [&](const char* pin) { return decrypt(pair, counted(32), pin).code; },
        [&](const char* pin) { return derive(pair, publicKeyOf(pair), pin).code; },
    };
    int left = 10;
    for (const auto& operation : operations) {
        EXPECT_EQ(operation(WRONG_PIN), softtoken::RESULT_WRONG_PIN);
        EXPECT_EQ(storedRetries(), --left);
        EXPECT_EQ(operation(""), softtoken::RESULT_WRONG_PIN);
        EXPECT_EQ(operation(nullptr), softtoken::RESULT_BAD_ARGUMENT);
        EXPECT_EQ(storedRetries(), left) << "no PIN costs no attempt";
    }
    EXPECT_EQ(zentok_getKeyPairList(SERIAL, nullptr).size(), 1U) << "nothing was done";
}

TEST_F(PinTest, AVerifiedPinCostsNothingAgain) {
    ASSERT_EQ(validate(PIN), 0);
    const std::uint64_t before = softtoken::modificationTime(path("pin.txt"));
    for (int count = 0; count < 20; ++count) {
        EXPECT_EQ(sign(pair, counted(32)).code, 0);
    }
    EXPECT_EQ(softtoken::modificationTime(path("pin.txt")), before);
    softtoken::changePin(SERIAL, PIN, WRONG_PIN);
    EXPECT_NE(sign(pair, counted(32)).code, 0) << "the remembered PIN ends with the record that it opened";
    EXPECT_EQ(sign(pair, counted(32), false, WRONG_PIN).code, 0) << "the keys live on under the new PIN";
    EXPECT_THROW(softtoken::changePin(SERIAL, PIN, "123456"), softtoken::Error);
}

TEST_F(PinTest, AttemptsOfManyThreadsAreCountedOnce) {
    forgetLogin();
    std::vector<std::thread> threads;
    for (int count = 0; count < 4; ++count) {
        threads.emplace_back([] { validate(WRONG_PIN); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(storedRetries(), 6);
}

TEST_F(PinTest, SingleSignOnOpensUntilItExpires) {
    const auto state = [] {
        const TokenInfo info = zentok_getTokenInfo(SERIAL, nullptr);
        return std::pair(info.ssoEnabled, info.ssoValidated);
    };
    const auto signWithout = [&] { return sign(pair, counted(32), false, "").code; };
    EXPECT_EQ(state(), std::pair(0, 0));
    EXPECT_EQ(signWithout(), softtoken::RESULT_WRONG_PIN);

    softtoken::enableSso(SERIAL, PIN, 3600);
    forgetLogin();
    EXPECT_EQ(state(), std::pair(1, 1));
    EXPECT_EQ(validate(""), 0);
    EXPECT_EQ(signWithout(), 0);

    // Nobody moves the end of its life.
    softtoken::Record record = softtoken::Record::read(path("sso.txt"));
    record.setNumber("expires", record.number("expires", 0, INT64_MAX) + 3600);
    record.write(path("sso.txt"));
    EXPECT_EQ(signWithout(), TOKEN_SSO_EXPIRED);

    softtoken::enableSso(SERIAL, PIN, 0);
    EXPECT_EQ(state(), std::pair(1, 0));
    EXPECT_EQ(signWithout(), TOKEN_SSO_EXPIRED);
    EXPECT_EQ(decrypt(pair, counted(32), "").code, TOKEN_SSO_EXPIRED);
    EXPECT_FALSE(softtoken::Record::read(path("sso.txt")).has("key")) << "an expired key must not stay on disk";
    EXPECT_EQ(storedRetries(), 10);
    EXPECT_EQ(sign(pair, counted(32)).code, 0) << "with the PIN all goes on";

    softtoken::disableSso(SERIAL);
    EXPECT_EQ(state(), std::pair(0, 0));
    EXPECT_EQ(signWithout(), softtoken::RESULT_WRONG_PIN);
    EXPECT_THROW(softtoken::enableSso(SERIAL, WRONG_PIN, 60), softtoken::Error);
    EXPECT_EQ(state(), std::pair(0, 0));
}

}  // namespace

}  // namespace test
