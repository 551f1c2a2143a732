// What is on a token, and the certificates of its keys: requested, stored, fetched, and used to sign messages.
#include <algorithm>
#include <iostream>

#include "tools/zentok/certificates.h"
#include "tools/zentok/commands.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/files.h"

namespace {

constexpr std::size_t LARGEST_CERTIFICATE = 65536;   ///< bytes
constexpr std::size_t LARGEST_CONTENT = 256U << 20;  ///< bytes
constexpr ALG_ID ALG_EC_KEY = 0x2200;                ///< KP_ALGID of an elliptic-curve key

/// The result as PEM in a file, or on the output.
void deliver(const Arguments& arguments, const std::string& pem, const std::string& what) {
    const std::optional<std::string> file = arguments.find("out");
    if (!file) {
        std::cout << pem;
        return;
    }
    writeFile(*file, pem);
    std::cout << "Wrote " << what << " to " << *file << "\n";
}

std::string keyDescription(const Key& key) {
    const DWORD permissions = keyNumber(key, KP_PERMISSIONS);
    const bool signs = (permissions & CRYPT_ENCRYPT) != 0;
    const bool decrypts = (permissions & CRYPT_DECRYPT) != 0;
    return (keyNumber(key, KP_ALGID) == ALG_EC_KEY ? "EC P-" : "RSA-") + std::to_string(keyNumber(key, KP_KEYLEN)) +
           (signs && decrypts ? ", for signing and key exchange"
            : signs           ? ", for signing"
            : decrypts        ? ", for key exchange"
                              : "");
}

void runShow(const Arguments& /*arguments*/) {
    const std::vector<std::string> keys = listKeys(openContainer(""));
    const std::vector<Container> containers = listContainers();
    if (keys.empty()) {
        std::cout << "The token has no keys. `zentok key generate` makes one.\n";
    }
    for (const std::string& text : keys) {
        const Context context = openContainer(text);
        const Key key = requireKey(context, text);
        std::cout << "key " << text << "\n  " << keyDescription(key) << "\n";
        for (const Container& container : containers) {
            if (std::ranges::find(container.keys, text) != container.keys.end()) {
                std::cout << "  container " << container.name << "\n";
            }
        }
        const std::vector<BYTE> der = readCertificate(key);
        if (der.empty()) {
            std::cout << "  no certificate\n";
            continue;
        }
        const Certificate certificate = parseCertificate(der, "what the token holds as certificate");
        std::cout << "  certificate of " << subjectText(certificate) << "\n    issued by " << issuerText(certificate)
                  << ", valid until " << lastDay(certificate) << "\n";
    }
}

void runPublicKey(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    if (keyNumber(requireKey(context, name), KP_ALGID) == ALG_EC_KEY) {
        throw Failure("the container \"" + name +
                      "\" has an elliptic-curve key, whose public half CryptoAPI cannot "
                      "export");
    }
    deliver(arguments, pemText(publicKeyInfo(context), "PUBLIC KEY"),
            "the public key of the container \"" + name + "\"");
}

void runRequest(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    if (keyNumber(requireKey(context, name), KP_ALGID) == ALG_EC_KEY) {
        throw Failure("the container \"" + name + "\" has an elliptic-curve key, for which CryptoAPI makes no request");
    }
    logIn(context, arguments.find("pin"));
    deliver(arguments, pemText(certificateRequest(context, arguments.get("subject")), "CERTIFICATE REQUEST"),
            "the request for the container \"" + name + "\"");
}

void runImport(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::vector<BYTE> der = derOf(readFile(file, LARGEST_CERTIFICATE, "a certificate"), file);
    const Certificate certificate = parseCertificate(der, file);
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    // CryptoAPI exports no elliptic-curve key to compare with.
    if (keyNumber(key, KP_ALGID) != ALG_EC_KEY && publicKeyInfo(certificate) != publicKeyInfo(context)) {
        throw Failure(file + " is the certificate of another key than that of the container \"" + name + "\"");
    }
    logIn(context, arguments.find("pin"));
    if (CryptSetKeyParam(key.get(), KP_CERTIFICATE, certificate->pbCertEncoded, 0) == FALSE) {
        throw platformFailure("store the certificate", GetLastError(),
                              "The token refused it, or it is too large; the provider's log says more.");
    }
    std::cout << "Stored the certificate of " << subjectText(certificate) << " on the token.\n";
}

void runExport(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    const bool chain = arguments.has("chain");
    const std::vector<BYTE> bytes = chain ? readCertificateChain(context) : readCertificate(requireKey(context, name));
    if (bytes.empty()) {
        throw Failure("the container \"" + name +
                      "\" has no certificate\n`zentok certificate import` stores one on the token.");
    }
    deliver(
        arguments, pemText(bytes, chain ? "PKCS7" : "CERTIFICATE"),
        (chain ? "the certificate chain of the container \"" : "the certificate of the container \"") + name + "\"");
}

void runMessage(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const std::string& file = arguments.get("in");
    const std::string target = arguments.find("out").value_or(file + ".p7m");
    const std::string content = readFile(file, LARGEST_CONTENT, "a message that is made in memory");
    const Context context = openContainer(name);
    logIn(context, arguments.find("pin"));
    const std::vector<BYTE> message = signMessage(context, name, content, arguments.has("detached"));
    writeFile(target, message);
    std::cout << "Signed " << file << " with the container \"" << name << "\": a CMS message of " << message.size()
              << " bytes in " << target << "\n";
}

constexpr Option TARGET{"out", "FILE", "where to write it; to the output when not given"};

constexpr Option PUBLIC_KEY_OPTIONS[] = {CONTAINER, TARGET};
constexpr Option REQUEST_OPTIONS[] = {
    CONTAINER, {"subject", "NAME", "whom the certificate is for, \"CN=Somebody, O=Firm\"", true}, TARGET, PIN};
constexpr Option IMPORT_OPTIONS[] = {CONTAINER, {"in", "FILE", "the certificate, PEM or DER", true}, PIN};
constexpr Option EXPORT_OPTIONS[] = {
    CONTAINER, TARGET, {"chain", nullptr, "with its issuers that are on the token, as PKCS#7"}};
constexpr Option MESSAGE_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to sign", true},
    {"out", "FILE", "where the message goes; FILE.p7m beside the file when not given"},
    {"detached", nullptr, "leave the file's content out of the message"},
    PIN,
};

constexpr Command COMMANDS[] = {
    {"show", "Show the keys and certificates of the token", "", {}, runShow},
    {"public-key", "Write the public key of a container as PEM", "For RSA keys.", PUBLIC_KEY_OPTIONS, runPublicKey},
    {"certificate request", "Make a PKCS#10 request for a certificate", "For RSA keys. The request is PEM.",
     REQUEST_OPTIONS, runRequest},
    {"certificate import", "Store a certificate on the token, beside its key",
     "Its issuers go onto the token, too, when all of them are in ZentokDSC\\Certificates below %ZENTOK_HOME%.",
     IMPORT_OPTIONS, runImport},
    {"certificate export", "Write the certificate of a container as PEM", "", EXPORT_OPTIONS, runExport},
    {"cms sign", "Sign a file as a CMS message",
     "The container needs a certificate. `openssl cms -verify -inform DER` "
     "reads the message.",
     MESSAGE_OPTIONS, runMessage},
};

}  // namespace

std::span<const Command> certificateCommands() {
    return COMMANDS;
}
