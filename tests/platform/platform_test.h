// What the platform tests share: software tokens that can be pulled out, the platform's handles and calls in few words,
// and this program run again as another process. The provider is reached through the platform alone.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <wincrypt.h>

#include "softtoken/token_admin.h"
#include "tests/support/log_capture.h"
#include "tests/support/openssl.h"
#include "tests/support/password_user.h"

namespace test {

using softtoken::FipsClass;

constexpr char PIN[] = "271828";
constexpr char WRONG_PIN[] = "314159";

/// A platform call's failure as GetLastError or its status tells it, shown in hexadecimal; OK is success.
enum class Code : DWORD {};
constexpr Code OK{};
constexpr Code NO_TOKEN{static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL)};
constexpr Code code(long value) {
    return static_cast<Code>(value);
}
Code outcome(BOOL result);
Code outcome(SECURITY_STATUS status);
void PrintTo(Code value, std::ostream* stream);

struct Closing {
    static BOOL context(ULONG_PTR handle) { return CryptReleaseContext(handle, 0); }
    static BOOL key(ULONG_PTR handle) { return CryptDestroyKey(handle); }
    static BOOL hash(ULONG_PTR handle) { return CryptDestroyHash(handle); }
};

/// Owns one handle of the platform's; `close` gives it back. Keys and hashes end before their context.
template <BOOL (*close)(ULONG_PTR)>
class Owned {
public:
    Owned() = default;
    Owned(Owned&& other) noexcept : handle(std::exchange(other.handle, 0)) {}
    Owned& operator=(Owned&& other) = delete;
    ~Owned() { static_cast<void>(handle != 0 && close(handle)); }

    [[nodiscard]] ULONG_PTR get() const { return handle; }
    ULONG_PTR* out() { return &handle; }

private:
    ULONG_PTR handle = 0;
};

using Context = Owned<Closing::context>;
using Key = Owned<Closing::key>;
using Hash = Owned<Closing::hash>;

Code tryAcquire(Context& context, const std::string& container, DWORD flags = 0);
Code tryAcquire(const std::string& container, DWORD flags = 0);
Code findKey(const Context& context);
/// Signs as programs do: first the size, then the signature, little-endian for RSA.
Code sign(const Hash& hash, Bytes& signature, DWORD keySpec = AT_SIGNATURE);
/// Signs something.
Code sign(const Context& context);
Code verify(const Hash& hash, const Bytes& signature, const Key& key);

// These expect success.
Context acquire(const std::string& container, DWORD flags = 0);
Key userKey(const Context& context, DWORD keySpec = AT_SIGNATURE);
Key generateKey(const Context& context);  ///< RSA-2048
Hash hashOf(const Context& context, const Bytes& data, ALG_ID algorithm = CALG_SHA_256);

const Bytes& document();

/// Calls a function of the platform for the size of its answer and for the answer; both have to succeed.
template <typename Call>
Bytes answerOf(Call call) {
    DWORD size = 0;
    EXPECT_EQ(outcome(call(nullptr, &size)), OK);
    Bytes answer(size);
    EXPECT_EQ(outcome(call(answer.data(), &size)), OK);
    answer.resize(size);
    return answer;
}

/// Runs openssl, which has to succeed.
void openssl(const std::vector<std::string>& arguments);
/// What an openssl command that takes and gives a file makes of `input`.
Bytes throughOpenssl(std::vector<std::string> arguments, const Bytes& input);
/// As openssl takes bytes in its arguments.
std::string hexOf(const Bytes& bytes);

/// One connected token. Its end takes it away for good.
class Token {
public:
    explicit Token(FipsClass fipsClass = FipsClass::FIPS_140_3, int retryLimit = 10);
    ~Token();
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

    /// Returns the new key's text, which opens it as a container.
    [[nodiscard]] std::string addKey(KeyType type = KEY_TYPE_RSA_2048) const;
    /// The PEM file of a public key as openssl sees it.
    [[nodiscard]] std::string publicKey(const std::string& keyText) const;
    [[nodiscard]] std::size_t keyCount() const;
    [[nodiscard]] std::string folder(const char* hidden = "") const {
        return softtoken::tokenHome() + "\\" + hidden + serial;
    }
    void pullOut() const { move(folder(), folder(".")); }  // no serial begins with a dot
    void plugIn() const { move(folder("."), folder()); }

    const std::string serial;

private:
    static void move(const std::string& from, const std::string& to);
};

/// Log level 3, and a container name for each test, whose entry in the registry ends with it.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override { setLogLevel(3); }
    void TearDown() override;

    const std::string container =
        std::string("platform test ") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

/// The user's registry entry of a container; empty when there is none.
std::string filedKeys(const std::string& container);
/// Writes the entry with the bytes of `data` as they stand.
void fileKeys(const std::string& container, const std::wstring& data, DWORD type = REG_SZ);
void forgetKeys(const std::string& container);

/// Waits for the log to show that the provider misses the token. Lines before `start` do not count.
bool logShowsRemoval(const Token& token, std::size_t start);

/// Plays a role of platform_test.cpp, or without a container one of the library's exports, in another process: its exit
/// code; another than success when it does not end in time.
DWORD runChild(const std::string& role, const std::string& container);
constexpr DWORD CHILD_SUCCEEDED = 42;

}  // namespace test
