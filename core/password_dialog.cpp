#include "core/password_dialog.h"

#include <cstdio>

#include "core/log.h"
#include "core/module.h"
#include "resources/resource.h"

namespace {

constexpr std::size_t DIALOG_PASSWORD_SIZE = 256;

// The hand-over between the dialog procedure and the caller: one value for the whole process, and no lock. Two threads
// that prompt at once share it; a plain buffer that always ends in a terminator bears that without harm to the host.
char g_dialogPassword[DIALOG_PASSWORD_SIZE] = {};

void setDialogPassword(const char* text) {
    std::snprintf(g_dialogPassword, sizeof g_dialogPassword, "%s", text);
}

void showIcon(HWND dialog) {
    const HICON icon = LoadIconA(moduleInstance(), MAKEINTRESOURCEA(IDI_ZENTOK));
    if (icon == nullptr) {
        return;
    }
    SendDlgItemMessageA(dialog, IDC_PASSWORD_ICON, STM_SETICON, reinterpret_cast<WPARAM>(icon), 0);
    SendMessageA(dialog, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon));
    SendMessageA(dialog, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
}

/// The platform lets only the thread that owns the foreground pass it on; joining its input queue for the moment makes
/// this thread one.
void takeForeground(HWND dialog) {
    const DWORD foregroundThread = GetWindowThreadProcessId(GetForegroundWindow(), nullptr);
    const DWORD thisThread = GetCurrentThreadId();
    if (foregroundThread == thisThread) {
        SetForegroundWindow(dialog);
        return;
    }
    AttachThreadInput(foregroundThread, thisThread, TRUE);
    SetForegroundWindow(dialog);
    AttachThreadInput(foregroundThread, thisThread, FALSE);
}

void onInitialise(HWND dialog) {
    EnableWindow(GetDlgItem(dialog, IDOK), FALSE);
    showIcon(dialog);
    takeForeground(dialog);
    SetFocus(GetDlgItem(dialog, IDC_PASSWORD));
}

void onPasswordChanged(HWND dialog) {
    const int length = GetWindowTextLengthA(GetDlgItem(dialog, IDC_PASSWORD));
    EnableWindow(GetDlgItem(dialog, IDOK), length >= PASSWORD_MIN_LENGTH && length <= PASSWORD_MAX_LENGTH);
}

void onCommand(HWND dialog, WORD control, WORD notification) {
    switch (control) {
        case IDOK: {
            char text[DIALOG_PASSWORD_SIZE] = {};
            GetDlgItemTextA(dialog, IDC_PASSWORD, text, sizeof text);
            setDialogPassword(text);
            EndDialog(dialog, 0);
            break;
        }
        case IDCANCEL:
            setDialogPassword("");
            EndDialog(dialog, 0);
            break;
        case IDC_PASSWORD:
            if (notification == EN_CHANGE) {
                onPasswordChanged(dialog);
            }
            break;
        default:
            // Whatever it is, it means leaving the dialog.
            EndDialog(dialog, 0);
            break;
    }
}

INT_PTR CALLBACK passwordDialogProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM /*lParam*/) {
    switch (message) {
        case WM_INITDIALOG:
            onInitialise(dialog);
            return FALSE;  // the focus stays where it was set
        case WM_CLOSE:
            EndDialog(dialog, 0);
            return TRUE;
        case WM_COMMAND:
            onCommand(dialog, LOWORD(wParam), HIWORD(wParam));
            return TRUE;
        default:
            return FALSE;
    }
}

}  // namespace

void showPasswordDialog() {
    logInfo("Password dialog show window");
    setDialogPassword("");
    logInfo("Password dialog show window before");
    const INT_PTR result =
        DialogBoxParamA(moduleInstance(), MAKEINTRESOURCEA(IDD_PASSWORD), nullptr, passwordDialogProcedure, 0);
    logInfo("Password dialog show window after");
    // The dialog itself always ends with 0.
    if (result != 0) {
        logError("Password dialog creation failed : " + std::to_string(result));
    }
}

std::string takeDialogPassword() {
    return g_dialogPassword;
}
