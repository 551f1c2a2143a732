// Containers: the user's registry entries that lead from a name to the keys on a token.
#include "tests/platform/platform_test.h"

namespace test {
namespace {

using ContainerTest = PlatformTest;

std::wstring wide(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST_F(ContainerTest, Deletion) {
    const Token token;
    const std::string other = token.addKey();
    const PasswordUser user({logIn(PIN)});
    {
        const Context context = acquire(container, CRYPT_NEWKEYSET);
        generateKey(context);
        const std::string first = filedKeys(container);
        generateKey(context);
        EXPECT_EQ(filedKeys(container).substr(0, 33), first + ",");
    }
    EXPECT_EQ(findKey(acquire(container)), OK);
    token.pullOut();
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), NO_TOKEN);
    token.plugIn();
    EXPECT_EQ(filedKeys(container).size(), 65U);
    EXPECT_EQ(token.keyCount(), 3U);
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), OK);
    EXPECT_EQ(token.keyCount(), 1U);
    EXPECT_EQ(filedKeys(container), "");
    EXPECT_EQ(findKey(acquire(container)), code(NTE_BAD_KEY));
    // What another process has filed counts as well, and a key that is gone stops nothing.
    fileKeys(container, wide(std::string(32, 'A') + "," + other));
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), OK);
    EXPECT_EQ(token.keyCount(), 0U);
}

TEST_F(ContainerTest, EntriesOutOfOrderDoNoHarm) {
    const Token token;
    const std::wstring keyText = wide(token.addKey());
    const std::wstring end(1, L'\0');
    std::wstring full;  // as much as the provider reads
    while (full.size() < 1024) {
        full += keyText + L",";
    }
    full.resize(1024);
    const std::tuple<std::wstring, DWORD, bool> rows[] = {{L",," + keyText + L",,," + end, REG_SZ, true},
                                                          {keyText, REG_SZ, true},  // no terminator
                                                          {keyText + end + L"more", REG_SZ, true},
                                                          {full, REG_SZ, true},
                                                          {full + L",", REG_SZ, false},
                                                          {L",,," + end, REG_SZ, false},
                                                          {keyText + end + end, REG_MULTI_SZ, false},
                                                          {full, REG_BINARY, false}};
    std::string name = container;  // another for each row: the process remembers what a name led to
    for (const auto& [data, type, isRead] : rows) {
        fileKeys(name += "+", data, type);
        EXPECT_EQ(findKey(acquire(name)), isRead ? OK : code(NTE_BAD_KEY)) << name;
        forgetKeys(name);
    }
}

}  // namespace
}  // namespace test
