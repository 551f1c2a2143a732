// The PIN of one token: its retry counter, the master key behind it, and single sign-on.
//
// A random master key encrypts every secret of a token. On disk it lies sealed under a key that scrypt makes of the
// PIN, so a PIN is right when the seal opens. The retry counter stands beside it and is lowered on disk before each
// try: a process that is killed in the middle of a try has spent it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>

#include "softtoken/crypto.h"
#include "softtoken/files.h"
#include "softtoken/secret.h"

namespace softtoken {

struct PinCounter {
    int retries = 0;
    int limit = 0;
};

struct SsoState {
    bool enabled = false;
    bool live = false;
    std::int64_t expires = 0;  ///< seconds since 1970
};

/// One for each token folder, kept as long as the process, for any number of threads.
///
/// A PIN that was right is remembered in this process (a salted hash of it, with the master key), so that the same PIN
/// text costs neither scrypt nor a write of the counter again, until the record on disk changes or the token is gone.
/// The last PIN that was wrong is remembered likewise and refused again at no cost: a host that holds an old PIN and
/// repeats it on its own must not use up the attempts of its user.
class PinGuard {
public:
    explicit PinGuard(const WideText& tokenFolder);

    /// The master key, against the PIN. An empty PIN never costs a retry: live single sign-on opens with it. Nor does
    /// the last wrong PIN again.
    /// Error RESULT_WRONG_PIN; RESULT_PIN_LOCKED; TOKEN_SSO_EXPIRED: empty PIN with expired single sign-on.
    SecretBytes unlock(std::string_view pin);

    /// The master key without a PIN, when this process has verified it or single sign-on is live. Error
    /// RESULT_NOT_LOGGED_IN.
    SecretBytes unlockedKey();

    /// Forgets a verified PIN.
    void forget();

    [[nodiscard]] PinCounter counter() const;
    /// Also takes the key out of an expired record, where the folder can be written.
    [[nodiscard]] SsoState sso() const;

    /// A new token's record. `cost` as in deriveKey.
    void create(std::string_view pin, ByteView masterKey, int limit, unsigned cost);
    void change(std::string_view oldPin, std::string_view newPin);
    void resetCounter();
    void enableSso(std::string_view pin, unsigned seconds);
    void disableSso();

private:
    struct PinRecord {
        PinCounter counter;
        unsigned cost = 0;
        Bytes salt;
        Bytes sealedKey;
    };
    /// A PIN that was tried, as a salted hash. `sealedKey`, of the record that it was tried on, is empty without one.
    struct TriedPin {
        TriedPin() = default;
        TriedPin(const PinRecord& record, std::string_view pin);
        [[nodiscard]] bool is(const PinRecord& record, std::string_view pin) const;

        Bytes sealedKey;
        Bytes salt;
        SecretBytes pinHash;
    };

    [[nodiscard]] PinRecord readRecord() const;
    void writeRecord(const PinRecord& record) const;
    void sealRecord(PinRecord& record, std::string_view pin, ByteView masterKey) const;
    SecretBytes recall(std::string_view pin);
    SecretBytes tryPin(std::string_view pin);
    [[nodiscard]] SecretBytes ssoKey() const;
    void dropExpiredSso() const;
    void sweep() const;

    const WideText folder;
    const WideText pinFile;
    const WideText ssoFile;
    const WideText lockFile;
    std::mutex tries;  ///< one try at a time; taken before `memory`
    std::mutex memory;
    TriedPin verified;
    SecretBytes verifiedKey;  ///< the master key; empty when no PIN is verified
    TriedPin refused;         ///< under `tries`
};

}  // namespace softtoken
