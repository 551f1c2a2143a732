#include "tests/platform/platform_test.h"

#include <cstdlib>
#include <filesystem>
#include <thread>

#include <process.h>

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
    while (!condition() && GetTickCount64() < end) {
        Sleep(5);
    }
    return condition();
}

int g_tokenCount = 1000;

}  // namespace

Code outcome(BOOL result) {
    return result != FALSE ? OK : static_cast<Code>(GetLastError());
}

Code outcome(SECURITY_STATUS status) {
    return code(status);
}

void PrintTo(Code value, std::ostream* stream) {
    *stream << "0x" << std::hex << static_cast<DWORD>(value) << std::dec;
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
    signature.assign(size, 0);
    const Code result =
        asked == OK ? outcome(CryptSignHashA(hash.get(), keySpec, nullptr, 0, signature.data(), &size)) : asked;
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
    // In two pieces, as from a stream.
    EXPECT_EQ(outcome(CryptHashData(hash.get(), data.data(), 1, 0)), OK);
    EXPECT_EQ(outcome(CryptHashData(hash.get(), data.data() + 1, static_cast<DWORD>(data.size() - 1), 0)), OK);
    return hash;
}

const Bytes& document() {
    static const Bytes text(200000, 'x');
    return text;
}

void openssl(const std::vector<std::string>& arguments) {
    const CommandResult result = runOpenssl(arguments);
    ASSERT_EQ(result.exitCode, 0) << result.output;
}

Bytes throughOpenssl(std::vector<std::string> arguments, const Bytes& input) {
    const ScratchFolder files;
    arguments.insert(arguments.end(), {"-in", files.write("in", input), "-out", files.nativeFile("out")});
    openssl(arguments);
    return files.read("out");
}

std::string hexOf(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        constexpr char DIGITS[] = "0123456789ABCDEF";
        text += {DIGITS[byte >> 4], DIGITS[byte & 15]};
    }
    return text;
}

// The provider lists tokens in the order of these serials; their PIN costs little to try.
Token::Token(FipsClass fipsClass, int retryLimit) : serial("TOKEN-" + std::to_string(++g_tokenCount)) {
    softtoken::TokenOptions options;
    options.serial = serial;
    options.fipsClass = fipsClass;
    options.pin = PIN;
    options.retryLimit = retryLimit;
    options.pinCost = 1024;
    softtoken::createToken(options);
}

Token::~Token() {
    pullOut();
    std::error_code ignored;  // what cannot go now goes with the folder of all tokens
    fs::remove_all(folder("."), ignored);
}

std::string Token::addKey(KeyType type) const {
    const ZentokKeyPair pair = softtoken::generateKeyPair(serial, PIN, type, KEY_USAGE_BOTH, "");
    return hexOf({std::begin(pair.credentialId), std::end(pair.credentialId)});
}

std::string Token::publicKey(const std::string& key) const {
    Bytes id;
    for (std::size_t i = 0; i < key.size(); i += 2) {
        id.push_back(static_cast<unsigned char>(std::stoi(key.substr(i, 2), nullptr, 16)));
    }
    return nativePath(softtoken::publicKeyFile(serial, id.data()));
}

std::size_t Token::keyCount() const {
    std::size_t count = 0;
    for (const softtoken::TokenSummary& summary : softtoken::listTokens()) {
        count += summary.serial == serial ? summary.keyPairs : 0;
    }
    return count;
}

// A move cannot be made while the provider reads a file of the token.
void Token::move(const std::string& from, const std::string& to) {
    std::error_code error;
    EXPECT_TRUE(comes([&] { return !fs::exists(from) || (fs::rename(from, to, error), !error); })) << error.message();
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

DWORD runChild(const std::string& role, const std::string& container) {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    const std::string quoted = "\"" + container + "\"";
    const intptr_t child =
        _spawnl(_P_NOWAIT, program, "platform_test", "--child", role.c_str(), quoted.c_str(), nullptr);
    const auto process = reinterpret_cast<HANDLE>(child);
    if (WaitForSingleObject(process, CHILD_MILLISECONDS) != WAIT_OBJECT_0) {
        TerminateProcess(process, 1);
    }
    DWORD result = 0;
    GetExitCodeProcess(process, &result);
    CloseHandle(process);
    return result;
}

namespace {

/// Ends a child process with what its role has opened still open.
[[noreturn]] void end(bool succeeded) {
    std::exit(succeeded ? CHILD_SUCCEEDED : 1);
}

/// Loads the provider itself, calls an export and frees it, time after time: fine when it stays from the first on.
bool survivesLoading(const std::string& entry) {
    for (int round = 0; round < 1600; ++round) {
        const HMODULE provider = LoadLibraryA("ZentokCSP.dll");
        void* table = nullptr;
        using Export = LONG(WINAPI*)(const WCHAR*, void**, DWORD);
        reinterpret_cast<Export>(reinterpret_cast<void*>(GetProcAddress(provider, entry.c_str())))(nullptr, &table, 0);
        FreeLibrary(provider);
    }
    return GetModuleHandleA("ZentokCSP.dll") != nullptr;
}

[[noreturn]] void playRole(const std::string& role, const std::string& container) {
    if (container.empty()) {
        end(survivesLoading(role));
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
    end(role == "all-open");
}

}  // namespace
}  // namespace test

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--child") {
        test::playRole(argv[2], argv[3]);
    }
    ::testing::InitGoogleTest(&argc, argv);
    // Before the provider is loaded: a log and tokens of this program's own.
    test::usePrivateTempFolder("zentok-platform-test");
    const test::ScratchFolder tokens;
    SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", tokens.path().c_str());
    test::logOf([] {});  // makes the log's folder, so that no first line is lost
    return RUN_ALL_TESTS();
}
