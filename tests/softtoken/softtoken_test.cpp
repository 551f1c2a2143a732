#include "tests/softtoken/softtoken_test.h"

#include <windows.h>

namespace test {

TokenHome::TokenHome() {
    char value[MAX_PATH] = {};
    previous.assign(value, GetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", value, sizeof value));
    SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", scratch.path().c_str());
}

TokenHome::~TokenHome() {
    SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", previous.empty() ? nullptr : previous.c_str());
}

SoftTokenTest::SoftTokenTest() {
    createToken();
}

void createToken(FipsClass fipsClass, const std::string& serial) {
    softtoken::TokenOptions options;
    options.serial = serial;
    options.fipsClass = fipsClass;
    options.pin = PIN;
    options.pinCost = 1024;
    softtoken::createToken(options);
}

Bytes bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes counted(std::size_t count, unsigned char first) {
    Bytes result(count);
    for (std::size_t index = 0; index < count; ++index) {
        result[index] = static_cast<unsigned char>(first + index);
    }
    return result;
}

std::string hex(const Bytes& data) {
    std::string text;
    for (const unsigned char byte : data) {
        char digits[3] = {};
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

Bytes publicKeyOf(const ZentokKeyPair& pair) {
    return {pair.publicKey, pair.publicKey + pair.publicKeyLength};
}

int lengthOf(const Bytes& data) {
    return static_cast<int>(data.size());
}

int validate(const char* pin, int* retries, const char* serial) {
    int unused = 0;
    return zentok_validatePassword(serial, pin, 1, retries == nullptr ? &unused : retries, nullptr);
}

Answer sign(const ZentokKeyPair& pair, const Bytes& digest, bool pss, const char* pin) {
    Answer answer;
    answer.bytes.resize(512);
    int length = lengthOf(answer.bytes);
    answer.code = zentok_signHash(SERIAL, pair.credentialId, pin, digest.data(), lengthOf(digest), answer.bytes.data(),
                                  &length, false, nullptr, pss);
    answer.bytes.resize(answer.code == 0 ? static_cast<std::size_t>(length) : 0);
    return answer;
}

Answer taken(int code, unsigned char* result, int length) {
    Answer answer{code, {}};
    if (code == 0) {
        answer.bytes.assign(result, result + length);
        std::free(result);
    } else {
        EXPECT_EQ(result, nullptr) << "a failed operation allocated";
    }
    return answer;
}

Answer decrypt(const ZentokKeyPair& pair, const Bytes& data, const char* pin, const char* serial) {
    unsigned char* result = nullptr;
    int length = 0;
    const int code = zentok_decrypt(serial, pair.credentialId, pin, data.data(), lengthOf(data), &result, &length,
                                    pair.tokenFlag, nullptr);
    return taken(code, result, length);
}

Answer derive(const ZentokKeyPair& pair, const Bytes& peer, const char* pin) {
    unsigned char* result = nullptr;
    int length = 0;
    const int code =
        zentok_ecdhDerive(SERIAL, pair.credentialId, pin, peer.data(), lengthOf(peer), &result, &length, nullptr);
    return taken(code, result, length);
}

int verify(int keyType, const Bytes& publicKey, const Bytes& digest, const Bytes& signature, bool pss) {
    return zentok_verifySignatureHash(static_cast<std::uint32_t>(keyType), SERIAL, digest.data(), lengthOf(digest),
                                      publicKey.data(), lengthOf(publicKey), signature.data(), lengthOf(signature),
                                      nullptr, pss);
}

std::string openssl(const std::vector<std::string>& arguments) {
    const CommandResult result = runOpenssl(arguments);
    std::string command = "openssl";
    for (const std::string& argument : arguments) {
        command += " " + argument;
    }
    EXPECT_EQ(result.exitCode, 0) << command << "\n" << result.output;
    return result.output;
}

Bytes publicDer(const ScratchFolder& scratch, const std::string& pem, bool isPrivate) {
    std::vector<std::string> arguments = {"pkey",     "-in", pem,    "-pubout",
                                          "-outform", "DER", "-out", scratch.nativeFile("public.der")};
    if (!isPrivate) {
        arguments.emplace_back("-pubin");
    }
    openssl(arguments);
    return scratch.read("public.der");
}

}  // namespace test
