#include "core/login.h"

#include "core/pin_cache.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const std::string CSP_ASKS = ASKS_FOR_PIN + ONE_DIALOG;
const std::string KSP_READS = "KSP: Password not validated, checking SSO", KSP_ASKS = KSP_READS + "|" + ONE_DIALOG;
const std::string TRIED = INFO + "|validatePassword('T1', ";
constexpr bool CSP = false, KSP = true;
using Steps = std::vector<UserStep>;

class LoginTest : public ProviderTest {
protected:
    /// One guard, and what the PIN cache holds for the device behind it.
    void guard(bool ksp, const Steps& steps, DWORD failure, const std::string& log, const std::string& calls,
               bool validated, const std::string& password) {
        const PasswordUser user(steps);
        expect([&] { return ksp ? kspEnsurePasswordValidated("T1", nullptr) : ensurePasswordValidated(&context); },
               failure, log, calls);
        EXPECT_TRUE(pinStateIsValidated("T1") == validated && pinStateGetPassword("T1") == password) << log;
    }
};

TEST_F(LoginTest, RejectedPins) {
    const std::string locked =
        "!loginUser: PIN locked, retryCount=0, return FALSE|"
        "!ensurePasswordValidated: password validation failed, return false";
    pinStateMarkDeviceInitialised("T1");
    const std::tuple<bool, int, int, std::string> rows[] = {
        {CSP, 49, -2, "Invalid user pin. Remaining attempts(-2)"},
        {KSP, 48, 1, "System time mismatch, Kindly login to Token Manager"},
        {CSP, 48, 0, "System time mismatch, Kidly login to Token Manager"},
        {KSP, 5, 0, "User pin locked, re-initialise device"}};
    for (const auto& [ksp, result, retries, text] : rows) {
        pinStateClear("T1");
        token().on("validatePassword", {{.result = result, .retries = retries}, {}});
        const bool ends = retries == 0;
        guard(ksp, ends ? Steps{logIn("wrong"), box(text)} : Steps{logIn("wrong"), box(text), logIn("right")},
              ends ? (ksp ? ANY_CODE : FAILED) : 0,
              (ksp ? KSP_ASKS : CSP_ASKS) +
                  (ends ? (ksp ? "" : "|" + locked) : "|" + ONE_DIALOG + (ksp ? "" : LOGGED_IN)),
              TRIED + "'wrong', 1, 0, null)" + (ends ? "" : "|validatePassword('T1', 'right', 1, 0, null)"), !ends,
              ends ? "" : "right");
    }
    EXPECT_TRUE(pinStateIsDeviceInitialised("T1")) << "clearing leaves that";
}

TEST_F(LoginTest, Guards) {
    TokenInfo absent = tokenInfo("", 1, 1);
    absent.text1 = "";
    context.silent = true;  // a live sign-on does not help a silent context, a PIN does
    token().infos["T1"] = tokenInfo("", 1, 1);
    guard(CSP, {}, SILENT, REFUSED_SILENTLY, "", false, "");
    cachePin();
    guard(CSP, {}, 0, PIN_CACHED, "", true, "1234");
    guard(KSP, {}, 0, "KSP: PIN already validated", "", true, "1234");
    context.silent = false;
    pinStateClear("T1");
    guard(CSP, {}, 0,
          ASKS_FOR_PIN +
              "loginUser: SSO already validated, return TRUE|ensurePasswordValidated: password set, return true",
          INFO, true, "");
    guard(KSP, {}, 0, KSP_READS, INFO, true, "");  // read again each time
    for (const TokenInfo& info : {absent, tokenInfo("", 2, 1), tokenInfo("", 1, 0)}) {
        token().infos["T1"] = info;
        guard(CSP, {cancel()}, FAILED, CSP_ASKS + CANCELLED, INFO, false, "");
        guard(KSP, {cancel()}, ANY_CODE, KSP_ASKS + "|KSP: User cancelled password dialog", INFO, false, "");
    }
    const auto pastTheDisabledButton = [](HWND window) {
        typeText(window, std::string(200, 'q'));
        SendMessageA(window, WM_COMMAND, IDOK, 0);
    };
    guard(CSP, {{"dialog", pastTheDisabledButton}}, FAILED,
          CSP_ASKS + "|!Password of 200 characters is too long, taken as cancelled" + CANCELLED, INFO, false, "");
    const std::string longest(63, 'p');
    guard(CSP, {logIn(longest)}, 0, CSP_ASKS + LOGGED_IN, TRIED + "'" + longest + "', 1, 0, null)", true, longest);
}

}  // namespace
}  // namespace test
