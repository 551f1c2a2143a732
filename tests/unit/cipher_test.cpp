#include <algorithm>

#include "capi/user_keys.h"
#include "core/process_iv.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

using Text = const std::string&;

constexpr bool ENCRYPT = true, DECRYPT = false;
constexpr DWORD PKCS1 = ~DWORD{0x40};  // every other flag

const Bytes DATA = filled(16, 1), DER = filled(64, 0x30);
const Bytes RESULT = filled(256, 3);
const Answer GOOD = {.output = RESULT};

/// A key on the token, or a software key when `aesSize` is set.
KEY_HANDLE keyObject(unsigned bits, const Bytes& publicKey, unsigned aesSize = 0, unsigned mode = 1) {
    KEY_HANDLE key = {};
    key.bitSize = bits;
    key.mode = mode;
    key.tokenFlag = true;
    key.credentialIdLength = 16;
    std::fill_n(key.credentialId, 16, '\xAA');
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
    std::fill_n(key.symmetricKey, 32, '\x77');
    key.symmetricKeyLength = aesSize;
    return key;
}

class CipherTest : public ProviderTest {
protected:
    CipherTest() { setProcessIv({}); }

    /// One call on DATA, and what it must come to. A decryption may need more room than its input, and is not told.
    void run(bool encrypts, const KEY_HANDLE* key, DWORD flags, DWORD failure, Text log, Text calls = "",
             const Bytes& output = {}) {
        const auto call = [&] {
            Guarded data(room);
            std::copy(DATA.begin(), DATA.end(), data.data());
            length = size;
            const BOOL done = encrypts
                                  ? CPEncrypt(handleOf(on), handleOf(key), 5, final, flags, data.data(), &length, room)
                                  : CPDecrypt(handleOf(on), handleOf(key), 5, TRUE, flags, data.data(), &length);
            EXPECT_EQ(done != FALSE ? data.first(length) : Bytes(), output);
            return done != FALSE;
        };
        expect(call, failure, (encrypts ? "CPEncrypt|" : "CPDecrypt|") + log, calls);
    }

    CSP_CONTEXT context = contextOn("T1");
    const CSP_CONTEXT* on = &context;
    BOOL final = TRUE;
    DWORD room = 256;
    DWORD size = 16;
    DWORD length = 0;
};

TEST_F(CipherTest, EncryptChecks) {
    const KEY_HANDLE rsa = keyObject(2048, DER);
    const KEY_HANDLE odd = keyObject(0, {}, 5);
    const std::string oddSize =
        "CPEncrypt: symmetric encryption, keyLen=5|!CPEncrypt: unsupported symmetric key length: 5";
    run(ENCRYPT, nullptr, 0, BAD_KEY, "!CPEncrypt: key handle is null");
    run(ENCRYPT, &odd, 0, BAD_KEY, oddSize);
    for (const DWORD badSize : {0U, 0x80000000U}) {
        size = badSize;
        run(ENCRYPT, &rsa, 0, BAD_LEN, "!Invalid data length for encrypt: " + std::to_string(size));
    }
    room = 255;
    run(ENCRYPT, &rsa, 0, ERROR_MORE_DATA, "!CPEncrypt: buffer too small, cbBufLen=255 requiredSize=256");
    EXPECT_EQ(std::exchange(length, 0), 256U);
    EXPECT_TRUE(CPEncrypt(handleOf(on), handleOf(&rsa), 0, TRUE, 0, nullptr, &length, 0) && length == 256);
    on = &UNINITIALISED;
    run(ENCRYPT, nullptr, 0, BAD_UID, "!CPEncrypt: context is null or not initialized");
    expect([] { return CPEncrypt(0, 0, 0, TRUE, 0, nullptr, nullptr, 0) != FALSE; }, ERROR_INVALID_PARAMETER,
           "CPEncrypt|!CPEncrypt: pcbDataLen is null");
}

TEST_F(CipherTest, EncryptRsaFailing) {
    const std::string isDer = "CSP: Public key is already DER encoded|";
    const auto fails = [&](const Answer& answer, DWORD failure, Text log) {
        const KEY_HANDLE key = keyObject(0, {});
        token().on("encrypt", {answer});
        run(ENCRYPT, &key, 0, failure, isDer + log, "encrypt(8, 1, " + hex(DATA) + ", out[0], null[0], null)");
    };
    context.silent = true;  // no PIN is asked for, and no firmware rule
    fails({.result = 5}, DLL_FAIL, "!Encrypt data failed: 5");
    fails({.length = 1025}, DLL_FAIL, "!CPEncrypt: the token library gave a result of 1025 bytes");
    fails({.output = filled(384)}, ERROR_MORE_DATA, "!CPEncrypt: buffer too small, cbBufLen=256 requiredSize=384");
    EXPECT_EQ(length, 384U);
}

TEST_F(CipherTest, AesFailing) {
    const KEY_HANDLE key = keyObject(0, {}, 16);
    const std::string bytes = hex(Bytes(16, 0x77)), iv = hex(filled(8, 0xA0));
    setProcessIv(filled(8, 0xA0));
    final = FALSE;
    token().on("encrypt_aes", {GOOD, {.result = 49}});
    token().onResult("decrypt_aes", {49});
    room = 255;
    const std::string asks = "CPEncrypt: symmetric encryption, keyLen=16|";
    run(ENCRYPT, &key, 0x40, ERROR_MORE_DATA, asks + "!CPEncrypt: symmetric output buffer too small, required=256",
        "encrypt_aes('T1', 1, " + bytes + ", " + hex(DATA) + ", block, 0, " + iv + ", null[0], null)");
    EXPECT_EQ(length, 256U);
    run(ENCRYPT, &key, 0, DLL_FAIL, asks + "!CPEncrypt: symmetric encryption failed: 49", "encrypt_aes");
    run(DECRYPT, &key, 0, DLL_FAIL,
        "CPDecrypt - dwFlags : 0x00000000 padding=PKCS1 (defaulting to OAEP)|CPDecrypt - key id : " + AA +
            "|CPDecrypt - usage : 0|CPDecrypt input iv : " + iv + "|CPDecrypt input key : " + bytes +
            "|!Symmetric decryption failed : 49",
        "decrypt_aes('T1', " + bytes + ", " + hex(DATA) + ", block, 0, " + iv + ", null)");
}

TEST_F(CipherTest, DecryptRsa) {
    const KEY_HANDLE key = keyObject(2048, DER);
    const std::string named = "|CPDecrypt - key id : " + AA + "|CPDecrypt - usage : 0|";
    const std::string oaep = "CPDecrypt - dwFlags : 0x00000040 padding=OAEP" + named;
    const std::string pkcs1 = "CPDecrypt - dwFlags : 0xFFFFFFBF padding=PKCS1 (defaulting to OAEP)" + named;
    const std::string refused = REFUSED_SILENTLY + "|!CPDecrypt: ensurePasswordValidated failed";
    const std::string rule = "!CPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)";
    context.silent = true;
    run(DECRYPT, nullptr, 0, BAD_KEY, "!CPDecrypt: key handle is null");
    run(DECRYPT, &key, PKCS1, BAD_FLAGS, pkcs1 + rule, INFO);
    run(DECRYPT, &key, 0x40, SILENT, oaep + refused);
    token().infos["T1"] = tokenInfo("001");
    run(DECRYPT, &key, PKCS1, SILENT, pkcs1 + refused, INFO);
    context.serial = "";
    run(DECRYPT, &key, PKCS1, SILENT, pkcs1 + refused);
    size = 0;
    run(DECRYPT, &key, 0x40, static_cast<DWORD>(NTE_BAD_DATA), oaep + "!Invalid data length for decrypt : 0");
    on = nullptr;
    run(DECRYPT, nullptr, 0, BAD_UID, "!CPDecrypt: context is null or not initialized");
}

TEST_F(CipherTest, DecryptRsaOnToken) {
    const KEY_HANDLE key = keyObject(2048, DER);
    const std::string after = "|After decrypting data|";
    const std::string expired = "|CPDecrypt: SSO expired, re-prompting for PIN|" + ASKS_FOR_PIN + ONE_DIALOG;
    const std::string guard = "|!CPDecrypt: ensurePasswordValidated failed after SSO expiry";
    const auto tries = [](Text pin) {
        return "decrypt('T1', " + AA + ", '" + pin + "', " + hex({DATA.rbegin(), DATA.rend()}) + ", block, 1, null)";
    };
    const std::string once = tries("1234");
    const std::string twice = once + "|getTokenInfo|validatePassword|" + tries("5678");
    const auto decrypts = [&](const std::vector<Answer>& answers, DWORD failure, Text log, Text calls,
                              const std::vector<UserStep>& steps = {}) {
        cachePin();
        token().on("decrypt", answers);
        const PasswordUser user(steps);
        run(DECRYPT, &key, 0x40, failure,
            "CPDecrypt - dwFlags : 0x00000040 padding=OAEP|CPDecrypt - key id : " + AA + "|CPDecrypt - usage : 0|" +
                PIN_CACHED + "|Before reversing encrypted data|After reversing encrypted data|Before decrypting data" +
                log,
            calls, failure == 0 ? RESULT : Bytes());
    };
    decrypts({{.result = 51}}, DLL_FAIL, after + "!Decrypt data failed : 51", once);
    decrypts({{.result = 49}, GOOD}, 0, expired + LOGGED_IN + after + "CPDecrypt- return", twice, {logIn("5678")});
    decrypts({{.result = 49}}, FAILED, expired + CANCELLED + guard, once + "|getTokenInfo", {cancel()});
}

}  // namespace
}  // namespace test
