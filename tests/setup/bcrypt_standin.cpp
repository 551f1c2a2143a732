// A bcrypt.dll with the registration functions only. Each call becomes a line of the file that ZENTOK_BCRYPT_CALLS
// names, with every argument and every field; its status is the hexadecimal number in the environment variable with the
// function's name, 0 without.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <string>

#include <windows.h>

#include <bcrypt.h>

static void print(std::ostream& out, ULONG number) {
    out << ' ' << std::hex << number;
}
static void print(std::ostream& out, LPCWSTR wide) {
    const std::basic_string<WCHAR> text(wide != nullptr ? wide : TEXT("null"));
    out << ' ' << std::string(text.begin(), text.end());
}
static void print(std::ostream& out, const CRYPT_IMAGE_REG* image) {
    print(out, image != nullptr ? image->pszImage : nullptr);
    for (ULONG i = 0; image != nullptr && i < image->cInterfaces; ++i) {
        const CRYPT_INTERFACE_REG& entry = *image->rgpInterfaces[i];
        out << " {";
        print(out, entry.dwInterface);
        print(out, entry.dwFlags);
        std::for_each_n(entry.rgpszFunctions, entry.cFunctions, [&out](LPCWSTR name) { print(out, name); });
        out << " }";
    }
}

template <typename... Arguments>
static NTSTATUS record(const char* function, Arguments... arguments) {
    std::ofstream out(std::getenv("ZENTOK_BCRYPT_CALLS"), std::ios::app);
    out << function;
    (print(out, arguments), ...);
    out << '\n';
    const char* status = std::getenv(function);
    return status != nullptr ? static_cast<NTSTATUS>(std::strtoul(status, nullptr, 16)) : 0;
}

extern "C" {
NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR provider, ULONG flags, PCRYPT_PROVIDER_REG entry) {
    return record(__func__, provider, flags, entry->cAliases, ULONG{entry->rgpszAliases != nullptr}, entry->pUM,
                  entry->pKM);
}
NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR provider) {
    return record(__func__, provider);
}
NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG table, LPCWSTR context, ULONG area, LPCWSTR function,
                                                 LPCWSTR provider, ULONG position) {
    return record(__func__, table, context, area, function, provider, position);
}
NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG table, LPCWSTR context, ULONG area, LPCWSTR function,
                                                    LPCWSTR provider) {
    return record(__func__, table, context, area, function, provider);
}
}  // extern "C"
