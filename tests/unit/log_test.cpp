#include "core/log.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <regex>
#include <thread>

#include "tests/unit/provider_test.h"

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr char LOG_KEY[] = "Software\\Halvane\\Zentok";

class LogTest : public ProviderTest {
protected:
    void TearDown() override { usePrivateTempFolder("zentok-unit-test"); }
};

TEST_F(LogTest, Levels) {
    const auto reads = [](DWORD type, const Bytes& value, std::int32_t level) {
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, LOG_KEY, "logLevel", type, value.data(), static_cast<DWORD>(value.size()));
        EXPECT_EQ(readLogLevel(), level) << hex(value);
        const Lines log = logOf([] {
            SetLastError(UNTOUCHED);
            logInfo("information");
            logError("failure");
            EXPECT_EQ(GetLastError(), UNTOUCHED) << "what a caller has set survives its log lines";
        });
        EXPECT_EQ(log, lines(level == 3 ? "information|!failure" : level == 2 ? "!failure" : "")) << hex(value);
    };
    for (const unsigned char level : Bytes{0, 1, 2, 3}) {
        reads(REG_DWORD, {level, 0, 0, 0}, level);
    }
    reads(REG_DWORD, {4, 0, 0, 0}, 2);
    reads(REG_DWORD, {255, 255, 255, 127}, 2);
    reads(REG_DWORD, {255, 255, 255, 255}, -1);
    reads(REG_SZ, {'3', '3', 0}, 2);
    reads(REG_SZ, {0}, 0);
    reads(REG_BINARY, {3}, 3);
    Bytes wide(32);
    wide[0] = 3;
    reads(REG_BINARY, wide, 3);
    wide.push_back(0);
    reads(REG_BINARY, wide, 2);
    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, LOG_KEY, "logLevel");
    EXPECT_EQ(readLogLevel(), 2) << "missing value";
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\Halvane");
    EXPECT_EQ(readLogLevel(), 2) << "missing key";
}

TEST_F(LogTest, FormOfALine) {
    const std::size_t before = logFileText().size();
    SYSTEMTIME now;
    GetLocalTime(&now);
    char date[16] = {};
    snprintf(date, sizeof date, "%02d/%02d::%02d:", now.wDay, now.wMonth, now.wHour);
    std::string expected;
    for (const char* tag : {"INFO  ", "EXCEP ", "ERROR ", "DEBUG ", "INFO  "}) {
        expected += R"(\d\d/\d\d::\d\d:\d\d:\d\d:\d{3}-> ->)" + std::string(tag) + "::=>text\n";
    }
    for (const int level : {0, 1, 2, 3, 4}) {
        writeLogLine(level, "text");
    }
    const std::string text = logFileText().substr(before);
    EXPECT_TRUE(std::regex_match(text, std::regex(expected))) << text;
    EXPECT_EQ(text.substr(0, 10), date);
}

TEST_F(LogTest, AFreshMachineLosesItsFirstLine) {
    const std::string temp = usePrivateTempFolder("zentok-unit-test-fresh");
    const std::time_t now = std::time(nullptr);
    char file[64] = {};
    std::strftime(file, sizeof file, "/Halvane/unit_test/%Y-%m-%d.LOG", std::localtime(&now));
    ::testing::internal::CaptureStdout();
    logError("first");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\nUnable to write log");
    EXPECT_TRUE(fs::exists(temp + "/Halvane") && !fs::exists(temp + "/Halvane/unit_test"));
    logError("second");
    EXPECT_TRUE(fs::exists(temp + file)) << file;
    EXPECT_TRUE(std::regex_match(logFileText(), std::regex(".*=>second\n"))) << logFileText();
    fs::remove_all(temp);
}

TEST_F(LogTest, FolderAndProcess) {
    char folder[LOG_PATH_SIZE] = {'x', 'x'};
    const std::string temp = usePrivateTempFolder("zentok-unit-test-gone");
    EXPECT_EQ(getLogBaseFolderPath(folder), 0);
    EXPECT_EQ(folder, temp + "\\") << "with its own separator";
    fs::remove_all(temp);
    EXPECT_EQ(getLogBaseFolderPath(folder), -1);
    EXPECT_EQ(Bytes(folder, std::end(folder)), Bytes(sizeof folder, 0));
    EXPECT_EQ(getProcessName(), "unit_test");
}

TEST_F(LogTest, LinesOfManyThreadsStayWhole) {
    const Lines log = logOf([] {
        std::vector<std::thread> threads;
        for (const char letter : {'a', 'b', 'c', 'd'}) {
            threads.emplace_back([letter] {
                for (int i = 0; i < 50; ++i) {
                    logInfo(std::string(300, letter));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    // Where the platform does not append as one step a line may take another's place, but none is torn.
    EXPECT_GT(log.size(), 150U);
    EXPECT_TRUE(std::all_of(log.begin(), log.end(), [](const std::string& line) {
        return line.size() == 300 && line.find_first_not_of(line[0]) == std::string::npos;
    }));
}

}  // namespace
}  // namespace test
