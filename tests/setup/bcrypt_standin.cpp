// A bcrypt.dll with the registration functions only. Each call becomes a line of the file that ZENTOK_BCRYPT_CALLS
// names, with every argument and every field; its status is the hexadecimal number in the environment variable with the
// function's name, 0 without.
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <windows.h>

#include <bcrypt.h>

namespace {

std::string text(LPCWSTR wide) {
    if (wide == nullptr) {
        return "null";
    }
    const std::basic_string<WCHAR> copy(wide);
    return '"' + std::string(copy.begin(), copy.end()) + '"';
}

template <typename... Arguments>
NTSTATUS record(const char* function, const Arguments&... arguments) {
    std::ostringstream line;
    line << function << std::hex;
    ((line << ' ' << arguments), ...);
    const char* file = std::getenv("ZENTOK_BCRYPT_CALLS");
    std::ofstream(file != nullptr ? file : "nul", std::ios::app) << line.str() << '\n';
    const char* status = std::getenv(function);
    return status != nullptr ? static_cast<NTSTATUS>(std::strtoul(status, nullptr, 16)) : 0;
}

std::string text(const CRYPT_IMAGE_REG* image) {
    if (image == nullptr) {
        return "null";
    }
    std::ostringstream out;
    out << std::hex << '{' << text(image->pszImage);
    for (ULONG i = 0; i < image->cInterfaces; ++i) {
        const CRYPT_INTERFACE_REG& entry = *image->rgpInterfaces[i];
        out << " {" << entry.dwInterface << ' ' << entry.dwFlags;
        for (ULONG j = 0; j < entry.cFunctions; ++j) {
            out << ' ' << text(entry.rgpszFunctions[j]);
        }
        out << '}';
    }
    out << '}';
    return out.str();
}

}  // namespace

extern "C" {

NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR provider, ULONG flags, PCRYPT_PROVIDER_REG entry) {
    return record("BCryptRegisterProvider", text(provider), flags, entry->cAliases,
                  entry->rgpszAliases == nullptr ? "null" : "aliases", text(entry->pUM), text(entry->pKM));
}
NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR provider) {
    return record("BCryptUnregisterProvider", text(provider));
}
NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG table, LPCWSTR context, ULONG area, LPCWSTR function,
                                                 LPCWSTR provider, ULONG position) {
    return record("BCryptAddContextFunctionProvider", table, text(context), area, text(function), text(provider),
                  position);
}
NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG table, LPCWSTR context, ULONG area, LPCWSTR function,
                                                    LPCWSTR provider) {
    return record("BCryptRemoveContextFunctionProvider", table, text(context), area, text(function), text(provider));
}

}  // extern "C"
