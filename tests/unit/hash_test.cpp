// Hash objects, their copies, and keys derived from them.
#include <algorithm>
#include <memory>

#include "capi/hash.h"
#include "capi/user_keys.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const std::string SETTING = "Set hash param dwParam : 5|Set hash param dwFlags : 0|";

std::string getting(DWORD param, int mechanism) {
    return "@ dwParam : " + std::to_string(param) + "|@ mechanism : " + std::to_string(mechanism);
}

/// The library's call.
std::string update(int hash, const Bytes& data) {
    return "updateHash(" + std::to_string(hash) + ", " + hex(data) + ", null)";
}

/// The key block of an HMAC: the key, zero-filled to the block size, every byte xor `pad`.
Bytes keyBlock(Bytes key, std::size_t blockSize, unsigned pad) {
    key.resize(blockSize);
    std::transform(key.begin(), key.end(), key.begin(), [=](unsigned byte) { return static_cast<BYTE>(byte ^ pad); });
    return key;
}

class HashTest : public ProviderTest {
protected:
    void create(ALG_ID algId) {
        std::copy_n(KEY.begin(), key.symmetricKeyLength = 32, key.symmetricKey);
        EXPECT_TRUE(CPCreateHash(on, algId, handleOf(&key), 0, &h)) << algId;
        hash.reset(recordOf<HASH_CONTEXT>(h));
        token().takeCalls();
        token().hashCount = 1;
    }
    const BYTE* inner(ALG_ID algId) {
        info.HashAlgid = algId;
        return reinterpret_cast<const BYTE*>(&info);
    }

    const Bytes KEY = filled(32, 1);
    KEY_HANDLE key = {};
    HCRYPTHASH h = 0;
    std::unique_ptr<HASH_CONTEXT> hash;
    HMAC_INFO info = {};
    Guarded buffer{64};
    BYTE* const out = buffer.data();
    DWORD length = 0;
};

TEST_F(HashTest, CreateFeedAndDestroy) {
    const std::string asked = "Crete hash algorithm input : 327", hmac = asked + "77|@: HMAC|!@: ";
    const std::string sha512 = asked + "82|Crete hash algorithm 512|Crete hash algorithm : 5";
    CALL(CPCreateHash(1, 1, 0, 1, nullptr), ERROR_INVALID_PARAMETER, "!@: invalid parameter - phHash=0 hProv=1");
    CALL(CPCreateHash(OFF, 1, 0, 0x1A, &h), BAD_FLAGS, "!@: invalid dwFlags=0x0000001A");
    CALL(CPCreateHash(OFF, CALG_MD5, 0, 0, &h), BAD_UID, "!@: context not initialized");
    CALL(CPCreateHash(on, CALG_MD5, 0, 0, &h), BAD_ALGID, asked + "71|!@: MD5 blocked (FIPS policy)");
    CALL(CPCreateHash(on, CALG_SHA1, 0, 0, &h), BAD_ALGID, asked + "72|!@: SHA-1 blocked (FIPS 140-3 policy)", INFO);
    CALL(CPCreateHash(on, CALG_MAC, 0, 0, &h), BAD_ALGID, asked + "73|!@: unsupported Algid=0x00008005");
    CALL(CPCreateHash(on, CALG_HMAC, 0, 0, &h), BAD_KEY, hmac + "CALG_HMAC requires a key handle");
    CALL(CPCreateHash(on, CALG_HMAC, handleOf(&key), 0, &h), BAD_KEY, hmac + "HMAC key has no symmetric key material");
    CALL(CPCreateHash(on, CALG_SHA_512, 0, 0, &h), 0, sha512, "initHash('T1', 5, null, null)");
    CALL(CPHashData(OFF, 0, out, 2, 0), BAD_UID, "!@: invalid or uninitialized context");
    CALL(CPHashData(on, h, out, 2, ~0U), 0, "", "updateHash(1, A5A5, null)");
    EXPECT_FALSE(CPHashData(on, h, out, 0x80000000, 0)) << "more than can be put to the library";
    EXPECT_TRUE(CPSetHashParam(on, h, HP_HASHVAL, filled(64).data(), 0));
    EXPECT_FALSE(CPHashData(on, h, out, 2, 0) || GetLastError() != BAD_HASH_STATE) << "it has a value";
    CALL(CPDestroyHash(OFF, 0), BAD_UID, "!@: invalid or uninitialized context");
    CALL(CPDestroyHash(on, h), 0, "");  // the library is not told
}

TEST_F(HashTest, Parameters) {
    create(CALG_SHA_384);
    CALL(CPSetHashParam(1, 2, 9, nullptr, 1), ERROR_INVALID_PARAMETER,
         "!@: invalid parameter - hProv=1 hHash=2 pbData=0");
    CALL(CPSetHashParam(OFF, h, 9, out, 15), BAD_FLAGS, "!@: invalid dwFlags=0x0000000F");
    CALL(CPSetHashParam(OFF, h, 9, out, 0), BAD_HASH, "!@: context not initialized or hash not valid");
    CALL(CPSetHashParam(on, h, 5, out, 0), BAD_TYPE, SETTING + "!@: HP_HMAC_INFO on non-HMAC hash");
    token().on("finalHash", {{.result = 6}, {.output = filled(48)}});
    const auto reads = [&](DWORD param, DWORD size) {
        length = size;
        return CPGetHashParam(on, h, param, out, &length, 0) ? 0 : GetLastError();
    };
    EXPECT_EQ(reads(3, 0), BAD_TYPE);
    EXPECT_EQ(reads(5, 0), BAD_TYPE) << "no HMAC";
    for (const auto& [param, value] : {std::pair(1U, "0D800000"), {4U, "30000000"}}) {
        EXPECT_EQ(reads(param, 3), DWORD{ERROR_MORE_DATA});
        EXPECT_TRUE(reads(param, 4) == 0 && hex(buffer.first(4)) == value) << param;
    }
    EXPECT_EQ(reads(2, 64), FAILED);
    EXPECT_TRUE(reads(2, 47) == ERROR_MORE_DATA && reads(2, 0) == ERROR_MORE_DATA && length == 48);
    EXPECT_EQ(token().takeCalls(), Lines(2, "finalHash(1, out[48], null)")) << "finished once";
    EXPECT_TRUE(reads(2, 48) == 0 && buffer.first(48) == filled(48));
    hash->mechanism = 7;  // the type of a key that signed
    EXPECT_EQ(reads(2, 64), BAD_ALGID);
}

TEST_F(HashTest, Hmac) {
    const std::tuple<ALG_ID, int, unsigned, unsigned> rows[] = {{CALG_SHA1, 2, 20, 64}, {CALG_SHA_512, 5, 64, 128}};
    for (const auto& [algId, mechanism, digest, block] : rows) {  // SHA-1 too, whatever the token's class
        create(CALG_HMAC);
        const Bytes inside = filled(digest, 0x80), outer = filled(digest, 0xC0);
        token().on("finalHash", {{.output = inside}, {.output = outer}});
        const std::string init = "initHash('T1', " + std::to_string(mechanism) + ", null, null)|";
        const std::string room = ", out[" + std::to_string(digest) + "], null)|";
        CALL(CPSetHashParam(on, h, 5, inner(algId), 0), 0,
             SETTING + "@: HMAC initialized with inner hash algo=" + std::to_string(mechanism),
             init + update(2, keyBlock(KEY, block, 0x36)));
        CALL(CPGetHashParam(on, h, 2, out, &(length = 64), 0), 0,
             getting(2, mechanism) + "|@: HMAC finalized successfully",
             "finalHash(2" + room + init + update(3, keyBlock(KEY, block, 0x5C)) + "|" + update(3, inside) +
                 "|finalHash(3" + room);
        EXPECT_EQ(Bytes(hash->hmacKey, std::end(hash->hmacKey)), Bytes(128, 0)) << "wiped";
        EXPECT_TRUE(CPGetHashParam(on, h, 2, out, &length, 0) && buffer.first(length) == outer) << "not computed twice";
    }
    create(CALG_HMAC);
    CALL(CPSetHashParam(on, h, 5, inner(CALG_MD5), 0), BAD_ALGID,
         SETTING + "!@: unsupported HMAC inner hash 0x00008003");
    EXPECT_TRUE(CPGetHashParam(on, h, 5, out, &length, 0) && hex(buffer.first(4)) == "03800000") << "a refused one";
    EXPECT_TRUE(CPSetHashParam(on, h, 5, inner(CALG_SHA_512), 0));
    token().on("finalHash", {{.output = filled(32, 0x90)}});  // the opad block is the key now, too long for the next
    CALL(CPSetHashParam(on, h, 5, inner(CALG_SHA_256), 0), 0, SETTING + "@: HMAC initialized with inner hash algo=3",
         "initHash|" + update(3, keyBlock(KEY, 128, 0x5C)) + "|finalHash|initHash|" +
             update(4, keyBlock(filled(32, 0x90), 64, 0x36)));
}

}  // namespace
}  // namespace test
