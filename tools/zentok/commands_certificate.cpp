// What is on a token, and the certificates of its keys: requested, stored, fetched, and used to sign messages.
#include <algorithm>
#include <iostream>

#include "tools/zentok/certificates.h"
#include "tools/zentok/commands.h"
#include "tools/zentok/commands_cng.h"
#include "tools/zentok/csp.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/files.h"

namespace {

constexpr std::size_t LARGEST_CERTIFICATE = 65536;   ///< bytes
constexpr std::size_t LARGEST_CONTENT = 256U << 20;  ///< bytes

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

void runShow(const Arguments& arguments) {
    if (arguments.has("cng")) {
        cng::show();
        return;
    }
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
        std::cout << certificateDescription(readCertificate(key));
    }
}

/// CryptoAPI's blobs carry RSA keys alone.
void requireRsa(const Key& key, const std::string& container) {
    if (isEllipticCurve(key)) {
        throw Failure("the container \"" + container + "\" has an elliptic-curve key, which CryptoAPI cannot export\n" +
                      "With --cng it can be done.");
    }
}

Bytes containerPublicKeyInfo(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    requireRsa(requireKey(context, name), name);
    return publicKeyInfo(context);
}

void runPublicKey(const Arguments& arguments) {
    const Bytes info = arguments.has("cng") ? cng::publicKeyInfo(arguments) : containerPublicKeyInfo(arguments);
    deliver(arguments, pemText(info, "PUBLIC KEY"),
            "the public key of the container \"" + arguments.get("container") + "\"");
}

Bytes containerRequest(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    requireRsa(requireKey(context, name), name);
    logIn(context, arguments.find("pin"));
    return certificateRequest(context, arguments.get("subject"));
}

void runRequest(const Arguments& arguments) {
    const Bytes request = arguments.has("cng") ? cng::request(arguments) : containerRequest(arguments);
    deliver(arguments, pemText(request, "CERTIFICATE REQUEST"),
            "the request for the container \"" + arguments.get("container") + "\"");
}

void storeCertificate(const Arguments& arguments, const Certificate& certificate) {
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    const Key key = requireKey(context, name);
    // CryptoAPI exports no elliptic-curve key to compare with.
    if (!isEllipticCurve(key)) {
        requireSameKey(certificate, publicKeyInfo(context), arguments);
    }
    logIn(context, arguments.find("pin"));
    if (CryptSetKeyParam(key.get(), KP_CERTIFICATE, certificate->pbCertEncoded, 0) == FALSE) {
        throw platformFailure("store the certificate", GetLastError(),
                              "The token refused it, or it is too large; the provider's log says more.");
    }
}

void runImport(const Arguments& arguments) {
    const std::string& file = arguments.get("in");
    const Certificate certificate =
        parseCertificate(derOf(readFile(file, LARGEST_CERTIFICATE, "a certificate"), file), file);
    if (arguments.has("cng")) {
        cng::storeCertificate(arguments, certificate);
    } else {
        storeCertificate(arguments, certificate);
    }
    std::cout << "Stored the certificate of " << subjectText(certificate) << " on the token.\n";
}

/// The DER of what is to be exported; empty when there is none.
Bytes exported(const Arguments& arguments, bool chain) {
    if (arguments.has("cng")) {
        if (chain) {
            throw UsageError("--chain comes from CryptoAPI: leave out --cng");
        }
        return cng::readCertificate(arguments);
    }
    const std::string& name = arguments.get("container");
    const Context context = openContainer(name);
    return chain ? readCertificateChain(context) : readCertificate(requireKey(context, name));
}

void runExport(const Arguments& arguments) {
    const std::string& name = arguments.get("container");
    const bool chain = arguments.has("chain");
    const Bytes bytes = exported(arguments, chain);
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
    const bool cng = arguments.has("cng");
    const Bytes message =
        signMessage(context, cng ? cng::requireRouter(arguments) : name, content, arguments.has("detached"), cng);
    writeFile(target, message);
    std::cout << "Signed " << file << " with the container \"" << name << "\": a CMS message of " << message.size()
              << " bytes in " << target << "\n";
}

constexpr Option TARGET{"out", "FILE", "where to write it; to the output when not given"};

constexpr Option SHOW_OPTIONS[] = {CNG};
constexpr Option PUBLIC_KEY_OPTIONS[] = {CONTAINER, TARGET, CNG};
constexpr Option REQUEST_OPTIONS[] = {
    CONTAINER, {"subject", "NAME", "whom the certificate is for, \"CN=Somebody, O=Firm\"", true}, TARGET, CNG, PIN};
constexpr Option IMPORT_OPTIONS[] = {CONTAINER, {"in", "FILE", "the certificate, PEM or DER", true}, CNG, PIN};
constexpr Option EXPORT_OPTIONS[] = {
    CONTAINER, TARGET, {"chain", nullptr, "with its issuers that are on the token, as PKCS#7"}, CNG};
constexpr Option MESSAGE_OPTIONS[] = {
    CONTAINER,
    {"in", "FILE", "the file to sign", true},
    {"out", "FILE", "where the message goes; FILE.p7m beside the file when not given"},
    {"detached", nullptr, "leave the file's content out of the message"},
    CNG,
    PIN,
};

constexpr Command COMMANDS[] = {
    {"show", "Show the keys and certificates of the token", "", SHOW_OPTIONS, runShow},
    {"public-key", "Write the public key of a container as PEM", "CryptoAPI exports RSA keys alone.",
     PUBLIC_KEY_OPTIONS, runPublicKey},
    {"certificate request", "Make a PKCS#10 request for a certificate",
     "The request is PEM. CryptoAPI makes one for RSA keys alone.", REQUEST_OPTIONS, runRequest},
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
