#include "core/log.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const Entry ACQUIRE("CPAcquireContext");
const Entry RELEASE("CPReleaseContext");
const Entry GEN_RANDOM("CPGenRandom");

class ContextTest : public ProviderTest {};

TEST_F(ContextTest, AcquireChecksItsPointersFirst) {
    HCRYPTPROV handle = 0x1234;
    VTableProvStruc table = {};
    const auto acquire = [](HCRYPTPROV* phProv, VTableProvStruc* pVTable, DWORD flags) {
        ACQUIRE([=] { return CPAcquireContext(phProv, "name", flags, pVTable); }, ERROR_INVALID_PARAMETER,
                "!CPAcquireContext: invalid parameter - phProv=" + pointerText(phProv) +
                    " pVTable=" + pointerText(pVTable));
    };
    acquire(nullptr, &table, 0);
    acquire(&handle, nullptr, CRYPT_DELETEKEYSET);
    acquire(nullptr, nullptr, CRYPT_VERIFYCONTEXT);
    EXPECT_EQ(handle, 0x1234U) << "written only on success";
}

TEST_F(ContextTest, VerificationContext) {
    VTableProvStruc table = {};
    for (const DWORD flags : std::vector<DWORD>{0xF0000000, 0x10000000, 0x20000000, 0x40000048, 0x80000060}) {
        HCRYPTPROV handle = 0;
        const bool silent = (flags & 0x40) != 0;
        ACQUIRE([&] { return CPAcquireContext(&handle, "name", flags, &table); }, 0,
                "CPAcquireContext - dwFlags : " + std::to_string(flags) + "|CPAcquireContext - isSilent : " +
                    std::to_string(silent) + "|CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE");
        const auto* context = recordOf<const CSP_CONTEXT>(handle);
        ASSERT_TRUE(context != nullptr && context->initialized);
        EXPECT_TRUE(context->silent == silent && context->keysetType == 4096);
        EXPECT_EQ(context->serial + context->containerName + context->requestedContainer, "");
        RELEASE([&] { return CPReleaseContext(handle, 0xABCD); }, BAD_FLAGS,
                "!CPReleaseContext: invalid dwFlags=0x0000ABCD");
        RELEASE([&] { return CPReleaseContext(handle, 0); }, 0, "");
    }
    const std::string invalid = "!CPReleaseContext: invalid or uninitialized context";
    RELEASE([] { return CPReleaseContext(0, 1); }, BAD_FLAGS, "!CPReleaseContext: invalid dwFlags=0x00000001");
    RELEASE([] { return CPReleaseContext(0, 0); }, BAD_UID, invalid);
    RELEASE([] { return CPReleaseContext(handleOf(&UNINITIALISED), 0); }, BAD_UID, invalid);
}

TEST_F(ContextTest, GenRandom) {
    const CSP_CONTEXT none = contextOn("");
    const CSP_CONTEXT on = contextOn("T1");
    RimmedBuffer buffer(16);
    const auto draw = [&](const CSP_CONTEXT* context, DWORD length, bool hasBuffer = true) {
        return [=, &buffer] { return CPGenRandom(handleOf(context), length, hasBuffer ? buffer.data() : nullptr); };
    };
    const auto script = [](int result, unsigned char hardwareRng) {
        g_useHardwareRng = hardwareRng;
        token().on("generateRamdomNumber", {{.result = result, .output = filled(16)}});
    };
    const std::string badBuffer = "!CPGenRandom: invalid buffer or length, cbLen=";
    const std::string noToken = "CPGenRandom: no token, using software RNG";
    const std::string tokenless = "generateRamdomNumber('', out[16], 1, null)";
    GEN_RANDOM(draw(nullptr, 16), BAD_UID, "!CPGenRandom: context is null or not initialized");
    GEN_RANDOM(draw(&UNINITIALISED, 0, false), BAD_UID, "!CPGenRandom: context is null or not initialized");
    GEN_RANDOM(draw(&on, 16, false), ERROR_INVALID_PARAMETER, badBuffer + "16");
    GEN_RANDOM(draw(&none, 0), ERROR_INVALID_PARAMETER, badBuffer + "0");
    EXPECT_FALSE(draw(&on, 0x80000000)()) << "more than can be put to the library";
    script(-7, 1);
    GEN_RANDOM(draw(&none, 16), DLL_FAIL, noToken + "|!CPGenRandom: software RNG failed: -7", tokenless);
    GEN_RANDOM(draw(&on, 16), DLL_FAIL, "!Random number generation failed: -7", "generateRamdomNumber");
    script(0, 0);
    GEN_RANDOM(draw(&none, 16), 0, noToken, tokenless);
    GEN_RANDOM(draw(&on, 16), 0, "", "generateRamdomNumber('T1', out[16], 1, null)");
    script(0, 1);
    GEN_RANDOM(draw(&on, 16), 0, "", "generateRamdomNumber('T1', out[16], 0, null)");
    EXPECT_EQ(buffer.first(16), filled(16));
}

}  // namespace
}  // namespace test
