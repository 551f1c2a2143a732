// A user at the password dialog of this process: a thread that answers the dialog and the message boxes by real window
// messages, as told beforehand.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

namespace test {

using Lines = std::vector<std::string>;

/// What the user does with the next window: a password dialog unless it says box.
struct UserStep {
    std::string what;                    ///< "dialog", or "box: " and the text that the box must show
    std::function<void(HWND)> act = {};  ///< for a box nothing: its button is pressed
};

constexpr int EDIT = 1001;
inline void typeText(HWND dialog, const std::string& text) {  // '\b' deletes
    for (const char character : text) {
        SendDlgItemMessageA(dialog, EDIT, WM_CHAR, static_cast<unsigned char>(character), 0);
    }
}
inline void press(HWND dialog, int button) {
    SendDlgItemMessageA(dialog, button, BM_CLICK, 0, 0);
}
inline bool canLogIn(HWND dialog) {
    return IsWindowEnabled(GetDlgItem(dialog, IDOK)) != FALSE;
}

inline UserStep logIn(const std::string& password) {  // types it and presses "Login"
    return {"dialog", [=](HWND dialog) { (typeText(dialog, password), press(dialog, IDOK)); }};
}
inline UserStep cancel() {
    return {"dialog", [](HWND dialog) { press(dialog, IDCANCEL); }};
}
inline UserStep box(const std::string& text) {
    return {"box: " + text};
}

class PasswordUser {
public:
    explicit PasswordUser(std::vector<UserStep> todo);
    /// Ends the user, who must have met exactly the windows that were told, or may have met others after them.
    ~PasswordUser();
    PasswordUser(const PasswordUser&) = delete;
    PasswordUser& operator=(const PasswordUser&) = delete;

    bool mayMeetOthers = false;  ///< which the user closes

private:
    void run();

    std::vector<UserStep> steps;
    Lines seen;
    std::atomic<bool> ended = false;
    std::thread thread;
};

}  // namespace test
