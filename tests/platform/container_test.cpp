// Containers: the user's registry entries that lead from a name to the keys on a token.
#include "tests/platform/platform_test.h"

namespace test {
namespace {

using ContainerTest = PlatformTest;

std::wstring wide(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST_F(ContainerTest, DeletionTakesAllKeysOfTheContainerAndNoOthers) {
    const Token token;
    const std::string other = token.addKey();
    {
        const Context context = acquire(container, CRYPT_NEWKEYSET);
        const PasswordUser user({logIn(PIN)});
        generateKey(context);
        const std::string first = filedKeys(container);
        generateKey(context);
        EXPECT_EQ(filedKeys(container).substr(0, 33), first + ",");
        EXPECT_EQ(filedKeys(container).size(), 65U);
    }
    EXPECT_EQ(token.keyCount(), 3U);
    EXPECT_EQ(findKey(acquire(container)), OK);

    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET | CRYPT_SILENT), OK) << "the PIN is known";
    EXPECT_EQ(token.keyCount(), 1U);
    EXPECT_EQ(filedKeys(container), "");
    EXPECT_EQ(findKey(acquire(container)), code(NTE_BAD_KEY));

    // What another process has filed counts as well, and a key that is gone stops nothing.
    fileKeys(container, wide(std::string(32, 'A') + "," + other));
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), OK);
    EXPECT_EQ(token.keyCount(), 0U);
    EXPECT_EQ(filedKeys(container), "");
}

TEST_F(ContainerTest, DeletionThatFailsLeavesAllInPlace) {
    const Token token;
    const std::string keyText = token.addKey();
    fileKeys(container, wide(keyText));
    const PasswordUser user({cancel(), logIn(PIN)});
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET | CRYPT_SILENT), code(NTE_SILENT_CONTEXT));
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), code(NTE_FAIL));
    token.pullOut();
    EXPECT_EQ(tryAcquire(container, CRYPT_DELETEKEYSET), NO_TOKEN);
    EXPECT_EQ(tryAcquire("platform test of no container", CRYPT_DELETEKEYSET), OK);
    EXPECT_EQ(tryAcquire("", CRYPT_DELETEKEYSET), OK);
    token.plugIn();
    EXPECT_EQ(filedKeys(container), keyText);
    EXPECT_EQ(token.keyCount(), 1U);
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
    const struct {
        const char* name;
        std::wstring data;
        DWORD type;
        bool isRead;
        Code result;  ///< of looking for the key that the container leads to
    } rows[] = {
        {"lost commas", L",," + keyText + L",,," + end, REG_SZ, true, OK},
        {"no terminator", keyText, REG_SZ, true, OK},
        {"text behind a terminator", keyText + end + L"more", REG_SZ, true, OK},
        {"all room taken", full, REG_SZ, true, OK},
        {"one character too many", full + L",", REG_SZ, false, code(NTE_BAD_KEY)},
        {"very long", std::wstring(100000, L'A') + end, REG_SZ, false, code(NTE_BAD_KEY)},
        {"commas alone", L",,," + end, REG_SZ, false, code(NTE_BAD_KEY)},
        {"nothing", L"", REG_SZ, false, code(NTE_BAD_KEY)},
        {"no key text", L"%s%n%n \x20AC\x0301" + end, REG_SZ, true, code(NTE_BAD_KEY)},
        {"several texts", keyText + end + end, REG_MULTI_SZ, false, code(NTE_BAD_KEY)},
        {"a number", L"12", REG_DWORD, false, code(NTE_BAD_KEY)},
        {"bytes", full, REG_BINARY, false, code(NTE_BAD_KEY)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        // A name of its own: the process remembers what a name led to.
        const std::string name = container + " " + row.name;
        fileKeys(name, row.data, row.type);
        EXPECT_EQ(findKey(acquire(name)), row.result);
        // To delete what the entry names takes the PIN; an entry that is not read names nothing.
        EXPECT_EQ(tryAcquire(name, CRYPT_DELETEKEYSET | CRYPT_SILENT), row.isRead ? code(NTE_SILENT_CONTEXT) : OK);
        forgetKeys(name);
    }
}

}  // namespace
}  // namespace test
