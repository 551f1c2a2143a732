#include "core/firmware_policy.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "capi/csp_context.h"
#include "core/log.h"

namespace {

constexpr char FIRMWARE_WITH_PSS_AND_ECDH[] = "2.0.0";

constexpr char EVENT_SHA1_BLOCKED[] = "Global\\ZentokDSC_FipsSha1Blocked";
constexpr char EVENT_MD5_BLOCKED[] = "Global\\ZentokDSC_FipsMd5Blocked";
constexpr char EVENT_PKCS1_DECRYPT_BLOCKED[] = "Global\\ZentokDSC_FipsPkcs1DecryptBlocked";

constexpr std::uint32_t SIGNING_AND_IPSEC = CRYPT_FLAG_IPSEC | CRYPT_FLAG_SIGNING;

constexpr AlgorithmRow rsaSignRow(std::uint32_t minBits) {
    return {CALG_RSA_SIGN, minBits, 4096, 2048, 1024, SIGNING_AND_IPSEC, "RSA-Sign", "RSA Signature"};
}
constexpr AlgorithmRow rsaExchangeRow(std::uint32_t minBits) {
    return {CALG_RSA_KEYX, minBits, 4096, 2048, 1024, SIGNING_AND_IPSEC, "RSA-KeyX", "RSA Key Exchange"};
}
constexpr AlgorithmRow AES_128 = {CALG_AES_128, 128, 128, 128, 0, 0, "AES-128", "Advanced Encryption Standard 128-bit"};
constexpr AlgorithmRow AES_192 = {CALG_AES_192, 192, 192, 192, 0, 0, "AES-192", "Advanced Encryption Standard 192-bit"};
constexpr AlgorithmRow AES_256 = {CALG_AES_256, 256, 256, 256, 0, 0, "AES-256", "Advanced Encryption Standard 256-bit"};
constexpr AlgorithmRow SHA_1 = {
    CALG_SHA1, 160, 160, 160, 0, CRYPT_FLAG_SIGNING, "SHA-1", "Secure Hash Algorithm (SHA-1)"};
constexpr AlgorithmRow SHA_256 = {
    CALG_SHA_256, 256, 256, 256, 0, CRYPT_FLAG_SIGNING, "SHA-256", "Secure Hash Algorithm 256 (SHA-256)"};
constexpr AlgorithmRow SHA_384 = {
    CALG_SHA_384, 384, 384, 384, 0, CRYPT_FLAG_SIGNING, "SHA-384", "Secure Hash Algorithm 384 (SHA-384)"};
constexpr AlgorithmRow SHA_512 = {
    CALG_SHA_512, 512, 512, 512, 0, CRYPT_FLAG_SIGNING, "SHA-512", "Secure Hash Algorithm 512 (SHA-512)"};
constexpr AlgorithmRow HMAC = {CALG_HMAC, 0, 0, 0, 0, 0, "HMAC", "Hugo's MAC (HMAC)"};

constexpr AlgorithmRow ALGORITHMS_140_3[] = {
    rsaSignRow(2048), rsaExchangeRow(2048), AES_128, AES_192, AES_256, SHA_256, SHA_384, SHA_512, HMAC,
};
constexpr AlgorithmRow ALGORITHMS_140_2[] = {
    rsaSignRow(1024), rsaExchangeRow(1024), AES_128, AES_192, AES_256, SHA_1, SHA_256, SHA_384, SHA_512, HMAC,
};

constexpr char RSA_1024_REASON[] = "not allowed — key size below 112-bit security strength";

bool isTokenOfClass140_2(const std::string& serial, void* tokenContext) {
    return firmwareClass(zentok_getTokenInfo(serial.c_str(), tokenContext)) == FirmwareClass::FIPS_140_2;
}

/// Tells a watcher outside the provider, if there is one: the provider never creates these events.
void signalBlocked(const char* eventName) {
    if (const HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, eventName); event != nullptr) {
        SetEvent(event);
        CloseHandle(event);
    }
}

bool isOldFirmware(const std::string& firmwareVersion) {
    return compareVersions(firmwareVersion, FIRMWARE_WITH_PSS_AND_ECDH) < 0;
}

}  // namespace

FirmwareClass firmwareClass(const TokenInfo& info) {
    const bool is140_2 = info.modelVersion.size() > 2 && info.modelVersion[2] == '1';
    return is140_2 ? FirmwareClass::FIPS_140_2 : FirmwareClass::FIPS_140_3;
}

std::span<const AlgorithmRow> selectAlgorithmTable(const CSP_CONTEXT& context) {
    if (!context.serial.empty() && isTokenOfClass140_2(context.serial, context.tokenContext)) {
        return ALGORITHMS_140_2;
    }
    return ALGORITHMS_140_3;
}

std::vector<int> parseVersion(const std::string& version) {
    std::vector<int> pieces;
    for (std::size_t begin = 0; !version.empty() && begin <= version.size();) {
        const std::size_t end = std::min(version.find('.', begin), version.size());
        // Leading digits count, and no digits are 0. Not atoi, which leaves a number that is too wide undefined.
        const long piece = std::strtol(version.substr(begin, end - begin).c_str(), nullptr, 10);
        pieces.push_back(static_cast<int>(std::clamp<long>(piece, INT_MIN, INT_MAX)));
        begin = end + 1;
    }
    return pieces;
}

int compareVersions(const std::string& left, const std::string& right) {
    std::vector<int> leftPieces = parseVersion(left);
    std::vector<int> rightPieces = parseVersion(right);
    const std::size_t length = std::max(leftPieces.size(), rightPieces.size());
    leftPieces.resize(length);
    rightPieces.resize(length);
    if (leftPieces == rightPieces) {
        return 0;
    }
    return leftPieces < rightPieces ? -1 : 1;
}

bool ruleSha1Hash(const CSP_CONTEXT& context) {
    if (!context.serial.empty() && isTokenOfClass140_2(context.serial, context.tokenContext)) {
        logInfo("CPCreateHash: SHA-1 (FIPS 140-2 token)");
        return true;
    }
    logError("CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)");
    signalBlocked(EVENT_SHA1_BLOCKED);
    return false;
}

bool ruleMd5Hash() {
    logError("CPCreateHash: MD5 blocked (FIPS policy)");
    signalBlocked(EVENT_MD5_BLOCKED);
    return false;
}

bool rulePkcs1Decrypt(const char* entry, const std::string& serial, void* tokenContext) {
    if (serial.empty() || isTokenOfClass140_2(serial, tokenContext)) {
        return true;
    }
    logError(std::string(entry) + ": PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)");
    signalBlocked(EVENT_PKCS1_DECRYPT_BLOCKED);
    return false;
}

bool ruleRsa1024Generate(const char* entry, bool tooShort, bool askToken, const std::string& serial,
                         void* tokenContext) {
    if (!tooShort) {
        return true;
    }
    if (askToken) {
        static_cast<void>(zentok_getTokenInfo(serial.c_str(), tokenContext));
    }
    logError(std::string(entry) + ": RSA-1024 key generation " + RSA_1024_REASON);
    return false;
}

bool ruleRsa1024Sign(const char* entry, std::int32_t keyType, const std::string& serial, void* tokenContext) {
    if (keyType != KEY_TYPE_RSA_1024) {
        return true;
    }
    // Asked, and the answer dropped: the refusal depends on neither class nor version.
    static_cast<void>(zentok_getTokenInfo(serial.c_str(), tokenContext));
    logError(std::string(entry) + ": RSA-1024 signing " + RSA_1024_REASON);
    return false;
}

bool ruleWeakHashSign(const char* entry, int libraryResult) {
    if (libraryResult != TOKEN_WEAK_HASH) {
        return true;
    }
    logError(std::string(entry) + ": SHA1/MD5 signing blocked on FIPS 140-3 token");
    return false;
}

bool rulePssFirmware(const char* entry, const std::string& firmwareVersion) {
    if (!isOldFirmware(firmwareVersion)) {
        return true;
    }
    logError(std::string(entry) + ": PSS not supported on firmware " + firmwareVersion);
    return false;
}

bool ruleEcdhFirmware(const char* entry, const char* operation, const std::string& firmwareVersion) {
    if (!isOldFirmware(firmwareVersion)) {
        return true;
    }
    logError(std::string(entry) + ": " + operation + " not supported on firmware " + firmwareVersion);
    return false;
}
