#include "tests/support/password_user.h"

#include <cstddef>
#include <cstring>

#include <gtest/gtest.h>

namespace test {
namespace {

constexpr DWORD GLANCE = 5;  // milliseconds between two looks at the desktop

std::string textOf(HWND window) {
    char text[512] = {};
    SendMessageA(window, WM_GETTEXT, sizeof text, reinterpret_cast<LPARAM>(text));
    return text;
}

/// Takes this process's visible dialog, whether ours or a message box.
BOOL CALLBACK takeDialog(HWND window, LPARAM found) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    char className[16] = {};
    GetClassNameA(window, className, sizeof className);
    if (process != GetCurrentProcessId() || IsWindowVisible(window) == FALSE || std::strcmp(className, "#32770") != 0) {
        return TRUE;
    }
    *reinterpret_cast<HWND*>(found) = window;
    return FALSE;
}

/// What the user sees: "dialog", or a box and its text, which is in its last static control.
std::string describe(HWND window) {
    const std::string caption = textOf(window);
    if (caption == "Verify User Password") {
        return "dialog";
    }
    std::string text;
    for (HWND part = nullptr; (part = FindWindowExA(window, part, "Static", nullptr)) != nullptr;) {
        text = textOf(part);
    }
    return (caption == "Zentok" ? "box: " : caption + ": ") + text;
}

}  // namespace

PasswordUser::PasswordUser(std::vector<UserStep> todo) : steps(std::move(todo)), thread([this] { run(); }) {
}

PasswordUser::~PasswordUser() {
    ended = true;
    thread.join();
    Lines expected;
    for (const UserStep& step : steps) {
        expected.push_back(step.what);
    }
    if (mayMeetOthers && seen.size() > expected.size()) {
        seen.resize(expected.size());
    }
    EXPECT_EQ(seen, expected) << "windows that the user met";
}

void PasswordUser::run() {
    HWND handled = nullptr;
    for (; !ended; Sleep(GLANCE)) {
        HWND window = nullptr;
        EnumWindows(takeDialog, reinterpret_cast<LPARAM>(&window));
        if (window == nullptr || window == handled) {
            continue;
        }
        handled = window;
        const std::size_t turn = seen.size();
        seen.push_back(describe(window));
        if (turn < steps.size() && steps[turn].act) {
            steps[turn].act(window);
        } else {
            PostMessageA(window, WM_CLOSE, 0, 0);  // a box, or a window that nobody expected
        }
    }
}

}  // namespace test
