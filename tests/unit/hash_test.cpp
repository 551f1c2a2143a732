#include "capi/hash.h"

#include <memory>

#include "capi/user_keys.h"
#include "core/log.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const Entry CREATE("CPCreateHash");
const Entry HASH_DATA("CPHashData");
const Entry DESTROY("CPDestroyHash");
const Entry SET("CPSetHashParam");
const Entry GET("CPGetHashParam");

// The library's calls.
std::string init(int mechanism, const std::string& serial = "T1") {
    return "initHash('" + serial + "', " + std::to_string(mechanism) + ", null, null)";
}
std::string update(int hash, const Bytes& data) {
    return "updateHash(" + std::to_string(hash) + ", " + hex(data) + ", null)";
}
std::string finish(int hash, std::size_t room) {
    return "finalHash(" + std::to_string(hash) + ", out[" + std::to_string(room) + "], null)";
}

// What a parameter call logs once its checks have passed.
std::string setting(int param) {
    return "Set hash param dwParam : " + std::to_string(param) + "|Set hash param dwFlags : 0";
}
std::string getting(int param, int mechanism) {
    return "CPGetHashParam dwParam : " + std::to_string(param) +
           "|CPGetHashParam mechanism : " + std::to_string(mechanism);
}

/// The key block of an HMAC: the key, zero-filled to the block size, every byte xor `pad`.
Bytes padded(Bytes key, std::size_t blockSize, unsigned char pad) {
    key.resize(blockSize);
    for (unsigned char& byte : key) {
        byte ^= pad;
    }
    return key;
}

KEY_HANDLE aesKey(const Bytes& bytes) {
    KEY_HANDLE key = {};
    std::copy(bytes.begin(), bytes.end(), key.symmetricKey);
    key.symmetricKeyLength = static_cast<std::uint32_t>(bytes.size());
    return key;
}

class HashTest : public ProviderTest {
protected:
    HCRYPTPROV provider() { return handleOf(&context); }
    HCRYPTHASH handle() { return handleOf(hash.get()); }
    void create(ALG_ID algId) {
        HCRYPTHASH created = 0;
        EXPECT_TRUE(CPCreateHash(provider(), algId, handleOf(&key), 0, &created)) << algId;
        hash.reset(recordOf<HASH_CONTEXT>(created));
        token().takeCalls();
    }
    std::function<bool()> setHmacInfo(ALG_ID inner) {
        return [=, this] {
            const HMAC_INFO info = {inner, nullptr, 0, nullptr, 0};
            return CPSetHashParam(provider(), handle(), HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0) != FALSE;
        };
    }
    std::function<bool()> read(DWORD param, BYTE* data) {
        return [=, this] { return CPGetHashParam(provider(), handle(), param, data, &length, 0) != FALSE; };
    }

    CSP_CONTEXT context = contextOn("T1");
    KEY_HANDLE key = aesKey(filled(32, 1));
    std::unique_ptr<HASH_CONTEXT> hash;
    RimmedBuffer buffer{64};
    DWORD length = 0;
};

TEST_F(HashTest, Create) {
    const CSP_CONTEXT none = contextOn("");
    const KEY_HANDLE empty = {};
    const std::string info = "getTokenInfo('T1', null)";
    const auto asked = [](ALG_ID algId) { return "Crete hash algorithm input : " + std::to_string(algId) + "|"; };
    const std::string hmac = asked(0x8009) + "CPCreateHash: HMAC";
    const std::string blocked = asked(0x8004) + "!CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)";
    const std::string invalid = "!CPCreateHash: invalid parameter - phHash=";
    HCRYPTHASH created = 0;
    const auto creation = [&](const CSP_CONTEXT* on, ALG_ID algId, const KEY_HANDLE* hmacKey = nullptr,
                              DWORD flags = 0) {
        return [=, &created] {
            created = 0;
            const BOOL result = CPCreateHash(handleOf(on), algId, handleOf(hmacKey), flags, &created);
            EXPECT_EQ(created != 0, result != FALSE);
            const std::unique_ptr<HASH_CONTEXT> record(recordOf<HASH_CONTEXT>(created));
            EXPECT_TRUE(record == nullptr || (record->valid && !record->finalized && record->hashLen == 0 &&
                                              record->isHmac == (algId == CALG_HMAC)));
            return result != FALSE;
        };
    };
    CREATE([] { return CPCreateHash(handleOf(&UNINITIALISED), 1, 0, 1, nullptr); }, ERROR_INVALID_PARAMETER,
           invalid + "0 hProv=" + pointerText(&UNINITIALISED));
    CREATE(creation(nullptr, 1, nullptr, 1), ERROR_INVALID_PARAMETER, invalid + pointerText(&created) + " hProv=0");
    CREATE(creation(&UNINITIALISED, 1, nullptr, 0x1A), BAD_FLAGS, "!CPCreateHash: invalid dwFlags=0x0000001A");
    CREATE(creation(&UNINITIALISED, CALG_MD5), BAD_UID, "!CPCreateHash: context not initialized");
    CREATE(creation(&context, CALG_MD5), BAD_ALGID, asked(0x8003) + "!CPCreateHash: MD5 blocked (FIPS policy)");
    CREATE(creation(&context, CALG_SHA1), BAD_ALGID, blocked, info);
    token().infos["T1"] = tokenInfo("AB1");
    CREATE(creation(&none, CALG_SHA1), BAD_ALGID, blocked);
    CREATE(creation(&context, CALG_SHA1), 0,
           asked(0x8004) + "CPCreateHash: SHA-1 (FIPS 140-2 token)|Crete hash algorithm : 2", info + "|" + init(2));
    CREATE(creation(&none, CALG_SHA_256), 0, asked(0x800C) + "Crete hash algorithm 256|Crete hash algorithm : 3",
           init(3, ""));
    CREATE(creation(&context, CALG_SHA_384), 0, asked(0x800D) + "Crete hash algorithm 384|Crete hash algorithm : 4",
           init(4));
    CREATE(creation(&context, CALG_HMAC, &key), 0, hmac);
    CREATE(creation(&context, CALG_HMAC), BAD_KEY, hmac + "|!CPCreateHash: CALG_HMAC requires a key handle");
    CREATE(creation(&context, CALG_HMAC, &empty), BAD_KEY,
           hmac + "|!CPCreateHash: HMAC key has no symmetric key material");
    CREATE(creation(&context, CALG_MAC, &key), BAD_ALGID,
           asked(0x8005) + "!CPCreateHash: unsupported Algid=0x00008005");
    token().onResult("initHash", {-3});
    CREATE(creation(&context, CALG_SHA_512), FAILED,
           asked(0x800E) +
               "Crete hash algorithm 512|Crete hash algorithm : 5|!CPCreateHash: zentok_initHash failed, ret=-3",
           init(5));
}

TEST_F(HashTest, HashDataAndDestroy) {
    create(CALG_SHA_256);
    const Bytes data = filled(5);
    HASH_CONTEXT done = {};
    done.finalized = true;
    const HASH_CONTEXT invalid = {};  // a clear valid flag does not count here
    const auto feed = [&](const CSP_CONTEXT* on, const HASH_CONTEXT* record, DWORD size = 5) {
        return [=, &data] { return CPHashData(handleOf(on), handleOf(record), data.data(), size, ~0U); };
    };
    HASH_DATA(feed(nullptr, &done), BAD_UID, "!CPHashData: invalid or uninitialized context");
    HASH_DATA(feed(&UNINITIALISED, nullptr), BAD_UID, "!CPHashData: invalid or uninitialized context");
    HASH_DATA(feed(&context, nullptr), BAD_HASH, "!CPHashData: pHashHandle is NULL");
    HASH_DATA(feed(&context, &done), BAD_HASH_STATE,
              "!CPHashData: hash already finalized (HP_HASHVAL was set), cannot add more data");
    HASH_DATA(feed(&context, hash.get()), 0, "", update(1, data));
    token().onResult("updateHash", {9});
    HASH_DATA(feed(&context, &invalid), FAILED, "!CPHashData: zentok_updateHash failed, ret=9",
              "updateHash(null, 0001020304, null)");
    EXPECT_FALSE(feed(&context, hash.get(), 0x80000000)()) << "more than can be put to the library";

    const auto destroy = [](const CSP_CONTEXT* on, const HASH_CONTEXT* record) {
        return [=] { return CPDestroyHash(handleOf(on), handleOf(record)); };
    };
    DESTROY(destroy(nullptr, nullptr), BAD_UID, "!CPDestroyHash: invalid or uninitialized context");
    DESTROY(destroy(&UNINITIALISED, nullptr), BAD_UID, "!CPDestroyHash: invalid or uninitialized context");
    DESTROY(destroy(&context, nullptr), BAD_HASH, "!CPDestroyHash: pHashHandle is NULL");
    DESTROY(destroy(&context, hash.release()), 0, "");  // the library is not told
    expect([] { return CPHashSessionKey(0, 7, 0xFFFFFFFFFFULL, 9); }, ERROR_CALL_NOT_IMPLEMENTED,
           "CPHashSessionKey|!CPHashSessionKey: not supported, hHash=7 hKey=1099511627775 dwFlags=9");
}

TEST_F(HashTest, ParameterChecks) {
    create(CALG_SHA_256);
    const HASH_CONTEXT invalid = {};
    const auto expectBoth = [&](const CSP_CONTEXT* on, const HASH_CONTEXT* record, bool hasPointer, DWORD flags,
                                DWORD failure, const std::string& text) {
        const HCRYPTPROV hProv = handleOf(on);
        const HCRYPTHASH hHash = handleOf(record);
        const std::string handles = "invalid parameter - hProv=" + pointerText(hProv) + " hHash=" + pointerText(hHash);
        BYTE* const data = hasPointer ? buffer.data() : nullptr;
        DWORD* const size = hasPointer ? &length : nullptr;
        SET([&] { return CPSetHashParam(hProv, hHash, 99, data, flags); }, failure,
            "!CPSetHashParam: " + (text.empty() ? handles + " pbData=" + pointerText(data) : text));
        GET([&] { return CPGetHashParam(hProv, hHash, 99, buffer.data(), size, flags); }, failure,
            "!CPGetHashParam: " + (text.empty() ? handles + " pcbDataLen=" + pointerText(size) : text));
    };
    expectBoth(nullptr, &invalid, true, 1, ERROR_INVALID_PARAMETER, "");
    expectBoth(&UNINITIALISED, nullptr, true, 1, ERROR_INVALID_PARAMETER, "");
    expectBoth(&UNINITIALISED, &invalid, false, 1, ERROR_INVALID_PARAMETER, "");
    expectBoth(&UNINITIALISED, &invalid, true, 0xF, BAD_FLAGS, "invalid dwFlags=0x0000000F");
    expectBoth(&UNINITIALISED, hash.get(), true, 0, BAD_HASH, "context not initialized or hash not valid");
    expectBoth(&context, &invalid, true, 0, BAD_HASH, "context not initialized or hash not valid");
    SET([&] { return CPSetHashParam(provider(), handle(), 0x1B, buffer.data(), 0); }, BAD_TYPE,
        setting(0x1B) + "|!CPSetHashParam: unsupported dwParam=0x0000001B");
    SET(setHmacInfo(CALG_SHA_256), BAD_TYPE, setting(5) + "|!CPSetHashParam: HP_HMAC_INFO on non-HMAC hash");
    GET(read(3, nullptr), BAD_TYPE, getting(3, 3) + "|!CPGetHashParam: unsupported dwParam=0x00000003");
    GET(read(5, nullptr), BAD_TYPE, getting(5, 3) + "|!CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC");
}

TEST_F(HashTest, ReadsByMechanism) {
    constexpr ALG_ID ALGORITHMS[] = {0, 0, 0x8004, 0x800C, 0x800D, 0x800E, 0, 0};  // 0: refused
    constexpr DWORD SIZES[] = {0, 0, 20, 32, 48, 64, 0, 0};
    for (const bool isHmac : {false, true}) {
        create(isHmac ? CALG_HMAC : CALG_SHA_256);
        for (int mechanism = 0; mechanism <= 7; ++mechanism) {  // also the key types that a signature leaves there
            hash->mechanism = mechanism;
            const bool known = SIZES[mechanism] != 0;
            const auto expectRead = [&](int param, BYTE* data, bool answers, const std::string& name,
                                        const std::string& log) {
                const std::string refused =
                    "|!CPGetHashParam: " + name + " unsupported mechanism=" + std::to_string(mechanism);
                GET(read(static_cast<DWORD>(param), data), answers ? 0 : BAD_ALGID,
                    getting(param, mechanism) + (answers ? log : refused));
            };
            for (const int param : {1, 4}) {  // whose size is answered without a look at the mechanism
                length = 0;
                EXPECT_TRUE(read(static_cast<DWORD>(param), nullptr)());
                EXPECT_EQ(std::exchange(length, 3), 4U);
                GET(read(static_cast<DWORD>(param), buffer.data()), ERROR_MORE_DATA,
                    getting(param, mechanism) + "|!CPGetHashParam: " + (param == 1 ? "HP_ALGID" : "HP_HASHSIZE") +
                        " buffer too small");
                EXPECT_EQ(length, 4U);
            }
            DWORD answer = 0;
            auto* const data = reinterpret_cast<BYTE*>(&answer);
            expectRead(1, data, known || isHmac, "HP_ALGID", "|Get hash param success");
            EXPECT_EQ(std::exchange(answer, 0), isHmac ? CALG_HMAC : ALGORITHMS[mechanism]);
            expectRead(4, data, known, "HP_HASHSIZE",
                       "|Get hash param hashSize : " + std::to_string(SIZES[mechanism]) + "|Get hash param success");
            EXPECT_EQ(answer, SIZES[mechanism]);
            length = 0;
            expectRead(2, nullptr, known, "HP_HASHVAL", "");
            EXPECT_EQ(length, SIZES[mechanism]);
        }
    }
}

TEST_F(HashTest, Value) {
    create(CALG_SHA_384);
    const std::string tooSmall = "|!CPGetHashParam: HP_HASHVAL buffer too small for ";
    const auto readValue = read(HP_HASHVAL, buffer.data());
    token().on("finalHash", {{.result = 6}, {.length = -1}, {.length = 129}, {.output = filled(48)}});
    length = 64;
    GET(readValue, FAILED, getting(2, 4) + "|!CPGetHashParam: zentok_finalHash failed, ret=6", finish(1, 48));
    EXPECT_FALSE(readValue() || readValue() || hash->finalized) << "lengths that lie outside";
    length = 47;
    token().takeCalls();
    GET(readValue, ERROR_MORE_DATA, getting(2, 4) + tooSmall + "finalized hash", finish(1, 48));
    EXPECT_EQ(std::exchange(length, 0), 48U);
    GET(readValue, ERROR_MORE_DATA, getting(2, 4) + tooSmall + "cached hash value");
    EXPECT_EQ(length, 48U);
    GET(readValue, 0, getting(2, 4));
    EXPECT_EQ(buffer.first(48), filled(48));
    for (const unsigned char first : Bytes{0x77, 0x88}) {  // on a finished hash, and twice
        SET([&] { return CPSetHashParam(provider(), handle(), 2, filled(48, first).data(), 0); }, 0, setting(2));
        EXPECT_TRUE(readValue());
        EXPECT_EQ(buffer.first(48), filled(48, first));
    }
    create(CALG_SHA_256);
    token().on("finalHash", {{.output = filled(32), .length = 100}});
    length = 64;
    EXPECT_FALSE(readValue()) << "a length inside the record and outside the caller's buffer";
}

TEST_F(HashTest, HmacChains) {
    const struct {
        ALG_ID inner;
        int mechanism;
        std::size_t digest;
        std::size_t block;
    } rows[] = {
        {CALG_SHA1, 2, 20, 64}, {CALG_SHA_256, 3, 32, 64}, {CALG_SHA_384, 4, 48, 128}, {CALG_SHA_512, 5, 64, 128}};
    token().infos["T1"] = tokenInfo("AB3");  // the class plays no part, for SHA-1 neither
    for (const auto& row : rows) {
        create(CALG_HMAC);
        token().hashCount = 0;
        const Bytes material = filled(32, 1);
        const Bytes inner = filled(row.digest, 0x80);
        const Bytes outer = filled(row.digest, 0xC0);
        token().on("finalHash", {{.output = inner}, {.output = outer}});
        SET(setHmacInfo(row.inner), 0,
            setting(5) + "|CPSetHashParam: HMAC initialized with inner hash algo=" + std::to_string(row.mechanism),
            init(row.mechanism) + "|" + update(1, padded(material, row.block, 0x36)));
        HASH_DATA([&] { return CPHashData(provider(), handle(), inner.data(), 1, 0); }, 0, "", update(1, {0x80}));
        length = 0;
        GET(read(HP_HASHVAL, buffer.data()), ERROR_MORE_DATA,
            getting(2, row.mechanism) +
                "|CPGetHashParam: HMAC finalized successfully|"
                "!CPGetHashParam: HP_HASHVAL buffer too small for finalized hash",
            finish(1, row.digest) + "|" + init(row.mechanism) + "|" + update(2, padded(material, row.block, 0x5C)) +
                "|" + update(2, inner) + "|" + finish(2, row.digest));
        EXPECT_EQ(hash->hmacKeyLen, 0U);
        EXPECT_EQ(Bytes(hash->hmacKey, std::end(hash->hmacKey)), Bytes(128, 0)) << "wiped";
        GET(read(HP_HASHVAL, buffer.data()), 0, getting(2, row.mechanism));  // not computed twice
        EXPECT_EQ(buffer.first(length), outer);
    }
}

TEST_F(HashTest, HmacKeyedAgain) {
    create(CALG_HMAC);
    const Bytes once = padded(filled(32, 1), 128, 0x5C);
    const Bytes twice = padded(once, 128, 0x5C);
    const Bytes digest = filled(32, 0x90);
    token().on("finalHash", {{.output = digest}});
    EXPECT_TRUE(setHmacInfo(CALG_SHA_512)());
    token().takeCalls();
    EXPECT_TRUE(setHmacInfo(CALG_SHA_384)());  // the opad block is the key now, as long as the block: used as it stands
    EXPECT_EQ(token().takeCalls(), lines(init(4) + "|" + update(2, padded(once, 128, 0x36))));
    EXPECT_TRUE(setHmacInfo(CALG_SHA_256)());  // and longer than this one: replaced by its digest
    EXPECT_EQ(token().takeCalls(), lines(init(3) + "|" + update(3, twice) + "|" + finish(3, 32) + "|" + init(3) + "|" +
                                         update(4, padded(digest, 64, 0x36))));
    EXPECT_EQ(Bytes(hash->hmacKey, hash->hmacKey + hash->hmacKeyLen), padded(digest, 64, 0x5C));
}

TEST_F(HashTest, HmacFailures) {
    const auto fails = [&](const char* operation, const std::vector<int>& results, const std::string& log, bool isRead,
                           std::uint32_t keyLength = 32) {
        create(CALG_HMAC);
        hash->hmacKeyLen = keyLength;
        EXPECT_TRUE(!isRead || setHmacInfo(CALG_SHA_256)());
        token().onResult(operation, results);
        if (isRead) {
            GET(read(2, buffer.data()), FAILED, getting(2, 3) + log, ANY_CALLS);
        } else {
            SET(setHmacInfo(CALG_SHA_256), FAILED, setting(5) + log, ANY_CALLS);
        }
        EXPECT_FALSE(hash->finalized) << log;
        EXPECT_EQ(hash->hmacKeyLen, keyLength > 64 ? keyLength : 64) << log;
        token().onResult(operation, {0});
    };
    fails("initHash", {4}, "|!CPSetHashParam: zentok_initHash failed for HMAC inner hash, ret=4", false);
    fails("updateHash", {4}, "|!CPSetHashParam: zentok_updateHash failed for HMAC ipad, ret=4", false);
    for (const char* step : {"initHash", "updateHash", "finalHash"}) {
        fails(step, {4}, "", false, 65);  // the digest of a key that is longer than the block
    }
    fails("finalHash", {4}, "|!CPGetHashParam: zentok_finalHash failed, ret=4", true);
    fails("initHash", {4}, "|!CPGetHashParam: HMAC outer zentok_initHash failed, ret=4", true);
    fails("updateHash", {4}, "|!CPGetHashParam: HMAC outer opad update failed, ret=4", true);
    fails("updateHash", {0, 4}, "|!CPGetHashParam: HMAC outer inner-result update failed, ret=4", true);
    fails("finalHash", {0, 4}, "|!CPGetHashParam: HMAC outer zentok_finalHash failed, ret=4", true);
}

TEST_F(HashTest, HmacInfo) {
    create(CALG_HMAC);
    SET(setHmacInfo(CALG_MD5), BAD_ALGID, setting(5) + "|!CPSetHashParam: unsupported HMAC inner hash 0x00008003");
    EXPECT_TRUE(read(5, nullptr)());
    EXPECT_EQ(std::exchange(length, 39), 40U);
    GET(read(5, buffer.data()), ERROR_MORE_DATA, getting(5, 0) + "|!CPGetHashParam: HP_HMAC_INFO buffer too small");
    EXPECT_EQ(length, 40U);
    GET(read(5, buffer.data()), 0, getting(5, 0) + "|Get hash param success");
    EXPECT_EQ(hex(buffer.first(40)), "03800000" + std::string(72, '0')) << "a refused one reads back";
    EXPECT_TRUE(CPSetHashParam(provider(), handle(), HP_HASHVAL, buffer.data(), 0));
    EXPECT_TRUE(hash->finalized && hash->hashLen == 0) << "no bytes without an inner hash, yet final";
}

}  // namespace
}  // namespace test
