// The PIN asked for as a user lives it, with the keys and the mouse of the machine, and single sign-on.
#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

using LoginTest = PlatformTest;

constexpr int EDIT = 1001;
/// The token counts the same wrong PIN once.
constexpr char OTHER_WRONG_PIN[] = "161803";

const std::string ENTER(1, VK_RETURN);
const std::string ESCAPE(1, VK_ESCAPE);

void send(INPUT input) {
    EXPECT_EQ(SendInput(1, &input, sizeof input), 1U);
}

/// Presses and releases keys of the keyboard: the system chooses the window that gets them. A digit is its key's code.
void strike(const std::string& keys) {
    for (const char key : keys) {
        INPUT input = {};
        input.type = INPUT_KEYBOARD;
        input.ki.wVk = static_cast<unsigned char>(key);
        send(input);
        input.ki.dwFlags = KEYEVENTF_KEYUP;
        send(input);
    }
}

/// Clicks on the middle of a control. Each event says its place: what the screen reports late cannot move it.
void click(HWND dialog, int control) {
    RECT place = {};
    GetWindowRect(GetDlgItem(dialog, control), &place);
    INPUT input = {};
    input.type = INPUT_MOUSE;
    input.mi.dx = (place.left + place.right) * 32768 / GetSystemMetrics(SM_CXSCREEN);
    input.mi.dy = (place.top + place.bottom) * 32768 / GetSystemMetrics(SM_CYSCREEN);
    for (const DWORD flag : {MOUSEEVENTF_LEFTDOWN, MOUSEEVENTF_LEFTUP}) {
        input.mi.dwFlags = MOUSEEVENTF_ABSOLUTE | MOUSEEVENTF_MOVE | flag;
        send(input);
    }
}

/// Waits for what a user sees before going on.
void await(const char* what, const std::function<bool()>& condition) {
    for (int tries = 0; tries < 2000 && !condition(); ++tries) {
        Sleep(5);
    }
    EXPECT_TRUE(condition()) << what;
}

HWND focusOf(HWND window) {
    GUITHREADINFO info = {};
    info.cbSize = sizeof info;
    GetGUIThreadInfo(GetWindowThreadProcessId(window, nullptr), &info);
    return info.hwndFocus;
}

/// Strikes keys at a dialog that has just opened, in front and ready for them.
UserStep typing(const std::string& keys, const std::function<void(HWND)>& then = {}) {
    return {"dialog", [=](HWND dialog) {
                await("foreground", [=] { return GetForegroundWindow() == dialog; });
                await("focus in the edit control", [=] { return focusOf(dialog) == GetDlgItem(dialog, EDIT); });
                EXPECT_FALSE(canLogIn(dialog));
                strike(keys);
                if (then) {
                    then(dialog);
                }
            }};
}

void clickLogin(HWND dialog) {
    await("Login enabled", [=] { return canLogIn(dialog); });
    click(dialog, IDOK);
}

void clickCancel(HWND dialog) {
    click(dialog, IDCANCEL);
}

UserStep boxAndEnter(const std::string& text) {
    return {"box: " + text, [](HWND window) {
                await("foreground", [=] { return GetForegroundWindow() == window; });
                strike(ENTER);
            }};
}

TEST_F(LoginTest, KeysAndMouse) {
    const struct {
        const char* name;
        std::vector<UserStep> steps;
        Code result;
    } rows[] = {
        {"Escape", {typing(ESCAPE)}, code(NTE_FAIL)},
        {"Cancel, with a PIN typed", {typing(PIN, clickCancel)}, code(NTE_FAIL)},
        {"two wrong PINs, then Escape",
         {typing(WRONG_PIN, clickLogin), boxAndEnter("Invalid user pin. Remaining attempts(9)"),
          typing(OTHER_WRONG_PIN + ENTER), boxAndEnter("Invalid user pin. Remaining attempts(8)"), typing(ESCAPE)},
         code(NTE_FAIL)},
        {"a wrong PIN, then the right one",
         {typing(WRONG_PIN, clickLogin), boxAndEnter("Invalid user pin. Remaining attempts(7)"),
          typing(PIN, clickLogin)},
         OK},
        {"not asked again", {}, OK},
    };
    const Token token;
    const Context context = acquire(token.addKey());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const PasswordUser user(row.steps);
        EXPECT_EQ(sign(context), row.result);
    }
}

TEST_F(LoginTest, ALockedPinStaysLocked) {
    const Token token(FipsClass::FIPS_140_3, 2);
    const Context context = acquire(token.addKey());
    const UserStep locked = box("User pin locked, re-initialise device");
    {
        const PasswordUser user(
            {logIn(WRONG_PIN), box("Invalid user pin. Remaining attempts(1)"), logIn(OTHER_WRONG_PIN), locked});
        EXPECT_EQ(sign(context), code(NTE_FAIL));
    }
    const PasswordUser user({logIn(PIN), locked, logIn(PIN)});
    EXPECT_EQ(sign(context), code(NTE_FAIL));
    softtoken::resetRetryCounter(token.serial);
    EXPECT_EQ(sign(context), OK);
}

TEST_F(LoginTest, ASilentContextNeverAsks) {
    const Token token;
    const std::string keyText = token.addKey();
    const Context silent = acquire(keyText, CRYPT_SILENT);
    Key none;
    const PasswordUser user({logIn(PIN)});
    EXPECT_EQ(sign(silent), code(NTE_SILENT_CONTEXT));
    EXPECT_EQ(outcome(CryptGenKey(silent.get(), CALG_RSA_SIGN, 0, none.out())), code(NTE_SILENT_CONTEXT));
    EXPECT_EQ(sign(acquire(keyText)), OK);
    EXPECT_EQ(sign(silent), OK) << "the login is the token's, not the context's";
}

TEST_F(LoginTest, SingleSignOn) {
    const Token token;
    const std::string keyText = token.addKey();
    const Context context = acquire(keyText);
    const Context silent = acquire(keyText, CRYPT_SILENT);
    softtoken::enableSso(token.serial, PIN, 3600);
    {
        const PasswordUser nobody({});
        EXPECT_EQ(sign(context), OK);
        EXPECT_EQ(sign(context), OK);
        EXPECT_EQ(sign(silent), code(NTE_SILENT_CONTEXT)) << "a silent context wants a PIN that is known";
    }
    softtoken::enableSso(token.serial, PIN, 0);
    const PasswordUser once({logIn(PIN)});
    EXPECT_EQ(sign(context), OK);
    EXPECT_EQ(sign(context), OK);
    EXPECT_EQ(sign(silent), OK);
}

TEST_F(LoginTest, SingleSignOnThatLapsesBeforeTheTokenSigns) {
    const Token token;
    const Context context = acquire(token.addKey());
    const Key key = userKey(context);
    const std::filesystem::path state = token.folder() + "\\sso.txt";
    const std::filesystem::path expired = token.folder() + "\\expired.txt";
    const PasswordUser once({logIn(PIN)});
    // The log tells when the provider has seen the token signed on; then the state expires. A try in which that comes
    // too late leaves no PIN behind, so that there can be another.
    bool lapsed = false;
    for (int tries = 0; tries < 100 && !lapsed; ++tries) {
        softtoken::enableSso(token.serial, PIN, 0);
        std::filesystem::copy_file(state, expired);
        softtoken::enableSso(token.serial, PIN, 3600);
        const std::size_t start = logFileText().size();
        std::atomic<bool> ended = false;
        std::thread clock([&] {
            while (!ended && logFileText().find("SSO already validated", start) == std::string::npos) {
            }
            std::error_code error;
            do {
                std::filesystem::rename(expired, state, error);
            } while (error);
        });
        const Hash hash = hashOf(context, document());
        Bytes signature;
        EXPECT_EQ(sign(hash, signature), OK);
        EXPECT_EQ(verify(hash, signature, key), OK);
        ended = true;
        clock.join();
        lapsed = logFileText().find("CPSignHash: SSO expired, re-prompting for PIN", start) != std::string::npos;
    }
    EXPECT_TRUE(lapsed);
    EXPECT_EQ(sign(context), OK) << "with the PIN that is cached now";
}

}  // namespace
}  // namespace test
