// Every operation of the token library failing, answering late, and answering for a token that was just pulled out, at
// each entry point that uses it.
#include <atomic>
#include <cstdlib>
#include <future>
#include <new>
#include <set>

#include "capi/hash.h"
#include "capi/user_keys.h"
#include "core/container_map.h"
#include "core/device_monitor.h"
#include "core/pin_cache.h"
#include "core/wide_text.h"
#include "tests/fuzz/certificates.h"
#include "tests/fuzz/world.h"
#include "tests/platform/figures.h"
#include "tests/unit/ksp_fixture.h"

namespace {
std::atomic<long> g_liveBlocks = 0;  // allocated in this program and not yet deleted
}

#ifndef __WINE__  // where the sanitizer's own are in the way
// Not inline, or the compiler takes the two for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = std::malloc(size);
    g_liveBlocks += block != nullptr ? 1 : throw std::bad_alloc();
    return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    g_liveBlocks -= block != nullptr ? 1 : 0;
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    operator delete(block);
}
#endif

namespace test {
namespace {

constexpr DWORD ROOM = 1200;
constexpr int REFUSED = 5;
/// Results that mean something to the provider, and what works without a token.
const std::multimap<std::string, int> SPECIAL_RESULTS = {
    {"signHash", 49}, {"signHash", 51}, {"decrypt", 49}, {"validatePassword", 48}};
const std::set<std::string> TOKENLESS = {"init", "encrypt", "getCertificateDetails",
                                         "getFilesWithExtensionsAndConvertDER"};

enum Then { WELL, AGAIN, PULLED };  ///< what else fails: nothing, later the same operation, all that needs the token
/// How callers log in. The user at the dialog has the PIN when the dialog is to come up, and else cancels.
enum Login { PIN_CACHED, AT_DIALOG, SIGNED_ON } g_login;
LRESULT CALLBACK answerWindow(int code, WPARAM window, LPARAM more) {
    if (code == HCBT_ACTIVATE) {
        SetDlgItemTextA(reinterpret_cast<HWND>(window), EDIT, "1234");
        PostMessageA(reinterpret_cast<HWND>(window), WM_COMMAND, g_login == AT_DIALOG ? IDOK : IDCANCEL, 0);
    }
    return CallNextHookEx(nullptr, code, window, more);
}

struct Caller;

/// A caller's way through entry points.
struct Road {
    template <typename... Steps>
    Road(const char* roadName, const std::string& mayHappen, Steps... calls)
        : name(roadName), allowed(mayHappen), steps{calls...} {}
    bool allows(const std::string& what) const { return allowed.find(what + " ") != std::string::npos; }

    std::string name;
    /// Calls of the library that may fail while the road comes through; "unlogged": a failure has no line in the log;
    /// "final": a call that failed may fail again on the same objects; "dialog": also with PINs that fail.
    std::string allowed;
    std::vector<bool (*)(Caller& w)> steps;
};

/// Forgets what callers leave in the process.
void settle() {
    forgetState();
    token().takeCalls();
}

/// What entry points hand out.
struct Handles {
    ULONG_PTR made = 0, hash = 0, copy = 0, key = 0, opened = 0, kspKey = 0, secret = 0;
    bool operator==(const Handles&) const = default;
};

/// One caller on a thread and with objects of its own, on a token whose key AA has the container "box".
struct Caller : Handles {
    Caller() {
        settle();
        pinStateStore("T1", g_login == PIN_CACHED ? "1234" : "");
        token().infos["T1"] = tokenInfo("xx1", 1, g_login == AT_DIALOG ? 0 : 1);
        token().infos["T1"].firmwareVersion = "2.0.0";
        writeContainerKeys("box", {AA});
        std::fill_n(rsaRecord.credentialId, rsaRecord.credentialIdLength = 16, '\xAA');
        std::fill_n(rsaRecord.publicKey, rsaRecord.publicKeyLength = 256, '\x77');
        aesRecord.symmetricKeyLength = kspRecords[3].symmetricKeyLength = 32;
        token().certificateFiles.resize(g_login == SIGNED_ON ? 0 : 1, {"root", {1}});  // or a leaf goes alone
        context.requestedContainer = "box";
        kspRecords[1].credentialIdLength = 16;
        provider.deviceName = "T1";
        provider.firmwareVersion = "2.0.0";
        provider.initialized = true;
    }
    ~Caller() {
        for (const HCRYPTHASH each : {hash, copy}) {
            if (each != 0) {  // its running hash goes with it: no operation frees one
                token().hashes.erase(recordOf<HASH_CONTEXT>(each)->tokenHash);
                EXPECT_TRUE(CPDestroyHash(on, each));
            }
        }
        EXPECT_TRUE((key == 0 || CPDestroyKey(on, key)) && (made == 0 || CPReleaseContext(made, 0)));
        std::destroy_n(static_cast<KSP_KEY_ENUM*>(keys), keys != nullptr ? 1 : 0);  // which KSPFreeBuffer does not
        EXPECT_EQ(KSPFreeKey(ksp, kspKey) | KSPFreeSecret(ksp, secret) | KSPFreeBuffer(keys), 0);
        EXPECT_TRUE(KSPFreeBuffer(keyName) == 0 && UnhookWindowsHookEx(user) &&
                    (opened == 0 || KSPFreeProvider(opened) == 0));
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    /// Goes on from where an earlier walk failed. What the caller sees of the whole road, empty after a failure, which
    /// has a code and a line in the log and leaves what it gives out alone.
    std::string walk(const Road& road) {
        for (; done < road.steps.size(); ++done) {
            const Handles before = static_cast<const Handles&>(*this);
            const Bytes content = buffer.first(ROOM);
            const std::size_t logged = logFileText().size();
            given = length = 0;
            SetLastError(UNTOUCHED);
            if (!road.steps[done](*this)) {
                EXPECT_TRUE(GetLastError() != UNTOUCHED && GetLastError() != 0);
                EXPECT_TRUE(road.allows("unlogged") || logFileText().size() > logged) << "fails without a line";
                EXPECT_TRUE(before == *this && buffer.first(ROOM) == content && (length == given || length == 0));
                return "";
            }
            seen += hex(buffer.first(std::min(length, ROOM))) + "|";
        }
        const auto text = [](const auto& record) {
            return keyText(record.credentialId) + hex({record.symmetricKey, record.symmetricKey + 32});
        };
        return seen + context.containerName + (made != 0 ? recordOf<CSP_CONTEXT>(made)->containerName : "") +
               (key != 0 ? text(*recordOf<KEY_HANDLE>(key)) : "") +
               (kspKey != 0 ? text(*recordOf<KSP_KEY>(kspKey)) : "");
    }
    /// The room that a call is told, or the size of its input.
    DWORD* room(DWORD size = ROOM) { return &(length = given = size); }

    const HHOOK user = SetWindowsHookExA(WH_CBT, answerWindow, nullptr, GetCurrentThreadId());
    CSP_CONTEXT context = contextOn("T1", AA);
    const CSP_CONTEXT tokenless = contextOn("");
    KEY_HANDLE rsaRecord = {}, aesRecord = {};
    const ULONG_PTR on = handleOf(&context), none = handleOf(&tokenless);
    const ULONG_PTR rsa = handleOf(&rsaRecord), aes = handleOf(&aesRecord);
    KSP_PROVIDER provider;
    KSP_KEY kspRecords[4] = {keyObject(2, 2048, filled(256)), keyObject(5, 256, filled(65, 4)), keyObject(2, 2048)};
    KSP_KEY weak[2] = {keyObject(KEY_TYPE_RSA_1024, 1024), keyObject(KEY_TYPE_ANY, 1024)};
    const ULONG_PTR ksp = handleOf(&provider), kspRsa = handleOf(&kspRecords[0]), kspEc = handleOf(&kspRecords[1]);
    const ULONG_PTR kspBare = handleOf(&kspRecords[2]), kspAes = handleOf(&kspRecords[3]);
    Bytes data = filled(256, 1), certificate = {0x30, 0};
    BYTE* const in = data.data();
    VTableProvStruc table = {};
    HMAC_INFO hmac = {CALG_SHA_256, nullptr, 0, nullptr, 0};
    NCryptKeyName* keyName = nullptr;
    void* keys = nullptr;
    Guarded buffer{ROOM};
    BYTE* const out = buffer.data();
    DWORD length = 0;
    DWORD given = 0;
    std::size_t done = 0;
    std::string seen;
};

#define CP(call) [](Caller& w) -> bool { return (call) != FALSE; }
#define KSP(call) [](Caller& w) { return succeeds(call); }
#define OUTPUT w.out, ROOM, w.room()

const Bytes PLAIN = blob({0x0208, 0x6610, 32}, filled(32)), KEY_DATA = blob({0x4D42444B, 1, 32}, filled(32));
const Bytes SIMPLE = blob({0x0201, 0x6610, 0}, filled(12)), WRAPPED = blob({0x020B, 0x6610}, filled(16));
const WCHAR *const CERTIFICATE = TEXT("SmartCardKeyCertificate"), *const PIN = TEXT("SmartCardPin");
constexpr auto IMPORT = [](Caller& w, ULONG_PTR with, const WCHAR* type, const Bytes& data) {
    return KSPImportKey(w.ksp, with, type, nullptr, &w.kspKey, input(data), static_cast<DWORD>(data.size()), 0);
};
const auto SHA256 = CP(CPCreateHash(w.on, CALG_SHA_256, 0, 0, &w.hash));
const auto FEED = CP(CPHashData(w.on, w.hash, w.in, 32, 0));
const auto READ = CP(CPGetHashParam(w.on, w.hash, HP_HASHVAL, w.out, w.room(), 0));
const auto HMAC = CP(CPCreateHash(w.on, CALG_HMAC, w.aes, 0, &w.hash));
const auto INNER = CP(CPSetHashParam(w.on, w.hash, HP_HMAC_INFO, reinterpret_cast<BYTE*>(&w.hmac), 0));
const auto USER_KEY = CP(CPGetUserKey(w.on, AT_SIGNATURE, &w.key));
const auto SIGN = CP(CPSignHash(w.on, w.hash, AT_SIGNATURE, nullptr, 0, w.out, w.room()));

/// A copy has the value and the key that the hash is bound to, and nothing that runs.
const auto BIND = CP(recordOf<HASH_CONTEXT>(w.hash)->mechanism = recordOf<HASH_CONTEXT>(w.hash)->credentialId[15] = 4);
const auto IS_COPY = [](Caller& w) {
    const auto& hash = *recordOf<HASH_CONTEXT>(w.hash);
    const auto& copy = *recordOf<HASH_CONTEXT>(w.copy);
    return copy.finalized && copy.tokenHash == nullptr && copy.mechanism == 4 && copy.credentialId[15] == 4 &&
           copy.hashAlgorithm == 3 && copy.hashLen == 32 &&
           std::equal(hash.hashValue, hash.hashValue + 32, copy.hashValue);
};

// A device that does not open is tried again by the next acquire. What cannot be learnt of a certificate's issuers and
// key pair leaves the import of the certificate itself a success. A lapsed sign-on (49) is renewed.
const std::string OPENING = "init#1 init#2 initDevice#1 ";
const std::string IMPORTING =
    "getFilesWithExtensionsAndConvertDER#1 getCertificateDetails#2 getCertificateDetails#3 "
    "getKeyPairList#1 updateKeyPairDetails#1 ";
const Road ROADS[] = {
    Road("KspPrompt", "dialog ", KSP(KSPPromptUser(w.ksp, 0, nullptr, 0))),  // first: the first dialog keeps handles
    Road("Acquire", OPENING + "getKeyPairList#1 getKeyPairList#2 ", CP(CPAcquireContext(&w.made, "box", 0, &w.table))),
    // What can be deleted is.
    Road("DeleteKeySet", OPENING + "getKeyPairList#1 deleteKeyPair#1 ",
         CP(CPAcquireContext(&w.made, "box", CRYPT_DELETEKEYSET, &w.table))),
    // A token that does not tell its class offers less.
    Road("Algorithms", "getTokenInfo#1 getTokenInfo#2 ", CP(CPGetProvParam(w.on, PP_ENUMALGS, w.out, w.room(), 1)),
         CP(CPGetProvParam(w.on, PP_ENUMALGS_EX, w.out, w.room(), CRYPT_NEXT))),
    Road("RandomAndPin", "", CP(CPGenRandom(w.on, *w.room(16), w.out)), CP(CPGenRandom(w.none, *w.room(16), w.out)),
         CP(CPSetProvParam(w.on, PP_KEYEXCHANGE_PIN, w.in, 0)), KSP(KSPSetProviderProperty(w.ksp, PIN, w.in, 2, 0)),
         KSP(KSPSetKeyProperty(w.ksp, w.kspRsa, PIN, w.in, 2, 0))),
    Road("RefusedWeakRsa", "getTokenInfo#1 getTokenInfo#2 getTokenInfo#3 getTokenInfo#4 getTokenInfo#6 getTokenInfo#8 ",
         SHA256, CP(CPSignHash(w.on, w.hash, AT_SIGNATURE, nullptr, 0, nullptr, w.room())),
         CP((recordOf<HASH_CONTEXT>(w.hash)->mechanism = 1) != 0 && !SIGN(w) && GetLastError() == BAD_KEY),
         CP(!CPGenKey(w.on, CALG_RSA_SIGN, 1024 << 16, &w.key) && GetLastError() == BAD_LEN),
         CP(!succeeds(KSPSignHash(w.ksp, handleOf(w.weak), nullptr, w.in, 32, OUTPUT, 0)) &&
            GetLastError() == NOT_SUPPORTED),
         CP(!succeeds(KSPFinalizeKey(w.ksp, handleOf(w.weak + 1), 0)) && GetLastError() == NOT_SUPPORTED)),
    // As far as the chain is there; the second key is not the container's.
    Road("CertificateChain", "getCertificateList#1 findCertificateForKey#2 ",
         CP(CPGetProvParam(w.on, PP_CERTCHAIN, w.out, w.room(), 0))),
    Road("Hash", "", CP(CPCreateHash(w.on, CALG_SHA1, 0, 0, &w.copy)), SHA256, FEED, READ),
    Road("Duplicate", "", SHA256, BIND, CP(CPDuplicateHash(w.on, w.hash, nullptr, 0, &w.copy)), IS_COPY),
    Road("DuplicateHmac", "", HMAC, INNER, FEED, CP(CPDuplicateHash(w.on, w.hash, nullptr, 0, &w.copy))),
    Road("DeriveKey", "", SHA256, CP(CPDeriveKey(w.on, CALG_AES_256, w.hash, 0, &w.key))),
    // An inner hash that has ended does not end again.
    Road("Hmac", "final ", HMAC, INNER, FEED, READ),
    Road("HmacVerify", "final ", HMAC, INNER, FEED, CP(CPVerifySignature(w.on, w.hash, w.in, 32, w.rsa, nullptr, 0))),
    Road("HmacOfLongKey", "unlogged ", HMAC, CP(recordOf<HASH_CONTEXT>(w.hash)->hmacKeyLen = 128), INNER),
    Road("GenKey", "dialog ", CP(CPGenKey(w.on, CALG_RSA_SIGN, 0, &w.key))),
    Road("Export", "", USER_KEY, CP(CPExportKey(w.on, w.key, 0, PUBLICKEYBLOB, 0, w.out, w.room()))),
    Road("GetCertificate", "initDevice#1 initDevice#2 ",
         CP(CPGetKeyParam(w.on, w.rsa, KP_CERTIFICATE, w.out, w.room(), 0)),
         KSP(KSPGetKeyProperty(w.ksp, w.kspRsa, CERTIFICATE, OUTPUT, 0))),
    Road("SetCertificate", IMPORTING, CP(CPSetKeyParam(w.on, w.rsa, KP_CERTIFICATE, w.certificate.data(), 0))),
    Road("KspSetCertificate", IMPORTING,
         KSP(KSPSetKeyProperty(w.ksp, w.kspRsa, CERTIFICATE, w.certificate.data(), 2, 0))),
    // In either byte order.
    Road("ImportSimple", "decrypt#1 decrypt#1:49 ", CP(CPImportKey(w.on, SIMPLE.data(), 24, w.rsa, 0, &w.key))),
    Road("ImportPlain", "", CP(CPImportKey(w.on, PLAIN.data(), 44, 0, 0, &w.key))),
    // Under any key of the token.
    Road("ImportWrapped", "decrypt_aes#1 ", CP(CPImportKey(w.on, WRAPPED.data(), 24, 0, 0, &w.key))),
    Road("Cipher", "decrypt#1:49 ", CP(CPEncrypt(w.on, w.rsa, 0, TRUE, 0, w.out, w.room(16), ROOM)),
         CP(CPEncrypt(w.on, w.aes, 0, TRUE, 0, w.out, w.room(16), ROOM)),
         CP(CPDecrypt(w.on, w.rsa, 0, TRUE, 0, w.out, w.room(256))),
         CP(CPDecrypt(w.on, w.aes, 0, TRUE, 0, w.out, w.room(32)))),
    Road("Sign", "signHash#1:49 ", SHA256, FEED, SIGN),
    // A remembered key is bound whether it is still there or not.
    Road("SignRemembered", "getKeyPairList#2 signHash#1:49 ", USER_KEY, SHA256, SIGN),
    Road("Verify", "", SHA256, CP(CPVerifySignature(w.on, w.hash, w.in, 32, w.rsa, nullptr, 0)),
         CP(CPVerifySignature(w.on, w.hash, w.in, 32, 0, nullptr, 0))),
    // Also without a token.
    Road("KspOpenProvider", OPENING + "getConnectedDeviceList#1 getTokenInfo#1 ",
         KSP(KSPOpenProvider(&w.opened, nullptr, 0))),
    // On the token in use when no other is found.
    Road("KspDelete", "getConnectedDeviceList#1 getKeyPairList#1 ",
         KSP(KSPOpenKey(w.ksp, &w.kspKey, widened(AA).c_str(), 0, 0)), KSP(KSPDeleteKey(w.ksp, w.kspKey, 0)),
         CP((w.kspKey = 0) == 0)),
    // As of the first call, and the end is no error.
    Road("KspEnumKeys", "unlogged final ", KSP(KSPEnumKeys(w.ksp, nullptr, &w.keyName, &w.keys, 0))),
    Road("KspCreate", "", KSP(KSPCreatePersistedKey(w.ksp, &w.kspKey, TEXT("RSA"), TEXT("name"), 0, 0)),
         KSP(KSPFinalizeKey(w.ksp, w.kspKey, 0))),
    Road("KspSign", "signHash#1:49 ", KSP(KSPSignHash(w.ksp, w.kspRsa, nullptr, w.in, 32, OUTPUT, 0))),
    Road("KspVerify", "", KSP(KSPVerifySignature(w.ksp, w.kspRsa, nullptr, w.in, 32, w.in, 32, 0))),
    Road("KspCipher", "decrypt#1:49 ", KSP(KSPEncrypt(w.ksp, w.kspRsa, w.in, 32, nullptr, OUTPUT, 0)),
         KSP(KSPEncrypt(w.ksp, w.kspAes, w.in, 32, nullptr, OUTPUT, 0)),
         KSP(KSPDecrypt(w.ksp, w.kspRsa, w.in, 32, nullptr, OUTPUT, NCRYPT_PAD_PKCS1_FLAG)),
         KSP(KSPDecrypt(w.ksp, w.kspAes, w.in, 32, nullptr, OUTPUT, 0))),
    Road("KspImportWrapped", "decrypt_aes#1 ", KSP(IMPORT(w, 0, TEXT("OpaqueKeyBlob"), w.data))),
    Road("KspImportPlain", "", KSP(IMPORT(w, 0, TEXT("KeyDataBlob"), KEY_DATA))),
    Road("KspImportEncrypted", "", KSP(IMPORT(w, w.kspRsa, TEXT("OpaqueTransport"), w.data))),
    Road("KspExport", "", KSP(KSPExportKey(w.ksp, w.kspBare, 0, TEXT("RSAPUBLICBLOB"), nullptr, OUTPUT, 0))),
    // A derivation does not look at what its feed came to.
    Road("KspSecret", "updateHash#1 ", KSP(KSPSecretAgreement(w.ksp, w.kspEc, w.kspEc, &w.secret, 0)),
         KSP(KSPDeriveKey(w.ksp, w.secret, nullptr, nullptr, OUTPUT, 0))),
};

class FaultsTest : public ProviderTest {
protected:
    /// The monitor waits inside its poll throughout, so that it forgets no login in the middle of a walk.
    void SetUp() override {
        ProviderTest::SetUp();
        EXPECT_TRUE((token().holdPolls(true), startDeviceMonitor(), token().waitForHeldPoll()));
        setLogLevel(2);
        token().keyPairs["T1"] = {keyPair(0xAA, 3, 2, "", filled(256, 1)), keyPair(0xBB, 1, 5, "", filled(65, 4))};
        token().generatedKey = token().keyPairs["T1"][0];
        token().certificates["T1"] = {certificate(CERTIFICATES[0])};
        token().keyCertificate = certificate(CERTIFICATES[1]);
        token().certificateDetails.subject = token().certificateDetails.issuer = "CN=Root";
        token().certificateDetails.publicKey = filled(256, 1);
        token().digestsTellSum = true;
        token().aesKeys["T1"].resize(2);
        token().aesKeys["T1"][0].keyType = token().aesKeys["T1"][1].keyType = KEY_TYPE_AES_128;
        for (const char* operation : {"finalHash", "decrypt", "encrypt_aes", "decrypt_aes", "decryptSymetric",
                                      "ecdhDerive", "generateRamdomNumber", "signHash", "encrypt"}) {
            token().on(operation, {{.output = filled(32, static_cast<unsigned char>(operation[2]))}});
        }
    }
    void TearDown() override { (token().holdPolls(false), stopDeviceMonitor(), ProviderTest::TearDown()); }
    /// The operations that a walk without any fault calls, in their order.
    Lines walkClean() {
        clean = Caller().walk(road);
        EXPECT_NE(clean, "");
        Lines operations = token().takeCalls();
        for (std::string& call : operations) {
            call.resize(call.find('('));
        }
        return operations;
    }
    /// The nth call of the operation fails, and what follows from that. Then the token is well again, for the failed
    /// call itself and for the next caller.
    void fails(const std::string& operation, int nth, int result, Then then) {
        settle();
        token().hashes.clear();
        const auto nextHandle = [] { return numberOf(CreateEventA(nullptr, TRUE, TRUE, nullptr), CloseHandle); };
        const std::pair before(g_liveBlocks.load(), nextHandle());
        {
            Caller w;
            std::map<std::string, int> count;
            bool maySucceed = true;
            token().fault = [&](const std::string& called, Answer& answer) {
                const std::string call = called + "#" + std::to_string(++count[called]);
                if (call == operation + "#" + std::to_string(nth) ||
                    (count[operation] >= nth &&
                     (called == operation ? then != WELL : then == PULLED && !TOKENLESS.contains(called)))) {
                    answer.result = result;
                    maySucceed &= road.allows(result == REFUSED ? call : call + ":" + std::to_string(result));
                }
            };
            const std::string outcome = w.walk(road);
            token().fault = nullptr;
            EXPECT_TRUE(outcome.empty() || maySucceed);
            if (then == PULLED) {  // as the monitor notices
                pinStateClear("T1");
            }
            const std::string again = outcome.empty() ? w.walk(road) : clean;
            EXPECT_TRUE(again == clean || (again.empty() && road.allows("final"))) << again;
        }
        // Nothing but its end frees a running hash: not asked for after a failed feed, and in vain when it fails.
        EXPECT_TRUE(!token().anyHashRuns() || then == PULLED || operation == "updateHash" || operation == "finalHash");
        EXPECT_EQ(Caller().walk(road), clean);
        settle();
        token().hashes.clear();
        EXPECT_EQ(std::pair(g_liveBlocks.load(), nextHandle()), before);
        EXPECT_EQ(unfreedBlocks(), 0);
    }
    /// The nth call of the operation answers only after another caller has come through the whole road.
    void isLate(const std::string& operation, int nth) {
        Caller w;
        int count = 0;
        std::future<std::string> other;
        token().fault = [&](const std::string& called, Answer& answer) {
            if (called == operation && ++count == nth) {
                token().fault = nullptr;
                answer.during = [&] {
                    other = std::async(std::launch::async, [&] { return (token().testIsHere(), Caller().walk(road)); });
                    if (other.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
                        ADD_FAILURE() << "the other one gets no further";
                        token().holdPolls(false);  // where it would wait from now on
                    }
                    token().testIsHere();
                };
            }
        };
        EXPECT_EQ(w.walk(road), clean);
        EXPECT_EQ(other.get(), clean);
    }

    Road road = ROADS[0];
    std::string clean;
};

TEST_F(FaultsTest, LeaveNothingBehind) {
    std::set<std::string> used;
    for (const Road& each : ROADS) {
        road = each;
        Lines withPin;
        for (g_login = PIN_CACHED; g_login <= SIGNED_ON; g_login = static_cast<Login>(g_login + 1)) {
            std::map<std::string, int> count;
            const Lines operations = walkClean();
            for (const std::string& operation : operations) {
                const int nth = ++count[operation];
                used.insert(operation);
                if (operations != withPin &&
                    (g_login != AT_DIALOG || (operation == "validatePassword" && road.allows("dialog")))) {
                    SCOPED_TRACE(road.name + std::to_string(g_login) + ": " + operation + " #" + std::to_string(nth));
                    isLate(operation, nth);
                    fails(operation, nth, REFUSED, PULLED);
                    fails(operation, nth, REFUSED, WELL);
                    for (auto [special, end] = SPECIAL_RESULTS.equal_range(operation); special != end; ++special) {
                        for (const Then then : {WELL, AGAIN, PULLED}) {
                            fails(operation, nth, special->second, then);
                        }
                    }
                }
            }
            withPin = g_login == PIN_CACHED ? operations : withPin;
        }
    }
    EXPECT_EQ(used.size(), 28U) << ::testing::PrintToString(used);
}

}  // namespace
}  // namespace test
