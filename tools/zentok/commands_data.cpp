// Small files encrypted to a key and decrypted with it.
#include <algorithm>
#include <array>
#include <iostream>
#include <string_view>

#include "tools/zentok/commands.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/files.h"

namespace {

constexpr std::size_t LARGEST_MODULUS = 512;  ///< bytes
constexpr std::array<std::string_view, 2> PADDINGS = {"oaep", "pkcs1"};

/// Bytes that a padding takes of the modulus: OAEP with SHA-1, and PKCS#1 v1.5 (RFC 8017).
constexpr std::array<std::size_t, 2> PADDING_SIZES = {42, 11};
constexpr std::array<DWORD, 2> PADDING_FLAGS = {CRYPT_OAEP, 0};

std::string targetFile(const Arguments& arguments, const char* suffix) {
    return arguments.find("out").value_or(arguments.get("in") + suffix);
}

void runEncrypt(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::string target = targetFile(arguments, ".enc");
    const std::size_t padding = arguments.getChoice("padding", PADDINGS);
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    const std::size_t modulus = keyNumber(key, KP_KEYLEN) / 8;
    const std::size_t limit = modulus - std::min(modulus, PADDING_SIZES[padding]);
    const std::string content = readFile(file, limit, "one RSA encryption, such as that of a key or a password");
    std::vector<BYTE> data(content.begin(), content.end());
    auto size = static_cast<DWORD>(data.size());
    data.resize(std::max(modulus, data.size()));
    if (CryptEncrypt(key.get(), 0, TRUE, PADDING_FLAGS[padding], data.data(), &size, static_cast<DWORD>(data.size())) ==
        FALSE) {
        throw platformFailure("encrypt " + file, GetLastError());
    }
    data.resize(size);
    std::ranges::reverse(data);  // CryptoAPI has it little-endian, the file the order of the standards
    writeFile(target, data);
    std::cout << "Encrypted " << file << " to the container \"" << name << "\": " << size << " bytes in " << target
              << "\n";
}

void runDecrypt(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::string target = targetFile(arguments, ".dec");
    const std::size_t padding = arguments.getChoice("padding", PADDINGS);
    const std::string content = readFile(file, LARGEST_MODULUS, "an RSA ciphertext");
    std::vector<BYTE> data(content.rbegin(), content.rend());
    auto size = static_cast<DWORD>(data.size());
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    logIn(context, arguments.find("pin"));
    if (CryptDecrypt(key.get(), 0, TRUE, PADDING_FLAGS[padding], data.data(), &size) == FALSE) {
        const DWORD code = GetLastError();
        throw platformFailure("decrypt " + file, code,
                              code == static_cast<DWORD>(NTE_BAD_FLAGS)
                                  ? "This token decrypts no PKCS#1 v1.5; encrypt with `--padding oaep`."
                              : code == static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL)
                                  ? "The file was not encrypted to this key, or is damaged."
                                  : "");
    }
    data.resize(size);
    writeFile(target, data);
    std::cout << "Decrypted " << file << " with the container \"" << name << "\": " << size << " bytes in " << target
              << "\n";
}

constexpr Option PADDING{"padding", "PADDING", "oaep (with SHA-1) or pkcs1 (v1.5)", false, "oaep"};

constexpr Option ENCRYPT_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to encrypt", true},
    {"out", "FILE", "where the ciphertext goes; FILE.enc beside the file when not given"},
    PADDING,
};
constexpr Option DECRYPT_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to decrypt", true},
    {"out", "FILE", "where the content goes; FILE.dec beside the file when not given"},
    PADDING,
    PIN,
};

constexpr const char* DETAILS =
    "One RSA operation: it carries a key or a password (214 bytes with RSA-2048 and OAEP), not a document.\n"
    "The ciphertext has the order of the standards, as `openssl pkeyutl` reads and writes it.";

constexpr Command COMMANDS[] = {
    {"encrypt", "Encrypt a small file to the public key of a container", DETAILS, ENCRYPT_OPTIONS, runEncrypt},
    {"decrypt", "Decrypt it with the key on the token", DETAILS, DECRYPT_OPTIONS, runDecrypt},
};

}  // namespace

std::span<const Command> dataCommands() {
    return COMMANDS;
}
