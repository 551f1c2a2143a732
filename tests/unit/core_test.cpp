// The parts that both fronts stand on, each in a few strokes.
#include <algorithm>
#include <ctime>
#include <filesystem>
#include <regex>

#include "core/container_map.h"
#include "core/firmware_policy.h"
#include "core/log.h"
#include "core/wide_text.h"
#include "tests/platform/figures.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

using CoreTest = ProviderTest;

TEST_F(CoreTest, ContainerEntries) {
    std::string full;  // as much as is read
    while (full.size() < 1024) {
        full += AA + ",";
    }
    full.resize(1024);
    const std::tuple<std::string, DWORD, bool> rows[] = {{",," + AA + ",,,", REG_SZ, true}, {full, REG_SZ, true},
                                                         {full + ",", REG_SZ, false},       {",,,", REG_SZ, false},
                                                         {AA, REG_MULTI_SZ, false},         {full, REG_BINARY, false}};
    for (const auto& [data, type, isRead] : rows) {  // the platform would take a terminator that stands behind
        RegSetKeyValueW(HKEY_CURRENT_USER, TEXT("SOFTWARE\\Zentok\\CSP\\Containers"), TEXT("box"), type,
                        widened(data + "x").c_str(), static_cast<DWORD>(sizeof(WCHAR) * data.size()));
        const Lines keys = readContainerKeys("box");
        EXPECT_EQ(std::count(keys.begin(), keys.end(), AA) != 0, isRead) << data;
    }
}

TEST_F(CoreTest, ClassesVersionsAndAlgorithms) {
    const std::tuple<const char*, const char*, int> orders[] = {
        {"2.0", "2.0.0", 0}, {"", "2.0.0", -1}, {"10.0", "9.9", 1}, {"2.x", "2.0", 0}, {"99999999999", "2", 1}};
    for (const auto& [left, right, order] : orders) {
        EXPECT_EQ(compareVersions(left, right), order) << left << " and " << right;
        EXPECT_EQ(compareVersions(right, left), -order) << right << " and " << left;
    }
    token().infos["T1"] = tokenInfo("A1B1");  // the third character tells
    const auto strict = selectAlgorithmTable(contextOn("T1"));
    token().infos["T1"] = tokenInfo("AB1C");
    const auto table = selectAlgorithmTable(contextOn("T1"));
    EXPECT_EQ(token().takeCalls(), Lines(2, INFO)) << "asked anew each time";
    EXPECT_TRUE(strict.size() == 9 && strict[1].minBits == 2048 && strict[5].algorithmId == CALG_SHA_256);
    EXPECT_TRUE(table.size() == 10 && table[1].minBits == 1024 && table[5].algorithmId == CALG_SHA1);
    EXPECT_EQ(selectAlgorithmTable(contextOn("")).data(), strict.data());
}

TEST_F(CoreTest, RefusalsAreSignalled) {
    const CSP_CONTEXT none = contextOn("");
    const std::tuple<std::string, std::function<bool()>, std::string> rows[] = {
        {"Sha1", [&] { return ruleSha1Hash(none); }, "!CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)"},
        {"Md5", ruleMd5Hash, "!CPCreateHash: MD5 blocked (FIPS policy)"},
        {"Pkcs1Decrypt", [] { return rulePkcs1Decrypt("KSP", "T1", nullptr); },
         "!KSP: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)"}};
    for (const auto& [name, rule, log] : rows) {
        expect(rule, ANY_CODE, log, ANY_CALLS);  // with nobody watching
        const HANDLE watched = CreateEventA(nullptr, 0, 0, ("Global\\ZentokDSC_Fips" + name + "Blocked").c_str());
        rule();
        EXPECT_EQ(WaitForSingleObject(watched, 0), WAIT_OBJECT_0) << log;
        CloseHandle(watched);
    }
    token().infos["T1"] = tokenInfo("AB1");
    EXPECT_TRUE(ruleSha1Hash(context) && rulePkcs1Decrypt("KSP", "T1", nullptr) &&
                rulePkcs1Decrypt("KSP", "", nullptr));
    EXPECT_FALSE(ruleEcdhFirmware("KSP", "ECDH", "") || !ruleEcdhFirmware("KSP", "ECDH", "2.0"));
}

TEST_F(CoreTest, LogLevels) {
    const std::tuple<DWORD, Bytes, std::int32_t> rows[] = {
        {REG_DWORD, {1, 0, 0, 0}, 1}, {REG_DWORD, {2, 0, 0, 0}, 2}, {REG_DWORD, {255, 255, 255, 255}, -1},
        {REG_DWORD, {4, 0, 0, 0}, 2}, {REG_BINARY, {3}, 3},         {REG_BINARY, Bytes(33, 3), 2}};
    for (const auto& [type, value, level] : rows) {
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Halvane\\Zentok", "logLevel", type, value.data(),
                        static_cast<DWORD>(value.size()));
        EXPECT_EQ(readLogLevel(), level) << hex(value);
        const Lines log = logOf([] { (logInfo("information"), logError("failure")); });
        EXPECT_EQ(log, lines(level == 3 ? "information|!failure" : level == 2 ? "!failure" : "")) << hex(value);
    }
    // What the platform refuses to read stays refused, at no cost but the question.
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Halvane\\Zentok", "logLevel", REG_DWORD_BIG_ENDIAN, "\2\0\0", 4);
    const auto nextHandle = [] { return numberOf(CreateEventA(nullptr, TRUE, TRUE, nullptr), CloseHandle); };
    const auto before = nextHandle();
    for (int line = 0; line < 50; ++line) {
        EXPECT_EQ(readLogLevel(), 2);
    }
    EXPECT_EQ(nextHandle(), before);
    // The next line knows of every change, also that the key is gone and another one of its name there.
    const auto deleted = [] { RegDeleteTreeA(HKEY_LOCAL_MACHINE, "Software\\Halvane"); };
    const auto levelSet = [](DWORD level) { return [level] { setLogLevel(level); }; };
    const std::pair<std::function<void()>, std::int32_t> changes[] = {
        {levelSet(3), 3}, {[] { RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Halvane\\Zentok", "logLevel"); }, 2},
        {levelSet(1), 1}, {deleted, 2},
        {levelSet(0), 0}, {[&] { (deleted(), setLogLevel(3)); }, 3}};
    for (const auto& [change, level] : changes) {
        change();
        EXPECT_EQ(readLogLevel(), level);
    }
}

TEST_F(CoreTest, LogLinesAndTheFirstOneLost) {
    const std::string temp = usePrivateTempFolder("zentok-unit-test-fresh");
    const std::time_t now = std::time(nullptr);
    char file[64] = {}, form[64] = {};
    std::strftime(file, sizeof file, "/Halvane/unit_test/%Y-%m-%d.LOG", std::localtime(&now));
    std::strftime(form, sizeof form, "%d/%m::%H:..:..:\\d{3}-> ->DEBUG ::=>second\n", std::localtime(&now));
    ::testing::internal::CaptureStdout();
    logInfo("first");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\nUnable to write log");
    logInfo("second");
    EXPECT_TRUE(std::filesystem::exists(temp + file)) << file;
    EXPECT_TRUE(std::regex_match(logFileText(), std::regex(form))) << logFileText();
    std::filesystem::remove_all(temp);
    char folder[LOG_PATH_SIZE] = {'x', 'x'};
    EXPECT_TRUE(getLogBaseFolderPath(folder) == -1 && folder[0] == '\0') << "gone";
    usePrivateTempFolder("zentok-unit-test");
}

}  // namespace
}  // namespace test
