#include "tests/platform/platform_test.h"

namespace test {

namespace fs = std::filesystem;

bool comes(const std::function<bool()>& condition) {
    constexpr DWORD WAIT_MILLISECONDS = 30000;  // the first window of a display alone can take ten seconds
    const ULONGLONG end = GetTickCount64() + WAIT_MILLISECONDS;
    while (!condition() && GetTickCount64() < end) {
        Sleep(5);
    }
    return condition();
}

// A move cannot be made while the provider reads a file of the token.
void Token::move(const std::string& from, const std::string& to) {
    std::error_code error;
    EXPECT_TRUE(comes([&] { return !fs::exists(from) || (fs::rename(from, to, error), !error); })) << error.message();
}

bool logShowsRemoval(const Token& token, std::size_t start) {
    const std::string line = "Device disconnected: " + token.serial + "\n";
    return comes([&] { return logFileText().find(line, start) != std::string::npos; });
}

}  // namespace test

int main(int argc, char** argv) {
    if (argc == 4) {
        test::playRole(argv[1], argv[2], argv[3]);
    }
    ::testing::InitGoogleTest(&argc, argv);
    // Before the provider is loaded: a log and tokens of this program's own.
    test::usePrivateTempFolder("zentok-platform-test");
    const test::ScratchFolder tokens;
    SetEnvironmentVariableA("ZENTOK_SOFTTOKEN_HOME", tokens.path().c_str());
    test::logOf([] {});  // makes the log's folder, so that no first line is lost
    return RUN_ALL_TESTS();
}
