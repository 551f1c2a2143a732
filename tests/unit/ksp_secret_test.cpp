#include "cng/secret.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

using KspSecretTest = KspTest;

TEST_F(KspSecretTest, Agreement) {
    KSP_KEY own = keyObject(5, 256);
    KSP_KEY peer = keyObject(5, 256, {4, 1, 2});
    own.credentialIdLength = 16;
    NCRYPT_SECRET_HANDLE handle = 0;
    const auto agree = [&](const KSP_KEY* privateKey) {
        return KSPSecretAgreement(handleOf(&provider), handleOf(privateKey), handleOf(&peer), &handle, 7);
    };
    token().on("ecdhDerive", {{.output = filled(32, 9)}, {.output = filled(67, 9)}, {.result = 7}, {.output = {}}});
    for (const std::size_t kept : {32U, 66U}) {
        expect([&] { return succeeds(agree(&own)); }, 0,
               "KSPSecretAgreement|" + KSP_CACHED +
                   "|KSPSecretAgreement: ECDH shared secret computed, len=" + std::to_string(kept),
               "ecdhDerive('T1', " + AA + ", '1234', 040102, block, null)");
        const auto bytes = recordOf<KSP_SECRET>(handle)->bytes();
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), filled(kept, 9));
        EXPECT_EQ(KSPFreeSecret(0, std::exchange(handle, 0)), 0);
    }
    EXPECT_EQ(agree(&own), NTE_INTERNAL_ERROR);
    EXPECT_EQ(agree(&own), NTE_INTERNAL_ERROR) << "success without a value";
    for (const Bytes& publicKey : {Bytes{}, Bytes{4, 1}, Bytes{2, 1, 2}}) {
        peer = keyObject(5, 256, publicKey);
        EXPECT_EQ(agree(&own), NTE_BAD_KEY);
    }
    own.credentialIdLength = 0;
    EXPECT_EQ(agree(&own), NTE_BAD_KEY);
    provider.firmwareVersion = "1.9.9";
    EXPECT_EQ(agree(nullptr), NTE_NOT_SUPPORTED) << "asked before the keys";
    EXPECT_EQ(handle, 0U);
}

TEST_F(KspSecretTest, Derivation) {
    KSP_SECRET secret = {.secretValue = {9, 9}, .secretLength = 2, .provider = &provider};
    Bytes data = {0xA1, 0xA2};
    WCHAR names[] = TEXT("SHA384\0SHA224SHA1SHA512\0sha1");
    const struct {
        const WCHAR* kdf;
        WCHAR* hash;
        DWORD nameSize, room, size, digest;
        std::string selector, input;
    } rows[] = {{TEXT("SP800_56ACONCAT"), names, 18, 100, 48, 48, "4", "A1A1A20909"},
                {TEXT("HASH"), names + 13, 8, 16, 16, 20, "2", "0909"},
                {nullptr, names + 17, 14, 65, 64, 64, "5", "0909"},
                {nullptr, names + 24, 10, 300, 32, 32, "3", "0909"},
                {nullptr, nullptr, 10, 0, 32, 32, "3", "0909"}};  // a buffer without room
    for (const auto& row : rows) {
        NCryptBuffer parameters[] = {{1, KDF_LABEL, data.data()},
                                     {2, KDF_HASH_ALGORITHM, data.data()},
                                     {row.nameSize, KDF_HASH_ALGORITHM, row.hash},
                                     {2, KDF_CONTEXT, data.data()},
                                     {0, KDF_LABEL, data.data()}};
        NCryptBufferDesc list = {77, static_cast<ULONG>(std::size(parameters)), parameters};
        RimmedBuffer key(row.room);
        token().hashCount = 0;
        token().on("finalHash", {{.output = filled(row.digest)}});
        expect(
            [&] {
                return succeeds(KSPDeriveKey(0, handleOf(&secret), row.kdf, &list, key.data(), row.room, &length, 7));
            },
            row.room != 0 ? 0 : TOO_SMALL,
            row.room != 0 ? "KSPDeriveKey|KSPDeriveKey: derived " + std::to_string(row.size) + " bytes"
                          : "KSPDeriveKey|!KSPDeriveKey: output buffer too small",
            "initHash('T1', " + row.selector + ", null, null)|updateHash(1, " + row.input +
                ", null)|finalHash(1, out[" + std::to_string(row.digest) + "], null)");
        EXPECT_EQ(length, row.size);
        EXPECT_EQ(key.first(std::min(row.room, row.size)), filled(std::min(row.room, row.size)));
    }
    const auto derive = [&] {
        return KSPDeriveKey(0, handleOf(&secret), nullptr, nullptr, buffer.data(), 300, &length, 0);
    };
    token().on("finalHash", {{.length = 33}, {.result = 8}});
    EXPECT_EQ(derive(), NTE_INTERNAL_ERROR) << "more than a digest";
    EXPECT_EQ(derive(), NTE_INTERNAL_ERROR);
    provider.firmwareVersion = "";
    EXPECT_EQ(derive(), NTE_NOT_SUPPORTED);
}

}  // namespace
}  // namespace test
