// Contexts and their parameters.
#include <memory>

#include "core/container_map.h"
#include "core/device_monitor.h"
#include "core/pin_cache.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const std::string FLAGS = "@ - dwFlags : ", NAMED = "@ - Container name : ";
const std::string RUNNING = "Monitor thread already running, not starting again.|";
const std::string RELISTED = "|getConnectedDeviceList(0, null)", LISTED = "init(0, null, 2)" + RELISTED;

std::string opened(const std::string& serial) {
    return "|init(0, null, 2)|initDevice('" + serial + "', 0, null)";
}
std::string keysOf(const std::string& serial) {
    return "|getKeyPairList('" + serial + "', null)";
}

/// The monitor runs throughout, so that every acquire logs the same, and waits inside its poll, so that it forgets no
/// entry that a test made.
class ContextTest : public ProviderTest {
protected:
    static void SetUpTestSuite() {
        makeFresh();
        token().holdPolls(true);
        startDeviceMonitor();
        EXPECT_TRUE(token().waitForHeldPoll() && g_pinStatesLock.try_lock()) << "a slow library holds up nobody";
        g_pinStatesLock.unlock();
    }
    static void TearDownTestSuite() {
        makeFresh();
        token().holdPolls(false);
        stopDeviceMonitor();
    }
    /// Acquires on a token; `acquired` is the effective container and the serial of what succeeds.
    void acquire(const char* name, const std::string& log, const std::string& calls, const std::string& acquired = "") {
        const std::string start = FLAGS + "8|@ - isSilent : 0|" + RUNNING + log;
        HCRYPTPROV h = 0;
        if (acquired.empty()) {
            CALL(CPAcquireContext(&h, name, 8, &table), NO_TOKEN, start, calls);
            return;
        }
        CALL(CPAcquireContext(&h, name, 8, &table), 0, start + "@: container=" + acquired + " silent=0, return TRUE",
             calls);
        const std::unique_ptr<CSP_CONTEXT> made(recordOf<CSP_CONTEXT>(h));
        EXPECT_EQ(made->containerName + " serial=" + made->serial, acquired);
        EXPECT_EQ(made->requestedContainer, name != nullptr ? name : "");
        EXPECT_TRUE(made->initialized && made->keyNames.size() == token().keyPairs[made->serial].size());
    }

    VTableProvStruc table = {};
};

TEST_F(ContextTest, WithoutAToken) {
    HCRYPTPROV h = 0x1234;
    CALL(CPAcquireContext(nullptr, "", 0, nullptr), ERROR_INVALID_PARAMETER,
         "!@: invalid parameter - phProv=0 pVTable=0");
    CALL(CPAcquireContext(&h, "name", 0x80000060, &table), 0,
         FLAGS + "2147483744|@ - isSilent : 1|@: CRYPT_VERIFYCONTEXT, no token required, return TRUE");
    EXPECT_TRUE(recordOf<CSP_CONTEXT>(h)->silent && recordOf<CSP_CONTEXT>(h)->keysetType == 4096);
    CALL(CPReleaseContext(h, 0xABCD), BAD_FLAGS, "!@: invalid dwFlags=0x0000ABCD");
    CALL(CPReleaseContext(h, 0), 0, "");
    const CSP_CONTEXT tokenless = contextOn("");
    const HCRYPTPROV none = handleOf(&tokenless);
    Guarded buffer(16);
    BYTE* const out = buffer.data();
    const std::string noToken = "@: no token, using software RNG";
    CALL(CPGenRandom(OFF, 0, out), BAD_UID, "!@: context is null or not initialized");
    CALL(CPGenRandom(on, 16, nullptr), ERROR_INVALID_PARAMETER, "!@: invalid buffer or length, cbLen=16");
    EXPECT_FALSE(CPGenRandom(on, 0x80000000, out)) << "more than can be put to the library";
    token().on("generateRamdomNumber", {{.output = filled(16)}});
    CALL(CPGenRandom(none, 16, out), 0, noToken, "generateRamdomNumber('', out[16], 1, null)");
    CALL(CPGenRandom(on, 16, out), 0, "", "generateRamdomNumber('T1', out[16], 0, null)");
    g_useHardwareRng = 0;
    CALL(CPGenRandom(on, 16, out), 0, "", "generateRamdomNumber('T1', out[16], 1, null)");
    EXPECT_EQ(buffer.first(16), filled(16));
}

TEST_F(ContextTest, Acquire) {
    const std::string unnamed = "@ - Container name not provided|", noKeys = "Acquire Context :: Key List is empty|";
    acquire(nullptr, unnamed + noKeys, LISTED + opened("T1") + RELISTED + keysOf("T1"), " serial=T1");
    token().setDevices({"T8", "T9", "T1"});
    token().onResult("initDevice", {-9, 0});
    acquire("", "!Init device failed for T8 : -9|" + NAMED + "|" + noKeys,
            LISTED + opened("T8") + opened("T9") + RELISTED + keysOf("T8"), " serial=T8");
    token().on("initDevice", {{.during = [] { token().setDevices({}); }}});
    acquire(nullptr, unnamed + "!@: no initialized device found, return FALSE", LISTED + opened("T8") + RELISTED);
    acquire("box", "!@: valid token not connected, return FALSE", LISTED);

    token().setDevices({"T1", "T9"});
    token().keyPairs = {{"T1", {keyPair(0xAA, 1, 2)}}, {"T9", {keyPair(0xBB, 1, 2)}}};
    const std::string box = NAMED + "box|" + AA + "|@ - resolved container ", lower(32, 'b');
    const std::string searched = LISTED + RELISTED + keysOf("T1") + keysOf("T9");
    acquire(lower.c_str(), NAMED + lower + "|" + BB + "|", searched + keysOf("T9"), lower + " serial=T9");
    writeContainerKeys("box", {BB, AA});
    g_containerMap["box"] = {};  // an empty list is none
    acquire("box", box + "(registry) box -> " + BB + "|", searched + keysOf("T1"), BB + " serial=T1");
    EXPECT_EQ(g_containerMap["box"], (Lines{BB, AA})) << "what the registry says is remembered";
    g_containerMap["box"] = {AA, BB};  // and comes first from then on
    acquire("box", box + "box -> " + AA + "|", searched + keysOf("T1"), AA + " serial=T1");
}

TEST_F(ContextTest, DeleteKeySet) {
    const std::string log = "@: CRYPT_DELETEKEYSET ", started = log + "container=box|" + RUNNING;
    const auto deletes = [&](const char* name, DWORD flags, DWORD failure, const std::string& text,
                             const std::string& calls = "") {
        HCRYPTPROV h = 0x1234;
        CALL(CPAcquireContext(&h, name, flags | 16, &table), failure, FLAGS + std::to_string(flags | 16) + "|" + text,
             calls);
        EXPECT_EQ(h, 0U);
        EXPECT_EQ(g_containerMap.contains("box") || !readContainerKeys("box").empty(), failure != 0);
    };
    deletes(nullptr, 0, 0, log + "container=(null)|" + log + "no container name, return TRUE");
    g_containerMap["box"] = {BB, idText(0x99), AA};
    token().keyPairs["T1"] = {keyPair(0xAA, 1, 2), keyPair(0xBB, 1, 2)};
    pinStateMarkDeviceInitialised("T1");
    pinStateStore("T1", "");  // a sign-on does not count
    deletes("box", 64, SILENT, started + "!" + log + "CRYPT_SILENT set, cannot prompt for PIN", LISTED);
    cachePin();
    deletes("box", 64, 0,
            started + log + "deleting key " + BB + "|" + log + "key " + idText(0x99) + " not found on token, skip|" +
                log + "deleting key " + AA + "|" + log + "done, return TRUE",
            LISTED + keysOf("T1") + "|deleteKeyPair|deleteKeyPair");
}

using Answer = std::tuple<BOOL, DWORD, DWORD>;  // result, last error, length afterwards

class ProviderParamsTest : public ProviderTest {
protected:
    Answer get(DWORD param, DWORD flags, int room) {  // -1: no buffer
        length = static_cast<DWORD>(room);
        SetLastError(UNTOUCHED);
        return {CPGetProvParam(handleOf(&context), param, room < 0 ? nullptr : buffer.data(), &length, flags),
                GetLastError(), length};
    }
    CSP_CONTEXT context = contextOn("T1", "box");
    Guarded buffer{128};
    DWORD length = 0;
};

TEST_F(ProviderParamsTest, Values) {
    context.keysetType = 4096;
    const std::string descriptor = "01000480" + std::string(32, '0');
    const std::string name = "5A656E746F6B2043727970746F677261706869632050726F76696465722043535000";
    // S: a short buffer fails; M: ERROR_MORE_DATA and TRUE; N: no error at all.
    const std::tuple<DWORD, char, std::string> rows[] = {
        {3, 'S', "09000000"},  {4, 'N', name},        {5, 'S', "00010000"},  {6, 'S', "626F7800"},
        {36, 'S', "626F7800"}, {16, 'S', "01000000"}, {17, 'S', "09000000"}, {8, 'M', descriptor},
        {27, 'S', "00100000"}, {31, 'M', "01000000"}, {32, 'M', "01000000"}, {33, 'M', "01000000"},
        {34, 'S', "00040000"}, {35, 'S', "00040000"}, {38, 'M', "01000000"}, {39, 'M', "01000000"}};
    for (const auto& [param, protocol, value] : rows) {
        const auto size = static_cast<int>(value.size() / 2);
        const Answer told(TRUE, protocol == 'M' ? ERROR_MORE_DATA : UNTOUCHED, size);
        const Bytes before = buffer.first(34);
        context.containerQueried = false;
        EXPECT_EQ(get(param, 9, -1), told) << param;
        EXPECT_EQ(context.containerQueried, value == "626F7800") << param;
        EXPECT_EQ(get(param, 9, size - 1), protocol == 'S' ? Answer(FALSE, ERROR_MORE_DATA, size) : told) << param;
        EXPECT_EQ(buffer.first(34), before) << param;
        EXPECT_TRUE(std::get<0>(get(param, 9, size + 1))) << param;
        EXPECT_EQ(hex(buffer.first(length)), value) << param;
    }
    EXPECT_EQ(get(99, 0, 9), Answer(FALSE, BAD_TYPE, 9));
}

TEST_F(ProviderParamsTest, Enumerations) {
    context.keyNames = {"A", "BCD", "E", "F"};
    token().infos["T1"] = tokenInfo("AB1");
    const std::tuple<DWORD, DWORD, int, Answer, std::string> rows[] = {
        {1, 0, 32, {TRUE, UNTOUCHED, 32}, "00A400000008000008000000"},           // the first call already moves on
        {22, 6, 99, {TRUE, UNTOUCHED, 88}, "0E660000800000008000000080000000"},  // one position for both
        {1, 2, 31, {FALSE, ERROR_MORE_DATA, 32}, ""},
        {1, 4, 32, {TRUE, UNTOUCHED, 32}, "10660000"},
        {22, 5, 88, {TRUE, UNTOUCHED, 88}, "002400000008000000040000001000003000000008000000"},
        {2, 0, 9, {FALSE, ERROR_INVALID_PARAMETER, 9}, ""},
        {2, 0x21, 2, {TRUE, UNTOUCHED, 2}, "4100"},
        {2, 2, -1, {TRUE, ERROR_MORE_DATA, 4}, ""},  // moves, too
        {2, 2, 1, {TRUE, ERROR_MORE_DATA, 2}, ""},
        {2, 2, 9, {TRUE, UNTOUCHED, 2}, "4600"},
        {2, 2, 9, {FALSE, ERROR_NO_MORE_ITEMS, 9}, ""},
        {40, 1, 4, {TRUE, UNTOUCHED, 4}, "01000000"},
        {40, 0, 4, {TRUE, UNTOUCHED, 4}, "02000000"},
        {40, 1, 3, {TRUE, ERROR_MORE_DATA, 4}, ""}};
    for (const auto& [param, flags, room, answer, value] : rows) {
        EXPECT_EQ(get(param, flags, room), answer) << param << " " << value;
        EXPECT_EQ(hex(buffer.first(value.size() / 2)), value) << param;
    }
    EXPECT_EQ(token().takeCalls(), Lines(5, "getTokenInfo('T1', null)"));
    context.algorithmEnumIndex = 9;
    EXPECT_EQ(get(22, 0, 88), Answer(FALSE, ERROR_NO_MORE_ITEMS, 88));
    EXPECT_EQ(get(1, 3, 32), Answer(FALSE, ERROR_INVALID_PARAMETER, 32));
}

TEST_F(ProviderParamsTest, Set) {
    cachePin();
    token().onResult("validatePassword", {48, 0});
    // What is in force afterwards: the PIN, the random source, the window.
    const std::tuple<DWORD, Bytes, DWORD, std::string, int, std::uint64_t> rows[] = {
        {1, filled(8, 1), 0, "1234", 1, 0x807060504030201},
        {1, {}, 0, "1234", 1, 0},
        {33, {57, 0}, static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD), "1234", 1, 0},
        {32, {57, 0}, 0, "9", 1, 0},
        {32, {}, ERROR_INVALID_PARAMETER, "9", 1, 0},
        {38, {0, 0, 0, 0}, 0, "9", 0, 0},
        {38, {0, 0, 0, 1}, 0, "9", 1, 0},
        {99, {}, BAD_TYPE, "9", 1, 0}};
    for (const auto& [param, data, failure, pin, random, window] : rows) {
        const BOOL result = CPSetProvParam(handleOf(&context), param, data.empty() ? nullptr : data.data(), 7);
        EXPECT_EQ(result ? 0 : GetLastError(), failure) << param;
        EXPECT_TRUE(pinStateGetPassword("T1") == pin && g_useHardwareRng == random && context.parentWindow == window);
    }
    EXPECT_EQ(token().takeCalls(), Lines(2, "validatePassword('T1', '9', 1, 0, null)"));
}

}  // namespace
}  // namespace test
