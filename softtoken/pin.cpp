#include "softtoken/pin.h"

#include "core/token_library.h"
#include "softtoken/certificates.h"
#include "softtoken/result.h"

namespace softtoken {

namespace {

constexpr std::size_t SALT_SIZE = 16;
constexpr int HIGHEST_LIMIT = 99;
constexpr unsigned LEAST_COST = 1024;
constexpr unsigned HIGHEST_COST = 1048576;
constexpr std::size_t LONGEST_PROTECTED_KEY = 4096;
constexpr std::string_view MASTER_KEY_CONTEXT = "master key";
/// FILETIME of 1970-01-01.
constexpr std::uint64_t UNIX_EPOCH = 116444736000000000;
constexpr std::uint64_t TICKS_PER_SECOND = 10000000;

std::int64_t now() {
    return static_cast<std::int64_t>((currentFileTime() - UNIX_EPOCH) / TICKS_PER_SECOND);
}

SecretBytes hashOf(std::string_view pin, ByteView salt) {
    SecretBytes salted(salt.begin(), salt.end());
    salted.insert(salted.end(), pin.begin(), pin.end());
    const auto hash = sha256(salted);
    return {hash.begin(), hash.end()};
}

[[noreturn]] void failWrongPin(const PinCounter& counter) {
    throw Error(RESULT_WRONG_PIN, "the PIN is wrong, attempts left: " + std::to_string(counter.retries));
}

/// What a protected single sign-on key is bound to: nobody moves the end of its life.
std::string ssoContext(std::int64_t expires) {
    return "single sign-on until " + std::to_string(expires);
}

}  // namespace

PinGuard::PinGuard(const WideText& tokenFolder)
    : folder(tokenFolder),
      pinFile(tokenFolder + TEXT("\\pin.txt")),
      ssoFile(tokenFolder + TEXT("\\sso.txt")),
      lockFile(tokenFolder + TEXT("\\lock")) {
}

PinGuard::TriedPin::TriedPin(const PinRecord& record, std::string_view pin)
    : sealedKey(record.sealedKey), salt(randomBytes<Bytes>(SALT_SIZE)), pinHash(hashOf(pin, salt)) {
}

bool PinGuard::TriedPin::is(const PinRecord& record, std::string_view pin) const {
    return sealedKey == record.sealedKey && sameSecret(pinHash, hashOf(pin, salt));
}

PinGuard::PinRecord PinGuard::readRecord() const {
    const Record stored = Record::read(pinFile);
    PinRecord record;
    record.counter.limit = static_cast<int>(stored.number("limit", 1, HIGHEST_LIMIT));
    record.counter.retries = static_cast<int>(stored.number("retries", 0, record.counter.limit));
    record.cost = static_cast<unsigned>(stored.number("cost", LEAST_COST, HIGHEST_COST));
    record.salt = stored.bytes("salt", SALT_SIZE, SALT_SIZE);
    record.sealedKey = stored.bytes("key", MASTER_KEY_SIZE + SEAL_OVERHEAD, MASTER_KEY_SIZE + SEAL_OVERHEAD);
    return record;
}

void PinGuard::writeRecord(const PinRecord& record) const {
    Record stored;
    stored.setNumber("limit", record.counter.limit);
    stored.setNumber("retries", record.counter.retries);
    stored.setNumber("cost", record.cost);
    stored.setBytes("salt", record.salt);
    stored.setBytes("key", record.sealedKey);
    stored.write(pinFile);
}

void PinGuard::sealRecord(PinRecord& record, std::string_view pin, ByteView masterKey) const {
    record.salt = randomBytes<Bytes>(SALT_SIZE);
    record.sealedKey = seal(deriveKey(bytesOf(pin), record.salt, record.cost), masterKey, bytesOf(MASTER_KEY_CONTEXT));
    record.counter.retries = record.counter.limit;
    writeRecord(record);
}

SecretBytes PinGuard::unlock(std::string_view pin) {
    if (pin.empty()) {
        return ssoKey();
    }
    SecretBytes masterKey = recall(pin);
    if (masterKey.empty()) {
        const std::lock_guard oneTry(tries);
        masterKey = recall(pin);  // another thread may just have verified the same PIN
        if (masterKey.empty()) {
            masterKey = tryPin(pin);
        }
    }
    return masterKey;
}

SecretBytes PinGuard::unlockedKey() {
    {
        const PinRecord record = readRecord();
        const std::lock_guard hold(memory);
        if (record.counter.retries > 0 && !verifiedKey.empty() && verified.sealedKey == record.sealedKey) {
            return verifiedKey;
        }
    }
    if (sso().live) {
        return ssoKey();
    }
    throw Error(RESULT_NOT_LOGGED_IN, "no PIN was verified in this process");
}

/// The master key of a remembered PIN, after a look at the record on disk; empty when this PIN is not remembered.
SecretBytes PinGuard::recall(std::string_view pin) {
    const PinRecord record = readRecord();
    if (record.counter.retries == 0) {
        throw Error(RESULT_PIN_LOCKED, "the PIN is locked");
    }
    const std::lock_guard hold(memory);
    return verified.is(record, pin) ? verifiedKey : SecretBytes();
}

SecretBytes PinGuard::tryPin(std::string_view pin) {
    const FileLock lock(lockFile);
    PinRecord record = readRecord();
    if (record.counter.retries == 0) {
        throw Error(RESULT_PIN_LOCKED, "the PIN is locked");
    }
    if (refused.is(record, pin)) {
        failWrongPin(record.counter);
    }
    sweep();
    --record.counter.retries;
    writeRecord(record);
    SecretBytes masterKey;
    try {
        masterKey =
            unseal(deriveKey(bytesOf(pin), record.salt, record.cost), record.sealedKey, bytesOf(MASTER_KEY_CONTEXT));
    } catch (const Error& error) {
        if (error.code != RESULT_BAD_DATA) {
            throw;
        }
        refused = TriedPin(record, pin);
        failWrongPin(record.counter);
    }
    record.counter.retries = record.counter.limit;
    writeRecord(record);
    const std::lock_guard hold(memory);
    verified = TriedPin(record, pin);
    verifiedKey = masterKey;
    return masterKey;
}

void PinGuard::forget() {
    const std::lock_guard hold(memory);
    verified = TriedPin();
    verifiedKey = SecretBytes();
}

PinCounter PinGuard::counter() const {
    return readRecord().counter;
}

SsoState PinGuard::sso() const {
    SsoState state;
    try {
        const Record stored = Record::read(ssoFile);
        state.expires = stored.number("expires", 0, INT64_MAX);
        state.enabled = true;
        state.live = stored.has("key") && now() < state.expires;
        if (!stored.has("key") || state.live) {
            return state;
        }
    } catch (const Error&) {
        return {};  // no record, or a damaged one: there is no single sign-on
    }
    try {
        dropExpiredSso();
    } catch (const Error&) {
        // The folder cannot be written. Expired it is all the same.
    }
    return state;
}

/// The master key that live single sign-on holds ready.
SecretBytes PinGuard::ssoKey() const {
    const SsoState state = sso();
    if (!state.enabled) {
        throw Error(RESULT_WRONG_PIN, "an empty PIN needs single sign-on");
    }
    if (state.live) {
        try {
            const Bytes key = Record::read(ssoFile).bytes("key", 1, LONGEST_PROTECTED_KEY);
            return unprotectForUser(key, bytesOf(ssoContext(state.expires)));
        } catch (const Error&) {
            // Expired in between, or another user's: the PIN is needed in both cases.
        }
    }
    throw Error(TOKEN_SSO_EXPIRED, "single sign-on has expired");
}

/// Takes the key out of an expired record and leaves the rest as the sign that single sign-on was configured.
void PinGuard::dropExpiredSso() const {
    const FileLock lock(lockFile);
    Record stored = Record::read(ssoFile);
    if (now() >= stored.number("expires", 0, INT64_MAX)) {
        stored.erase("key");
        stored.write(ssoFile);
    }
}

/// Deletes what processes left behind that were killed in the middle of a write: the holder of the lock, who calls
/// this, is the only writer here.
void PinGuard::sweep() const {
    for (const FolderEntry& entry : listFolder(folder)) {
        if (entry.name.ends_with(TEXT(".tmp"))) {
            DeleteFileW((folder + TEXT("\\") + entry.name).c_str());
        }
    }
}

void PinGuard::create(std::string_view pin, ByteView masterKey, int limit, unsigned cost) {
    PinRecord record;
    record.counter.limit = limit;
    record.cost = cost;
    sealRecord(record, pin, masterKey);
}

void PinGuard::change(std::string_view oldPin, std::string_view newPin) {
    const std::lock_guard oneTry(tries);
    const SecretBytes masterKey = tryPin(oldPin);
    const FileLock lock(lockFile);
    PinRecord record = readRecord();
    sealRecord(record, newPin, masterKey);
    forget();
}

void PinGuard::resetCounter() {
    const FileLock lock(lockFile);
    PinRecord record = readRecord();
    record.counter.retries = record.counter.limit;
    writeRecord(record);
}

void PinGuard::enableSso(std::string_view pin, unsigned seconds) {
    const SecretBytes masterKey = unlock(pin);
    const std::int64_t expires = now() + seconds;
    Record stored;
    stored.setNumber("expires", expires);
    stored.setBytes("key", protectForUser(masterKey, bytesOf(ssoContext(expires))));
    const FileLock lock(lockFile);
    stored.write(ssoFile);
}

void PinGuard::disableSso() {
    const FileLock lock(lockFile);
    removeFile(ssoFile);
    sweep();
}

}  // namespace softtoken
