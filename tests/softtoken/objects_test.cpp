// Tokens as folders, and the key pairs, certificates and lists on them.
#include <windows.h>

#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {

namespace {

using softtoken::Error;
using softtoken::TokenOptions;

TEST_F(SoftTokenTest, TokensComeAndGoWithTheirFolders) {
    createToken(FipsClass::FIPS_140_3, "A-TOKEN");
    CreateDirectoryA(home.folder("no token").c_str(), nullptr);
    CreateDirectoryA(home.folder("EMPTY").c_str(), nullptr);
    using Serials = std::vector<std::string>;
    EXPECT_EQ(zentok_getConnectedDeviceList(false, nullptr), (Serials{"A-TOKEN", SERIAL}));

    TokenInfo info = zentok_getTokenInfo("A-TOKEN", nullptr);
    EXPECT_FALSE(info.text1.empty());
    EXPECT_EQ(info.firmwareVersion, "2.1.0");
    ASSERT_GT(info.modelVersion.size(), 2U);
    EXPECT_NE(info.modelVersion[2], '1');
    EXPECT_EQ(zentok_getTokenInfo(SERIAL, nullptr).modelVersion[2], '1') << "FIPS 140-2";

    const std::vector<ZentokKeyPair>& before = zentok_getKeyPairList("A-TOKEN", nullptr);
    EXPECT_EQ(before.size(), 0U);
    ASSERT_TRUE(MoveFileA(home.folder("A-TOKEN").c_str(), home.folder(".pulled").c_str()));
    EXPECT_EQ(zentok_getConnectedDeviceList(false, nullptr), Serials{SERIAL});
    EXPECT_NE(zentok_initDevice("A-TOKEN", false, nullptr), 0);
    info = zentok_getTokenInfo("A-TOKEN", nullptr);
    EXPECT_TRUE(info.text1.empty() && info.modelVersion.empty() && info.firmwareVersion.empty());
    ASSERT_TRUE(MoveFileA(home.folder(".pulled").c_str(), home.folder("A-TOKEN").c_str()));
    EXPECT_EQ(zentok_initDevice("A-TOKEN", true, nullptr), 0);

    const auto summaries = softtoken::listTokens();
    ASSERT_EQ(summaries.size(), 2U);
    EXPECT_EQ(summaries[1].serial, SERIAL);
    EXPECT_EQ(summaries[1].retriesLeft, 10);
    EXPECT_EQ(summaries[1].fipsClass, FipsClass::FIPS_140_2);
    softtoken::removeToken(SERIAL);
    EXPECT_EQ(zentok_getConnectedDeviceList(false, nullptr), Serials{"A-TOKEN"});
    EXPECT_THROW(softtoken::removeToken(SERIAL), Error);
    for (const char* const serial : {"", "..", ".", "A-TOKEN\\keys", "A-TOKEN/keys", "*", "C:"}) {
        EXPECT_NE(zentok_initDevice(serial, false, nullptr), 0) << serial;
    }
}

TEST_F(SoftTokenTest, CreationIsChecked) {
    const auto refused = [](auto change, std::int32_t code) {
        TokenOptions options;
        options.pin = PIN;
        change(options);
        try {
            softtoken::createToken(options);
            return false;
        } catch (const Error& error) {
            return error.code == code && error.what()[0] != '\0';
        }
    };
    EXPECT_TRUE(refused([](TokenOptions& options) { options.serial = SERIAL; }, softtoken::RESULT_EXISTS));
    const std::int32_t bad = softtoken::RESULT_BAD_ARGUMENT;
    EXPECT_TRUE(refused([](TokenOptions& options) { options.serial = "..\\out"; }, bad));
    EXPECT_TRUE(refused([](TokenOptions& options) { options.serial = std::string(65, 'x'); }, bad));
    EXPECT_TRUE(refused([](TokenOptions& options) { options.pin = "123"; }, bad));
    EXPECT_TRUE(refused([](TokenOptions& options) { options.pin = std::string(64, '1'); }, bad));
    EXPECT_TRUE(refused([](TokenOptions& options) { options.retryLimit = 0; }, bad));
    EXPECT_TRUE(refused([](TokenOptions& options) { options.pinCost = 1000; }, bad));

    TokenOptions options;
    options.pin = PIN;
    options.pinCost = 1024;
    options.retryLimit = 1;
    options.firmware = "1.9.9";
    const std::string serial = softtoken::createToken(options);
    EXPECT_EQ(zentok_getTokenInfo(serial.c_str(), nullptr).firmwareVersion, "1.9.9");
    int retries = 5;
    EXPECT_NE(validate(WRONG_PIN, &retries, serial.c_str()), 0);
    EXPECT_EQ(retries, 0);
}

TEST_F(SoftTokenTest, KeyPairsAreListedRenamedAndDeleted) {
    ZentokKeyPair made = {};
    made.keyUsage = KEY_USAGE_EXCHANGE;
    ASSERT_EQ(zentok_generateKeyPair(SERIAL, PIN, &made, nullptr), 0);
    EXPECT_EQ(made.keyType, KEY_TYPE_RSA_2048) << "the token's choice";
    EXPECT_EQ(made.publicKeyLength, 256);
    EXPECT_GE(made.publicKey[0], 0x80);
    const ZentokKeyPair second =
        softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P256, KEY_USAGE_SIGN, "a%b\xC3\xA4");
    const std::vector<ZentokKeyPair> listed = zentok_getKeyPairList(SERIAL, nullptr);
    ASSERT_EQ(listed.size(), 2U);
    EXPECT_EQ(std::memcmp(&listed[0], &made, sizeof made), 0) << "the record is the list's, in order of creation";
    EXPECT_EQ(std::memcmp(&listed[1], &second, sizeof second), 0);

    ASSERT_EQ(zentok_updateKeyPairDetails(SERIAL, made.credentialId, PIN, "new name", nullptr, 0, nullptr), 0);
    EXPECT_NE(
        zentok_updateKeyPairDetails(SERIAL, made.credentialId, PIN, std::string(129, 'x').c_str(), nullptr, 0, nullptr),
        0);
    EXPECT_STREQ(zentok_getKeyPairList(SERIAL, nullptr)[0].alias, "new name");
    EXPECT_EQ(sign(made, counted(32)).code, 0);

    const std::string pem = softtoken::publicKeyFile(SERIAL, made.credentialId);
    ASSERT_EQ(zentok_deleteKeyPair(SERIAL, made.credentialId, PIN, true, nullptr), 0);
    EXPECT_EQ(zentok_deleteKeyPair(SERIAL, made.credentialId, PIN, true, nullptr), softtoken::RESULT_NO_OBJECT);
    EXPECT_EQ(zentok_getKeyPairList(SERIAL, nullptr).size(), 1U);
    EXPECT_EQ(GetFileAttributesA(pem.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(sign(made, counted(32)).code, 0);
    EXPECT_THROW(softtoken::publicKeyFile(SERIAL, made.credentialId), Error);

    ZentokKeyPair bad = {};
    for (const auto& [usage, type] : {std::pair{0, 2}, {4, 2}, {1, 8}, {1, -1}}) {
        bad.keyUsage = usage;
        bad.keyType = type;
        EXPECT_NE(zentok_generateKeyPair(SERIAL, PIN, &bad, nullptr), 0) << usage << " " << type;
    }
}

TEST_F(SoftTokenTest, ListsOutliveChanges) {
    softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P256, KEY_USAGE_SIGN, "first");
    const std::vector<ZentokKeyPair>& old = zentok_getKeyPairList(SERIAL, nullptr);
    const ZentokKeyPair copy = old.at(0);
    for (int count = 0; count < 10; ++count) {
        softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P256, KEY_USAGE_SIGN, "later");
        EXPECT_EQ(zentok_getKeyPairList(SERIAL, nullptr).size(), static_cast<std::size_t>(count) + 2);
    }
    EXPECT_EQ(old.size(), 1U);
    EXPECT_EQ(std::memcmp(old.data(), &copy, sizeof copy), 0);
    Sleep(150);  // changes of the last 100 ms are read again, to be sure
    zentok_getKeyPairList(SERIAL, nullptr);
    EXPECT_EQ(&zentok_getKeyPairList(SERIAL, nullptr), &zentok_getKeyPairList(SERIAL, nullptr))
        << "an unchanged token gives the same list";
}

/// Certificates that openssl makes: a root and, under it, one for a public key of the token.
class CertificateTest : public SoftTokenTest {
protected:
    CertificateTest() : pair(softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_RSA_2048, KEY_USAGE_BOTH, "")) {
        openssl({"req", "-utf8", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", scratch.nativeFile("ca.key"),
                 "-out", scratch.nativeFile("ca.pem"), "-subj", "/C=IN/O=Halvane, Ltd./CN=Zentok W\xC3\xBCrzburg",
                 "-days", "30"});
        openssl({"x509", "-in", scratch.nativeFile("ca.pem"), "-outform", "DER", "-out", scratch.nativeFile("ca.der")});
        root = scratch.read("ca.der");
        leaf = leafFor(nativePath(softtoken::publicKeyFile(SERIAL, pair.credentialId)));
    }

    [[nodiscard]] Bytes leafFor(const std::string& publicKey) const {
        openssl({"x509", "-new", "-force_pubkey", publicKey, "-subj", "/O=Halvane/CN=Leaf", "-set_serial", "0x1234ABCD",
                 "-days", "30", "-CA", scratch.nativeFile("ca.pem"), "-CAkey", scratch.nativeFile("ca.key"), "-outform",
                 "DER", "-out", scratch.nativeFile("leaf.der")});
        return scratch.read("leaf.der");
    }

    static ZentokCertificate record(const Bytes& der, const unsigned char* credentialId) {
        ZentokCertificate made = {};
        std::copy(der.begin(), der.end(), made.certificate);
        made.certificateLength = lengthOf(der);
        if (credentialId != nullptr) {
            std::copy_n(credentialId, sizeof made.credentialId, made.credentialId);
        }
        std::strcpy(made.alias, "label");
        return made;
    }

    ZentokKeyPair pair;
    Bytes root;
    Bytes leaf;
};

TEST_F(CertificateTest, DetailsAreRead) {
    CertificateDetails details;
    ASSERT_EQ(zentok_getCertificateDetails(root.data(), lengthOf(root), details, nullptr), 0);
    EXPECT_EQ(details.field2, "Zentok W\xC3\xBCrzburg");
    EXPECT_EQ(details.subject, details.issuer);
    EXPECT_EQ(details.subject, "C=IN, O=\"Halvane, Ltd.\", CN=Zentok W\xC3\xBCrzburg");
    const std::string print = openssl({"x509", "-in", scratch.nativeFile("ca.pem"), "-noout", "-fingerprint", "-sha1"});
    std::string digits;
    for (const char character : print.substr(print.find('=') + 1)) {
        digits += std::isxdigit(static_cast<unsigned char>(character)) != 0 ? std::string(1, character) : "";
    }
    EXPECT_EQ(details.field6, digits);
    ASSERT_EQ(zentok_getCertificateDetails(leaf.data(), lengthOf(leaf), details, nullptr), 0);
    EXPECT_EQ(details.field1, "1234ABCD");
    EXPECT_EQ(details.field2, "Leaf");
    EXPECT_EQ(details.publicKey, publicKeyOf(pair)) << "a certificate finds its key by these bytes";
    EXPECT_EQ(details.value2, 2048);
    const ZentokKeyPair ec = softtoken::generateKeyPair(SERIAL, PIN, KEY_TYPE_EC_P384, KEY_USAGE_BOTH, "");
    const Bytes ecLeaf = leafFor(nativePath(softtoken::publicKeyFile(SERIAL, ec.credentialId)));
    ASSERT_EQ(zentok_getCertificateDetails(ecLeaf.data(), lengthOf(ecLeaf), details, nullptr), 0);
    EXPECT_EQ(details.publicKey, publicKeyOf(ec));
    EXPECT_EQ(details.value3, KEY_TYPE_EC_P384);
    // Every cut is refused, and none is read beyond.
    for (int length = 0; length < lengthOf(leaf); ++length) {
        const Bytes cut(leaf.begin(), leaf.begin() + length);
        EXPECT_NE(zentok_getCertificateDetails(cut.data(), length, details, nullptr), 0) << length;
    }
}

TEST_F(CertificateTest, CertificatesAreStoredUnderTheirKeys) {
    EXPECT_EQ(zentok_findCertificateForKey(SERIAL, pair.credentialId, nullptr), nullptr);
    ZentokCertificate stored = record(leaf, pair.credentialId);
    ASSERT_EQ(zentok_importCertificate(SERIAL, PIN, &stored, nullptr), 0);
    ZentokCertificate chain = record(root, nullptr);
    ASSERT_EQ(zentok_importCertificate(SERIAL, PIN, &chain, nullptr), 0);
    ASSERT_EQ(zentok_importCertificate(SERIAL, PIN, &chain, nullptr), 0);
    const std::vector<ZentokCertificate> listed = zentok_getCertificateList(SERIAL, nullptr);
    ASSERT_EQ(listed.size(), 2U) << "a chain certificate is stored once";
    EXPECT_EQ(std::memcmp(&listed[0], &stored, sizeof stored), 0);
    EXPECT_EQ(std::memcmp(&listed[1], &chain, sizeof chain), 0);
    const ZentokCertificate* const found = zentok_findCertificateForKey(SERIAL, pair.credentialId, nullptr);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(Bytes(found->certificate, found->certificate + found->certificateLength), leaf);
    const unsigned char none[16] = {};
    EXPECT_EQ(zentok_findCertificateForKey(SERIAL, none, nullptr), nullptr);

    ZentokCertificate bad = stored;
    for (const int length : {-1, 0, 100, 3073, INT_MAX}) {
        bad.certificateLength = length;
        EXPECT_NE(zentok_importCertificate(SERIAL, PIN, &bad, nullptr), 0) << length;
    }
    bad = stored;
    std::memset(bad.alias, 'x', sizeof bad.alias);
    EXPECT_NE(zentok_importCertificate(SERIAL, PIN, &bad, nullptr), 0) << "an alias without an end";
    bad = stored;
    bad.keyLabelLength = 129;
    EXPECT_NE(zentok_importCertificate(SERIAL, PIN, &bad, nullptr), 0);

    ASSERT_EQ(zentok_deleteKeyPair(SERIAL, pair.credentialId, PIN, true, nullptr), 0);
    EXPECT_EQ(zentok_findCertificateForKey(SERIAL, pair.credentialId, nullptr), nullptr);
    EXPECT_EQ(zentok_getCertificateList(SERIAL, nullptr).size(), 1U);
}

TEST_F(CertificateTest, FilesOfAFolderBecomeDer) {
    const ScratchFolder folder;
    folder.write("b.CRT", root);
    folder.write("a.pem", scratch.read("ca.pem"));
    folder.write("c.der", leaf);
    folder.write("d.cer", bytes("no certificate"));
    folder.write("e.cer", {});
    folder.write("f.txt", root);
    CreateDirectoryA(folder.file("g.cer").c_str(), nullptr);
    const std::vector<std::string> extensions = {".cer", ".der", ".pem", ".crt"};
    const auto files = zentok_getFilesWithExtensionsAndConvertDER(folder.path(), extensions, nullptr);
    ASSERT_EQ(files.size(), 3U);
    EXPECT_EQ(files[0], std::pair(folder.file("a.pem"), root));
    EXPECT_EQ(files[1], std::pair(folder.file("b.CRT"), root));
    EXPECT_EQ(files[2], std::pair(folder.file("c.der"), leaf));
    EXPECT_TRUE(zentok_getFilesWithExtensionsAndConvertDER(folder.file("absent"), extensions, nullptr).empty());
    EXPECT_TRUE(zentok_getFilesWithExtensionsAndConvertDER("", extensions, nullptr).empty());
    EXPECT_TRUE(zentok_getFilesWithExtensionsAndConvertDER(folder.path(), {}, nullptr).empty());
}

}  // namespace

}  // namespace test
