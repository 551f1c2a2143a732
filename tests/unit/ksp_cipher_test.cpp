#include "core/pin_cache.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

const Entry ENCRYPT("KSPEncrypt");
const Entry DECRYPT("KSPDecrypt");
const Bytes INPUT = filled(64, 0x40);
const Bytes OUTPUT = filled(48, 1);
const std::string NO_PADDING = "KSPDecrypt: dwFlags=0x00000000 padding=NONE (defaulting to OAEP)|";

class KspCipherTest : public KspTest {
protected:
    /// One call, for room 0 without a buffer; `size` is what it says of the result's.
    void runs(decltype(KSPEncrypt)* entry, const KSP_KEY* key, DWORD room, DWORD flags, const WCHAR* hash,
              DWORD failure, DWORD size, const std::string& log, const std::string& calls = "", DWORD cbInput = 64) {
        length = UNTOUCHED;
        const auto call = [&, given = INPUT]() mutable {
            BCRYPT_OAEP_PADDING_INFO padding = {hash, nullptr, 0};
            return succeeds(entry(handleOf(&provider), handleOf(key), given.data(), cbInput, &padding,
                                  room != 0 ? buffer.data() : nullptr, room, &length, flags));
        };
        (entry == KSPEncrypt ? ENCRYPT : DECRYPT)(call, failure, log, calls);
        EXPECT_EQ(length, size);
    }
};

TEST_F(KspCipherTest, Aes) {
    pinStateClear("T1");
    const std::string lie = ": the token library gave a result of -1 bytes";
    const auto check = [&](int keySize, std::uint8_t mode, const std::string& type, const std::string& iv) {
        const Bytes bytes = filled(static_cast<std::size_t>(keySize), 0x70);
        const std::string passed = iv.empty() ? "null[0]" : iv;
        const std::string text = mode == 0 ? "crypt CBC mode" : "crypt ECB mode";
        KSP_KEY key;
        std::copy(bytes.begin(), bytes.end(), key.symmetricKey);
        key.symmetricKeyLength = keySize;
        key.chainingMode = mode;
        const auto both = [&](DWORD room, const Answer& answer, DWORD failure, DWORD size, const std::string& sealed,
                              const std::string& opened) {
            token().on("encrypt_aes", {answer});
            token().on("decryptSymetric", {answer});
            runs(KSPEncrypt, &key, room, 0, nullptr, failure, size, "KSP: Symmetric en" + text + sealed,
                 "encrypt_aes('T1', " + type + ", " + hex(bytes) + ", " + hex(INPUT) + ", block, 0, " + passed +
                     ", null[0], null)");
            runs(KSPDecrypt, &key, room, 0, nullptr, failure, size,
                 NO_PADDING + "KSP: Symmetric de" + text + "|KSP: Decrypt input iv : " + iv +
                     "|KSP: Decrypt input key : " + hex(bytes) + opened,
                 "decryptSymetric('T1', " + hex(INPUT) + ", out[0], " + passed + ", " + hex(bytes) + ", null)");
        };
        both(0, {.output = OUTPUT}, 0, 48, "", "|pbOutput == NULL ");
        both(47, {.output = OUTPUT}, TOO_SMALL, 48, "|!KSPEncrypt: symmetric output buffer too small, required=48",
             "|!KSPDecrypt: symmetric output buffer too small, required=48");
        both(48, {.output = OUTPUT}, 0, 48, "|KSP: Symmetric encrypt success, length: 48",
             "|KSP: Symmetric decrypt success, length: 48");
        EXPECT_EQ(buffer.first(48), OUTPUT);
        both(300, {.length = -1}, INTERNAL_ERROR, UNTOUCHED, "|!KSPEncrypt" + lie, "|!KSPDecrypt" + lie);
    };
    check(32, 0, "2", "");
    setProcessIv(filled(16, 0x90));
    check(16, 0, "1", hex(filled(16, 0x90)));
    check(24, 1, "6", "");
}

TEST_F(KspCipherTest, RsaEncrypt) {
    const std::string raw = "KSP: Public key is raw modulus, converting to DER|";
    const std::string der = "KSP: Public key is already DER encoded|KSP: Encrypt success";
    const Bytes RAW = filled(64, 0x20);
    const Bytes DER = filled(90, 0x30);
    const auto check = [&](std::uint32_t bits, const Bytes& publicKey, DWORD flags, const WCHAR* hash,
                           const std::string& log, const std::string& typeAndPadding, const std::string& sent) {
        const KSP_KEY key = keyObject(2, bits, publicKey);
        token().on("encrypt", {{.output = RAW}});
        runs(KSPEncrypt, &key, 0, flags, hash, 0, bits / 8, "");
        runs(KSPEncrypt, &key, bits / 8, flags, hash, 0, 64, log,
             "encrypt(" + typeAndPadding + ", " + hex(INPUT) + ", out[0], " + sent + ", null)");
        EXPECT_EQ(buffer.first(64), RAW);
    };
    check(1024, RAW, 2, TEXT("SHA256"), raw + "KSP: Encrypt success", "7, 1", spki(RAW));
    check(2048, DER, 4, nullptr, der, "8, 4", hex(DER));
    check(512, DER, 4, TEXT("SHA1"), der, "8, 8", hex(DER));
    check(1024, {}, 4, TEXT("SHA256"), der, "7, 5", "null[0]");
    // "Length" may say less than the modulus has: nothing is written behind the room that it asks for.
    const KSP_KEY shrunk = keyObject(2, 16, RAW);
    const Bytes before = buffer.first(300);
    runs(KSPEncrypt, &shrunk, 1, 0, nullptr, TOO_SMALL, 2, "!KSPEncrypt: output buffer too small, required=2");
    runs(KSPEncrypt, &shrunk, 2, 0, nullptr, TOO_SMALL, 64, raw + "!KSPEncrypt: output buffer too small, required=64",
         "encrypt");
    const KSP_KEY lean = keyObject(2, 1024, filled(290, 0x30));  // DER with less around its modulus than is usual
    token().on("encrypt", {{.output = filled(256)}});
    runs(KSPEncrypt, &lean, 255, 0, nullptr, TOO_SMALL, 256,
         "KSP: Public key is already DER encoded|!KSPEncrypt: output buffer too small, required=256", "encrypt");
    EXPECT_EQ(buffer.first(300), before);
}

TEST_F(KspCipherTest, RsaDecrypt) {
    const KSP_KEY key = keyObject(2, 2048);
    const auto call = [](const std::string& password) {
        return "decrypt('T1', " + AA + ", '" + password + "', " + hex(INPUT) + ", block, 0, null)";
    };
    const std::string oaep = "KSPDecrypt: dwFlags=0x00000044 padding=OAEP|KSPDecrypt: OAEP hash algorithm=SHA1|";
    const std::string expired = "|KSP: Decrypt SSO expired, re-prompting for PIN|" + KSP_ASKS;
    const auto check = [&](DWORD room, const std::vector<Answer>& answers, DWORD failure, DWORD size,
                           const std::string& log, const std::string& more = "", std::vector<UserStep> steps = {}) {
        cachePin();
        token().on("decrypt", answers);
        const PasswordUser user(std::move(steps));
        runs(KSPDecrypt, &key, room, 0x44, TEXT("SHA1"), failure, size, oaep + KSP_CACHED + log, call("1234") + more);
    };
    check(47, {{.output = OUTPUT}}, TOO_SMALL, 48, "|!KSPDecrypt: output buffer too small, required=48");
    check(48, {{.result = 49}, {.output = OUTPUT}}, 0, 48, expired + "|KSP: Decrypt success",
          ASKED_AGAIN + call("5678"), {logIn("5678")});
    EXPECT_EQ(buffer.first(48), OUTPUT);
    runs(KSPDecrypt, &key, 0, 0, nullptr, 0, 256, NO_PADDING, "", 0);  // a size query needs no input
    runs(KSPDecrypt, &key, 9, 0, nullptr, INVALID_PARAMETER, UNTOUCHED,
         NO_PADDING + "!KSPDecrypt: pbInput is null or cbInput is zero", "", 0);
}

TEST_F(KspCipherTest, Pkcs1GateComesBeforeTheKey) {
    const auto refuses = [&](DWORD failure, const std::string& log, const std::string& calls = "") {
        runs(KSPDecrypt, nullptr, 0, 6, nullptr, failure, UNTOUCHED,
             "KSPDecrypt: dwFlags=0x00000006 padding=PKCS1|!KSPDecrypt: " + log, calls);
    };
    refuses(NOT_SUPPORTED, "PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)", INFO);
    token().infos["T1"] = tokenInfo("xx1");
    refuses(INVALID_PARAMETER, "key handle or pcbResult is null", INFO);
    provider.deviceName = "";
    refuses(INVALID_PARAMETER, "key handle or pcbResult is null");
    provider.initialized = false;
    refuses(INVALID_HANDLE, "provider handle is null or not initialized");
}

}  // namespace
}  // namespace test
