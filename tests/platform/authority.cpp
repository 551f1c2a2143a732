#include "tests/platform/authority.h"

#include <filesystem>

#include "tests/platform/platform_test.h"

namespace test {

namespace {

constexpr char FOLDER[] = "ZentokDSC\\Certificates\\";

void make(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2"});
    openssl(arguments);
}

}  // namespace

Authority::Authority() {
    std::filesystem::create_directories(files.file(FOLDER));
    SetEnvironmentVariableA("ZENTOK_HOME", files.path().c_str());
    make({"-keyout", native("root.key"), "-out", root(), "-subj", "/CN=Test Root"});
    make({"-keyout", native("issuer.key"), "-out", issuer(), "-subj", "/CN=Test Issuer", "-CA", root(), "-CAkey",
          native("root.key")});
}

Authority::~Authority() {
    SetEnvironmentVariableA("ZENTOK_HOME", nullptr);
}

Bytes Authority::issue(const Bytes& request) const {
    openssl({"x509", "-req", "-inform", "DER", "-in", files.write("request", request), "-CA", issuer(), "-CAkey",
             native("issuer.key"), "-CAcreateserial", "-outform", "DER", "-out", native("leaf")});
    return files.read("leaf");
}

std::string Authority::root() const {
    return native(std::string(FOLDER) + "root.pem");
}

std::string Authority::issuer() const {
    return native(std::string(FOLDER) + "issuer.pem");
}

}  // namespace test
