#include "core/container_map.h"

#include <algorithm>

#include "tests/unit/provider_test.h"

namespace test {
namespace {

constexpr char CONTAINERS[] = "SOFTWARE\\Zentok\\CSP\\Containers";

class ContainerMapTest : public ProviderTest {};

TEST_F(ContainerMapTest, Registry) {
    EXPECT_EQ(readContainerKeys("box"), Lines()) << "no key at all";
    const auto reads = [](DWORD type, const std::string& data, const Lines& keys) {
        const auto size = static_cast<DWORD>(data.size() + 1);  // with its terminator
        RegSetKeyValueA(HKEY_CURRENT_USER, CONTAINERS, "box", type, data.c_str(), size);
        EXPECT_EQ(readContainerKeys("box"), keys) << data;
        EXPECT_EQ(readContainerKeys("other"), Lines());
    };
    reads(REG_SZ, "BB,AA,BB", {"BB", "AA", "BB"});
    reads(REG_SZ, ",,AA,, BB,", {"AA", " BB"});
    reads(REG_SZ, ",,", {});
    reads(REG_SZ, "", {});
    reads(REG_SZ, std::string("AA,B\0B,CC", 9), {"AA", "B"});
    reads(REG_EXPAND_SZ, "AA", {});
    reads(REG_BINARY, "AA", {});
    reads(REG_SZ, std::string(1023, 'A'), {std::string(1023, 'A')});
    reads(REG_SZ, std::string(1024, 'A'), {});

    const auto writes = [](const Lines& keys, const std::string& expected) {
        writeContainerKeys("box", keys);
        char data[64] = {};
        DWORD size = sizeof data;
        EXPECT_EQ(RegGetValueA(HKEY_CURRENT_USER, CONTAINERS, "box", RRF_RT_REG_SZ, nullptr, data, &size),
                  ERROR_SUCCESS);
        EXPECT_EQ(std::string(data, size), expected + '\0');
    };
    writes({"BB", "AA"}, "BB,AA");
    writes({}, "");
    writeContainerKeys("other", {"BB"});
    deleteContainerKeys("box");
    deleteContainerKeys("box");  // nothing to delete is no failure
    EXPECT_EQ(readContainerKeys("other"), Lines{"BB"});
}

TEST_F(ContainerMapTest, Resolution) {
    ZentokKeyPair unterminated = keyPair(0xB3, 1, 2);
    std::fill(std::begin(unterminated.alias), std::end(unterminated.alias), 'x');
    token().keyPairs["T1"] = {keyPair(0xAA, 1, 2), keyPair(0xA2, 1, 2, "shared")};
    token().keyPairs["T2"] = {keyPair(0xBB, 1, 2, "second key"), keyPair(0xB2, 1, 2, "shared"), unterminated};
    const std::string keys1 = "|getKeyPairList('T1', null)";
    const std::string keys2 = "|getKeyPairList('T2', null)";
    const auto resolves = [](const std::string& devices, const std::string& name, const std::string& byContainer,
                             const std::string& byKey, const std::string& calls = "") {
        token().setDevices(lines(devices));
        EXPECT_EQ(resolveContainerDevice(name), byContainer) << name;
        token().takeCalls();
        EXPECT_EQ(resolveKeyDevice(std::basic_string<WCHAR>(name.begin(), name.end())), byKey) << name;
        EXPECT_EQ(token().takeCalls(), lines("getConnectedDeviceList(0, null)" + calls)) << name;
    };
    resolves("", "", "", "");
    resolves("", std::string(32, 'B'), "", "");
    resolves("T2|T1", "", "T2", "T2");
    resolves("T1|T2", std::string(32, 'B'), "T2", "T2", keys1 + keys2);
    resolves("T1|T2", std::string(32, 'b'), "T2", "T2", keys1 + keys2);
    resolves("T1|T2", std::string(32, 'A'), "T1", "T1", keys1);
    resolves("T1|T2", std::string(31, 'B'), "T1", "T1", keys1 + keys2);
    resolves("T1|T2", std::string(33, 'B'), "T1", "T1", keys1 + keys2);
    resolves("T1|T2", "SECOND KEY", "T1", "T2", keys1 + keys2);
    resolves("T2|T1", "Shared", "T2", "T2", keys2);
    resolves("T1|T2", std::string(129, 'x'), "T1", "T2", keys1 + keys2);
    resolves("T1|T2", std::string(130, 'x'), "T1", "T1", keys1 + keys2);
    EXPECT_EQ(resolveKeyDevice(std::basic_string<WCHAR>(32, static_cast<WCHAR>(0x0100 + 'B'))), "T2")
        << "only the low byte of each character counts";
}

}  // namespace
}  // namespace test
