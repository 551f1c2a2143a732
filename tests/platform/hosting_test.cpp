// The provider's life inside its host: tokens pulled out, and users who are asked for the PIN and
// answer with the keys of the machine.
#include "tests/platform/platform_test.h"

namespace test {
namespace {

using HostingTest = PlatformTest;

TEST_F(HostingTest, ATokenPulledOutTakesItsLoginAlong) {
    const Token gone;
    const Token staying;
    const std::string keyText = gone.addKey();
    const std::string otherKeyText = staying.addKey(KEY_TYPE_EC_P256);
    const Context context = acquire(keyText);
    const Hash hash = hashOf(context, document());
    Bytes signature;
    {
        const PasswordUser user({logIn(PIN), logIn(PIN)});
        EXPECT_EQ(sign(hash, signature), OK);
        EXPECT_EQ(sign(hashOf(acquire(otherKeyText), document()), signature), OK);
        EXPECT_EQ(signature.size(), 64U) << "by the other token";
        EXPECT_EQ(sign(acquire(otherKeyText)), OK) << "a login outlives its context";
    }
    const std::size_t start = logFileText().size();
    gone.pullOut();
    ASSERT_TRUE(logShowsRemoval(gone, start));
    {
        // Nobody is there to say how many attempts are left.
        const PasswordUser user({logIn(PIN), box("User pin locked, re-initialise device")});
        EXPECT_EQ(sign(hash, signature), code(NTE_FAIL));
        EXPECT_EQ(sign(acquire(otherKeyText)), OK) << "the other token's login stays";
        EXPECT_EQ(sign(hashOf(context, document()), signature), code(NTE_NO_KEY));
        EXPECT_EQ(findKey(context), code(NTE_NO_KEY));
    }
    gone.plugIn();
    const PasswordUser user({logIn(PIN)});
    EXPECT_EQ(sign(hash, signature), OK) << "the old context lives on";
    EXPECT_EQ(sign(acquire(keyText)), OK);
}

using LoginTest = PlatformTest;

const std::string ENTER(1, VK_RETURN);
const std::string ESCAPE(1, VK_ESCAPE);

/// Presses and releases keys of the keyboard: the system chooses the window that gets them. A digit is its key's code.
void strike(const std::string& keys) {
    for (const char key : keys) {
        INPUT input = {};
        input.type = INPUT_KEYBOARD;
        input.ki.wVk = static_cast<unsigned char>(key);
        EXPECT_EQ(SendInput(1, &input, sizeof input), 1U);
        input.ki.dwFlags = KEYEVENTF_KEYUP;
        EXPECT_EQ(SendInput(1, &input, sizeof input), 1U);
    }
}

/// Strikes keys at a window that has just opened, once it is in front and, a dialog, ready for them.
UserStep typing(const std::string& what, const std::string& keys) {
    return {what, [=](HWND window) {
                const auto ready = [=] {
                    GUITHREADINFO info = {};
                    info.cbSize = sizeof info;
                    GetGUIThreadInfo(GetWindowThreadProcessId(window, nullptr), &info);
                    return GetForegroundWindow() == window &&
                           (what != "dialog" || info.hwndFocus == GetDlgItem(window, EDIT));
                };
                for (int tries = 0; tries < 2000 && !ready(); ++tries) {
                    Sleep(5);
                }
                EXPECT_TRUE(ready() && (what != "dialog" || !canLogIn(window)));
                strike(keys);
            }};
}

TEST_F(LoginTest, RealKeys) {
    const auto lengthRule = [](HWND dialog) {
        for (int length = 1; length <= 64; ++length) {
            typeText(dialog, "x");
            EXPECT_EQ(canLogIn(dialog), length >= 4 && length <= 63) << length;
        }
        SendMessageA(dialog, WM_CLOSE, 0, 0);
    };
    const UserStep wrong = typing("dialog", WRONG_PIN + ENTER), right = typing("dialog", PIN + ENTER);
    const UserStep rejected = typing("box: Invalid user pin. Remaining attempts(9)", ENTER);
    const std::pair<std::vector<UserStep>, Code> rows[] = {{{typing("dialog", ESCAPE)}, code(NTE_FAIL)},
                                                           {{{"dialog", lengthRule}}, code(NTE_FAIL)},
                                                           {{cancel()}, code(NTE_FAIL)},
                                                           {{wrong, rejected, right}, OK},
                                                           {{}, OK}};
    const Token token;
    const Context context = acquire(token.addKey());
    for (const auto& [steps, result] : rows) {
        const PasswordUser user(steps);
        EXPECT_EQ(sign(context), result);
    }
}

}  // namespace
}  // namespace test
