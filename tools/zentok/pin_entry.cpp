#include "tools/zentok/pin_entry.h"

#include <chrono>

#include "tools/zentok/text.h"

namespace {

constexpr WCHAR PIN_DIALOG_TITLE[] = TEXT("Verify User Password");
constexpr WCHAR MESSAGE_BOX_TITLE[] = TEXT("Zentok");
constexpr WCHAR DIALOG_CLASS[] = TEXT("#32770");
constexpr int PIN_EDIT = 1001;
constexpr UINT ANSWER_TIMEOUT = 2000;  ///< milliseconds
constexpr auto POLL_INTERVAL = std::chrono::milliseconds(20);

struct Search {
    const WCHAR* title;
    HWND found;
};

/// A visible dialog of this process with that title: a dialog becomes visible only once it has set itself up.
HWND findDialog(const WCHAR* title) {
    Search search{title, nullptr};
    const auto inspect = [](HWND window, LPARAM parameter) -> BOOL {
        auto* wanted = reinterpret_cast<Search*>(parameter);
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        WCHAR className[16] = {};
        WCHAR text[64] = {};
        if (process != GetCurrentProcessId() || IsWindowVisible(window) == FALSE ||
            GetClassNameW(window, className, ARRAYSIZE(className)) == 0 ||
            GetWindowTextW(window, text, ARRAYSIZE(text)) == 0 || lstrcmpW(className, DIALOG_CLASS) != 0 ||
            lstrcmpW(text, wanted->title) != 0) {
            return TRUE;
        }
        wanted->found = window;
        return FALSE;
    };
    EnumWindows(inspect, reinterpret_cast<LPARAM>(&search));
    return search.found;
}

/// The text of a message box: the longest text among its children.
std::string messageBoxText(HWND box) {
    WideText longest;
    const auto inspect = [](HWND child, LPARAM parameter) -> BOOL {
        auto* best = reinterpret_cast<WideText*>(parameter);
        WCHAR text[256] = {};
        GetWindowTextW(child, text, ARRAYSIZE(text));
        if (WideText(text).size() > best->size()) {
            *best = text;
        }
        return TRUE;
    };
    EnumChildWindows(box, inspect, reinterpret_cast<LPARAM>(&longest));
    return toUtf8(longest);
}

void pressButton(HWND dialog, int button) {
    PostMessageW(dialog, WM_COMMAND, static_cast<WPARAM>(button), reinterpret_cast<LPARAM>(GetDlgItem(dialog, button)));
}

void enterPin(HWND dialog, const WideText& pin) {
    SendMessageTimeoutW(GetDlgItem(dialog, PIN_EDIT), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(pin.c_str()), SMTO_NORMAL,
                        ANSWER_TIMEOUT, nullptr);
    // The dialog enables the button when the text has a length that can be a PIN.
    pressButton(dialog, IsWindowEnabled(GetDlgItem(dialog, IDOK)) != FALSE ? IDOK : IDCANCEL);
}

}  // namespace

PinEntry::PinEntry(const Context& context, const std::optional<std::string>& pin) {
    if (!pin) {
        return;
    }
    const std::string ansi = toAnsi(*pin, "the PIN");
    if (ansi.size() < 4 || ansi.size() > 63) {
        throw UsageError("a PIN has 4 to 63 characters");
    }
    if (CryptSetProvParam(context.get(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(ansi.c_str()), 0) != FALSE) {
        return;
    }
    if (const DWORD code = GetLastError(); code != ERROR_CALL_NOT_IMPLEMENTED) {
        throw platformFailure("log in to the token", code);
    }
    thread_ = std::thread([this, text = *pin] { answerDialogs(text); });
}

PinEntry::~PinEntry() {
    stop();
}

Failure PinEntry::failure(const std::string& action, DWORD code) {
    const bool answering = thread_.joinable();
    stop();
    std::string advice;
    if (!refusal_.empty()) {
        advice = "The token refused the PIN: " + refusal_ + ".";
    } else if (answering && !asked_ && code == static_cast<DWORD>(NTE_FAIL)) {
        advice = "The provider's PIN dialog never opened: it needs a desktop, also when `--pin` answers it.";
    }
    return platformFailure(action, code, advice);
}

void PinEntry::stop() {
    stopped_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

void PinEntry::answerDialogs(const std::string& pin) {
    const WideText text = toWide(pin);
    HWND answered = nullptr;
    for (; !stopped_; std::this_thread::sleep_for(POLL_INTERVAL)) {
        if (HWND box = findDialog(MESSAGE_BOX_TITLE); box != nullptr) {
            refusal_ = messageBoxText(box);
            PostMessageW(box, WM_CLOSE, 0, 0);
        }
        HWND dialog = findDialog(PIN_DIALOG_TITLE);
        if (dialog == nullptr || dialog == answered) {
            continue;
        }
        asked_ = true;
        if (answered == nullptr) {
            enterPin(dialog, text);
        } else {
            pressButton(dialog, IDCANCEL);
        }
        answered = dialog;
    }
}
