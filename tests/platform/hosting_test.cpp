// The provider's life inside its host: contexts that come and go, tokens pulled out, processes that end.
#include <thread>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

using HostingTest = PlatformTest;

TEST_F(HostingTest, AcquiringManyTimesLosesNothing) {
    const auto acquireManyTimes = [](const std::string& opened, DWORD flags, Code result) {
        const DWORD slot = TlsAlloc();
        TlsFree(slot);
        for (int round = 0; round < 200; ++round) {
            ASSERT_EQ(tryAcquire(opened, flags), result) << round;
        }
        const DWORD next = TlsAlloc();
        TlsFree(next);
        EXPECT_LT(next, slot + 8) << "threads take some at their first steps " << opened << flags;
    };
    setLogLevel(2);
    tryAcquire("");  // what is loaded now stays
    acquireManyTimes("", 0, NO_TOKEN);
    acquireManyTimes("", CRYPT_VERIFYCONTEXT, OK);
    const Token token;
    acquireManyTimes(token.addKey(), 0, OK);
    acquireManyTimes(container, CRYPT_NEWKEYSET | CRYPT_SILENT, OK);
    acquireManyTimes(container, CRYPT_DELETEKEYSET, OK);
    EXPECT_NE(GetModuleHandleA("ZentokCSP.dll"), nullptr) << "the monitor and the logins need it";
}

TEST_F(HostingTest, ATokenPulledOutTakesItsLoginAlong) {
    const Token gone;
    const Token staying;
    const std::string keyText = gone.addKey();
    const std::string otherKeyText = staying.addKey(KEY_TYPE_EC_P256);
    const Context context = acquire(keyText);
    const Hash hash = hashOf(context, document());
    Bytes signature;
    {
        const PasswordUser user({logIn(PIN), logIn(PIN)});
        EXPECT_EQ(sign(hash, signature), OK);
        EXPECT_EQ(sign(hashOf(acquire(otherKeyText), document()), signature), OK);
        EXPECT_EQ(signature.size(), 64U) << "by the other token";
        EXPECT_EQ(sign(acquire(otherKeyText)), OK) << "a login outlives its context";
    }
    const std::size_t start = logFileText().size();
    gone.pullOut();
    ASSERT_TRUE(logShowsRemoval(gone, start));
    {
        // Nobody is there to say how many attempts are left.
        const PasswordUser user({logIn(PIN), box("User pin locked, re-initialise device")});
        EXPECT_EQ(sign(hash, signature), code(NTE_FAIL));
        EXPECT_EQ(sign(acquire(otherKeyText)), OK) << "the other token's login stays";
        EXPECT_EQ(sign(hashOf(context, document()), signature), code(NTE_NO_KEY));
        EXPECT_EQ(findKey(context), code(NTE_NO_KEY));
    }
    gone.plugIn();
    const PasswordUser user({logIn(PIN)});
    EXPECT_EQ(sign(hash, signature), OK) << "the old context lives on";
    EXPECT_EQ(sign(acquire(keyText)), OK);
}

TEST_F(HostingTest, AProcessEndsWhateverIsOpen) {
    const Token token;
    const std::string keyText = token.addKey();
    for (const char* role : {"released", "all-open", "dialog-open"}) {
        EXPECT_EQ(runChild(role, keyText), CHILD_SUCCEEDED) << role;
    }
}

TEST_F(HostingTest, TheTableKeepsTheLibraryLoaded) {
    EXPECT_EQ(runChild("GetKeyStorageInterface", ""), CHILD_SUCCEEDED);
}

TEST_F(HostingTest, ManyThreads) {
    const Token token;
    const std::string keyText = token.addKey();
    const auto work = [&] {
        const Context context = acquire(keyText);
        const Hash hash = hashOf(context, document());
        Bytes signature;
        EXPECT_EQ(sign(hash, signature), OK);
        EXPECT_EQ(verify(hash, signature, userKey(context)), OK);
    };
    const PasswordUser user({logIn(PIN)});
    work();
    std::vector<std::thread> threads(8);
    for (std::thread& thread : threads) {
        thread = std::thread(work);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace test
