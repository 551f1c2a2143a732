// The fuzzer's seeds and finds, each run once: with an inaccessible page behind every buffer and the log at its highest
// level, where the fuzzer itself writes none.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/fuzz/harnesses.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

/// No window opens: the fuzzer has no dialogs, and nobody is here to end one.
LRESULT CALLBACK refuseWindow(int code, WPARAM, LPARAM) {
    return code == HCBT_CREATEWND ? 1 : 0;
}

class FuzzCorpusTest : public ProviderTest, public ::testing::WithParamInterface<Harness> {};

TEST_P(FuzzCorpusTest, HoldsTheRules) {
    const std::filesystem::path folder = std::filesystem::path(ZENTOK_FUZZ_CORPUS) / GetParam().name;
    ASSERT_FALSE(std::filesystem::is_empty(folder)) << folder;
    const HHOOK noDialogs = SetWindowsHookExA(WH_CBT, refuseWindow, nullptr, GetCurrentThreadId());
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::printf("%s\n", entry.path().filename().string().c_str());  // the last one is that of a crash
        std::fflush(stdout);
        const std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes = (std::ostringstream() << file.rdbuf()).str();
        EXPECT_NO_THROW(GetParam().run({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()}))
            << entry.path();
    }
    UnhookWindowsHookEx(noDialogs);
}

INSTANTIATE_TEST_SUITE_P(Fuzz, FuzzCorpusTest, ::testing::ValuesIn(harnesses().begin(), harnesses().end()),
                         [](const auto& harness) {
                             std::string name = harness.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
}  // namespace test
