// What a support engineer reads: the log of whole platform calls, from one thread and from many.
#include <algorithm>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

class PlatformLogTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        awaitTokenPoll();  // which has noticed the end of earlier tokens
    }
};

TEST_F(PlatformLogTest, OneSignature) {
    const Token token;
    const std::string keyText = token.addKey();
    const Context context = acquire(keyText);
    const std::string asking =
        "CPSignHash"
        "|ensurePasswordValidated: password not validated or empty -- ask for PIN"
        "|loginUser: enter"
        "|Password dialog show window|Password dialog show window before|Password dialog show window after";
    const std::string cancelled =
        "!loginUser: user cancelled password dialog, return FALSE"
        "|!ensurePasswordValidated: password validation failed, return false"
        "|!CPSignHash: ensurePasswordValidated failed";
    const std::string signing = "|CPSignHash dwFlags : 0|CPSignHash hashAlgorithm : 3|CPSignHash key mechanism : 2";
    const struct {
        const char* name;
        std::vector<UserStep> steps;
        std::string log;
        Code result;
        DWORD level;
    } rows[] = {
        {"cancelled", {cancel()}, asking + "|" + cancelled, code(NTE_FAIL), 3},
        {"cancelled, errors only", {cancel()}, cancelled, code(NTE_FAIL), 2},
        {"with a login",
         {logIn(PIN)},
         asking + "|loginUser: password validated, return TRUE|ensurePasswordValidated: password set, return true" +
             signing,
         OK,
         3},
        {"logged in", {}, "CPSignHash|ensurePasswordValidated: PIN already validated, return true" + signing, OK, 3},
        {"logged in, errors only", {}, "", OK, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Hash hash = hashOf(context, document());
        setLogLevel(row.level);
        const PasswordUser user(row.steps);
        Code result = OK;
        const Lines logged = logOf([&] {
            Bytes signature(256);
            DWORD size = 256;
            result = outcome(CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, signature.data(), &size));
        });
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(logged, lines(row.log));
        setLogLevel(3);
    }
}

TEST_F(PlatformLogTest, NothingIsLostOrTornFromManyThreads) {
    constexpr int THREADS = 16;
    constexpr int ROUNDS = 6;
    const Token token;
    const std::string keyText = token.addKey();
    const auto work = [&keyText] {
        const Context context = acquire(keyText);
        const Key key = userKey(context);
        const Hash hash = hashOf(context, document());
        Bytes signature;
        EXPECT_EQ(sign(hash, signature), OK);
        EXPECT_EQ(verify(hash, signature, key), OK);
    };
    {
        const PasswordUser user({logIn(PIN)});
        work();
    }
    std::map<std::string, int> missing;
    int total = 0;
    for (const std::string& line : logOf(work)) {
        missing[line] += THREADS * ROUNDS;
        total += THREADS * ROUNDS;
    }
    EXPECT_GT(missing.size(), 20U);

    const std::size_t start = logFileText().size();
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                work();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    int astray = 0;
    const std::regex form(R"(\d\d/\d\d::\d\d:\d\d:\d\d:\d\d\d-> ->DEBUG ::=>(.+))");
    std::istringstream file(logFileText().substr(start));
    for (std::string line; std::getline(file, line);) {
        std::smatch parts;
        const auto text = std::regex_match(line, parts, form) ? missing.find(parts[1]) : missing.end();
        if (text == missing.end() || --text->second < 0) {
            ++astray;
        }
    }
    int lost = 0;
    for (const auto& [text, count] : missing) {
        lost += std::max(count, 0);
    }
    // Wine looks for the end of the file and writes there in two steps, between which another thread's line may come.
    const bool isWine = GetProcAddress(GetModuleHandleA("ntdll"), "wine_get_version") != nullptr;
    const int allowance = isWine ? total / 300 : 0;
    EXPECT_LE(lost, allowance) << "of " << total;
    EXPECT_LE(astray, allowance) << "of " << total;
}

}  // namespace
}  // namespace test
