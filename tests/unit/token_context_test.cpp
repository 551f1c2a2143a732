#include <memory>

#include "core/container_map.h"
#include "core/device_monitor.h"
#include "core/pin_cache.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const Entry ACQUIRE("CPAcquireContext");
const std::string FLAGS = "CPAcquireContext - dwFlags : ";
const std::string RUNNING = "Monitor thread already running, not starting again.|";
const std::string LISTED = "init(0, null, 2)|getConnectedDeviceList(0, null)";
const std::string AA = idText(0xAA);
const std::string BB = idText(0xBB);

std::string opened(const std::string& serial) {
    return "|init(0, null, 2)|initDevice('" + serial + "', 0, null)";
}
std::string keysOf(const std::string& serial) {
    return "|getKeyPairList('" + serial + "', null)";
}

/// The monitor runs throughout, so that every acquire logs the same, and waits inside its poll, so that it forgets no
/// entry that a test made.
class TokenContextTest : public ProviderTest {
protected:
    static void SetUpTestSuite() {
        makeFresh();
        token().holdPolls(true);
        startDeviceMonitor();
        EXPECT_TRUE(token().waitForHeldPoll());
    }
    static void TearDownTestSuite() {
        token().holdPolls(false);
        stopDeviceMonitor();
    }

    /// Acquires, and holds what succeeds against its `container`, the effective one, `serial` and `keyNames`.
    static void expectAcquired(const char* name, DWORD flags, DWORD failure, const std::string& log,
                               const std::string& calls, const std::string& container = "",
                               const std::string& serial = "", const std::string& keyNames = "") {
        VTableProvStruc table = {};
        HCRYPTPROV handle = 0;
        const std::string silent = (flags & CRYPT_SILENT) != 0 ? "1" : "0";
        const std::string done =
            "CPAcquireContext: container=" + container + " serial=" + serial + " silent=" + silent + ", return TRUE";
        ACQUIRE([&] { return CPAcquireContext(&handle, name, flags, &table); }, failure,
                FLAGS + std::to_string(flags) + "|CPAcquireContext - isSilent : " + silent + "|" + RUNNING + log +
                    (failure == 0 ? done : ""),
                calls);
        const std::unique_ptr<CSP_CONTEXT> context(recordOf<CSP_CONTEXT>(handle));
        ASSERT_EQ(context != nullptr, failure == 0);
        if (context != nullptr) {
            EXPECT_TRUE(context->initialized && context->keysetType == 4096);
            EXPECT_EQ(context->silent, silent == "1");
            EXPECT_EQ(context->containerName, container);
            EXPECT_EQ(context->requestedContainer, name != nullptr ? name : "");
            EXPECT_EQ(context->serial, serial);
            EXPECT_EQ(context->keyNames, lines(keyNames));
        }
    }
};

TEST_F(TokenContextTest, AcquireOpensDevices) {
    const std::string relisted = "|getConnectedDeviceList(0, null)";
    const std::string unnamed = "CPAcquireContext - Container name not provided|";
    const std::string noKeys = "Acquire Context :: Key List is empty|";
    expectAcquired(nullptr, 0, 0, unnamed + noKeys, LISTED + opened("T1") + relisted + keysOf("T1"), "", "T1");
    token().setDevices({"T8", "T9", "T1"});
    token().onResult("initDevice", {-9, 0});
    expectAcquired("", 0, 0, "!Init device failed for T8 : -9|CPAcquireContext - Container name : |" + noKeys,
                   LISTED + opened("T8") + opened("T9") + relisted + keysOf("T8"), "", "T8");
    EXPECT_FALSE(pinStateIsDeviceInitialised("T8")) << "to be tried again";
    token().on("initDevice", {{.during = [] { token().setDevices({}); }}});
    expectAcquired(nullptr, 0, NO_TOKEN, unnamed + "!CPAcquireContext: no initialized device found, return FALSE",
                   LISTED + opened("T8") + relisted);
    expectAcquired("box", 0, NO_TOKEN, "!CPAcquireContext: valid token not connected, return FALSE", LISTED);
}

TEST_F(TokenContextTest, AcquireResolvesContainers) {
    token().setDevices({"T1", "T2"});
    token().keyPairs["T1"] = {keyPair(0xAA, 1, 2)};
    token().keyPairs["T2"] = {keyPair(0xBB, 1, 2), keyPair(0xB2, 2, 2)};
    pinStateMarkDeviceInitialised("T1");
    pinStateMarkDeviceInitialised("T2");
    const std::string named = "CPAcquireContext - Container name : ";
    const std::string resolved = "CPAcquireContext - resolved container ";
    const std::string searched = LISTED + "|getConnectedDeviceList(0, null)" + keysOf("T1") + keysOf("T2");
    const std::string second = BB + "|" + idText(0xB2);
    const std::string lower(32, 'b');
    expectAcquired("box", CRYPT_SILENT | CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET, 0, named + "box|" + AA + "|",
                   searched + keysOf("T1"), "box", "T1", AA);
    expectAcquired(BB.c_str(), 0, 0, named + BB + "|" + second + "|", searched + keysOf("T2"), BB, "T2", second);
    expectAcquired(lower.c_str(), 0, 0, named + lower + "|" + second + "|", searched + keysOf("T2"), lower, "T2",
                   second);
    writeContainerKeys("box", {BB, AA});
    g_containerMap["box"] = {};  // an empty list is none
    expectAcquired("box", 0, 0, named + "box|" + AA + "|" + resolved + "(registry) box -> " + BB + "|",
                   searched + keysOf("T1"), BB, "T1", AA);
    EXPECT_EQ(g_containerMap["box"], (Lines{BB, AA})) << "what the registry says is remembered";
    g_containerMap["box"] = {AA, BB};  // and comes first from then on
    expectAcquired("box", 0, 0, named + "box|" + AA + "|" + resolved + "box -> " + AA + "|", searched + keysOf("T1"),
                   AA, "T1", AA);
}

TEST_F(TokenContextTest, DeleteKeySet) {
    const std::string log = "CPAcquireContext: CRYPT_DELETEKEYSET ";
    const std::string started = log + "container=box|" + RUNNING;
    const std::string missing = log + "key " + idText(0x99) + " not found on token, skip|";
    const std::string deletingA = log + "deleting key " + AA + "|";
    const std::string deletingB = log + "deleting key " + BB + "|";
    const std::string done = log + "done, return TRUE";
    const std::string deletions = keysOf("T1") + "|deleteKeyPair('T1', " + BB +
                                  ", '1234', 1, null)|deleteKeyPair('T1', " + AA + ", '1234', 0, null)";
    const std::string silent = started + "!" + log + "CRYPT_SILENT set, cannot prompt for PIN";
    const auto map = [] {
        makeFresh();
        g_containerMap["box"] = {BB, idText(0x99), AA};
        writeContainerKeys("box", {BB, idText(0x99), AA});
        token().keyPairs["T1"] = {keyPair(0xAA, 1, 2), keyPair(0xBB, 1, 2)};
        token().keyPairs["T1"][1].tokenFlag = true;
        token().setDevices({"T1", "T2"});
        pinStateMarkDeviceInitialised("T1");
    };
    const auto deletes = [](const char* name, DWORD flags, DWORD failure, const std::string& text,
                            const std::string& calls = "", const std::vector<UserStep>& steps = {}) {
        const DWORD all = flags | CRYPT_DELETEKEYSET;
        VTableProvStruc table = {};
        HCRYPTPROV handle = 0x1234;
        const PasswordUser user(steps);
        ACQUIRE([&] { return CPAcquireContext(&handle, name, all, &table); }, failure,
                FLAGS + std::to_string(all) + "|" + text, calls);
        EXPECT_EQ(handle, 0U);
        EXPECT_EQ(g_containerMap.contains("box"), failure != 0);
        EXPECT_EQ(!readContainerKeys("box").empty(), failure != 0);
    };
    deletes(nullptr, 0, 0, log + "container=(null)|" + log + "no container name, return TRUE");
    deletes("", CRYPT_VERIFYCONTEXT, 0, log + "container=|" + log + "no container name, return TRUE");
    token().setDevices({});
    deletes("box", 0, 0, log + "container=box|" + log + "no mapped keys for container, return TRUE");
    map();
    token().setDevices({});
    deletes("box", 0, NO_TOKEN, started + "!" + log + "no token connected", LISTED);
    map();
    deletes("box", CRYPT_SILENT, SILENT, silent, LISTED);
    pinStateStore("T1", "");  // nor does a sign-on count
    deletes("box", CRYPT_SILENT, SILENT, silent, LISTED);
    deletes("box", 0, FAILED, started + ASKS_FOR_PIN + ONE_DIALOG + CANCELLED + "|!" + log + "PIN validation failed",
            LISTED + "|getTokenInfo", {cancel()});
    deletes("box", 0, 0, started + ASKS_FOR_PIN + ONE_DIALOG + LOGGED_IN + "|" + deletingB + missing + deletingA + done,
            LISTED + "|getTokenInfo|validatePassword" + deletions, {logIn("1234")});
    map();
    cachePin();
    deletes("box", CRYPT_SILENT, 0, started + deletingB + missing + deletingA + done, LISTED + deletions);
    map();
    cachePin();
    g_containerMap.clear();  // leaves the registry; and a deletion that fails does not stop the others
    token().onResult("deleteKeyPair", {77, 0});
    deletes(
        "box", 0, 0,
        started + deletingB + "!" + log + "deleteKeyPair failed for " + BB + " ret=77|" + missing + deletingA + done,
        LISTED + deletions);
    map();
    g_containerMap["box"] = {idText(0x99)};
    pinStateStore("T7", "1234");
    token().setDevices({"T7", "T1"});
    token().onResult("initDevice", {5});
    deletes("box", 0, 0, started + missing + done, LISTED + opened("T7") + keysOf("T7"));
    EXPECT_TRUE(pinStateIsDeviceInitialised("T7")) << "whatever the opening came to";
}

}  // namespace
}  // namespace test
