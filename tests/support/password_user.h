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

UserStep logIn(const std::string& password);  ///< types it and presses "Login"
UserStep cancel();
UserStep box(const std::string& text);

void typeText(HWND dialog, const std::string& text);  ///< into the edit control; '\b' deletes
void press(HWND dialog, int button);
bool canLogIn(HWND dialog);

class PasswordUser {
public:
    explicit PasswordUser(std::vector<UserStep> todo);
    /// Ends the user, who must have met exactly the windows that were told.
    ~PasswordUser();
    PasswordUser(const PasswordUser&) = delete;
    PasswordUser& operator=(const PasswordUser&) = delete;

private:
    void run();

    std::vector<UserStep> steps;
    Lines seen;
    std::atomic<bool> ended = false;
    std::thread thread;
};

}  // namespace test
