#include "core/password_dialog.h"

#include <algorithm>

#include "core/module.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

constexpr int EDIT = 1001;

class PasswordDialogTest : public ProviderTest {};

std::string passwordFrom(const UserStep& step) {
    const PasswordUser user({step});
    EXPECT_EQ(logOf(showPasswordDialog), lines(ONE_DIALOG));
    return takeDialogPassword();
}

TEST_F(PasswordDialogTest, FocusAndLengthRule) {
    const auto user = [](HWND window) {
        GUITHREADINFO info = {};
        info.cbSize = sizeof info;
        GetGUIThreadInfo(GetWindowThreadProcessId(window, nullptr), &info);
        EXPECT_EQ(info.hwndFocus, GetDlgItem(window, EDIT));
        EXPECT_FALSE(canLogIn(window)) << "at opening";
        std::size_t typed = 0;
        for (const std::size_t length : {3, 4, 3, 63, 64, 300, 0, 63}) {
            typeText(window, length > typed ? std::string(length - typed, 'x') : std::string(typed - length, '\b'));
            typed = length;
            EXPECT_EQ(canLogIn(window), length == 4 || length == 63) << length;
        }
        press(window, IDOK);
    };
    EXPECT_EQ(passwordFrom({"dialog", user}), std::string(63, 'x'));
}

TEST_F(PasswordDialogTest, OnlyLoginConfirms) {
    const auto send = [](UINT message, WPARAM wParam, bool ends) {
        return UserStep{"dialog", [=](HWND window) {
                            typeText(window, "typed");
                            SendMessageA(window, message, wParam, 0);
                            EXPECT_NE(IsWindow(window) != FALSE && IsWindowVisible(window) != FALSE, ends);
                            press(window, IDCANCEL);
                        }};
    };
    const struct {
        const char* name;
        UserStep step;
        const char* password;
    } rows[] = {
        {"Login", logIn("secret"), "secret"},
        {"Cancel after a Login", cancel(), ""},
        {"Login again", logIn("second"), "second"},
        {"message WM_CLOSE", send(WM_CLOSE, 0, true), ""},
        {"the caption's close button", send(WM_SYSCOMMAND, SC_CLOSE, true), ""},
        {"any other control", send(WM_COMMAND, 77, true), ""},
        {"another notification of the edit control", send(WM_COMMAND, MAKEWPARAM(EDIT, EN_KILLFOCUS), false), ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(passwordFrom(row.step), row.password) << row.name;
        EXPECT_EQ(takeDialogPassword(), row.password) << row.name << ": taking it leaves it in place";
    }
}

TEST_F(PasswordDialogTest, CannotBeCreated) {
    passwordFrom(logIn("earlier"));
    setModuleInstance(GetModuleHandleA("kernel32"));  // a module without the template
    EXPECT_EQ(logOf(showPasswordDialog), lines(ONE_DIALOG + "|!Password dialog creation failed : -1"));
    EXPECT_EQ(takeDialogPassword(), "");
}

}  // namespace
}  // namespace test
