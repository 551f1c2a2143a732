#include <memory>

#include "capi/hash.h"
#include "capi/user_keys.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

class HashCopyTest : public ProviderTest {
protected:
    // The last error, 0 for a call that succeeds.
    DWORD duplicate() { return CPDuplicateHash(handleOf(&context), created, nullptr, 0, &made) ? 0 : GetLastError(); }
    DWORD derive(ALG_ID algId) {
        return CPDeriveKey(handleOf(&context), algId, created, 7, &made) ? 0 : GetLastError();
    }
    void create() {
        token().hashCount = 0;
        EXPECT_TRUE(CPCreateHash(handleOf(&context), CALG_SHA_256, 0, 0, &created));
        hash.reset(recordOf<HASH_CONTEXT>(created));
        token().takeCalls();
    }
    const CSP_CONTEXT context = contextOn("");  // neither needs a token
    std::unique_ptr<HASH_CONTEXT> hash;
    ULONG_PTR created = 0;
    ULONG_PTR made = 0;
};

TEST_F(HashCopyTest, Duplicate) {
    create();
    hash->credentialIdLength = 16;
    hash->credentialId[15] = hash->hmacKey[0] = 7;
    hash->mechanism = 4;  // as a signature leaves it
    // The library, as it may, scribbles over the value while it refuses.
    token().on("finalHash", {{.result = -3, .during = [this] { hash->hashValue[0] = 0xEE; }}, {.output = filled(32)}});
    EXPECT_EQ(duplicate(), FAILED);
    EXPECT_TRUE(!hash->finalized && hash->hashValue[0] == 0);
    for (int i = 0; i < 2; ++i) {  // the second time it is finished
        EXPECT_EQ(duplicate(), 0U);
        const std::unique_ptr<HASH_CONTEXT> copy(recordOf<HASH_CONTEXT>(made));
        EXPECT_TRUE(copy->finalized && copy->valid && copy->hashAlgorithm == 3 && copy->digestLen == 32);
        EXPECT_EQ(Bytes(copy->hashValue, copy->hashValue + copy->hashLen), filled(32));
        EXPECT_TRUE(copy->credentialId[15] == 7 && copy->credentialIdLength == 16 && copy->mechanism == 4);
        EXPECT_TRUE(copy->tokenHash == nullptr && copy->hmacKey[0] == 0);
    }
    EXPECT_EQ(token().takeCalls(), Lines(2, "finalHash(1, out[32], null)"));
}

TEST_F(HashCopyTest, Derive) {
    for (const auto& [algId, keySize, size] : {std::tuple{CALG_AES_128, 16U, 64U}, {CALG_AES_256, 32U, 20U}}) {
        create();
        EXPECT_EQ(derive(CALG_3DES), BAD_ALGID);
        token().on("finalHash", {{.result = 9}, {.output = filled(size, 1)}});
        EXPECT_EQ(derive(static_cast<ALG_ID>(algId)), FAILED);
        for (int i = 0; i < 2; ++i) {  // the second time from the value
            EXPECT_EQ(derive(static_cast<ALG_ID>(algId)), 0U);
            const std::unique_ptr<KEY_HANDLE> key(recordOf<KEY_HANDLE>(made));
            Bytes expected = filled(size, 1);
            expected.resize(keySize);
            EXPECT_EQ(Bytes(key->symmetricKey, key->symmetricKey + key->symmetricKeyLength), expected);
            EXPECT_TRUE(key->bitSize == 8 * keySize && key->keyUsage == 3 && !hash->finalized);
        }
        EXPECT_EQ(token().takeCalls(), Lines(2, "finalHash(1, out[128], null)"));
    }
}

}  // namespace
}  // namespace test
