#include "core/pin_cache.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

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
    RimmedBuffer buffer{128};
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
        {22, 2, -1, {TRUE, UNTOUCHED, 88}, ""},
        {1, 2, 31, {FALSE, ERROR_MORE_DATA, 32}, ""},
        {1, 4, 32, {TRUE, UNTOUCHED, 32}, "10660000"},  // one was skipped
        {22, 5, 88, {TRUE, UNTOUCHED, 88}, "002400000008000000040000001000003000000008000000"},
        {2, 0, 9, {FALSE, ERROR_INVALID_PARAMETER, 9}, ""},
        {2, 0x21, 2, {TRUE, UNTOUCHED, 2}, "4100"},
        {2, 2, -1, {TRUE, ERROR_MORE_DATA, 4}, ""},  // moves, too
        {2, 2, 1, {TRUE, ERROR_MORE_DATA, 2}, ""},
        {2, 2, 9, {TRUE, UNTOUCHED, 2}, "4600"},
        {2, 2, 9, {FALSE, ERROR_NO_MORE_ITEMS, 9}, ""},
        {40, 1, 4, {TRUE, UNTOUCHED, 4}, "01000000"},
        {40, 0, 4, {TRUE, UNTOUCHED, 4}, "02000000"},
        {40, 9, 4, {FALSE, ERROR_NO_MORE_ITEMS, 4}, ""},
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

TEST_F(ProviderParamsTest, CertificateChain) {
    token().keyPairs["T1"] = {keyPair(0xAA, 1, 2), keyPair(0xBB, 1, 2)};
    token().on("findCertificateForKey", {{.during = [] { token().keyCertificate.reset(); }},
                                         {.during = [] { token().keyCertificate.emplace(); }}});
    context.containerName = idText(0xAA);
    EXPECT_EQ(get(9, 0, 99), Answer(FALSE, NO_KEY, 0));
    context.containerName = idText(0xBB);
    EXPECT_EQ(get(9, 0, 99), Answer(FALSE, BAD_KEY, 99)) << "an empty record is found, but is no certificate";
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
