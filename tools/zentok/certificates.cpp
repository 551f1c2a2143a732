#include "tools/zentok/certificates.h"

#include <algorithm>
#include <cstdio>

#include "tools/zentok/failure.h"
#include "tools/zentok/sized_answer.h"
#include "tools/zentok/text.h"

namespace {

constexpr DWORD ENCODING = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

/// The NULL that the parameters of an RSA algorithm are (RFC 4055).
constexpr BYTE DER_NULL[] = {0x05, 0x00};

std::string nameText(CERT_NAME_BLOB& name) {
    constexpr DWORD FORMAT = CERT_X500_NAME_STR;
    WideText text(CertNameToStrW(X509_ASN_ENCODING, &name, FORMAT, nullptr, 0), 0);
    CertNameToStrW(X509_ASN_ENCODING, &name, FORMAT, text.data(), static_cast<DWORD>(text.size()));
    return toUtf8(text.c_str());
}

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};

/// The certificates of a PKCS#7 message, each by its own reference.
std::vector<Certificate> certificatesIn(std::span<const BYTE> message) {
    DATA_BLOB blob = blobOf(message);
    const std::unique_ptr<void, StoreCloser> store(CertOpenStore(CERT_STORE_PROV_PKCS7, ENCODING, 0, 0, &blob));
    if (!store) {
        throw platformFailure("read the certificate chain", GetLastError());
    }
    std::vector<Certificate> certificates;
    for (const CERT_CONTEXT* each = nullptr; (each = CertEnumCertificatesInStore(store.get(), each)) != nullptr;) {
        certificates.emplace_back(CertDuplicateCertificateContext(each));
    }
    return certificates;
}

}  // namespace

Certificate parseCertificate(std::span<const BYTE> der, const std::string& what) {
    Certificate certificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
    if (!certificate) {
        throw Failure(what + " is no X.509 certificate\nA certificate is expected as PEM or DER.");
    }
    return certificate;
}

std::string subjectText(const Certificate& certificate) {
    return nameText(certificate->pCertInfo->Subject);
}

std::string issuerText(const Certificate& certificate) {
    return nameText(certificate->pCertInfo->Issuer);
}

std::string certificateDescription(std::span<const BYTE> der) {
    if (der.empty()) {
        return "  no certificate\n";
    }
    const Certificate certificate = parseCertificate(der, "what the token holds as certificate");
    return "  certificate of " + subjectText(certificate) + "\n    issued by " + issuerText(certificate) +
           ", valid until " + lastDay(certificate) + "\n";
}

std::string lastDay(const Certificate& certificate) {
    SYSTEMTIME time = {};
    if (FileTimeToSystemTime(&certificate->pCertInfo->NotAfter, &time) == FALSE) {
        return "?";
    }
    char text[32] = {};
    std::snprintf(text, sizeof text, "%04u-%02u-%02u", time.wYear, time.wMonth, time.wDay);
    return text;
}

Bytes publicKeyInfo(const Context& context) {
    // The answer holds pointers into itself; only its encoding leaves this function.
    const std::string action = "export the public key";
    Bytes info = sizedAnswer(action, [&](BYTE* data, DWORD* size) {
        return CryptExportPublicKeyInfo(context.get(), AT_SIGNATURE, X509_ASN_ENCODING,
                                        reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(data), size);
    });
    return encodeObject(X509_PUBLIC_KEY_INFO, info.data(), action);
}

Bytes publicKeyInfo(const Certificate& certificate) {
    return encodeObject(X509_PUBLIC_KEY_INFO, &certificate->pCertInfo->SubjectPublicKeyInfo,
                        "read the certificate's key");
}

void requireSameKey(const Certificate& certificate, const Bytes& publicKeyInfo, const Arguments& arguments) {
    if (::publicKeyInfo(certificate) != publicKeyInfo) {
        throw Failure(arguments.get("in") + " is the certificate of another key than that of the container \"" +
                      arguments.get("container") + "\"");
    }
}

Bytes certificateRequest(const Context& context, const std::string& subject) {
    // The platform signs whatever its encoder makes, and takes the request's parts as they are.
    const Bytes info = certificationRequestInfo(subject, publicKeyInfo(context));
    CRYPT_SEQUENCE_OF_ANY* parts = nullptr;
    DWORD size = 0;
    if (CryptDecodeObjectEx(ENCODING, X509_SEQUENCE_OF_ANY, info.data(), static_cast<DWORD>(info.size()),
                            CRYPT_DECODE_ALLOC_FLAG, nullptr, &parts, &size) == FALSE) {
        throw platformFailure("encode the request", GetLastError());
    }
    const std::unique_ptr<CRYPT_SEQUENCE_OF_ANY, decltype(&LocalFree)> owner(parts, &LocalFree);
    char algorithmName[] = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm = {algorithmName, blobOf(DER_NULL)};
    return sizedAnswer("sign the request", [&](BYTE* data, DWORD* room) {
        return CryptSignAndEncodeCertificate(context.get(), AT_SIGNATURE, X509_ASN_ENCODING, X509_SEQUENCE_OF_ANY,
                                             parts, &algorithm, nullptr, data, room);
    });
}

Bytes signMessage(const Context& context, const std::string& container, std::string_view content, bool detached,
                  bool cng) {
    const Bytes der = readCertificate(requireKey(context, container));
    if (der.empty()) {
        throw Failure("the container \"" + container +
                      "\" has no certificate\n`zentok certificate import` stores one on the token.");
    }
    const Certificate signer = parseCertificate(der, "what the token holds as certificate");
    WideText name = toWide(container);
    WideText provider = PROVIDER_NAME;
    CRYPT_KEY_PROV_INFO key = {};
    key.pwszContainerName = name.data();
    key.pwszProvName = provider.data();
    key.dwProvType = cng ? 0 : PROV_RSA_FULL;  // 0: a key storage provider
    key.dwKeySpec = cng ? 0 : AT_SIGNATURE;
    if (CertSetCertificateContextProperty(signer.get(), CERT_KEY_PROV_INFO_PROP_ID, 0, &key) == FALSE) {
        throw platformFailure("name the signer's key", GetLastError());
    }
    const std::vector<Certificate> chain = certificatesIn(readCertificateChain(context));
    std::vector<const CERT_CONTEXT*> carried(chain.size());
    std::ranges::transform(chain, carried.begin(), &Certificate::get);
    char hash[] = szOID_NIST_sha256;
    CRYPT_SIGN_MESSAGE_PARA parameters = {};
    parameters.cbSize = sizeof parameters;
    parameters.dwMsgEncodingType = ENCODING;
    parameters.pSigningCert = signer.get();
    parameters.HashAlgorithm.pszObjId = hash;
    parameters.cMsgCert = static_cast<DWORD>(carried.size());
    parameters.rgpMsgCert = carried.data();
    const auto* bytes = reinterpret_cast<const BYTE*>(content.data());
    auto size = static_cast<DWORD>(content.size());
    return sizedAnswer("sign the message", [&](BYTE* data, DWORD* room) {
        return CryptSignMessage(&parameters, detached ? TRUE : FALSE, 1, &bytes, &size, data, room);
    });
}
