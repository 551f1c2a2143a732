#include "core/login.h"

#include "core/pin_cache.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const std::string KSP_ASKS = "KSP: Password not validated, checking SSO";
const std::string CLOCK = "System time mismatch, Kidly login to Token Manager";
const std::string LOCKED = "User pin locked, re-initialise device";

/// The library's calls: the state of a sign-on, then each PIN, with the retry counter cleared before it.
std::string asked(const Lines& passwords = {}) {
    std::string calls = "getTokenInfo('T1', null)";
    for (const std::string& password : passwords) {
        calls += "|validatePassword('T1', '" + password + "', 1, 0, null)";
    }
    return calls;
}

/// The device's entry in the PIN cache: validated, password, deviceInitialised.
std::string entryOf(const std::string& device) {
    const auto entry = g_pinStates.find(device);
    return entry == g_pinStates.end() ? "none"
                                      : std::to_string(entry->second.validated) + " '" + entry->second.password + "' " +
                                            std::to_string(entry->second.deviceInitialised);
}

class LoginTest : public ProviderTest {
protected:
    std::function<bool()> guard(bool cng) {
        return
            [=, this] { return cng ? kspEnsurePasswordValidated("T1", nullptr) : ensurePasswordValidated(&context); };
    }
    CSP_CONTEXT context = contextOn("T1");
};

TEST_F(LoginTest, PinCache) {
    EXPECT_FALSE(pinStateIsValidated("T1") || pinStateIsDeviceInitialised("T1"));
    EXPECT_EQ(pinStateGetPassword("T1"), "");
    pinStateClear("T1");
    EXPECT_EQ(entryOf("T1"), "none") << "reading and clearing create none";
    pinStateMarkDeviceInitialised("T1");
    EXPECT_EQ(entryOf("T1"), "0 '' 1");
    pinStateStore("T1", "1234");
    EXPECT_EQ(entryOf("T1"), "1 '1234' 1");
    EXPECT_TRUE(pinStateIsValidated("T1") && pinStateIsDeviceInitialised("T1"));
    EXPECT_EQ(pinStateGetPassword("T1"), "1234");
    pinStateClear("T1");
    EXPECT_EQ(entryOf("T1"), "0 '' 1");
    pinStateStore("T2", "");
    EXPECT_EQ(entryOf("T2"), "1 '' 0");
}

TEST_F(LoginTest, RejectedPins) {
    const auto rejects = [&](const Answer& answer, const std::string& text, bool asksAgain) {
        for (const bool cng : {false, true}) {
            makeFresh();
            pinStateMarkDeviceInitialised("T1");
            token().on("validatePassword", {answer, {}});
            std::string shown = text;
            if (cng && text == CLOCK) {
                shown.insert(shown.find("dly"), "n");
            }
            std::vector<UserStep> steps = {logIn("wrong"), box(shown)};
            std::string log = (cng ? KSP_ASKS + "|" : ASKS_FOR_PIN) + ONE_DIALOG;
            if (asksAgain) {
                steps.push_back(logIn("right"));
                log += "|" + ONE_DIALOG + (cng ? "" : LOGGED_IN);
            } else if (!cng) {
                log +=
                    "|!loginUser: PIN locked, retryCount=0, return FALSE|"
                    "!ensurePasswordValidated: password validation failed, return false";
            }
            const DWORD failure = cng ? ANY_CODE : FAILED;
            const PasswordUser user(steps);
            expect(guard(cng), asksAgain ? 0 : failure, log,
                   asked(asksAgain ? Lines{"wrong", "right"} : Lines{"wrong"}));
            EXPECT_EQ(entryOf("T1"), asksAgain ? "1 'right' 1" : "0 '' 1") << text;
        }
    };
    rejects({.result = 5, .retries = 3}, "Invalid user pin. Remaining attempts(3)", true);
    rejects({.result = 49, .retries = -2}, "Invalid user pin. Remaining attempts(-2)", true);
    rejects({.result = -1}, LOCKED, false);
    rejects({.result = 48}, CLOCK, false);  // ends like a locked PIN when the counter is left at 0
    rejects({.result = 48, .retries = 1}, CLOCK, true);
}

TEST_F(LoginTest, Guards) {
    const std::string signedOn = ASKS_FOR_PIN +
                                 "loginUser: SSO already validated, return TRUE|"
                                 "ensurePasswordValidated: password set, return true";
    const std::string loggedIn = ASKS_FOR_PIN + ONE_DIALOG + LOGGED_IN;
    const std::string longest(63, 'p');
    const TokenInfo live = tokenInfo("", 1, 1);
    TokenInfo absent = live;
    absent.text1 = "";
    const auto with = [&](const char* cached, const TokenInfo& info, bool silent = false) {
        makeFresh();
        token().infos["T1"] = info;
        context.silent = silent;
        if (cached != nullptr) {
            pinStateStore("T1", cached);
        }
    };
    const auto expectGuard = [&](bool cng, const std::vector<UserStep>& steps, DWORD failure, const std::string& log,
                                 const std::string& calls, const std::string& entry) {
        const PasswordUser user(steps);
        expect(guard(cng), failure, log, calls);
        EXPECT_EQ(entryOf("T1"), entry);
    };
    for (const bool silent : {false, true}) {
        with("1234", live, silent);
        expectGuard(false, {}, 0, PIN_CACHED, "", "1 '1234' 0");
    }
    with("", live, true);  // a live sign-on does not help a silent context
    expectGuard(false, {}, SILENT, REFUSED_SILENTLY, "", "1 '' 0");
    with(nullptr, {}, true);
    expectGuard(false, {}, SILENT, REFUSED_SILENTLY, "", "none");
    with(nullptr, live);
    expectGuard(false, {}, 0, signedOn, asked(), "1 '' 0");
    expectGuard(false, {}, 0, signedOn, asked(), "1 '' 0");  // read again each time
    for (const TokenInfo& info : {absent, tokenInfo("", 0, 1), tokenInfo("", 2, 1), tokenInfo("", 1, 0)}) {
        with("", info);
        expectGuard(false, {logIn(longest)}, 0, loggedIn, asked({longest}), "1 '" + longest + "' 0");
    }
    with("", {});
    expectGuard(false, {cancel()}, FAILED, ASKS_FOR_PIN + ONE_DIALOG + CANCELLED, asked(), "0 '' 0");

    with("1234", live);
    expectGuard(true, {}, 0, "KSP: PIN already validated", "", "1 '1234' 0");
    with(nullptr, live);
    expectGuard(true, {}, 0, KSP_ASKS, asked(), "1 '' 0");
    with("", tokenInfo("", 1, 2));
    expectGuard(true, {cancel()}, ANY_CODE, KSP_ASKS + "|" + ONE_DIALOG + "|KSP: User cancelled password dialog",
                asked(), "0 '' 0");
    expectGuard(true, {logIn("1234")}, 0, KSP_ASKS + "|" + ONE_DIALOG, asked({"1234"}), "1 '1234' 0");
}

TEST_F(LoginTest, LoginUserFillsTheCallersBufferOnly) {
    RimmedBuffer buffer(PASSWORD_BUFFER_SIZE);
    auto* password = reinterpret_cast<char*>(buffer.data());
    const Bytes before = buffer.first(PASSWORD_BUFFER_SIZE);
    context.silent = true;
    expect([&] { return loginUser(&context, password); }, SILENT,
           "loginUser: enter|!loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE", asked());
    token().infos["T1"] = tokenInfo("", 1, 1);
    EXPECT_TRUE(loginUser(&context, password)) << "a live sign-on comes before silence";
    token().infos.clear();
    context.silent = false;
    const auto pastTheDisabledButton = [](HWND window) {
        typeText(window, std::string(200, 'q'));
        SendMessageA(window, WM_COMMAND, IDOK, 0);
    };
    const PasswordUser user({{"dialog", pastTheDisabledButton}, logIn(std::string(63, 'p'))});
    EXPECT_FALSE(loginUser(&context, password));
    EXPECT_EQ(buffer.first(PASSWORD_BUFFER_SIZE), before);
    EXPECT_TRUE(loginUser(&context, password));
    EXPECT_EQ(std::string(password), std::string(63, 'p'));
    EXPECT_EQ(entryOf("T1"), "none") << "storing is the caller's";
}

}  // namespace
}  // namespace test
