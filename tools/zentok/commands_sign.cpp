// Signatures of files.
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

constexpr std::array<ALG_ID, 4> HASH_ALGORITHMS = {CALG_SHA_256, CALG_SHA_384, CALG_SHA_512, CALG_SHA1};
constexpr std::size_t LARGEST_SIGNATURE = 65536;  ///< bytes

/// r || s of P-256, P-384 and P-521. No RSA signature is that short but one of RSA-512, RSA-768 or RSA-1056.
bool isEllipticSignature(std::size_t size) {
    return size == 64 || size == 96 || size == 132;
}

/// Between the order of the file and the one of CryptoAPI, which has RSA signatures little-endian.
void convertOrder(std::vector<BYTE>& signature, const Arguments& arguments) {
    if (arguments.getChoice("order", SIGNATURE_ORDERS) == 0 && !isEllipticSignature(signature.size())) {
        std::ranges::reverse(signature);
    }
}

ALG_ID hashAlgorithm(const Arguments& arguments) {
    return HASH_ALGORITHMS[arguments.getChoice("hash", HASH_NAMES)];
}

void requirePkcs1(const Arguments& arguments) {
    if (arguments.get("padding") != "pkcs1") {
        throw UsageError("CryptoAPI signs with --padding pkcs1 alone; add --cng for pss");
    }
}

/// A signature of the file in the order that the arguments ask for.
std::vector<BYTE> signFile(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const ALG_ID algorithm = hashAlgorithm(arguments);
    arguments.getChoice("order", SIGNATURE_ORDERS);
    requirePkcs1(arguments);
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    const Hash hash = hashFile(context, algorithm, arguments.get("in"));
    logIn(context, arguments.find("pin"));
    std::vector<BYTE> signature = signHash(hash);
    convertOrder(signature, arguments);
    return signature;
}

bool verifyFile(const Arguments& arguments, std::vector<BYTE> signature) {
    const std::string& name = arguments.get("container");
    const ALG_ID algorithm = hashAlgorithm(arguments);
    convertOrder(signature, arguments);
    requirePkcs1(arguments);
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    return verifyHash(hashFile(context, algorithm, arguments.get("in")), signature, key);
}

void runSign(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::string target = arguments.find("out").value_or(file + ".sig");
    const std::vector<BYTE> signature = arguments.has("cng") ? cng::sign(arguments) : signFile(arguments);
    writeFile(target, signature);
    std::cout << "Signed " << file << " with the container \"" << name << "\": " << signature.size() << " bytes in "
              << target << "\n";
}

void runVerify(const Arguments& arguments) {
    const std::string& file = arguments.get("in");
    const std::string content =
        readFile(arguments.find("signature").value_or(file + ".sig"), LARGEST_SIGNATURE, "a signature");
    const std::vector<BYTE> signature(content.begin(), content.end());
    if (!(arguments.has("cng") ? cng::verify(arguments, signature) : verifyFile(arguments, signature))) {
        throw platformFailure("verify the signature", static_cast<DWORD>(NTE_BAD_SIGNATURE));
    }
    std::cout << "The signature of " << file << " is good.\n";
}

constexpr Option HASH{"hash", "HASH", "sha256, sha384, sha512 or sha1", false, "sha256"};
constexpr Option PADDING{"padding", "PADDING", "pkcs1 or, with --cng, pss", false, "pkcs1"};
constexpr Option ORDER{"order", "ORDER", "byte order of the file, big or little", false, "big"};

constexpr Option SIGN_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to sign", true},
    {"out", "FILE", "where the signature goes; FILE.sig beside the file when not given"},
    HASH,
    ORDER,
    PADDING,
    CNG,
    PIN,
};
constexpr Option VERIFY_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file that was signed", true},
    {"signature", "FILE", "the signature; FILE.sig beside the file when not given"},
    HASH,
    ORDER,
    PADDING,
    CNG,
};

constexpr const char* ORDER_DETAILS =
    "RSA signatures have PKCS#1 v1.5 padding. Their file has the big-endian order of the standards, which OpenSSL "
    "reads;\n"
    "with `--order little` it has the order of the platform's CryptSignHash and CryptVerifySignature.";

constexpr Command COMMANDS[] = {
    {"sign", "Sign a file with the key of a container", ORDER_DETAILS, SIGN_OPTIONS, runSign},
    {"verify", "Verify the signature of a file with the public key of a container", ORDER_DETAILS, VERIFY_OPTIONS,
     runVerify},
};

}  // namespace

std::span<const Command> signatureCommands() {
    return COMMANDS;
}
