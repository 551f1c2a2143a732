// The provider in a host that goes on for long, on many threads, or that ends in the middle of it.
#include <algorithm>
#include <array>
#include <atomic>
#include <optional>
#include <thread>

#include "tests/platform/figures.h"
#include "tests/platform/ksp_test.h"

namespace test {
namespace {

using EnduranceTest = PlatformTest;

/// A call and its counterpart: their result has to be this one each time, and nothing may be left.
struct Pair {
    const char* name;
    Code result;
    std::function<Code()> call;
};

void expectNothingLost(const std::vector<Pair>& pairs) {
    const std::uint64_t rounds = setting("ZENTOK_SOAK_PAIRS", 1000), warm = rounds / 5;
    for (const Pair& pair : pairs) {
        SCOPED_TRACE(pair.name);
        Reading before = {};
        for (std::uint64_t round = 0; round < rounds; ++round) {
            if (round == warm) {
                before = readFigures();
            }
            ASSERT_EQ(pair.call(), pair.result) << round;
        }
        EXPECT_EQ(growth(before, readFigures()), "");
    }
}

/// Opens a provider and, unless there is no name, a key by it, which ends after its provider.
Code openAndFree(const std::basic_string<WCHAR>& keyName) {
    KspKey key;
    Owned<freeProvider> provider;
    const Code opened = code(table().OpenProvider(provider.out(), TEXT(""), 0));
    return opened != OK || keyName.empty()
               ? opened
               : code(table().OpenKey(provider.get(), key.out(), keyName.c_str(), AT_SIGNATURE, 0));
}

TEST_F(EnduranceTest, ThousandsOfPairsLoseNothing) {
    setLogLevel(2);
    expectNothingLost({{"no token", NO_TOKEN, [] { return tryAcquire(""); }},
                       {"verification", OK, [] { return tryAcquire("", CRYPT_VERIFYCONTEXT); }},
                       {"CNG, no token", OK, [] { return openAndFree({}); }}});
    const Token token;
    const std::string keyText = token.addKey();
    // A name for a key that is not there: the whole road of a deletion, whose end forgets the name.
    const auto deleteMapped = [&] {
        RegSetKeyValueA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok\\CSP\\Containers", container.c_str(), REG_SZ, "00", 3);
        return tryAcquire(container, CRYPT_DELETEKEYSET | CRYPT_SILENT);
    };
    expectNothingLost(
        {{"token", OK, [&] { return tryAcquire(keyText); }},
         {"new", OK, [&] { return tryAcquire(container, CRYPT_NEWKEYSET | CRYPT_SILENT); }},
         {"deletion of nothing", OK, [&] { return tryAcquire(container, CRYPT_DELETEKEYSET); }},
         {"deletion without a PIN", code(NTE_SILENT_CONTEXT), deleteMapped},
         {"key of CNG", OK, [name = wide(keyText)] { return openAndFree(name); }},
         {"no such key of CNG", code(NTE_NO_KEY), [name = wide(container)] { return openAndFree(name); }}});
    const Context context = acquire(keyText);
    ASSERT_EQ(logIn(context), OK);
    expectNothingLost(
        {{"deletion", OK, deleteMapped}, {"no key", code(NTE_BAD_KEY), [&] { return findKey(acquire(container)); }}});
}

TEST_F(EnduranceTest, AProcessEndsWhateverGoesOn) {
    const Token token;
    const std::string keyText = token.addKey();
    for (const char* how : {"--exit", "--ExitProcess"}) {
        for (const char* role : {"all-open", "dialog-open", "generating", "busy", "busy", "busy"}) {
            // Wine asserts when the end of the process opens a file, for the log, just after it killed a thread that
            // did.
            setLogLevel(role == std::string("busy") ? 2 : 3);
            EXPECT_EQ(runChild(role, keyText, how), CHILD_SUCCEEDED) << role << how;
        }
    }
}

TEST_F(EnduranceTest, FreeingTheLibraryFreesNoCodeThatRuns) {
    const Token token;
    RegSetKeyValueA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok\\CSP\\Containers", container.c_str(), REG_SZ, "00", 3);
    for (const char* role : {"freed-in-acquire", "freed-in-prompt"}) {
        EXPECT_EQ(runChild(role, container), CHILD_SUCCEEDED) << role;
    }
}

/// What a thread signs with, through either front; its calls are silent. While the token is out they
/// end in three ways: the other token has no such key, the PIN is not taken, the signature not made.
struct CapiSigner {
    explicit CapiSigner(const std::string& keyText) : context(acquire(keyText, CRYPT_SILENT)) {}
    [[nodiscard]] Code logIn() const { return test::logIn(context); }
    [[nodiscard]] Code sign(Bytes& signature) const { return test::sign(hash, signature); }
    static constexpr std::array WHILE_OUT = {NTE_NO_KEY, NTE_KEYSET_ENTRY_BAD, NTE_PROVIDER_DLL_FAIL};

    const Context context;
    const Hash hash = hashOf(context, document());
};
struct CngSigner {
    explicit CngSigner(const std::string& keyText)
        : opened(code(table().OpenKey(storage.get(), key.out(), wide(keyText).c_str(), 0, 0))) {}
    [[nodiscard]] Code logIn() const { return storage.logIn(PIN); }
    [[nodiscard]] Code sign(Bytes& signature) const {
        static Bytes digest = digestOf("SHA256", document());
        DWORD size = 256;
        signature.resize(size);
        return opened != OK
                   ? opened
                   : code(table().SignHash(storage.get(), key.get(), nullptr, digest.data(), sizeOf(digest),
                                           signature.data(), size, &size, BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG));
    }
    /// The last one is a dialog that was closed: the login may go just after a silent call has seen it.
    static constexpr std::array WHILE_OUT = {NTE_NO_KEY, NTE_VALIDATION_FAILED, NTE_INTERNAL_ERROR, NTE_FAIL};

    const KeyStorage storage{nullptr};
    KspKey key;
    const Code opened;
};

/// A thread that signs until it is told to stop, in turn with what it opened first and with everything anew, and gives
/// the PIN whenever it is missing. Right is the one signature that PKCS#1 v1.5 has.
struct Worker {
    template <typename Signer>
    void run(const std::string& keyText, const Bytes& right, bool mayFail) {
        const Signer first(keyText);
        for (bool anew = false; !stop; anew = !anew) {
            const std::optional<Signer> next = anew ? std::optional<Signer>(std::in_place, keyText) : std::nullopt;
            const Signer& signer = anew ? *next : first;
            Bytes signature;
            Code result = signer.sign(signature);
            if (result == code(NTE_SILENT_CONTEXT)) {
                ++missedPin;
                result = signer.logIn();
                result = result == OK ? signer.sign(signature) : result;
            }
            const bool isKnown = std::any_of(Signer::WHILE_OUT.begin(), Signer::WHILE_OUT.end(),
                                             [=](long known) { return code(known) == result; });
            EXPECT_TRUE(result == OK ? signature == right : mayFail && isKnown) << ::testing::PrintToString(result);
            ++(result == OK ? good : bad);
        }
    }
    std::atomic<int> good = 0, bad = 0, missedPin = 0;
    static inline std::atomic<bool> stop;
};

TEST_F(EnduranceTest, SixteenThreadsWhileATokenComesAndGoes) {
    setLogLevel(2);
    Worker::stop = false;
    const Token coming;  // the first in the list
    const Token staying;
    PasswordUser nobody({});
    nobody.mayMeetOthers = true;
    std::array<Worker, 16> workers;
    std::vector<std::jthread> threads;
    for (const Token* const token : {&coming, &staying}) {
        const std::string keyText = token->addKey();
        const CapiSigner signer(keyText);
        Bytes right;
        ASSERT_EQ(signer.logIn(), OK);
        ASSERT_EQ(signer.sign(right), OK);
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([=, &worker = workers.at(threads.size()), mayFail = token == &coming] {
                i < 4 ? worker.run<CapiSigner>(keyText, right, mayFail)
                      : worker.run<CngSigner>(keyText, reversed(right), mayFail);
            });
        }
    }
    // Two more for each thread on the token that goes: one with what is old and one with what is new.
    const auto allCount = [&](std::atomic<int> Worker::*count) {
        for (auto worker = workers.begin(); worker != workers.begin() + 8; ++worker) {
            EXPECT_TRUE(comes([&, end = worker->*count + 2] { return worker->*count >= end; }));
        }
    };
    for (int round = 0; round < 4; ++round) {
        allCount(&Worker::good);
        coming.pullOut();
        allCount(round % 2 == 0 ? &Worker::bad : &Worker::missedPin);  // every other time until the login is dropped
        coming.plugIn();
    }
    allCount(&Worker::good);
    Worker::stop = true;
    threads.clear();
    for (const softtoken::TokenSummary& token : softtoken::listTokens()) {
        EXPECT_EQ(token.retriesLeft, token.retryLimit) << "no PIN was tried that nobody gave";
    }
}

}  // namespace
}  // namespace test
