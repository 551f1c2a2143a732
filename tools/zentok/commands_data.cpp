// Small files encrypted to a key and decrypted with it.
#include <algorithm>
#include <array>
#include <iostream>
#include <string_view>

#include "tools/zentok/commands.h"
#include "tools/zentok/commands_cng.h"
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

/// Bytes that one encryption to the key can carry.
std::size_t capacity(const Key& key, std::size_t padding) {
    constexpr ALG_ID EC_KEY = 0x2200;
    if (keyNumber(key, KP_ALGID) == EC_KEY) {
        throw Failure("the container has an elliptic-curve key, which encrypts nothing");
    }
    const std::size_t modulus = keyNumber(key, KP_KEYLEN) / 8;
    return modulus - std::min(modulus, PADDING_SIZES[padding]);
}

/// The file's bytes; one without any has nothing to work on.
std::vector<BYTE> readData(const std::string& file, std::size_t limit, const char* what) {
    const std::string content = readFile(file, limit, what);
    if (content.empty()) {
        throw Failure(file + " is empty");
    }
    return {content.begin(), content.end()};
}

void runEncrypt(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::string target = targetFile(arguments, ".enc");
    const std::size_t padding = arguments.getChoice("padding", PADDINGS);
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    std::vector<BYTE> data =
        readData(file, capacity(key, padding), "one RSA encryption, such as that of a key or a password");
    if (arguments.has("cng")) {
        data = cng::encrypt(arguments, data, padding == 0);
    } else {
        encryptByKey(key, PADDING_FLAGS[padding], data);
    }
    writeFile(target, data);
    std::cout << "Encrypted " << file << " to the container \"" << name << "\": " << data.size() << " bytes in "
              << target << "\n";
}

void runDecrypt(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::string target = targetFile(arguments, ".dec");
    const std::size_t padding = arguments.getChoice("padding", PADDINGS);
    std::vector<BYTE> data = readData(file, LARGEST_MODULUS, "an RSA ciphertext");
    if (arguments.has("cng")) {
        data = cng::decrypt(arguments, data, padding == 0);
    } else {
        const Context context = openContainer(name);
        const Key key = requireKey(context, name);
        logIn(context, arguments.find("pin"));
        decryptByKey(key, PADDING_FLAGS[padding], data);
    }
    writeFile(target, data);
    std::cout << "Decrypted " << file << " with the container \"" << name << "\": " << data.size() << " bytes in "
              << target << "\n";
}

constexpr Option PADDING{"padding", "PADDING", "oaep (with SHA-1) or pkcs1 (v1.5)", false, "oaep"};

constexpr Option ENCRYPT_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to encrypt", true},
    {"out", "FILE", "where the ciphertext goes; FILE.enc beside the file when not given"},
    PADDING,
    CNG,
};
constexpr Option DECRYPT_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to decrypt", true},
    {"out", "FILE", "where the content goes; FILE.dec beside the file when not given"},
    PADDING,
    CNG,
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
