// Management of software tokens: what a maker's own tool would do with a real token. For the command-line tool, the
// demonstrations and the tests, which link it statically; the token library does not export it.
//
// A token is a folder of the base folder, named by its serial. Moving the folder away pulls the token out, moving it
// back plugs it in. Every call throws softtoken::Error (result.h) with a readable text and a code, or std::bad_alloc.
// Texts are UTF-8. All calls may come from any thread and any number of processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/token_library.h"
#include "softtoken/result.h"

namespace softtoken {

/// Firmware class. The stricter one refuses SHA-1 and MD5 signatures and PKCS#1 v1.5 decryption.
enum class FipsClass { FIPS_140_2, FIPS_140_3 };

struct TokenOptions {
    std::string serial;  ///< 1 to 64 of A-Z a-z 0-9 . _ - without a dot at either end; empty: a random one
    std::string label = "Zentok Soft Token";
    FipsClass fipsClass = FipsClass::FIPS_140_3;
    std::string firmware = "2.1.0";
    std::string pin;      ///< 4 to 63 bytes
    int retryLimit = 10;  ///< 1 to 99 wrong PINs until the PIN locks
    /// scrypt's N (RFC 7914), a power of two from 1024 to 1048576: the cost of trying one PIN. The default takes some
    /// 80 ms and 16 MiB.
    unsigned pinCost = 16384;
};

struct TokenSummary {
    std::string serial;
    std::string label;
    FipsClass fipsClass = FipsClass::FIPS_140_3;
    std::string firmware;
    int retriesLeft = 0;  ///< 0: the PIN is locked, or its file is unreadable
    int retryLimit = 0;
    bool ssoEnabled = false;
    bool ssoLive = false;         ///< enabled and not expired
    std::int64_t ssoExpires = 0;  ///< seconds since 1970-01-01 UTC; 0 without single sign-on
    std::size_t keyPairs = 0;
    std::size_t certificates = 0;
    std::size_t aesKeys = 0;
    std::string folder;
};

/// The folder that holds the tokens: the environment variable ZENTOK_SOFTTOKEN_HOME, else ZentokSoftToken in the user's
/// local application data. Not created by asking for it.
std::string tokenHome();

/// Creates a token and returns its serial. RESULT_EXISTS when the serial is taken. The folder appears whole, under its
/// final name, as the last step.
std::string createToken(const TokenOptions& options);

/// The connected tokens in the order of zentok_getConnectedDeviceList.
std::vector<TokenSummary> listTokens();

/// Deletes the token with all its keys. No PIN is asked for, as for throwing a token away.
void removeToken(const std::string& serial);

/// A new key pair of any type; `alias` has at most 128 bytes.
ZentokKeyPair generateKeyPair(const std::string& serial, const std::string& pin, KeyType type, KeyUsage usage,
                              const std::string& alias);

/// The file that holds the key's public half as a PEM SubjectPublicKeyInfo, as OpenSSL reads it. RESULT_NO_OBJECT when
/// the token has no such key. `credentialId` has 16 bytes.
std::string publicKeyFile(const std::string& serial, const unsigned char* credentialId);

/// Switches single sign-on on for `seconds` (0: expired at once, for tests of the expiry). Until then every operation
/// accepts an empty PIN from this Windows user. This weakens the token: for that time the key that protects its secrets
/// lies in its folder, protected by the platform's user data protection (CryptProtectData) alone and not by the PIN.
void enableSso(const std::string& serial, const std::string& pin, unsigned seconds);

/// Removes every trace of single sign-on. Does nothing when it is off.
void disableSso(const std::string& serial);

/// A new PIN in place of `oldPin`, which is checked and counted like every PIN.
void changePin(const std::string& serial, const std::string& oldPin, const std::string& newPin);

/// Sets the retry counter back to its limit, without a PIN: a locked token of a developer is not worth losing its keys.
void resetRetryCounter(const std::string& serial);

}  // namespace softtoken
