// A scripted token library, linked into a test program in place of ZentokDSCLibrary: it records every call with all its
// arguments and answers as a test told it to, wrong and late answers included. Operations are named without "zentok_".
#pragma once

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
    void reset();

    /// The answers of one operation's next calls; the last one stays for all that follow.
    void on(const std::string& operation, std::vector<Answer> answers);
    void onResult(const std::string& operation, const std::vector<int>& results);

    void setDevices(Lines serials);

    /// The calls since the last take, each as "initDevice('T1', 0, null)": texts in quotes, bytes in hexadecimal, a
    /// buffer to be filled as out[room], a null pointer as null, flags as 0 and 1, a running hash by its number.
    /// Without the polls of other threads.
    Lines takeCalls();

    /// Polls for connected devices by other threads than the one that called reset. While held they wait inside the
    /// call.
    void holdPolls(bool held);
    /// Waits until a poll is held; false after some seconds.
    bool waitForHeldPoll();

    // For the operations themselves.
    Answer enter(const std::string& operation, const Lines& arguments);
    Lines poll(const Lines& arguments);
    std::vector<ZentokKeyPair> lentKeyPairs;
    std::vector<ZentokSymmetricKey> lentAesKeys;
    unsigned hashCount = 0;

private:
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
Bytes filled(std::size_t size, unsigned char first = 0);  ///< first, first + 1, ...
std::string hex(const Bytes& bytes);
std::string idText(unsigned char id);  ///< key text of the credential id that is 16 times `id`
ZentokKeyPair keyPair(unsigned char id, int usage, int type, const std::string& alias = "",
                      const Bytes& publicKey = {});
TokenInfo tokenInfo(const std::string& modelVersion, int ssoEnabled = 0, int ssoValidated = 0);

}  // namespace test
