// The state of everything that has to be right on a machine, in the order in which it is used.
#include <array>
#include <filesystem>
#include <system_error>

#include "tools/zentok/certificates.h"
#include "tools/zentok/commands.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/findings.h"
#include "tools/zentok/installation.h"
#include "tools/zentok/key_storage.h"
#include "tools/zentok/log_files.h"
#include "tools/zentok/registry.h"

namespace {

constexpr WCHAR SETUP_KEY[] = TEXT("Software\\Halvane\\Zentok\\Setup");
constexpr ULONGLONG NOTICE = 30ULL * 24 * 60 * 60 * 10'000'000;  ///< 30 days in the 100 ns of a FILETIME

/// Adds what `look` finds under the topic; a failure of it is the finding.
template <typename Look>
void inspect(Findings& findings, const char* topic, Look look) {
    try {
        look();
    } catch (const Failure& failure) {
        findings.push_back(failedFinding(topic, failure));
    }
}

constexpr const char* SOFTWARE_TOKEN = "Zentok software token";  ///< in its version resource

std::string fileText(const WideText& path) {
    const std::string version = fileVersion(path);
    return toUtf8(path) + (version.empty() ? ", without a version" : ", version " + version);
}

std::string registerAdvice(const WideText& library) {
    return "`zentok register --library \"" + toUtf8(library) + "\"`, as administrator, registers that one.";
}

constexpr const char* REGISTER_ANEW = "`zentok register`, as administrator, registers it anew.";

/// The platform wants one of the two, and reads nothing in it.
bool hasSignature() {
    const WideText key = registrationKey();
    for (const WCHAR* name : {TEXT("Signature"), TEXT("SigInFile")}) {
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_BINARY, nullptr, nullptr, nullptr) ==
            ERROR_SUCCESS) {
            return true;
        }
    }
    return false;
}

void checkRegistration(Findings& findings) {
    constexpr const char* TOPIC = "CryptoAPI entry";
    const std::optional<WideText> path = registeredPath();
    const std::optional<DWORD> type = readRegistryNumber(registrationKey(), TEXT("Type"));
    if (!path) {
        findings.push_back({TOPIC, Verdict::Error, "the provider is not registered with CryptoAPI",
                            "Run the setup program, or `zentok register` as administrator."});
    } else if (type != PROV_RSA_FULL) {
        findings.push_back({TOPIC, Verdict::Error,
                            (type ? "registered with the type " + std::to_string(*type) : "registered without a type") +
                                " instead of 1 (PROV_RSA_FULL): " + toUtf8(*path),
                            REGISTER_ANEW});
    } else if (!hasSignature()) {
        findings.push_back({TOPIC, Verdict::Error, "registered without a Signature: " + toUtf8(*path), REGISTER_ANEW});
    } else if (path->find(TEXT('\\')) == WideText::npos) {
        findings.push_back({TOPIC, Verdict::Warning, "Image Path is no full path: " + toUtf8(*path), REGISTER_ANEW});
    } else {
        findings.push_back({TOPIC, Verdict::Ok, "type 1, " + toUtf8(*path) + ", with a signature"});
    }
}

/// Returns the library that is used; empty when there is none.
WideText checkLibrary(Findings& findings) {
    constexpr const char* TOPIC = "provider library";
    const std::optional<WideText> registered = registeredPath();
    WideText used = registered ? locate(*registered) : WideText();
    WideText other;
    for (const WideText& path : presentLibraries()) {
        if (used.empty() || !isSameFile(path, used)) {
            other = path;
            break;
        }
    }
    if (!registered && !other.empty()) {
        findings.push_back({TOPIC, Verdict::Ok, fileText(other)});
        return other;
    }
    if (used.empty()) {
        const std::string missing =
            registered ? "there is no file " + toUtf8(*registered) : "there is no ZentokCSP.dll in the search path";
        findings.push_back({TOPIC, Verdict::Error, missing + (other.empty() ? "" : ", but there is " + fileText(other)),
                            other.empty() ? "Install the provider again." : registerAdvice(other)});
        return other;
    }
    if (!isLibrary(used)) {
        findings.push_back(
            {TOPIC, Verdict::Error, toUtf8(used) + " is damaged, or not for 64 bits", "Install the provider again."});
    } else if (other.empty()) {
        findings.push_back({TOPIC, Verdict::Ok, fileText(used)});
    } else {
        findings.push_back({TOPIC, Verdict::Warning, fileText(used) + "; there is also " + fileText(other),
                            "Remove the one that is not wanted. " + registerAdvice(other)});
    }
    return used;
}

void checkTokenLibrary(Findings& findings, const WideText& provider) {
    constexpr const char* TOPIC = "token library";
    if (const WideText found = findIn(searchFolders(), TOKEN_LIBRARY); !found.empty()) {
        if (!isLibrary(found)) {
            findings.push_back({TOPIC, Verdict::Error, toUtf8(found) + " is damaged, or not for 64 bits",
                                "No application can load the provider with it: install the token's own software."});
        } else if (fileProduct(found) == SOFTWARE_TOKEN) {
            findings.push_back({TOPIC, Verdict::Warning, fileText(found) + ", the software token",
                                "Software tokens are for development: they protect keys by the PIN alone. With a real "
                                "token, run setup with its ZentokDSCLibrary.dll beside it."});
        } else {
            findings.push_back({TOPIC, Verdict::Ok, fileText(found)});
        }
    } else if (const WideText beside = findIn({folderOf(provider)}, TOKEN_LIBRARY); !beside.empty()) {
        findings.push_back({TOPIC, Verdict::Warning, fileText(beside) + ", outside of the system's search path",
                            "Applications may not find it there: copy it into System32, or add its folder to PATH."});
    } else {
        findings.push_back({TOPIC, Verdict::Error,
                            "ZentokDSCLibrary.dll is neither in the system's search path nor beside the provider",
                            "No application can load the provider without it: install the token's own software, or "
                            "copy the library into System32."});
    }
}

void checkSetup(Findings& findings) {
    constexpr const char* TOPIC = "setup";
    const std::optional<WideText> version = readRegistryText(SETUP_KEY, TEXT("Version"));
    const std::string library = toUtf8(readRegistryText(SETUP_KEY, TEXT("TokenLibrary")).value_or(TEXT("not noted")));
    if (!version && library == "not noted") {
        findings.push_back({TOPIC, Verdict::Ok, "the setup program has not run here"});
        return;
    }
    findings.push_back(
        {TOPIC, Verdict::Ok, "version " + toUtf8(version.value_or(TEXT("not noted"))) + ", token library: " + library});
}

void checkKeyStorage(Findings& findings) {
    constexpr const char* TOPIC = "key storage provider";
    if (const std::optional<std::string> refusal = routerRefusal()) {
        findings.push_back({TOPIC, Verdict::Warning, "the platform's router does not know it: " + *refusal,
                            "Applications that use CNG do not find the keys; `zentok register`, as administrator, "
                            "registers it."});
    } else {
        findings.push_back({TOPIC, Verdict::Ok, "the platform's router knows it"});
    }
}

void checkCertificate(Findings& findings, const std::string& keyText, const std::vector<BYTE>& der) {
    const Certificate certificate = parseCertificate(der, "what the token holds for the key " + keyText);
    const std::string text = subjectText(certificate) + ", valid until " + lastDay(certificate) + ", key " + keyText;
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER later = {{now.dwLowDateTime, now.dwHighDateTime}};
    later.QuadPart += NOTICE;
    FILETIME soon = {later.LowPart, later.HighPart};
    const LONG today = CertVerifyTimeValidity(&now, certificate->pCertInfo);
    Finding finding{"certificate", Verdict::Ok, text};
    if (today < 0) {
        finding = {"certificate", Verdict::Error, text + ": not valid yet", "Check the clock of this machine."};
    } else if (today > 0) {
        finding = {"certificate", Verdict::Error, text + ": expired",
                   "`zentok certificate request` asks for a new one; `zentok delete-container` removes an old key."};
    } else if (CertVerifyTimeValidity(&soon, certificate->pCertInfo) > 0) {
        finding = {"certificate", Verdict::Warning, text + ": ends soon",
                   "`zentok certificate request` asks for a new one."};
    }
    findings.push_back(finding);
}

/// The token that an application gets which names no container.
void checkToken(Findings& findings) {
    const std::vector<std::string> keys = listKeys(openContainer(""));
    std::vector<std::pair<std::string, std::vector<BYTE>>> certificates;
    Findings found;
    for (const std::string& text : keys) {
        const Context context = openContainer(text);
        const Key key = requireKey(context, text);
        found.push_back({"key", Verdict::Ok, text + ", " + keyDescription(key)});
        if (std::vector<BYTE> der = readCertificate(key); !der.empty()) {
            certificates.emplace_back(text, std::move(der));
        }
    }
    findings.push_back({"token", Verdict::Ok,
                        "connected; " + std::to_string(keys.size()) + (keys.size() == 1 ? " key, " : " keys, ") +
                            std::to_string(certificates.size()) +
                            (certificates.size() == 1 ? " certificate" : " certificates"),
                        keys.empty() ? "`zentok key generate` makes a key." : ""});
    findings.insert(findings.end(), found.begin(), found.end());
    for (const auto& certificate : certificates) {
        inspect(findings, "certificate", [&] { checkCertificate(findings, certificate.first, certificate.second); });
    }
}

void checkLog(Findings& findings) {
    const int level = logLevel();
    findings.push_back({"log level", level == 2 ? Verdict::Ok : Verdict::Warning, logLevelText(level),
                        level == 2   ? ""
                        : level == 3 ? "Such a log holds keys and data, and grows: set the value logLevel under "
                                       "HKEY_LOCAL_MACHINE\\Software\\Halvane\\Zentok back to 2 when you are done."
                                     : "Failures leave no trace: set the value logLevel under "
                                       "HKEY_LOCAL_MACHINE\\Software\\Halvane\\Zentok to 2."});
    const std::filesystem::path file = ownLogFile();
    const std::string text = pathText(file);
    std::error_code error;
    // The provider makes one folder with each line, and loses that line; what is made here spares it one.
    if (std::filesystem::is_directory(logFolder().parent_path(), error)) {
        std::filesystem::create_directories(file.parent_path(), error);
    }
    if (!error && std::filesystem::is_directory(file.parent_path(), error)) {
        findings.push_back({"log", Verdict::Ok, text + "; each program has a folder of its own there"});
    } else {
        findings.push_back({"log", Verdict::Error, "the folder of " + text + " cannot be made: " + error.message(),
                            "No failure leaves a trace. Check that the folder of the environment variable TEMP is "
                            "there, that this user may write to it, and that no file is in the way."});
    }
}

void runStatus(const Arguments& arguments) {
    Findings findings;
    const QuietOutput output;
    checkRegistration(findings);
    checkTokenLibrary(findings, checkLibrary(findings));
    checkSetup(findings);
    inspect(findings, "key storage provider", [&] { checkKeyStorage(findings); });
    inspect(findings, "token", [&] { checkToken(findings); });
#ifdef ZENTOK_HAS_SOFTTOKEN
    inspect(findings, "software tokens", [&] { checkSoftwareTokens(findings); });
#endif
    checkLog(findings);
    printFindings(output, findings, arguments.has("json"));
}

constexpr Option OPTIONS[] = {JSON};

constexpr Command COMMANDS[] = {
    {"status", "Check the installation, the token, its certificates and the log",
     "Each line begins with ok, warning or error and says what to do. The exit code is 1 when there is an error.",
     OPTIONS, runStatus},
};

}  // namespace

std::span<const Command> statusCommands() {
    return COMMANDS;
}
