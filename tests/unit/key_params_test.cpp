#include <algorithm>
#include <cstring>

#include "capi/user_keys.h"
#include "core/process_iv.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

using Answer = std::tuple<BOOL, DWORD, DWORD>;  // result, last error, length afterwards

class KeyParamsTest : public ProviderTest {
protected:
    Answer get(DWORD param, BYTE* data, DWORD size) {
        length = size;
        SetLastError(UNTOUCHED);
        return {CPGetKeyParam(handleOf(&context), handleOf(&key), param, data, &length, 7), GetLastError(), length};
    }
    bool set(DWORD param, const BYTE* data) {
        return CPSetKeyParam(handleOf(&context), handleOf(&key), param, data, 7) != FALSE;
    }
    CSP_CONTEXT context = contextOn("T1");
    KEY_HANDLE key = {};
    RimmedBuffer buffer{64};
    DWORD length = 0;
};

TEST_F(KeyParamsTest, Values) {
    key.mode = 2;
    key.algId = 0xA400;
    key.bitSize = 3072;
    const Answer told(TRUE, UNTOUCHED, 4);
    const Answer tooSmall(FALSE, ERROR_MORE_DATA, 4);
    for (const auto& [param, value] : {std::pair{4U, 2U}, {6U, 12U}, {7U, 0xA400U}, {8U, 3072U}, {9U, 3072U}}) {
        EXPECT_EQ(get(param, nullptr, 9), told) << param;
        EXPECT_EQ(get(param, buffer.data(), 0), param == KP_MODE ? tooSmall : told) << param;
        EXPECT_EQ(get(param, buffer.data(), 3), tooSmall) << param;
        EXPECT_EQ(get(param, buffer.data(), 9), told) << param;
        EXPECT_EQ(std::memcmp(buffer.data(), &value, 4), 0) << param;
    }
    for (key.keyUsage = 1; key.keyUsage < 5; ++key.keyUsage) {
        get(KP_PERMISSIONS, buffer.data(), 4);
        EXPECT_EQ(buffer.data()[0], 12 + key.keyUsage % 4);
    }
    EXPECT_EQ(get(KP_IV, nullptr, 5), Answer(FALSE, BAD_TYPE, 5));
}

TEST_F(KeyParamsTest, Writes) {
    const Bytes data = filled(16);
    for (const DWORD param : {3U, 6U, 2U, 4U}) {
        EXPECT_TRUE(set(param, nullptr) && key.mode == 0 && set(param, data.data())) << param;
    }
    EXPECT_EQ(key.mode, 0x03020100U);
    for (const auto& [algId, size] : {std::pair{10U, 16U}, {0x6610U, 16U}, {11U, 8U}, {8U, 8U}}) {
        key.algId = algId;
        EXPECT_TRUE(set(KP_IV, data.data()));
        EXPECT_EQ(*processIv(), filled(size)) << algId;
    }
    setProcessIv({});
}

TEST_F(KeyParamsTest, CertificateRead) {
    token().onResult("initDevice", {5});  // ignored
    EXPECT_EQ(get(26, nullptr, 9), Answer(FALSE, static_cast<DWORD>(NTE_NOT_FOUND), 9));
    EXPECT_EQ(token().takeCalls(),
              lines("initDevice('T1', 1, null)|findCertificateForKey('T1', " + idText(0) + ", null)"));
    token().keyCertificate.emplace().certificateLength = 3;
    EXPECT_EQ(get(26, buffer.data(), 0), Answer(TRUE, UNTOUCHED, 3));
    EXPECT_EQ(get(26, buffer.data(), 2), Answer(FALSE, ERROR_MORE_DATA, 3));
    EXPECT_EQ(get(26, buffer.data(), 9), Answer(TRUE, UNTOUCHED, 3));
    EXPECT_EQ(hex(buffer.first(4)), "000000A5");
}

TEST_F(KeyParamsTest, CertificateWrite) {
    auto* pages = static_cast<BYTE*>(VirtualAlloc(nullptr, 0x2000, MEM_RESERVE, PAGE_NOACCESS));
    VirtualAlloc(pages, 0x1000, MEM_COMMIT, PAGE_READWRITE);
    const Bytes refused[] = {
        {0x31, 0},       {0x30, 0x80},    {0x30, 0x84, 0, 0},       {0x30},
        {0x30, 0x82, 1}, {0x30, 3, 1, 2}, {0x30, 0x82, 0x0B, 0xFD}, {0x30, 0x83, 0xFF, 0xFF, 0xFF}};
    for (const Bytes& der : refused) {  // each at the end of what can be read
        BYTE* const start = pages + 0x1000 - der.size();
        std::copy(der.begin(), der.end(), start);
        EXPECT_TRUE(!set(26, start) && GetLastError() == static_cast<DWORD>(NTE_BAD_DATA)) << hex(der);
    }
    VirtualFree(pages, 0, MEM_RELEASE);
    EXPECT_EQ(token().takeCalls(), Lines()) << "refused before the login";
    const Bytes least = {0x30, 0};
    context.silent = true;
    EXPECT_TRUE(!set(26, least.data()) && GetLastError() == FAILED);

    const auto imports = [&](Bytes der, std::size_t size, const std::string& pin) {
        der.resize(size + 10, 0x55);  // what follows is not the certificate's
        EXPECT_TRUE(set(26, der.data()));
        der.resize(size);
        const Lines calls = token().takeCalls();
        const std::string import =
            "importCertificate('T1', '" + pin + "', " + idText(0) + ", " + hex(der) + ", 0000, 'name', null)";
        EXPECT_EQ(std::count(calls.begin(), calls.end(), import), 1) << import;
    };
    std::strcpy(key.alias, "name");
    key.keyLabelLength = 2;
    token().infos["T1"] = tokenInfo("AB1", 1, 1);
    imports({0x30, 0x7F}, 0x81, "");  // signed on
    cachePin();
    imports({0x30, 0x82, 0x0B, 0xFC}, 3072, "1234");
    imports({0x30, 0x83, 0, 1, 2}, 0x107, "1234");
}

}  // namespace
}  // namespace test
