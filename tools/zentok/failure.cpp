#include "tools/zentok/failure.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace {

struct Code {
    DWORD code;
    const char* symbol;
    const char* advice;
};

#define CODE(symbol, advice) \
    { static_cast<DWORD>(symbol), #symbol, advice }

/// What the platform and the provider answer to the calls of this program.
constexpr auto CODES = std::to_array<Code>({
    CODE(ERROR_FILE_NOT_FOUND, "A file of the provider is missing: install it again."),
    CODE(ERROR_PATH_NOT_FOUND, "A folder of the provider is missing: install it again."),
    CODE(ERROR_ACCESS_DENIED, "Run the command as a user who may do this."),
    CODE(ERROR_NOT_ENOUGH_MEMORY, "Close other programs and try again."),
    CODE(ERROR_INVALID_PARAMETER, "The provider refused an argument; its log says which one."),
    CODE(ERROR_CALL_NOT_IMPLEMENTED, "This version of the provider cannot do that yet."),
    CODE(ERROR_MOD_NOT_FOUND, "ZentokCSP.dll or ZentokDSCLibrary.dll is missing: install the provider again."),
    CODE(ERROR_BAD_EXE_FORMAT, "ZentokCSP.dll or ZentokDSCLibrary.dll is damaged, or not a 64-bit library."),
    CODE(ERROR_CANCELLED, "Start again and confirm the dialog."),
    CODE(NTE_BAD_UID, "The provider does not know the context; its log says more."),
    CODE(NTE_BAD_HASH, "The provider lost the hash; its log says more."),
    CODE(NTE_BAD_KEY, "The container has no key on a connected token; `zentok containers` shows what is filed."),
    CODE(NTE_BAD_LEN, "RSA keys of 1024 bits and fewer are refused; ask for 2048 or more."),
    CODE(NTE_BAD_DATA, "The provider refused the data; its log says more."),
    CODE(NTE_BAD_SIGNATURE, "The file, the signature or the key is not the one that belongs to the others."),
    CODE(NTE_BAD_ALGID, "The token refuses this algorithm; with `--hash sha256` every token signs."),
    CODE(NTE_BAD_FLAGS, "The provider refused the flags; its log says more."),
    CODE(NTE_NO_KEY, "The token holds no key yet; `zentok key generate` makes one."),
    CODE(NTE_NO_MEMORY, "Close other programs and try again."),
    CODE(NTE_NOT_SUPPORTED, "This version of the provider cannot do that yet."),
    CODE(NTE_KEYSET_NOT_DEF, "The provider is not registered on this machine: `zentok register` does that."),
    CODE(NTE_KEYSET_ENTRY_BAD,
         "The token refused the PIN, or its PIN is locked. Wrong PINs use up its attempts; `zentok token list` shows a "
         "software token's."),
    CODE(NTE_PROV_TYPE_NO_MATCH, "The provider is registered with another type than 1 (PROV_RSA_FULL)."),
    CODE(NTE_PROV_DLL_NOT_FOUND, "ZentokCSP.dll is not where it is registered; `zentok status` tells more."),
    CODE(NTE_PROVIDER_DLL_FAIL,
         "The token, or the loading of the provider, failed; `zentok status` and `zentok log` tell more."),
    CODE(NTE_INVALID_HANDLE, "The provider does not know the handle; `zentok log` shows what it wrote."),
    CODE(NTE_VALIDATION_FAILED,
         "The token refused the PIN, or its PIN is locked. Wrong PINs use up its attempts; `zentok token list` shows a "
         "software token's."),
    CODE(NTE_NOT_FOUND, "The token has no such object."),
    CODE(NTE_BAD_TYPE, "The provider does not do that with a key of this kind."),
    CODE(NTE_BAD_KEYSET, "The container is damaged; `zentok delete-container` removes it."),
    CODE(NTE_FAIL,
         "The PIN was not confirmed: the dialog was cancelled or could not open, or the token refused the PIN. "
         "`--pin` gives it without a dialog."),
    CODE(NTE_INTERNAL_ERROR,
         "The token refused the operation, or the data is damaged; `zentok log` shows what the provider wrote."),
    CODE(NTE_INVALID_PARAMETER,
         "The provider refused an argument, such as data of no bytes; `zentok log` shows which one."),
    CODE(NTE_SILENT_CONTEXT, "The token asks for the PIN and no dialog may open: give it with `--pin`."),
    CODE(NTE_TOKEN_KEYSET_STORAGE_FULL,
         "No token is connected. Plug one in; `zentok token list` shows software tokens."),
});

#undef CODE

const Code* findCode(DWORD code) {
    const auto* row = std::ranges::find(CODES, code, &Code::code);
    return row == std::end(CODES) ? nullptr : row;
}

std::string hexText(DWORD code) {
    constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string text = "0x";
    for (int shift = 28; shift >= 0; shift -= 4) {
        text += DIGITS[(code >> shift) & 0xF];
    }
    return text;
}

}  // namespace

std::string codeText(DWORD code) {
    const Code* row = findCode(code);
    return row == nullptr ? "error " + hexText(code) : std::string(row->symbol) + " (" + hexText(code) + ")";
}

Failure platformFailure(const std::string& action, DWORD code, const std::string& advice) {
    const Code* row = findCode(code);
    const std::string next = !advice.empty()  ? advice
                             : row == nullptr ? "`zentok log` shows what the provider wrote."
                                              : row->advice;
    return Failure("cannot " + action + ": " + codeText(code) + "\n" + next);
}
