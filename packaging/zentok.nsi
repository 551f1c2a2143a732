; The setup program of the provider: 64-bit, for all users of the machine. scripts/package gives it VERSION, BIN (the
; folder of the built binaries) and OUTPUT.
;
; /S installs without a question, and so does the uninstaller. What either has to say also goes to its standard output.
; Exit codes:
;   0  done
;   1  cancelled by the user
;   2  a file or an entry could not be written; all is as it was
;   3  no 64-bit Windows on an x86-64 processor (a 32-bit Windows itself refuses to start a 64-bit program)
;   4  no administrator
;   5  a running program uses the files; all is as it was
;   6  regsvr32 failed: setup left all as it was, the uninstaller has removed everything else
; The uninstaller goes on in a copy of itself, whose exit code is lost; a caller that wants it runs a copy of its own:
;   copy uninstall.exe to %TEMP%, then %TEMP%\uninstall.exe /S _?=%TEMP%
Target amd64-unicode
!include LogicLib.nsh
!include x64.nsh
!include MUI2.nsh

!define NAME "Zentok Cryptographic Provider"
!define CSP_KEY "SOFTWARE\Microsoft\Cryptography\Defaults\Provider\Zentok Cryptographic Provider CSP"
!define UNINSTALL_KEY "SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\Zentok"
!define VENDOR_KEY "SOFTWARE\Halvane"
!define PRODUCT_KEY "${VENDOR_KEY}\Zentok"
!define SETUP_KEY "${PRODUCT_KEY}\Setup"

!define CSP_FILE "$SYSDIR\ZentokCSP.dll"
!define TOKEN_FILE "$SYSDIR\ZentokDSCLibrary.dll"
!define TOOL_FILE "$INSTDIR\zentok.exe"
!define OFFERED_TOKEN_FILE "$EXEDIR\ZentokDSCLibrary.dll"
!define CERTIFICATES "$INSTDIR\ZentokDSC\Certificates"

; What the software token's version resource names it.
!define SOFTWARE_TOKEN_PRODUCT "Zentok software token"

; Where the token library came from, as the value TokenLibrary tells it.
!define SOFTWARE_TOKEN "software token (for development)"
!define FROM_SETUP_FOLDER "from the setup's folder"
!define ALREADY_THERE "already in the system's folder"

Name "${NAME} ${VERSION}"
OutFile "${OUTPUT}"
RequestExecutionLevel admin
ManifestSupportedOS Win10
ManifestDPIAware true
SetCompressor /SOLID lzma
AllowSkipFiles off
ShowInstDetails show
ShowUninstDetails show
BrandingText " "

VIProductVersion "${VERSION}.0"
VIAddVersionKey ProductName "Zentok"
VIAddVersionKey CompanyName "Halvane"
VIAddVersionKey FileDescription "Setup of the ${NAME}"
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey ProductVersion "${VERSION}"
VIAddVersionKey LegalCopyright ""

Var tokenLibrary       ; one of the three texts above
Var keepsTokenLibrary  ; 1: the one in the system's folder stays
Var tokenLibraryText   ; the same for the user
Var introduction
Var oldImage           ; the CryptoAPI entry before setup, empty for none

!define MUI_ICON "../resources/zentok.ico"
!define MUI_UNICON "../resources/zentok.ico"
!define MUI_WELCOMEPAGE_TEXT "$introduction"
!define MUI_FINISHPAGE_NOAUTOCLOSE
!define MUI_UNFINISHPAGE_NOAUTOCLOSE
!define MUI_FINISHPAGE_TEXT "Applications find the provider under the name $\"Zentok Cryptographic Provider CSP$\".$\r$\n$\r$\n$tokenLibraryText$\r$\n$\r$\n$\"${TOOL_FILE}$\" status tells how it stands with the installation."
!insertmacro MUI_PAGE_WELCOME
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

; --- For setup and uninstaller ----------------------------------------------------------------------------------------

; The provider looks for the CA certificates there, so another place is not offered.
!macro SetFolder
    StrCpy $INSTDIR "$PROGRAMFILES64\Halvane\Zentok"
!macroend

; Say TEXT: a line of the details, which a silent run would show nobody. Uses $R8 and $R9.
!macro Say text
    StrCpy $R9 "${text}"
    DetailPrint "$R9"
    System::Call 'kernel32::GetStdHandle(i -11) p .R8'
    ${If} $R8 P> 0
        FileWrite $R8 "$R9$\r$\n"
    ${EndIf}
!macroend
!define Say "!insertmacro Say"

; Fail CODE TEXT: says why and ends with the exit code.
!macro Fail code text
    ${Say} "${text}"
    SetErrorLevel ${code}
    MessageBox MB_OK|MB_ICONSTOP "$R9" /SD IDOK
    Quit
!macroend
!define Fail "!insertmacro Fail"

; Two at once would take each other's files for somebody else's.
!macro RequireNoOther
    System::Call 'kernel32::CreateMutexW(p 0, i 0, w "Global\ZentokSetup") p .r1 ?e'
    Pop $0
    ${If} $0 = 183  ; ERROR_ALREADY_EXISTS
        ${Fail} 5 "Another setup of the ${NAME} is running. Wait for its end and try again. Nothing has been changed."
    ${EndIf}
!macroend

; $0: 1 when the token library in the system's folder is the software token. Uses $1 to $6.
!macro IsSoftwareToken
    StrCpy $0 0
    StrCpy $1 "${TOKEN_FILE}"
    System::Call 'version::GetFileVersionInfoSizeW(w r1, p 0) i .r2'
    ${If} $2 > 0
        System::Alloc $2
        Pop $3
        System::Call 'version::GetFileVersionInfoW(w r1, i 0, i r2, p r3) i .r4'
        System::Call 'version::VerQueryValueW(p r3, w "\StringFileInfo\040904b0\ProductName", *p .r4, *i .r5) i .r6'
        ${If} $6 <> 0
            System::Call '*$4(&w64 .r5)'
            ${If} $5 == "${SOFTWARE_TOKEN_PRODUCT}"
                StrCpy $0 1
            ${EndIf}
        ${EndIf}
        System::Free $3
    ${EndIf}
!macroend

!macro RequireAdministrator
    UserInfo::GetAccountType
    Pop $0
    ${If} $0 != "Admin"
        ${Fail} 4 "This takes an administrator of the machine. Start it again with $\"Run as administrator$\", or sign in as an administrator."
    ${EndIf}
!macroend

; A library that a program has loaded, and a program that runs, cannot be opened for writing.
!macro RequireFreeFile file
    ${Do}
        ${IfNot} ${FileExists} "${file}"
            ${Break}
        ${EndIf}
        ClearErrors
        FileOpen $0 "${file}" a
        ${IfNot} ${Errors}
            FileClose $0
            ${Break}
        ${EndIf}
        ${Say} "A running program uses ${file}. Close the programs that work with the token, or restart the machine, and try again. Nothing has been changed."
        MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION "$R9" /SD IDCANCEL IDRETRY +3
        SetErrorLevel 5
        Quit
    ${Loop}
!macroend

!macro RequireFreeFiles
    !insertmacro RequireFreeFile "${CSP_FILE}"
    !insertmacro RequireFreeFile "${TOKEN_FILE}"
    !insertmacro RequireFreeFile "${TOOL_FILE}"
!macroend

; Regsvr32 OPTION: the library registers itself in a process of its own; $0 is the exit code.
!macro Regsvr32 option
    ClearErrors
    ExecWait '"$SYSDIR\regsvr32.exe" /s ${option}"${CSP_FILE}"' $0
    ${If} ${Errors}
        StrCpy $0 "none: it could not be started"
    ${EndIf}
!macroend
!define Regsvr32 "!insertmacro Regsvr32"

!macro RemoveEmptyFolders
    SetOutPath "$TEMP"  ; the current folder cannot be removed
    RMDir "$INSTDIR\ZentokDSC"
    RMDir "$INSTDIR"
    RMDir "$PROGRAMFILES64\Halvane"
!macroend

; --- Setup ------------------------------------------------------------------------------------------------------------

; $0: 1 when the token library in the system's folder is the one that setup copied from its own folder, unchanged.
!macro IsOurCopy
    GetFileTime "${TOKEN_FILE}" $1 $2
    ReadRegStr $0 HKLM "${SETUP_KEY}" "TokenLibraryTime"
    ${If} $0 == "$1:$2"
        StrCpy $0 1
    ${Else}
        StrCpy $0 0
    ${EndIf}
!macroend
Function isOurCopy
    !insertmacro IsOurCopy
FunctionEnd

; Nobody's token library is replaced by the software token: only by one that was laid beside this program.
Function chooseTokenLibrary
    StrCpy $keepsTokenLibrary 0
    !insertmacro IsSoftwareToken
    ${If} ${FileExists} "${OFFERED_TOKEN_FILE}"
    ${AndIfNot} ${FileExists} "${OFFERED_TOKEN_FILE}\*.*"  ; a folder
        StrCpy $tokenLibrary "${FROM_SETUP_FOLDER}"
        StrCpy $tokenLibraryText "Token library: ${OFFERED_TOKEN_FILE}."
    ${ElseIf} $0 = 1
    ${OrIfNot} ${FileExists} "${TOKEN_FILE}"
        StrCpy $tokenLibrary "${SOFTWARE_TOKEN}"
        StrCpy $tokenLibraryText "Token library: the software token. It is for development and does not protect keys as a token does. For a real token, lay its ZentokDSCLibrary.dll beside this program and start it again."
    ${Else}
        StrCpy $keepsTokenLibrary 1
        StrCpy $tokenLibrary "${ALREADY_THERE}"
        Call isOurCopy
        ${If} $0 = 1
            StrCpy $tokenLibrary "${FROM_SETUP_FOLDER}"
        ${EndIf}
        StrCpy $tokenLibraryText "Token library: the one that is installed, ${TOKEN_FILE}, stays."
    ${EndIf}
FunctionEnd

Function .onInit
    !insertmacro SetFolder
    ${IfNot} ${IsNativeAMD64}
        ${Fail} 3 "${NAME} needs a 64-bit Windows on an x86-64 processor."
    ${EndIf}
    !insertmacro RequireAdministrator
    !insertmacro RequireNoOther
    Call chooseTokenLibrary
    StrCpy $introduction "This installs the ${NAME} ${VERSION} for all users of this machine."
    ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "DisplayVersion"
    ${If} $0 != ""
        StrCpy $introduction "This installs the ${NAME} ${VERSION} in place of version $0."
    ${EndIf}
    StrCpy $introduction "$introduction$\r$\n$\r$\n$tokenLibraryText$\r$\n$\r$\nClose the programs that work with the token first."
FunctionEnd

!macro KeepOldFile file
    ${If} ${FileExists} "${file}"
        CopyFiles /SILENT /FILESONLY "${file}" "$PLUGINSDIR\old"
    ${EndIf}
!macroend

!macro RestoreFile file name
    ${If} ${FileExists} "$PLUGINSDIR\old\${name}"
        CopyFiles /SILENT /FILESONLY "$PLUGINSDIR\old\${name}" "${file}"
    ${Else}
        Delete "${file}"
    ${EndIf}
!macroend

; Puts back what was there before; without an earlier version, nothing remains.
Function restore
    ; A registration that got stuck halfway has left the provider known, but not listed.
    ${IfNot} ${FileExists} "$PLUGINSDIR\old\ZentokCSP.dll"
        ${Regsvr32} "/u "
        Delete "$INSTDIR\README.md"
        Delete "$INSTDIR\docs\*.md"
        RMDir "$INSTDIR\docs"
        Delete "$INSTDIR\uninstall.exe"
        RMDir "${CERTIFICATES}"
        DeleteRegKey HKLM "${SETUP_KEY}"
        DeleteRegKey HKLM "${UNINSTALL_KEY}"
    ${EndIf}
    !insertmacro RestoreFile "${CSP_FILE}" ZentokCSP.dll
    !insertmacro RestoreFile "${TOKEN_FILE}" ZentokDSCLibrary.dll
    !insertmacro RestoreFile "${TOOL_FILE}" zentok.exe
    ${If} ${FileExists} "${CSP_FILE}"
        ${Regsvr32} ""
    ${EndIf}
    ${If} $oldImage == ""
        DeleteRegKey HKLM "${CSP_KEY}"
    ${Else}
        WriteRegStr HKLM "${CSP_KEY}" "Image Path" "$oldImage"
    ${EndIf}
    !insertmacro RemoveEmptyFolders
FunctionEnd

Section "Provider" provider
    !insertmacro RequireFreeFiles
    InitPluginsDir
    CreateDirectory "$PLUGINSDIR\old"
    ReadRegStr $oldImage HKLM "${CSP_KEY}" "Image Path"
    ClearErrors
    !insertmacro KeepOldFile "${CSP_FILE}"
    !insertmacro KeepOldFile "${TOKEN_FILE}"
    !insertmacro KeepOldFile "${TOOL_FILE}"
    ${If} ${Errors}
        ${Fail} 2 "The installed files could not be copied to $TEMP. Make room there and try again. Nothing has been changed."
    ${EndIf}

    ${Say} "$tokenLibraryText"
    SetOverwrite try
    SetOutPath "$SYSDIR"
    File "${BIN}/ZentokCSP.dll"
    ${If} $keepsTokenLibrary = 0
        ${If} $tokenLibrary == "${FROM_SETUP_FOLDER}"
            CopyFiles /SILENT /FILESONLY "${OFFERED_TOKEN_FILE}" "${TOKEN_FILE}"
        ${Else}
            File "${BIN}/ZentokDSCLibrary.dll"
        ${EndIf}
    ${EndIf}
    SetOutPath "$INSTDIR"
    File "${BIN}/zentok.exe"
    WriteRegDWORD HKLM "${CSP_KEY}" "Type" 1
    WriteRegStr HKLM "${CSP_KEY}" "Image Path" "${CSP_FILE}"
    WriteRegDWORD HKLM "${CSP_KEY}" "SigInFile" 0
    WriteRegBin HKLM "${CSP_KEY}" "Signature" 00
    ${If} ${Errors}
        Call restore
        ${Fail} 2 "A file or a registry entry could not be written. Close the programs that work with the token, make room on the disk and try again. All is as it was."
    ${EndIf}

    CreateDirectory "$TEMP\Halvane"  ; the first line of a log makes this folder and is lost
    ${Regsvr32} ""
    ${If} $0 != 0
        StrCpy $1 $0
        Call restore
        ${If} $1 == 3
            StrCpy $2 "ZentokCSP.dll or a library that it needs cannot be loaded: see that ZentokDSCLibrary.dll is the 64-bit one of the token, with all that it needs itself."
        ${Else}
            StrCpy $2 "The reason is in the newest file of $TEMP\Halvane\regsvr32."
        ${EndIf}
        ${Fail} 6 "The provider could not be registered (regsvr32 ended with code $1). $2 Then start this program again. All is as it was."
    ${EndIf}

    ClearErrors
    File "../README.md"
    Delete "$INSTDIR\docs\*.md"
    SetOutPath "$INSTDIR\docs"
    File /nonfatal "../docs/*.md"
    CreateDirectory "${CERTIFICATES}"
    WriteUninstaller "$INSTDIR\uninstall.exe"
    WriteRegStr HKLM "${SETUP_KEY}" "Version" "${VERSION}"
    WriteRegStr HKLM "${SETUP_KEY}" "TokenLibrary" "$tokenLibrary"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "${NAME}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\uninstall.exe"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "Halvane"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
    WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
    SectionGetSize ${provider} $0
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" $0
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1

    ${If} $tokenLibrary == "${FROM_SETUP_FOLDER}"
        GetFileTime "${TOKEN_FILE}" $1 $2
        WriteRegStr HKLM "${SETUP_KEY}" "TokenLibraryTime" "$1:$2"
    ${EndIf}
    ${If} ${Errors}
    ${OrIfNot} ${FileExists} "$INSTDIR\uninstall.exe"
    ${OrIf} ${FileExists} "$INSTDIR\uninstall.exe\*.*"  ; a folder
    ${OrIfNot} ${FileExists} "${CERTIFICATES}\*.*"
        Call restore
        ${Fail} 2 "A file or a registry entry could not be written below $INSTDIR. Make room on the disk, see that nothing else has the names of its files, and try again."
    ${EndIf}

    ; The provider's search for the CA folder knows fixed places only.
    ${If} $INSTDIR != "C:\Program Files\Halvane\Zentok"
    ${OrIf} ${FileExists} "C:\Program Files (x86)\Halvane\Zentok"
        ${Say} "For the CA certificates in ${CERTIFICATES} to be found, set the environment variable ZENTOK_HOME to $INSTDIR."
    ${EndIf}
    ${Say} "Installed the ${NAME} ${VERSION}; the token library is: $tokenLibrary."
SectionEnd

; --- Uninstaller ------------------------------------------------------------------------------------------------------

Function un.onInit
    !insertmacro SetFolder
    !insertmacro RequireAdministrator
    !insertmacro RequireNoOther
FunctionEnd

; What the user brought or made stays: CA certificates, the container map, logs, the log level.
Section "Uninstall"
    !insertmacro RequireFreeFiles
    StrCpy $7 "none: ${CSP_FILE} is gone"
    ${If} ${FileExists} "${CSP_FILE}"
        ${Regsvr32} "/u "
        StrCpy $7 $0
    ${EndIf}
    ReadRegStr $0 HKLM "${CSP_KEY}" "Image Path"
    ${If} $0 == "${CSP_FILE}"
        DeleteRegKey HKLM "${CSP_KEY}"
    ${EndIf}
    ; Only what setup itself has put there: a maker's file may have taken its place since.
    !insertmacro IsSoftwareToken
    ${If} $0 = 0
        !insertmacro IsOurCopy
    ${EndIf}
    ${If} $0 = 1
        Delete "${TOKEN_FILE}"
    ${EndIf}
    Delete "${CSP_FILE}"
    Delete "${TOOL_FILE}"
    Delete "$INSTDIR\README.md"
    Delete "$INSTDIR\docs\*.md"
    RMDir "$INSTDIR\docs"
    Delete "$INSTDIR\uninstall.exe"

    RMDir "${CERTIFICATES}"
    ${If} ${FileExists} "${CERTIFICATES}\*.*"
        MessageBox MB_YESNO|MB_ICONQUESTION|MB_DEFBUTTON2 "There are CA certificates in ${CERTIFICATES}. Remove them too?" /SD IDNO IDNO +2
        RMDir /r "${CERTIFICATES}"
    ${EndIf}
    !insertmacro RemoveEmptyFolders

    DeleteRegKey HKLM "${SETUP_KEY}"
    DeleteRegKey /ifempty HKLM "${PRODUCT_KEY}"
    DeleteRegKey /ifempty HKLM "${VENDOR_KEY}"
    DeleteRegKey HKLM "${UNINSTALL_KEY}"
    ${If} $7 != 0
        ${Fail} 6 "Everything is removed but the entry of the key storage provider: regsvr32 ended with code $7. To remove the entry too, install the provider with a working token library and remove it again."
    ${EndIf}
    ${Say} "Removed the ${NAME}."
SectionEnd
