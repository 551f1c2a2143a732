// The provider's life inside its host: contexts that come and go, tokens pulled out, processes that end.
#include <cstdint>

#include "tests/platform/platform_test.h"

namespace test {
namespace {

using HostingTest = PlatformTest;

/// The numbers that the platform gives out next: they grow when thread-local slots or handles are lost.
struct NextNumbers {
    DWORD slot = TlsAlloc();
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);

    NextNumbers() {
        TlsFree(slot);
        CloseHandle(event);
    }
};

TEST_F(HostingTest, AcquiringManyTimesLosesNothing) {
    constexpr int ROUNDS = 200;
    constexpr unsigned SOME = 8;  // what threads take at their first steps, or hold for the moment
    constexpr std::uintptr_t HANDLE_STEP = 4;
    const auto acquireManyTimes = [](const char* name, const std::string& opened, DWORD flags, Code result) {
        SCOPED_TRACE(name);
        const NextNumbers before;
        for (int round = 0; round < ROUNDS; ++round) {
            ASSERT_EQ(tryAcquire(opened, flags), result) << round;
        }
        const NextNumbers after;
        EXPECT_LT(after.slot, before.slot + SOME);
        EXPECT_LT(reinterpret_cast<std::uintptr_t>(after.event),
                  reinterpret_cast<std::uintptr_t>(before.event) + SOME * HANDLE_STEP);
    };
    setLogLevel(2);
    tryAcquire("");  // what is loaded now stays
    acquireManyTimes("without a token", "", 0, NO_TOKEN);
    acquireManyTimes("for verification, without a token", "", CRYPT_VERIFYCONTEXT, OK);
    const Token token;
    acquireManyTimes("a key", token.addKey(), 0, OK);
    acquireManyTimes("a new container, silently", container, CRYPT_NEWKEYSET | CRYPT_SILENT, OK);
    acquireManyTimes("a deletion", container, CRYPT_DELETEKEYSET, OK);
    EXPECT_NE(GetModuleHandleA("ZentokCSP.dll"), nullptr) << "the monitor and the logins need it";
}

TEST_F(HostingTest, ATokenPulledOutTakesItsLoginAlong) {
    const Token gone;
    const Token staying;
    const std::string keyText = gone.addKey();
    const std::string otherKeyText = staying.addKey();
    const Context context = acquire(keyText);
    {
        const PasswordUser user({logIn(PIN), logIn(PIN)});
        EXPECT_EQ(sign(context), OK);
        EXPECT_EQ(sign(acquire(otherKeyText)), OK);
        EXPECT_EQ(sign(acquire(otherKeyText)), OK) << "a login outlives its context";
    }
    const std::size_t start = logFileText().size();
    gone.pullOut();
    EXPECT_TRUE(logShowsRemoval(gone, start));
    gone.plugIn();
    {
        const PasswordUser nobody({});
        EXPECT_EQ(sign(acquire(otherKeyText)), OK) << "the other token's login stays";
    }
    const PasswordUser user({logIn(PIN)});
    EXPECT_EQ(sign(acquire(keyText)), OK);
    EXPECT_EQ(sign(context), OK) << "the old context lives on";
}

TEST_F(HostingTest, ATokenPulledOutBetweenHashAndSignature) {
    const Token token;
    const std::string keyText = token.addKey();
    const Context remembering = acquire(keyText);
    const Key key = userKey(remembering);
    const Context searching = acquire(keyText);
    const Hash bound = hashOf(remembering, document());
    const Hash remembered = hashOf(remembering, document());
    const Hash unbound = hashOf(searching, document());
    Bytes signature;
    {
        const PasswordUser user({logIn(PIN)});
        ASSERT_EQ(sign(bound, signature), OK);
    }
    awaitTokenPoll();
    const std::size_t start = logFileText().size();
    token.pullOut();
    EXPECT_EQ(sign(bound, signature), code(NTE_PROVIDER_DLL_FAIL));
    EXPECT_EQ(sign(remembered, signature), code(NTE_PROVIDER_DLL_FAIL));
    EXPECT_EQ(sign(unbound, signature), code(NTE_NO_KEY));
    ASSERT_TRUE(logShowsRemoval(token, start));
    {
        // Nobody is there to say how many attempts are left.
        const PasswordUser user({logIn(PIN), box("User pin locked, re-initialise device"), cancel()});
        EXPECT_EQ(sign(bound, signature), code(NTE_FAIL));
        EXPECT_EQ(sign(bound, signature), code(NTE_FAIL));
    }
    EXPECT_EQ(findKey(searching), code(NTE_NO_KEY));
    EXPECT_EQ(tryAcquire(keyText), NO_TOKEN);

    token.plugIn();
    const PasswordUser user({logIn(PIN)});
    for (const Hash* hash : {&bound, &unbound}) {
        EXPECT_EQ(sign(*hash, signature), OK);
        EXPECT_EQ(verify(*hash, signature, key), OK);
    }
}

TEST_F(HostingTest, TwoTokens) {
    const Token first;
    const Token second;
    const struct {
        std::string container;
        std::size_t size;  ///< of a signature, which tells the key
    } rows[] = {{first.addKey(), 256}, {second.addKey(KEY_TYPE_EC_P256), 64}, {"", 256}};
    const PasswordUser user({logIn(PIN), logIn(PIN)});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.container);
        const Context context = acquire(row.container);
        Bytes signature;
        EXPECT_EQ(sign(hashOf(context, document()), signature), OK);
        EXPECT_EQ(signature.size(), row.size);
    }
    EXPECT_EQ(findKey(acquire(container)), code(NTE_BAD_KEY)) << "a name that nothing is filed under";
}

TEST_F(HostingTest, AProcessEndsWhateverIsOpen) {
    const Token token;
    const std::string keyText = token.addKey();
    for (const char* role : {"no-token", "released", "all-open", "dialog-open"}) {
        EXPECT_EQ(runChild(role, keyText), CHILD_SUCCEEDED) << role;
    }
}

TEST_F(HostingTest, AnotherProcessFindsTheContainer) {
    const Token token;
    const Context context = acquire(container);
    const PasswordUser user({logIn(PIN)});
    generateKey(context);
    Bytes signature;
    ASSERT_EQ(sign(hashOf(context, document()), signature), OK);
    const ScratchFolder files;
    files.write("good", signature);
    signature.front() ^= 1;
    files.write("bad", signature);
    EXPECT_EQ(runChild("verify-file", container, files.file("good")), CHILD_SUCCEEDED);
    EXPECT_EQ(runChild("verify-file", container, files.file("bad")), 1U);
}

}  // namespace
}  // namespace test
