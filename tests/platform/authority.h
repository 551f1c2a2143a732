// A certification authority of openssl's making, whose certificates the provider finds as issuers.
#pragma once

#include <filesystem>
#include <functional>

#include "tests/platform/platform_test.h"

namespace test {

/// A root and an intermediate that it signed, in a folder that the provider takes issuers from.
class Authority {
public:
    Authority() {
        std::filesystem::create_directories(files.file(FOLDER));
        SetEnvironmentVariableA("ZENTOK_HOME", files.path().c_str());
        make("root", {"-subj", "/CN=Test Root"});
        make("issuer",
             {"-subj", "/CN=Test Issuer", "-CA", certificate("root"), "-CAkey", files.nativeFile("root.key")});
    }
    ~Authority() { SetEnvironmentVariableA("ZENTOK_HOME", nullptr); }
    Authority(const Authority&) = delete;
    Authority& operator=(const Authority&) = delete;

    /// The certificate for a key, by a PKCS#10 request (RFC 2986) that `sign` signs with SHA-256, for openssl to check.
    [[nodiscard]] Bytes issue(const Bytes& spki, bool isRsa, const std::function<Bytes(const Bytes&)>& sign) const {
        const Bytes rsaSha256 = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B, 0x05, 0x00};
        const Bytes ecdsaSha256 = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
        const Bytes info = der(0x30, requestParts(spki));
        const Bytes signature = der(0x03, {{0}, isRsa ? sign(info) : derOfEcSignature(sign(info))});
        const Bytes request = der(0x30, {info, der(0x30, {isRsa ? rsaSha256 : ecdsaSha256}), signature});
        return issue(request);
    }
    /// The certificate for a whole request.
    [[nodiscard]] Bytes issue(const Bytes& request) const {
        return throughOpenssl({"x509", "-req", "-inform", "DER", "-CA", certificate("issuer"), "-CAkey",
                               files.nativeFile("issuer.key"), "-CAcreateserial", "-outform", "DER"},
                              request);
    }
    /// What a request says and is signed: its version, subject, key and attributes.
    [[nodiscard]] static std::vector<Bytes> requestParts(const Bytes& spki) {
        const Bytes commonName = {0x06, 0x03, 0x55, 0x04, 0x03, 0x0C, 0x05, 'O', 'w', 'n', 'e', 'r'};
        return {derInteger({0}), der(0x30, {der(0x31, {der(0x30, {commonName})})}), spki, der(0xA0, {})};
    }
    /// The native path of a PEM file.
    [[nodiscard]] std::string certificate(const std::string& name) const {
        return files.nativeFile(FOLDER + name + ".pem");
    }

    const ScratchFolder files;

private:
    void make(const std::string& name, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-keyout",
                                             files.nativeFile(name + ".key"), "-out", certificate(name)});
        openssl(arguments);
    }
    const std::string FOLDER = "ZentokDSC/Certificates/";
};

}  // namespace test
