// Software tokens: what a maker's own tool does with real ones.
#include <algorithm>
#include <array>
#include <iostream>
#include <string_view>

#include "softtoken/token_admin.h"
#include "tools/zentok/commands.h"
#include "tools/zentok/failure.h"
#include "tools/zentok/text.h"

namespace {

constexpr std::array<std::string_view, 2> CLASSES = {"140-2", "140-3"};
constexpr std::array<std::string_view, 3> USAGES = {"sign", "exchange", "both"};
constexpr std::array<std::string_view, 7> KEY_TYPES = {"rsa1024", "rsa2048", "rsa3072", "rsa4096",
                                                       "p256",    "p384",    "p521"};

/// In the order of CLASSES, of USAGES and of KEY_TYPES.
constexpr auto FIPS_CLASSES = std::to_array({softtoken::FipsClass::FIPS_140_2, softtoken::FipsClass::FIPS_140_3});
constexpr auto USAGE_VALUES = std::to_array({KEY_USAGE_SIGN, KEY_USAGE_EXCHANGE, KEY_USAGE_BOTH});
constexpr auto TYPE_VALUES = std::to_array({KEY_TYPE_RSA_1024, KEY_TYPE_RSA_2048, KEY_TYPE_RSA_3072, KEY_TYPE_RSA_4096,
                                            KEY_TYPE_EC_P256, KEY_TYPE_EC_P384, KEY_TYPE_EC_P521});

struct Advice {
    std::int32_t result;
    const char* text;
};

constexpr Advice ADVICE[] = {
    {softtoken::RESULT_EXISTS, "Choose another --serial, or remove that token with `zentok token remove`."},
    {softtoken::RESULT_NO_TOKEN, "`zentok token list` shows the tokens that are connected."},
    {softtoken::RESULT_WRONG_PIN, "`zentok token list` shows how many attempts are left."},
    {softtoken::RESULT_PIN_LOCKED, "`zentok token unlock` gives a software token its attempts back."},
    {softtoken::RESULT_STORAGE_FULL, "Make room on the disk and try again."},
    {softtoken::RESULT_BUSY, "Another program is writing to the token: try again."},
};

/// Runs a management call, whose own failures get an advice.
template <typename Call>
auto manage(Call call) {
    try {
        return call();
    } catch (const softtoken::Error& error) {
        const auto* row = std::ranges::find(ADVICE, error.code, &Advice::result);
        throw Failure(std::string(error.what()) + (row == std::end(ADVICE) ? "" : "\n" + std::string(row->text)));
    }
}

void runCreate(const Arguments& arguments) {
    softtoken::TokenOptions options;
    options.serial = arguments.find("serial").value_or("");
    options.label = arguments.find("label").value_or(options.label);
    options.fipsClass = FIPS_CLASSES[arguments.getChoice("class", CLASSES)];
    options.firmware = arguments.get("firmware");
    options.pin = toAnsi(arguments.get("pin"), "the PIN");
    options.retryLimit = static_cast<int>(arguments.getNumber("retries", 1, 99));
    const std::string serial = manage([&] { return softtoken::createToken(options); });
    std::cout << "Created the token " << serial << " in " << softtoken::tokenHome() << "\n";
}

void runList(const Arguments& /*arguments*/) {
    const auto tokens = manage([] { return softtoken::listTokens(); });
    if (tokens.empty()) {
        std::cout << "No software tokens in " << softtoken::tokenHome() << ". `zentok token create` makes one.\n";
    }
    for (const softtoken::TokenSummary& token : tokens) {
        std::cout << token.serial << "  " << token.label << "\n  class "
                  << CLASSES[token.fipsClass == softtoken::FipsClass::FIPS_140_2 ? 0 : 1] << ", firmware "
                  << token.firmware << ", "
                  << (token.retriesLeft == 0 ? "PIN locked"
                                             : std::to_string(token.retriesLeft) + " of " +
                                                   std::to_string(token.retryLimit) + " PIN attempts left")
                  << ", single sign-on "
                  << (!token.ssoEnabled ? "off"
                      : token.ssoLive   ? "live"
                                        : "expired")
                  << "\n  " << token.keyPairs << " key pairs, " << token.certificates << " certificates, "
                  << token.aesKeys << " AES keys in " << token.folder << "\n";
    }
}

void runRemove(const Arguments& arguments) {
    const std::string& serial = arguments.get("serial");
    manage([&] { softtoken::removeToken(serial); });
    std::cout << "Removed the token " << serial << " with all its keys.\n";
}

void runUnlock(const Arguments& arguments) {
    const std::string& serial = arguments.get("serial");
    manage([&] { softtoken::resetRetryCounter(serial); });
    std::cout << "The token " << serial << " has all its PIN attempts again.\n";
}

void runSso(const Arguments& arguments) {
    const std::string& serial = arguments.get("serial");
    if (arguments.has("off") == arguments.has("seconds")) {
        throw UsageError("give either --seconds with --pin, or --off");
    }
    if (arguments.has("off")) {
        manage([&] { softtoken::disableSso(serial); });
        std::cout << "Single sign-on of the token " << serial << " is off.\n";
        return;
    }
    const auto seconds = static_cast<unsigned>(arguments.getNumber("seconds", 0, 0x7FFFFFFF));
    manage([&] { softtoken::enableSso(serial, toAnsi(arguments.get("pin"), "the PIN"), seconds); });
    std::cout << "The token " << serial << " asks for no PIN for " << seconds << " seconds.\n";
}

void runAddKey(const Arguments& arguments) {
    const std::string& serial = arguments.get("serial");
    const KeyType type = TYPE_VALUES[arguments.getChoice("type", KEY_TYPES)];
    const KeyUsage usage = USAGE_VALUES[arguments.getChoice("usage", USAGES)];
    const ZentokKeyPair key = manage([&] {
        return softtoken::generateKeyPair(serial, toAnsi(arguments.get("pin"), "the PIN"), type, usage,
                                          arguments.get("alias"));
    });
    std::cout << "Generated the key ";
    for (const unsigned char byte : key.credentialId) {
        constexpr char DIGITS[] = "0123456789ABCDEF";
        std::cout << DIGITS[byte >> 4] << DIGITS[byte & 15];
    }
    std::cout << " on the token " << serial << ".\n";
}

constexpr Option SERIAL{"serial", "SERIAL", "the token", true};
constexpr Option TOKEN_PIN{"pin", "PIN", "the token's PIN", true};

constexpr Option CREATE_OPTIONS[] = {
    {"pin", "PIN", "the token's PIN, 4 to 63 characters", true},
    {"serial", "SERIAL", "letters, digits, \".\", \"_\" and \"-\"; a random one when not given"},
    {"label", "TEXT", "a name for people"},
    {"class", "CLASS", "FIPS class: 140-2, or the stricter 140-3", false, "140-3"},
    {"firmware", "VERSION", "the firmware version that the token reports", false, "2.1.0"},
    {"retries", "COUNT", "wrong PINs until the PIN locks", false, "10"},
};
constexpr Option SERIAL_ONLY[] = {SERIAL};
constexpr Option SSO_OPTIONS[] = {
    SERIAL,
    {"seconds", "COUNT", "how long no PIN is asked for"},
    {"pin", "PIN", "the token's PIN, with --seconds"},
    {"off", nullptr, "ask for the PIN again"},
};
constexpr Option ADD_KEY_OPTIONS[] = {
    SERIAL,
    TOKEN_PIN,
    {"type", "TYPE", "rsa1024, rsa2048, rsa3072, rsa4096, p256, p384 or p521", false, "rsa2048"},
    {"usage", "USAGE", "sign, exchange or both", false, "both"},
    {"alias", "TEXT", "the key's name on the token", false, ""},
};

constexpr Command COMMANDS[] = {
    {"token create", "Create a software token",
     "It is a folder below %ZENTOK_SOFTTOKEN_HOME%, or below ZentokSoftToken in the local application data. Moving "
     "the\n"
     "folder away pulls the token out.",
     CREATE_OPTIONS, runCreate},
    {"token list", "List the software tokens", "", {}, runList},
    {"token remove", "Remove a software token with all its keys", "No PIN is asked for.", SERIAL_ONLY, runRemove},
    {"token unlock", "Give a software token its PIN attempts back", "No PIN is asked for.", SERIAL_ONLY, runUnlock},
    {"token sso", "Switch the single sign-on of a software token",
     "While it is live, the token's secrets are protected by this Windows user's login alone.", SSO_OPTIONS, runSso},
    {"token add-key", "Generate a key of any type on a software token",
     "Its 32 digits serve as the name of its container. `zentok key generate` makes an RSA key as applications do.",
     ADD_KEY_OPTIONS, runAddKey},
};

}  // namespace

void checkSoftwareTokens(Findings& findings) {
    constexpr int FEW = 3;
    for (const softtoken::TokenSummary& token : manage([] { return softtoken::listTokens(); })) {
        Finding finding{"software token", Verdict::Ok,
                        token.serial + ", " + std::to_string(token.retriesLeft) + " of " +
                            std::to_string(token.retryLimit) + " PIN attempts left"};
        if (token.retriesLeft == 0) {
            finding.verdict = Verdict::Error;
            finding.text = token.serial + ", the PIN is locked";
            finding.advice = "`zentok token unlock --serial " + token.serial + "` gives the attempts back.";
        } else if (token.retriesLeft < std::min(FEW, token.retryLimit)) {
            finding.verdict = Verdict::Warning;
            finding.advice = "The PIN locks when they are used up; the right PIN gives them back.";
        }
        findings.push_back(finding);
    }
}

std::span<const Command> tokenCommands() {
    return COMMANDS;
}
