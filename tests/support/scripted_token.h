// A scripted token library, linked into a test program in place of ZentokDSCLibrary: it records every call with all its
// arguments and answers as a test told it to, wrong and late answers included. Operations are named without "zentok_".
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/token_library.h"

namespace test {

using Bytes = std::vector<unsigned char>;
using Lines = std::vector<std::string>;

/// What one call of an operation does and answers.
struct Answer {
    int result = 0;
    Bytes output = {};                  ///< goes into the caller's buffer, up to its room, or into a malloc block
    std::optional<int> length = {};     ///< reported instead of the size of `output`: the library may lie
    bool noBlock = false;               ///< a null pointer in place of the malloc block
    int retries = 0;                    ///< validatePassword: attempts left
    std::function<void()> during = {};  ///< runs inside the call: a delay, a token that is pulled out
};

/// What the token holds, by serial (one without an entry answers empty), and what operations that fill a record put
/// there.
struct TokenContent {
    std::map<std::string, TokenInfo> infos;
    std::map<std::string, std::vector<ZentokKeyPair>> keyPairs;
    std::map<std::string, std::vector<ZentokCertificate>> certificates;
    std::map<std::string, std::vector<ZentokSymmetricKey>> aesKeys;
    ZentokKeyPair generatedKey = {};
    ZentokSymmetricKey importedAesKey = {};
    std::optional<ZentokCertificate> keyCertificate;
    CertificateDetails certificateDetails;
    std::vector<std::pair<std::string, Bytes>> certificateFiles;
};

class ScriptedToken : public TokenContent {
public:
    /// Forgets calls and script: the one token "T1" is connected, has no keys, and every operation succeeds.
    void reset() {
        static_cast<TokenContent&>(*this) = {};
        hashCount = 0;
        hashes = {};
        digestsTellSum = false;
        fault = {};
        testIsHere();
        const std::lock_guard guard(lock);
        devices = {"T1"};
        recorded = {};
        script = {};
    }

    /// The answers of one operation's next calls; the last one stays for all that follow.
    void on(const std::string& operation, std::vector<Answer> answers) {
        const std::lock_guard guard(lock);
        std::reverse(answers.begin(), answers.end());
        script[operation] = std::move(answers);
    }
    void onResult(const std::string& operation, const std::vector<int>& results) {
        std::vector<Answer> answers;
        for (const int result : results) {
            answers.push_back({.result = result});
        }
        on(operation, std::move(answers));
    }

    void setDevices(Lines serials) {
        const std::lock_guard guard(lock);
        devices = std::move(serials);
    }

    /// The calls since the last take, each as "initDevice('T1', 0, null)": texts in quotes, bytes in hexadecimal, a
    /// buffer to be filled as out[room], a null pointer as null, flags as 0 and 1, a running hash by its number.
    /// Without the polls of other threads.
    Lines takeCalls() {
        const std::lock_guard guard(lock);
        return std::exchange(recorded, {});
    }

    /// Polls for connected devices by other threads than the one that called reset. While held they wait inside the
    /// call.
    void holdPolls(bool held) {
        const std::lock_guard guard(lock);
        pollsHeld = held;
        changed.notify_all();
    }
    /// Waits until a poll is held; false after some seconds.
    bool waitForHeldPoll() {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(10), [this] { return pollWaits; });
    }

    /// The test goes on in the calling thread: it is that one's calls that are recorded.
    void testIsHere() {
        const std::lock_guard guard(lock);
        testThread = std::this_thread::get_id();
    }

    /// Sees every recorded call, and may change what the script answers. Any result but 0 of an operation without one
    /// is an empty answer.
    std::function<void(const std::string& operation, Answer& answer)> fault;

    /// The hashes that were handed out: one that has ended is refused from then on.
    struct Hash {
        bool runs = true;
        unsigned char sum = 0;  ///< of the bytes that it was fed
    };
    std::map<void*, Hash> hashes;
    bool digestsTellSum = false;  ///< in their first byte
    bool anyHashRuns() const {
        return std::any_of(hashes.begin(), hashes.end(), [](const auto& hash) { return hash.second.runs; });
    }

    // For the operations themselves.
    Answer enter(const std::string& operation, const Lines& arguments) {
        // Lists that the library lends may change with its next call: what was not copied is lost.
        overwrite(lentKeyPairs);
        overwrite(lentAesKeys);
        std::string call = operation + "(";
        for (const std::string& argument : arguments) {
            call += (call.back() == '(' ? "" : ", ") + argument;
        }
        Answer answer;
        {
            const std::lock_guard guard(lock);
            recorded.push_back(call + ")");
            if (const auto answers = script.find(operation); answers != script.end()) {
                answer = answers->second.back();
                if (answers->second.size() > 1) {
                    answers->second.pop_back();
                }
            }
        }
        if (const auto changes = fault) {
            changes(operation, answer);
        }
        if (answer.during) {
            answer.during();
        }
        return answer;
    }
    Lines poll(const Lines& arguments) {
        if (std::this_thread::get_id() == testThread && enter("getConnectedDeviceList", arguments).result != TOKEN_OK) {
            return {};
        }
        std::unique_lock guard(lock);
        if (std::this_thread::get_id() != testThread) {
            pollWaits = pollsHeld;
            changed.notify_all();
            changed.wait(guard, [this] { return !pollsHeld; });
            pollWaits = false;
        }
        return devices;
    }
    std::vector<ZentokKeyPair> lentKeyPairs;
    std::vector<ZentokSymmetricKey> lentAesKeys;
    unsigned hashCount = 0;

private:
    template <typename Record>
    static void overwrite(std::vector<Record>& records) {
        auto* const bytes = reinterpret_cast<unsigned char*>(records.data());
        std::fill_n(bytes, records.size() * sizeof(Record), static_cast<unsigned char>(0xDD));
    }

    std::mutex lock;
    std::condition_variable changed;
    std::thread::id testThread;
    Lines devices;
    Lines recorded;
    std::map<std::string, std::vector<Answer>> script;
    bool pollsHeld = false;
    bool pollWaits = false;
};

ScriptedToken& token();

/// Blocks that the library allocated for a caller who has not freed them. Needs the linker's --wrap=free.
int unfreedBlocks();

// Material for scripts and expectations.
/// first, first + 1, ...
inline Bytes filled(std::size_t size, unsigned char first = 0) {
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        byte = first++;
    }
    return bytes;
}
inline std::string hex(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789ABCDEF"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    return text;
}
/// key text of the credential id that is 16 times `id`
inline std::string idText(unsigned char id) {
    return hex(Bytes(16, id));
}
inline ZentokKeyPair keyPair(unsigned char id, int usage, int type, const std::string& alias = "",
                             const Bytes& publicKey = {}) {
    ZentokKeyPair key = {};
    std::fill(std::begin(key.credentialId), std::end(key.credentialId), id);
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = static_cast<int>(publicKey.size());
    alias.copy(key.alias, sizeof key.alias - 1);
    key.keyUsage = usage;
    key.keyType = type;
    return key;
}
inline TokenInfo tokenInfo(const std::string& modelVersion, int ssoEnabled = 0, int ssoValidated = 0) {
    TokenInfo info;
    info.text1 = "answers";
    info.modelVersion = modelVersion;
    info.ssoEnabled = ssoEnabled;
    info.ssoValidated = ssoValidated;
    return info;
}

}  // namespace test
