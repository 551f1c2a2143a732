// A certificate's way: requested with a key on the token, issued by openssl, stored with its issuers, found again, and
// used to sign a message that openssl verifies.
#include "tests/platform/authority.h"

namespace test {
namespace {

using CertificateTest = PlatformTest;

constexpr DWORD ENCODING = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

Bytes spkiOf(const Context& context) {
    Bytes info = answerOf([&](BYTE* data, DWORD* size) {
        return CryptExportPublicKeyInfo(context.get(), AT_SIGNATURE, X509_ASN_ENCODING,
                                        reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(data), size);
    });
    return answerOf([&](BYTE* data, DWORD* size) {
        return CryptEncodeObjectEx(ENCODING, X509_PUBLIC_KEY_INFO, info.data(), 0, nullptr, data, size);
    });
}

/// A PKCS#10 request that the platform encodes and has the provider sign.
Bytes makeRequest(const Context& context) {
    std::vector<Bytes> parts = Authority::requestParts(spkiOf(context));
    std::vector<CRYPT_DER_BLOB> blobs;
    for (Bytes& part : parts) {
        blobs.push_back({sizeOf(part), part.data()});
    }
    CRYPT_SEQUENCE_OF_ANY request = {static_cast<DWORD>(blobs.size()), blobs.data()};
    char name[] = szOID_RSA_SHA256RSA;
    BYTE none[] = {0x05, 0x00};
    CRYPT_ALGORITHM_IDENTIFIER algorithm = {name, {sizeof none, none}};
    return answerOf([&](BYTE* data, DWORD* size) {
        return CryptSignAndEncodeCertificate(context.get(), AT_SIGNATURE, X509_ASN_ENCODING, X509_SEQUENCE_OF_ANY,
                                             &request, &algorithm, nullptr, data, size);
    });
}

/// A SignedData without signers with the two empty SETs that Wine's encoder leaves out and openssl asks for.
Bytes withEmptySets(const Bytes& message) {
    const auto contentAt = [&](std::size_t at) {
        return at + 2 + (message.at(at + 1) < 0x80 ? 0U : message.at(at + 1) & 0x7FU);
    };
    const std::size_t type = contentAt(0);
    const std::size_t typeSize = 11;  // the identifier of signedData
    const std::size_t version = contentAt(contentAt(type + typeSize));
    const Bytes rest = slice(message, version + 3, message.size() - version - 3);
    const Bytes none = {0x31, 0x00};
    const Bytes signedData = der(0x30, {slice(message, version, 3), none, rest, none});
    return rest.at(0) == none[0] ? message : der(0x30, {slice(message, type, typeSize), der(0xA0, {signedData})});
}

/// The document as SignedData by the container's key, which carries the certificates of `chain`.
Bytes signMessage(const std::string& container, const Bytes& certificate, const Bytes& chain) {
    DATA_BLOB blob = {sizeOf(chain), const_cast<BYTE*>(chain.data())};
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_PKCS7, ENCODING, 0, 0, &blob);
    std::vector<const CERT_CONTEXT*> carried;
    for (const CERT_CONTEXT* each = nullptr; (each = CertEnumCertificatesInStore(store, each)) != nullptr;) {
        carried.push_back(CertDuplicateCertificateContext(each));
    }
    EXPECT_EQ(carried.size(), 3U);
    carried.push_back(CertCreateCertificateContext(ENCODING, certificate.data(), sizeOf(certificate)));
    auto name = wide(container), provider = wide(PROVIDER);
    CRYPT_KEY_PROV_INFO key = {name.data(), provider.data(), PROV_RSA_FULL, 0, 0, nullptr, AT_SIGNATURE};
    EXPECT_EQ(outcome(CertSetCertificateContextProperty(carried.back(), CERT_KEY_PROV_INFO_PROP_ID, 0, &key)), OK);
    char sha256[] = szOID_NIST_sha256;
    CRYPT_SIGN_MESSAGE_PARA signer = {};
    signer.cbSize = sizeof signer;
    signer.dwMsgEncodingType = ENCODING;
    signer.pSigningCert = carried.back();
    signer.HashAlgorithm.pszObjId = sha256;
    signer.cMsgCert = static_cast<DWORD>(carried.size() - 1);
    signer.rgpMsgCert = carried.data();
    const BYTE* content = document().data();
    DWORD contentSize = sizeOf(document());
    Bytes message = answerOf([&](BYTE* data, DWORD* size) {
        return CryptSignMessage(&signer, FALSE, 1, &content, &contentSize, data, size);
    });
    for (const CERT_CONTEXT* each : carried) {
        CertFreeCertificateContext(each);
    }
    CertCloseStore(store, 0);
    return message;
}

TEST_F(CertificateTest, FromTheRequestToTheSignedMessage) {
    const Authority authority;
    const Token token;
    Bytes certificate;
    {
        const Context context = acquire(container);
        ASSERT_EQ(logIn(context), OK);
        const Key key = generateKey(context);
        certificate = authority.issue(makeRequest(context));
        ASSERT_FALSE(certificate.empty());
        ASSERT_EQ(outcome(CryptSetKeyParam(key.get(), KP_CERTIFICATE, certificate.data(), 0)), OK);
    }
    EXPECT_EQ(softtoken::listTokens().at(0).certificates, 3U) << "root, intermediate and leaf";

    const Context context = acquire(container);
    const Key key = userKey(context);
    const Bytes stored =
        answerOf([&](BYTE* data, DWORD* size) { return CryptGetKeyParam(key.get(), KP_CERTIFICATE, data, size, 0); });
    EXPECT_EQ(stored, certificate);
    const Bytes chain = answerOf(
        [&](BYTE* data, DWORD* size) { return CryptGetProvParam(context.get(), PP_CERTCHAIN, data, size, 0); });
    const CommandResult printed = runOpenssl({"pkcs7", "-inform", "DER", "-print_certs", "-noout", "-in",
                                              authority.files.write("chain", withEmptySets(chain))});
    for (const char* subject : {"Test Root", "Test Issuer", "Owner"}) {
        EXPECT_NE(printed.output.find(std::string("subject=CN = ") + subject), std::string::npos) << printed.output;
    }
    EXPECT_EQ(fromOpenssl({"cms", "-verify", "-binary", "-inform", "DER", "-in",
                           authority.files.write("message", signMessage(container, stored, chain)), "-CAfile",
                           authority.certificate("root")}),
              document())
        << "the message carries the intermediate";
}

}  // namespace
}  // namespace test
