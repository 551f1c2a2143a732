#include "core/firmware_policy.h"

#include "tests/unit/provider_test.h"

namespace test {
namespace {

class FirmwarePolicyTest : public ProviderTest {};

TEST_F(FirmwarePolicyTest, ClassesAndVersions) {
    for (const char* version : {"111", "AB1", "1.10", "AB1C"}) {
        EXPECT_EQ(firmwareClass(tokenInfo(version)), FirmwareClass::FIPS_140_2) << version;
    }
    for (const char* version : {"", "1", "11", "AB2", "A1B", "ABC1"}) {
        EXPECT_EQ(firmwareClass(tokenInfo(version)), FirmwareClass::FIPS_140_3) << version;
    }
    EXPECT_EQ(parseVersion(""), std::vector<int>());
    EXPECT_EQ(parseVersion("v2.1b3..-4.17"), (std::vector<int>{0, 1, 0, -4, 17}));
    const struct {
        const char* left;
        const char* right;
        int order;
    } rows[] = {{"2.0", "2.0.0", 0}, {"", "0.0", 0},        {"", "2.0.0", -1},    {"1.9.9", "2.0.0", -1},
                {"2.0.0.1", "2", 1}, {"10.0", "9.9", 1},    {"2.x", "2.0", 0},    {"2.0.0-beta", "2", 0},
                {"0", "-1", 1},      {"1.99", "1.100", -1}, {"2..1", "2.0.1", 0}, {"99999999999", "2", 1}};
    for (const auto& row : rows) {
        EXPECT_EQ(compareVersions(row.left, row.right), row.order) << row.left << " and " << row.right;
        EXPECT_EQ(compareVersions(row.right, row.left), -row.order) << row.right << " and " << row.left;
    }
}

Lines tableOf(const CSP_CONTEXT& context) {
    Lines table;
    for (const AlgorithmRow& row : selectAlgorithmTable(context)) {
        char text[160] = {};
        snprintf(text, sizeof text, "%X %u %u %u %u %X %s, %s", row.algorithmId, row.minBits, row.maxBits,
                 row.defaultBits, row.bitsIncrement, row.protocols, row.shortName, row.longName);
        table.emplace_back(text);
    }
    return table;
}

TEST_F(FirmwarePolicyTest, AlgorithmTables) {
    const Lines strict = lines(
        "2400 2048 4096 2048 1024 30 RSA-Sign, RSA Signature|A400 2048 4096 2048 1024 30 RSA-KeyX, RSA Key Exchange|"
        "660E 128 128 128 0 0 AES-128, Advanced Encryption Standard 128-bit|"
        "660F 192 192 192 0 0 AES-192, Advanced Encryption Standard 192-bit|"
        "6610 256 256 256 0 0 AES-256, Advanced Encryption Standard 256-bit|"
        "800C 256 256 256 0 20 SHA-256, Secure Hash Algorithm 256 (SHA-256)|"
        "800D 384 384 384 0 20 SHA-384, Secure Hash Algorithm 384 (SHA-384)|"
        "800E 512 512 512 0 20 SHA-512, Secure Hash Algorithm 512 (SHA-512)|8009 0 0 0 0 0 HMAC, Hugo's MAC (HMAC)");
    Lines lenient = strict;
    lenient[0].replace(5, 4, "1024");
    lenient[1].replace(5, 4, "1024");
    lenient.insert(lenient.begin() + 5, "8004 160 160 160 0 20 SHA-1, Secure Hash Algorithm (SHA-1)");

    EXPECT_EQ(tableOf(contextOn("")), strict);
    EXPECT_EQ(token().takeCalls(), Lines()) << "no token, no question";
    EXPECT_EQ(tableOf(contextOn("T1")), strict) << "a token that does not answer";
    token().infos["T1"] = tokenInfo("AB1");
    EXPECT_EQ(tableOf(contextOn("T1")), lenient);
    EXPECT_EQ(token().takeCalls(), Lines(2, "getTokenInfo('T1', null)")) << "asked anew each time";
}

/// A rule, with nobody watching the events and with all three there: exactly `event` is signalled.
void expectRule(const char* modelVersion, const std::function<bool()>& rule, const std::string& log, bool allows,
                const std::string& calls = "", const std::string& event = "") {
    token().infos["T1"] = tokenInfo(modelVersion);
    expect(rule, allows ? 0 : ANY_CODE, log, calls);
    std::map<std::string, HANDLE> events;
    for (const std::string name : {"Sha1Blocked", "Md5Blocked", "Pkcs1DecryptBlocked"}) {
        events[name] = CreateEventA(nullptr, FALSE, FALSE, ("Global\\ZentokDSC_Fips" + name).c_str());
    }
    EXPECT_EQ(rule(), allows);
    for (const auto& [name, handle] : events) {
        EXPECT_EQ(WaitForSingleObject(handle, 0) == WAIT_OBJECT_0, name == event) << log;
        CloseHandle(handle);
    }
}

TEST_F(FirmwarePolicyTest, Rules) {
    const std::string info = "getTokenInfo('T1', null)";
    const std::string sha1 = "!CPCreateHash: SHA-1 blocked (FIPS 140-3 policy)";
    const std::string weak = "not allowed \xE2\x80\x94 key size below 112-bit security strength";
    const CSP_CONTEXT none = contextOn("");
    const CSP_CONTEXT on = contextOn("T1");
    expectRule(
        "AB1", [&] { return ruleSha1Hash(on); }, "CPCreateHash: SHA-1 (FIPS 140-2 token)", true, info);
    expectRule(
        "AB3", [&] { return ruleSha1Hash(on); }, sha1, false, info, "Sha1Blocked");
    expectRule(
        "AB1", [&] { return ruleSha1Hash(none); }, sha1, false, "", "Sha1Blocked");
    expectRule("AB1", ruleMd5Hash, "!CPCreateHash: MD5 blocked (FIPS policy)", false, "", "Md5Blocked");
    const auto pkcs1 = [](const char* entry, const char* serial) {
        return [=] { return rulePkcs1Decrypt(entry, serial, nullptr); };
    };
    expectRule("AB1", pkcs1("CPDecrypt", "T1"), "", true, info);
    expectRule("", pkcs1("CPDecrypt", ""), "", true);
    expectRule("", pkcs1("KSPDecrypt", "T1"),
               "!KSPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)", false, info,
               "Pkcs1DecryptBlocked");
    const auto rsa1024 = [](bool tooShort, bool askToken) {
        return [=] { return ruleRsa1024Generate("CPGenKey", tooShort, askToken, "T1", nullptr); };
    };
    const std::string tooShort = "!CPGenKey: RSA-1024 key generation " + weak;
    expectRule("AB1", rsa1024(true, true), tooShort, false, info);
    expectRule("AB1", rsa1024(true, false), tooShort, false);
    expectRule("", rsa1024(false, true), "", true);
    const auto signs = [](int type) { return [=] { return ruleRsa1024Sign("KSPSignHash", type, "T1", nullptr); }; };
    expectRule("AB1", signs(1), "!KSPSignHash: RSA-1024 signing " + weak, false, info);
    expectRule("", signs(2), "", true);
    const auto signed51 = [](int result) { return [=] { return ruleWeakHashSign("KSPSignHash", result); }; };
    expectRule("AB1", signed51(51), "!KSPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token", false);
    expectRule("", signed51(49), "", true);
    const auto pss = [](const char* firmware) {
        return [=] { return rulePssFirmware("KSPVerifySignature", firmware); };
    };
    expectRule("", pss("1.9.9"), "!KSPVerifySignature: PSS not supported on firmware 1.9.9", false);
    expectRule("", pss(""), "!KSPVerifySignature: PSS not supported on firmware ", false);
    expectRule("", pss("2.0"), "", true);
    const auto ecdh = [](const char* entry, const char* operation, const char* firmware) {
        return [=] { return ruleEcdhFirmware(entry, operation, firmware); };
    };
    expectRule("", ecdh("KSPSecretAgreement", "ECDH", "1.0"), "!KSPSecretAgreement: ECDH not supported on firmware 1.0",
               false);
    expectRule("", ecdh("KSPDeriveKey", "ECDH derive", "1"), "!KSPDeriveKey: ECDH derive not supported on firmware 1",
               false);
    expectRule("", ecdh("KSPDeriveKey", "ECDH derive", "2.0.0"), "", true);
}

}  // namespace
}  // namespace test
