#include "tests/platform/platform_test.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr char PROVIDER[] = "Zentok Cryptographic Provider CSP";
constexpr char CONTAINERS[] = "SOFTWARE\\Zentok\\CSP\\Containers";
constexpr DWORD WAIT_MILLISECONDS = 30000;  // the first window of a display alone can take ten seconds
constexpr DWORD CHILD_MILLISECONDS = 60000;

/// Waits until `condition` holds; false when it does not come to that.
template <typename Condition>
bool comes(Condition condition) {
    const ULONGLONG end = GetTickCount64() + WAIT_MILLISECONDS;
    while (!condition()) {
        if (GetTickCount64() > end) {
            return false;
        }
        Sleep(5);
    }
    return true;
}

/// A move cannot be made while the provider reads a file of the token.
void move(const std::string& from, const std::string& to) {
    std::error_code error;
    EXPECT_TRUE(comes([&] {
        fs::rename(from, to, error);
        return !error;
    })) << error.message();
}

/// A token whose PIN costs little to try. The provider lists tokens in the order of these serials.
std::string createToken(FipsClass fipsClass, int retryLimit) {
    static int counter = 1000;
    softtoken::TokenOptions options;
    options.serial = "TOKEN-" + std::to_string(++counter);
    options.fipsClass = fipsClass;
    options.pin = PIN;
    options.retryLimit = retryLimit;
    options.pinCost = 1024;
    return softtoken::createToken(options);
}

}  // namespace

Code outcome(BOOL result) {
    return result != FALSE ? OK : static_cast<Code>(GetLastError());
}

void PrintTo(Code value, std::ostream* stream) {
    *stream << "0x" << std::hex << static_cast<DWORD>(value) << std::dec;
}

BOOL releaseContext(ULONG_PTR handle) {
    return CryptReleaseContext(handle, 0);
}

BOOL destroyKey(ULONG_PTR handle) {
    return CryptDestroyKey(handle);
}

BOOL destroyHash(ULONG_PTR handle) {
    return CryptDestroyHash(handle);
}

Code tryAcquire(Context& context, const std::string& container, DWORD flags) {
    const char* const name = container.empty() ? nullptr : container.c_str();
    return outcome(CryptAcquireContextA(context.out(), name, PROVIDER, PROV_RSA_FULL, flags));
}

Code tryAcquire(const std::string& container, DWORD flags) {
    Context context;
    const Code result = tryAcquire(context, container, flags);
    if ((flags & CRYPT_DELETEKEYSET) != 0) {
        *context.out() = 0;  // no handle results
    }
    return result;
}

Code findKey(const Context& context) {
    Key key;
    return outcome(CryptGetUserKey(context.get(), AT_SIGNATURE, key.out()));
}

Code sign(const Hash& hash, Bytes& signature, DWORD keySpec) {
    DWORD size = 0;
    const Code asked = outcome(CryptSignHashA(hash.get(), keySpec, nullptr, 0, nullptr, &size));
    if (asked != OK) {
        return asked;
    }
    signature.assign(size, 0);
    const Code result = outcome(CryptSignHashA(hash.get(), keySpec, nullptr, 0, signature.data(), &size));
    signature.resize(size);
    return result;
}

Code sign(const Context& context) {
    Bytes signature;
    return sign(hashOf(context, {'x'}), signature);
}

Code verify(const Hash& hash, const Bytes& signature, const Key& key) {
    const auto size = static_cast<DWORD>(signature.size());
    return outcome(CryptVerifySignatureA(hash.get(), signature.data(), size, key.get(), nullptr, 0));
}

Context acquire(const std::string& container, DWORD flags) {
    Context context;
    EXPECT_EQ(tryAcquire(context, container, flags), OK) << container;
    return context;
}

Key userKey(const Context& context, DWORD keySpec) {
    Key key;
    EXPECT_EQ(outcome(CryptGetUserKey(context.get(), keySpec, key.out())), OK);
    return key;
}

Key generateKey(const Context& context) {
    Key key;
    EXPECT_EQ(outcome(CryptGenKey(context.get(), CALG_RSA_SIGN, 0, key.out())), OK);
    return key;
}

Hash hashOf(const Context& context, const Bytes& data, ALG_ID algorithm) {
    Hash hash;
    EXPECT_EQ(outcome(CryptCreateHash(context.get(), algorithm, 0, 0, hash.out())), OK);
    // Pieces that grow past the hash's block, as they come from a stream.
    std::size_t piece = 1;
    for (std::size_t done = 0; done < data.size(); done += piece, piece = 3 * piece + 1) {
        const auto size = static_cast<DWORD>(std::min(piece, data.size() - done));
        EXPECT_EQ(outcome(CryptHashData(hash.get(), data.data() + done, size, 0)), OK);
    }
    return hash;
}

const Bytes& document() {
    static const Bytes text = [] {
        Bytes bytes;
        for (int line = 1; line <= 5000; ++line) {
            const std::string words = "Line " + std::to_string(line) + " of a contract to be signed.\r\n";
            bytes.insert(bytes.end(), words.begin(), words.end());
        }
        return bytes;
    }();
    return text;
}

Token::Token(FipsClass fipsClass, int retryLimit) : serial(createToken(fipsClass, retryLimit)) {
}

Token::~Token() {
    if (fs::exists(folder())) {
        pullOut();
    }
    std::error_code ignored;  // what cannot go now goes with the folder of all tokens
    fs::remove_all(hiddenFolder(), ignored);
}

std::string Token::addKey(KeyType type) const {
    const ZentokKeyPair pair = softtoken::generateKeyPair(serial, PIN, type, KEY_USAGE_BOTH, "");
    std::string text;
    for (const unsigned char byte : pair.credentialId) {
        char digits[3] = {};
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

std::string Token::publicKey(const std::string& keyText) const {
    unsigned char id[sizeof ZentokKeyPair::credentialId] = {};
    for (std::size_t i = 0; i < sizeof id; ++i) {
        id[i] = static_cast<unsigned char>(std::stoi(keyText.substr(2 * i, 2), nullptr, 16));
    }
    return nativePath(softtoken::publicKeyFile(serial, id));
}

std::size_t Token::keyCount() const {
    for (const softtoken::TokenSummary& summary : softtoken::listTokens()) {
        if (summary.serial == serial) {
            return summary.keyPairs;
        }
    }
    return 0;
}

std::string Token::folder() const {
    return softtoken::tokenHome() + "\\" + serial;
}

std::string Token::hiddenFolder() const {
    return softtoken::tokenHome() + "\\." + serial;  // no serial begins with a dot
}

void Token::pullOut() const {
    move(folder(), hiddenFolder());
}

void Token::plugIn() const {
    move(hiddenFolder(), folder());
}

void PlatformTest::SetUp() {
    container = std::string("platform test ") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    setLogLevel(3);
}

void PlatformTest::TearDown() {
    forgetKeys(container);
}

std::string filedKeys(const std::string& container) {
    char keys[1024] = {};
    DWORD size = sizeof keys;
    RegGetValueA(HKEY_CURRENT_USER, CONTAINERS, container.c_str(), RRF_RT_REG_SZ, nullptr, keys, &size);
    return keys;
}

void fileKeys(const std::string& container, const std::wstring& data, DWORD type) {
    const std::wstring behind = data + L'x';  // the platform would take a terminator that stands there
    ASSERT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, fs::path(CONTAINERS).c_str(), fs::path(container).c_str(), type,
                              behind.c_str(), static_cast<DWORD>(data.size() * sizeof(WCHAR))),
              ERROR_SUCCESS);
}

void forgetKeys(const std::string& container) {
    RegDeleteKeyValueA(HKEY_CURRENT_USER, CONTAINERS, container.c_str());
}

bool logShowsRemoval(const Token& token, std::size_t start) {
    const std::string line = "Device disconnected: " + token.serial + "\n";
    return comes([&] { return logFileText().find(line, start) != std::string::npos; });
}

void awaitTokenPoll() {
    const Token spare;
    acquire("");  // each acquire opens every token that is there
    const std::size_t start = logFileText().size();
    spare.pullOut();
    ASSERT_TRUE(logShowsRemoval(spare, start));
}

std::optional<DWORD> runChild(const std::string& role, const std::string& container, const std::string& file) {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    std::string line;
    for (const std::string& argument : {std::string(program), std::string("--child"), role, container, file}) {
        line.append("\"").append(argument).append("\" ");
    }
    STARTUPINFOA start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION process = {};
    if (CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start, &process) == FALSE) {
        return std::nullopt;
    }
    std::optional<DWORD> result;
    if (WaitForSingleObject(process.hProcess, CHILD_MILLISECONDS) == WAIT_OBJECT_0) {
        GetExitCodeProcess(process.hProcess, &result.emplace());
    } else {
        TerminateProcess(process.hProcess, 1);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return result;
}

namespace {

/// Ends a child process with what its role has opened still open.
[[noreturn]] void end(bool succeeded) {
    std::exit(succeeded && !::testing::Test::HasFailure() ? CHILD_SUCCEEDED : 1);
}

[[noreturn]] void playRole(const std::string& role, const std::string& container, const std::string& file) {
    if (role == "no-token") {
        SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", "C:\\no such folder");
        end(tryAcquire(container) == NO_TOKEN);
    }
    const Context context = acquire(container);
    if (role == "released") {
        const PasswordUser user({logIn(PIN)});
        end(sign(acquire(container)) == OK && tryAcquire("", CRYPT_VERIFYCONTEXT) == OK);
    }
    if (role == "dialog-open") {
        std::thread([&] { sign(context); }).detach();
        end(comes([] { return FindWindowA(nullptr, "Verify User Password") != nullptr; }));
    }
    const Key key = userKey(context);
    const Hash hash = hashOf(context, document());
    if (role == "verify-file") {
        std::ifstream stream(file, std::ios::binary);
        const Bytes signature{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        end(verify(hash, signature, key) == OK);
    }
    end(role == "all-open");
}

}  // namespace
}  // namespace test

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--child") {
        test::playRole(argv[2], argv[3], argv[4]);
    }
    ::testing::InitGoogleTest(&argc, argv);
    // Before the provider is loaded: a log and tokens of this program's own.
    test::usePrivateTempFolder("zentok-platform-test");
    const test::ScratchFolder tokens;
    SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", tokens.path().c_str());
    test::logOf([] {});  // makes the log's folder, so that no first line is lost
    return RUN_ALL_TESTS();
}
