// A certificate's way: requested with a key on the token, issued by openssl, stored with its issuers, found again, and
// used to sign a message that openssl verifies.
#include <algorithm>

#include "tests/platform/authority.h"
#include "tests/platform/platform_test.h"
#include "tests/support/der.h"

namespace test {
namespace {

using CertificateTest = PlatformTest;

constexpr DWORD ENCODING = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
char g_rsaSha256[] = szOID_RSA_SHA256RSA;
char g_sha256[] = szOID_NIST_sha256;
BYTE g_derNull[] = {0x05, 0x00};
const CRYPT_ALGORITHM_IDENTIFIER RSA_SHA256 = {g_rsaSha256, {sizeof g_derNull, g_derNull}};
const CRYPT_ALGORITHM_IDENTIFIER SHA256 = {g_sha256, {}};

DATA_BLOB blobOf(const Bytes& bytes) {
    return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

Bytes encode(const char* type, const void* value) {
    return answerOf(
        [&](BYTE* data, DWORD* size) { return CryptEncodeObjectEx(ENCODING, type, value, 0, nullptr, data, size); });
}

void logIn(const Context& context) {
    ASSERT_EQ(outcome(CryptSetProvParam(context.get(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(PIN), 0)), OK);
}

Bytes makeRequest(const Context& context) {
    const Bytes version = {0x02, 0x01, 0x00};
    const Bytes attributes = {0xA0, 0x00};
    const Bytes name = answerOf([](BYTE* data, DWORD* size) {
        return CertStrToNameA(X509_ASN_ENCODING, "CN=Token Holder", CERT_X500_NAME_STR, nullptr, data, size, nullptr);
    });
    Bytes info = answerOf([&](BYTE* data, DWORD* size) {
        return CryptExportPublicKeyInfo(context.get(), AT_SIGNATURE, X509_ASN_ENCODING,
                                        reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(data), size);
    });
    const Bytes publicKey = encode(X509_PUBLIC_KEY_INFO, info.data());
    CRYPT_DER_BLOB parts[] = {blobOf(version), blobOf(name), blobOf(publicKey), blobOf(attributes)};
    CRYPT_SEQUENCE_OF_ANY request = {ARRAYSIZE(parts), parts};
    CRYPT_ALGORITHM_IDENTIFIER algorithm = RSA_SHA256;
    return answerOf([&](BYTE* data, DWORD* size) {
        return CryptSignAndEncodeCertificate(context.get(), AT_SIGNATURE, X509_ASN_ENCODING, X509_SEQUENCE_OF_ANY,
                                             &request, &algorithm, nullptr, data, size);
    });
}

/// Where the content of the DER element at `offset` begins.
std::size_t contentOf(const Bytes& bytes, std::size_t offset) {
    return offset + (bytes.at(offset + 1) < 0x80 ? 2 : 2U + (bytes.at(offset + 1) & 0x7FU));
}

/// A SignedData without signers with the two empty SETs that Wine's encoder leaves out and openssl asks for.
Bytes withEmptySets(const Bytes& message) {
    const std::size_t oid = contentOf(message, 0);
    const std::size_t tagged = contentOf(message, oid) + message.at(oid + 1);
    const std::size_t version = contentOf(message, contentOf(message, tagged));
    const auto afterVersion = message.begin() + static_cast<std::ptrdiff_t>(version + 3);
    if (*afterVersion == 0x31) {
        return message;
    }
    Bytes signedData(message.begin() + static_cast<std::ptrdiff_t>(version), afterVersion);
    signedData.insert(signedData.end(), {0x31, 0x00});
    signedData.insert(signedData.end(), afterVersion, message.end());
    signedData.insert(signedData.end(), {0x31, 0x00});
    const Bytes type(message.begin() + static_cast<std::ptrdiff_t>(oid),
                     message.begin() + static_cast<std::ptrdiff_t>(tagged));
    return der(0x30, {type, der(0xA0, {der(0x30, {signedData})})});
}

/// The document as SignedData, which carries the certificates of `chain`.
Bytes signMessage(const Context& context, const Bytes& certificate, const Bytes& chain) {
    const CERT_CONTEXT* signer =
        CertCreateCertificateContext(ENCODING, certificate.data(), static_cast<DWORD>(certificate.size()));
    if (signer == nullptr) {
        ADD_FAILURE() << "no certificate";
        return {};
    }
    CMSG_SIGNER_ENCODE_INFO signerInfo = {};
    signerInfo.cbSize = sizeof signerInfo;
    signerInfo.pCertInfo = signer->pCertInfo;
    signerInfo.hCryptProv = context.get();
    signerInfo.dwKeySpec = AT_SIGNATURE;
    signerInfo.HashAlgorithm = SHA256;
    DATA_BLOB chainBlob = blobOf(chain);
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_PKCS7, ENCODING, 0, 0, &chainBlob);
    std::vector<CERT_BLOB> carried;
    for (const CERT_CONTEXT* each = nullptr; (each = CertEnumCertificatesInStore(store, each)) != nullptr;) {
        carried.push_back({each->cbCertEncoded, each->pbCertEncoded});
    }
    EXPECT_EQ(carried.size(), 3U);
    CMSG_SIGNED_ENCODE_INFO info = {};
    info.cbSize = sizeof info;
    info.cSigners = 1;
    info.rgSigners = &signerInfo;
    info.cCertEncoded = static_cast<DWORD>(carried.size());
    info.rgCertEncoded = carried.data();
    Bytes result;
    HCRYPTMSG message = CryptMsgOpenToEncode(ENCODING, 0, CMSG_SIGNED, &info, nullptr, nullptr);
    EXPECT_NE(message, nullptr);
    if (message != nullptr) {
        const auto size = static_cast<DWORD>(document().size());
        EXPECT_EQ(outcome(CryptMsgUpdate(message, document().data(), size, TRUE)), OK);
        result = answerOf(
            [&](BYTE* data, DWORD* length) { return CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, data, length); });
        CryptMsgClose(message);
    }
    CertCloseStore(store, 0);
    CertFreeCertificateContext(signer);
    return result;
}

TEST_F(CertificateTest, FromTheRequestToTheSignedMessage) {
    const Authority authority;
    const Token token;
    Bytes certificate;
    {
        const Context context = acquire(container);
        logIn(context);
        const Key key = generateKey(context);
        const Bytes request = makeRequest(context);
        ASSERT_FALSE(HasFailure());
        certificate = authority.issue(request);
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
    EXPECT_EQ(printed.exitCode, 0);
    for (const char* subject : {"Test Root", "Test Issuer", "Token Holder"}) {
        EXPECT_NE(printed.output.find(std::string("subject=CN = ") + subject), std::string::npos) << printed.output;
    }

    const Bytes message = signMessage(context, stored, chain);
    openssl({"cms", "-verify", "-binary", "-inform", "DER", "-in", authority.files.write("message", message), "-CAfile",
             authority.root(), "-certfile", authority.issuer(), "-out", authority.native("content")});
    EXPECT_EQ(authority.files.read("content"), document());
}

TEST_F(CertificateTest, WhatCannotBeStoredChangesNothing) {
    const Token token;
    const Context context = acquire(token.addKey());
    const Key key = userKey(context);
    Bytes large(4000, 0);
    std::copy_n(Bytes{0x30, 0x82, 0x0C, 0x00}.begin(), 4, large.begin());  // 3,076 bytes in all, the record has 3,072
    EXPECT_EQ(outcome(CryptSetKeyParam(key.get(), KP_CERTIFICATE, large.data(), 0)), code(NTE_BAD_DATA));
    logIn(context);
    const Bytes garbage = {0x30, 0x03, 0x02, 0x01, 0x00};
    EXPECT_EQ(outcome(CryptSetKeyParam(key.get(), KP_CERTIFICATE, garbage.data(), 0)), code(NTE_FAIL));
    DWORD size = 0;
    EXPECT_EQ(outcome(CryptGetKeyParam(key.get(), KP_CERTIFICATE, nullptr, &size, 0)), code(NTE_NOT_FOUND));
    EXPECT_EQ(outcome(CryptGetProvParam(context.get(), PP_CERTCHAIN, nullptr, &size, 0)), code(NTE_NO_KEY));
}

}  // namespace
}  // namespace test
