// Identifiers of the library's resources, shared by the resource script and the dialog.
#pragma once

#define IDD_PASSWORD 101
#define IDI_ZENTOK 102

#define IDC_PASSWORD 1001
#define IDC_PASSWORD_ICON 1002
