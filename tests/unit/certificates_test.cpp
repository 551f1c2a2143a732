// Certificates on their way to the token with their issuers, and out of it as a chain.
#include <algorithm>

#include "cert/certificate_import.h"
#include "cert/pkcs7_chain.h"
#include "cert/utils.h"
#include "tests/fuzz/certificates.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

const std::string PARSE = "getCertificateDetails";
const std::string NAME = "importCertificateWithChain: ";
const std::string FOLDER = NAME + "CA Folder: X:\\none\\ZentokDSC\\Certificates";
const std::string ALONE = "|" + NAME + "chain import skipped — performing normal leaf import";
const std::string DONE = "|" + NAME + "certificate imported successfully";
const std::string KEYS = "|getKeyPairList('T1', null)";

std::string stores(unsigned char id, const std::string& der, const std::string& alias) {
    return "|importCertificate('T1', '1234', " + idText(id) + ", " + der + ", , '" + alias + "', null)";
}
const std::string STORES_LEAF = stores(0xAA, "A0", "mine");

struct Parsed {
    Bytes der;
    std::string subject, issuer;  ///< no subject: the library cannot read it
};

/// The leaf, the folder's files and what the library reads out of them. Returns the calls that read all.
std::string reads(const std::string& leafIssuer, const std::vector<Parsed>& files = {}) {
    std::string calls = PARSE +
                        "|getFilesWithExtensionsAndConvertDER('X:\\none\\ZentokDSC\\Certificates', "
                        "'.cer.der.pem.crt', null)";
    std::vector<Answer> answers = {{.during = [=] { token().certificateDetails.issuer = leafIssuer; }}};
    token().certificateFiles.clear();
    for (const Parsed& file : files) {
        token().certificateFiles.emplace_back("file", file.der);
        answers.push_back({.result = file.subject.empty() ? 5 : 0, .during = [file] {
                               token().certificateDetails.subject = file.subject;
                               token().certificateDetails.issuer = file.issuer;
                           }});
        calls += "|" + PARSE;
    }
    token().on(PARSE, answers);
    return calls;
}

class CertificateImportTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        SetEnvironmentVariableA("ZENTOK_HOME", "X:\\none");
    }
    void imports(const std::string& alias, int result, const std::string& log, const std::string& calls) {
        ZentokCertificate leaf = {};
        leaf.certificate[0] = 0xA0;
        leaf.certificateLength = length;
        std::fill(std::begin(leaf.credentialId), std::end(leaf.credentialId), static_cast<unsigned char>(0xAA));
        alias.copy(leaf.alias, sizeof leaf.alias);
        int answer = -1;
        expect([&] { return (answer = importCertificateWithChain("T1", "1234", leaf, nullptr)) == 0; },
               result == 0 ? 0 : ANY_CODE, log, calls);
        EXPECT_EQ(answer, result);
        storedId = leaf.credentialId[15];
    }
    int length = 1;
    int storedId = 0;
};

TEST_F(CertificateImportTest, KeyPairName) {
    const std::string calls = reads(std::string(200, 'n'));
    const std::string label = "Me_" + std::string(125, 'n');
    const std::string update = ALONE + "|" + NAME + "updating empty key pair alias to: ";
    const std::string found = KEYS + "|" + PARSE + "|" + PARSE;  // the second key pair is the certificate's
    const std::string updates = found + "|updateKeyPairDetails('T1', " + idText(0xBB) + ", '1234', '";
    token().certificateDetails.field2 = "Me";
    token().certificateDetails.publicKey = {7, 8};
    std::vector<ZentokKeyPair>& keys = token().keyPairs["T1"];
    keys = {keyPair(0xAA, 1, 2, "", {7, 9}), keyPair(0xBB, 1, 2, " \t", {7, 8})};
    imports(" mine ", 0, FOLDER + update + "mine",
            calls + stores(0xAA, "A0", " mine ") + updates + "mine', null[0], null)");
    imports(" \f\v", 0, NAME + "label not provided, using: " + label + "|" + FOLDER + update + label,
            calls + stores(0xAA, "A0", label) + updates + label + "', null[0], null)");
    keys[1].alias[1] = 'x';
    imports("mine", 0, FOLDER + ALONE, calls + STORES_LEAF + found);
}

TEST_F(CertificateImportTest, Chain) {
    const std::vector<Parsed> files = {{{0xA1}, "", ""},
                                       {{0xA2}, "CN=Mid", "CN=Nowhere"},
                                       {{0xA3}, "CN=Mid", "CN=Root"},
                                       {Bytes(3073), "Big", ""},
                                       {{0xA5}, "CN=Root", "CN=Root"}};
    const std::string steps = FOLDER + "|!" + NAME + "file passed over, 3073 bytes are more than a token holds" + DONE;
    const std::string issuers = stores(0, "A5", "Root") + stores(0, "A2", "Mid");
    token().onResult("importCertificate", {0, 77});
    imports("mine", 77, steps + "|!" + NAME + "chain import failed at index 1 ret=77",
            reads("O=x, CN=Mid, C=IN", files) + issuers);
    token().on("importCertificate", {{}, {}, {.output = Bytes(16, 0xBB)}});
    imports("mine", 0, steps + DONE + DONE, reads("CN=Mid", files) + issuers + STORES_LEAF + KEYS);
    EXPECT_EQ(storedId, 0xBB);
    token().onResult("importCertificate", {0});
    const std::vector<Parsed> root = {files.back()};
    imports("mine", 0, FOLDER + "|" + NAME + "Issuer 'root' NOT found — skipping chain import" + ALONE,
            reads("CN=root", root) + STORES_LEAF + KEYS);
    imports("mine", 0, FOLDER + DONE, reads("", root) + STORES_LEAF + KEYS);
}

TEST_F(CertificateImportTest, TooLong) {
    length = 3073;
    imports("mine", CERTIFICATE_LENGTH_REFUSED, "!" + NAME + "a certificate of 3073 bytes does not fit its record", "");
}

TEST(Utils, CommonName) {
    EXPECT_EQ(Utils::extractCommonName("O=x, CN=A b , C=y"), "A b ");
    EXPECT_EQ(Utils::extractCommonName("CN=,CN=B\nCN=C"), "B");
    EXPECT_EQ(Utils::extractCommonName("cn=A"), "cn=A");
    EXPECT_EQ(Utils::extractCommonName("CN=" + std::string(100000, 'x')).size(), 100000U) << "no deep recursion";
}

const ZentokCertificate LEAF = certificate(CERTIFICATES[2]);
const ZentokCertificate ROOT = certificate(CERTIFICATES[0]);
const ZentokCertificate BROKEN = {};

class Pkcs7ChainTest : public ProviderTest {};

TEST_F(Pkcs7ChainTest, Message) {
    DWORD size = 0;
    const auto builds = [&size](const std::vector<ZentokCertificate>& list, BYTE* output = nullptr) {
        return BuildCertificateChain(list, output, &size) != FALSE;
    };
    EXPECT_TRUE(builds({LEAF, BROKEN, ROOT}));
    Guarded buffer(size--);
    EXPECT_TRUE(builds({LEAF, BROKEN, ROOT}, buffer.data()) && GetLastError() == ERROR_MORE_DATA);
    EXPECT_TRUE(builds({LEAF, BROKEN, ROOT}, buffer.data()));
    EXPECT_FALSE(builds({}) || GetLastError() != NO_KEY);
}

}  // namespace
}  // namespace test
