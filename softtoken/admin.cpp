#include <limits>

#include "softtoken/crypto.h"
#include "softtoken/token.h"
#include "softtoken/token_admin.h"

namespace softtoken {

namespace {

constexpr std::size_t LONGEST_TEXT = 128;
constexpr std::size_t SHORTEST_PIN = 4;
constexpr std::size_t LONGEST_PIN = 63;
constexpr int HIGHEST_LIMIT = 99;
constexpr unsigned LEAST_COST = 1024;
constexpr unsigned HIGHEST_COST = 1048576;
constexpr std::size_t RANDOM_SERIAL_BYTES = 5;

void check(bool holds, const char* text) {
    if (!holds) {
        throw Error(RESULT_BAD_ARGUMENT, text);
    }
}

void checkPin(const std::string& pin) {
    check(pin.size() >= SHORTEST_PIN && pin.size() <= LONGEST_PIN && pin.find('\0') == std::string::npos,
          "a PIN has 4 to 63 bytes");
}

Token open(const std::string& serial) {
    initialiseCrypto();
    return openToken(serial);
}

}  // namespace

std::string tokenHome() {
    return narrow(baseFolder());
}

std::string createToken(const TokenOptions& options) {
    initialiseCrypto();
    Token token;
    token.serial = options.serial.empty() ? "ST" + hexText(randomBytes<Bytes>(RANDOM_SERIAL_BYTES)) : options.serial;
    token.label = options.label;
    token.firmware = options.firmware;
    token.isStrict = options.fipsClass == FipsClass::FIPS_140_3;
    check(isSerial(token.serial), "a serial has 1 to 64 of A-Z a-z 0-9 . _ - and neither begins nor ends with a dot");
    check(token.label.size() <= LONGEST_TEXT && token.firmware.size() <= LONGEST_TEXT,
          "label and firmware have at most 128 bytes");
    checkPin(options.pin);
    check(options.retryLimit >= 1 && options.retryLimit <= HIGHEST_LIMIT, "a retry limit is 1 to 99");
    check(options.pinCost >= LEAST_COST && options.pinCost <= HIGHEST_COST &&
              (options.pinCost & (options.pinCost - 1)) == 0,
          "a PIN cost is a power of two from 1024 to 1048576");
    createTokenFolder(token, options.pin, options.retryLimit, options.pinCost);
    return token.serial;
}

std::vector<TokenSummary> listTokens() {
    initialiseCrypto();
    std::vector<TokenSummary> summaries;
    for (const std::string& serial : connectedTokens()) {
        try {
            const Token token = openToken(serial);
            TokenSummary summary;
            summary.serial = serial;
            summary.label = token.label;
            summary.fipsClass = token.isStrict ? FipsClass::FIPS_140_3 : FipsClass::FIPS_140_2;
            summary.firmware = token.firmware;
            try {
                const PinCounter counter = token.memory->pin.counter();
                summary.retriesLeft = counter.retries;
                summary.retryLimit = counter.limit;
            } catch (const Error&) {
                // an unreadable PIN record: no retry is left
            }
            const SsoState sso = token.memory->pin.sso();
            summary.ssoEnabled = sso.enabled;
            summary.ssoLive = sso.live;
            summary.ssoExpires = sso.expires;
            summary.keyPairs = token.memory->keyPairs.current().size();
            summary.certificates = token.memory->certificates.current().size();
            summary.aesKeys = token.memory->aesKeys.current().size();
            summary.folder = narrow(token.folder);
            summaries.push_back(std::move(summary));
        } catch (const Error&) {
            // pulled out in between
        }
    }
    return summaries;
}

void removeToken(const std::string& serial) {
    deleteTokenFolder(open(serial));
}

ZentokKeyPair generateKeyPair(const std::string& serial, const std::string& pin, KeyType type, KeyUsage usage,
                              const std::string& alias) {
    const Token token = open(serial);
    return createKeyPair(token, token.memory->pin.unlock(pin), keyTypeInfo(type), usage, alias);
}

std::string publicKeyFile(const std::string& serial, const unsigned char* credentialId) {
    const WideText path = publicKeyPath(open(serial), credentialId);
    if (modificationTime(path) == 0) {
        throw Error(RESULT_NO_OBJECT, "the token has no such key");
    }
    return narrow(path);
}

void enableSso(const std::string& serial, const std::string& pin, unsigned seconds) {
    check(!pin.empty(), "single sign-on is switched on with the PIN");
    open(serial).memory->pin.enableSso(pin, seconds);
}

void disableSso(const std::string& serial) {
    open(serial).memory->pin.disableSso();
}

void changePin(const std::string& serial, const std::string& oldPin, const std::string& newPin) {
    checkPin(newPin);
    open(serial).memory->pin.change(oldPin, newPin);
}

void resetRetryCounter(const std::string& serial) {
    open(serial).memory->pin.resetCounter();
}

}  // namespace softtoken
