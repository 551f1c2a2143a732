#include "tools/zentok/certificates.h"

#include <algorithm>
#include <cstdio>

#include "tools/zentok/failure.h"
#include "tools/zentok/text.h"

namespace {

constexpr DWORD ENCODING = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

/// The NULL that the parameters of an RSA algorithm are (RFC 4055).
constexpr BYTE DER_NULL[] = {0x05, 0x00};

DATA_BLOB blobOf(std::span<const BYTE> bytes) {
    return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

/// Calls a function of the platform twice: for the size of its answer and for the answer.
template <typename Call>
std::vector<BYTE> sizedAnswer(const std::string& action, Call call) {
    DWORD size = 0;
    if (call(nullptr, &size) == FALSE) {
        throw platformFailure(action, GetLastError());
    }
    std::vector<BYTE> answer(size);
    if (call(answer.data(), &size) == FALSE) {
        throw platformFailure(action, GetLastError());
    }
    answer.resize(size);
    return answer;
}

std::vector<BYTE> encode(const char* type, const void* value, const std::string& action) {
    return sizedAnswer(action, [&](BYTE* data, DWORD* size) {
        return CryptEncodeObjectEx(ENCODING, type, value, 0, nullptr, data, size);
    });
}

std::string nameText(CERT_NAME_BLOB& name) {
    constexpr DWORD FORMAT = CERT_X500_NAME_STR;
    WideText text(CertNameToStrW(X509_ASN_ENCODING, &name, FORMAT, nullptr, 0), 0);
    CertNameToStrW(X509_ASN_ENCODING, &name, FORMAT, text.data(), static_cast<DWORD>(text.size()));
    return toUtf8(text.c_str());
}

std::vector<BYTE> encodedName(const std::string& subject) {
    const WideText wide = toWide(subject);
    DWORD size = 0;
    const WCHAR* wrong = nullptr;
    if (CertStrToNameW(X509_ASN_ENCODING, wide.c_str(), CERT_X500_NAME_STR, nullptr, nullptr, &size, &wrong) == FALSE) {
        throw UsageError("--subject is no X.500 name such as \"CN=Somebody, O=Firm, C=DE\"" +
                         (wrong == nullptr || *wrong == 0 ? "" : "; it goes wrong at \"" + toUtf8(wrong) + "\""));
    }
    std::vector<BYTE> name(size);
    if (CertStrToNameW(X509_ASN_ENCODING, wide.c_str(), CERT_X500_NAME_STR, nullptr, name.data(), &size, nullptr) ==
        FALSE) {
        throw platformFailure("encode the subject", GetLastError());
    }
    name.resize(size);
    return name;
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

std::string pemText(std::span<const BYTE> der, std::string_view label) {
    constexpr DWORD FORMAT = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCR;
    const auto size = static_cast<DWORD>(der.size());
    DWORD length = 0;
    CryptBinaryToStringA(der.data(), size, FORMAT, nullptr, &length);
    std::string base64(length, '\0');
    CryptBinaryToStringA(der.data(), size, FORMAT, base64.data(), &length);
    base64.resize(length);
    const std::string name(label);
    return "-----BEGIN " + name + "-----\n" + base64 + "-----END " + name + "-----\n";
}

std::vector<BYTE> derOf(const std::string& content, const std::string& file) {
    if (content.find("-----BEGIN ") == std::string::npos) {
        return {content.begin(), content.end()};
    }
    const auto length = static_cast<DWORD>(content.size());
    DWORD size = 0;
    std::vector<BYTE> der;
    if (CryptStringToBinaryA(content.data(), length, CRYPT_STRING_BASE64HEADER, nullptr, &size, nullptr, nullptr) !=
        FALSE) {
        der.resize(size);
        CryptStringToBinaryA(content.data(), length, CRYPT_STRING_BASE64HEADER, der.data(), &size, nullptr, nullptr);
    }
    if (der.empty()) {
        throw Failure(file + " is damaged: what stands between its PEM lines is no base64");
    }
    return der;
}

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

std::string lastDay(const Certificate& certificate) {
    SYSTEMTIME time = {};
    if (FileTimeToSystemTime(&certificate->pCertInfo->NotAfter, &time) == FALSE) {
        return "?";
    }
    char text[32] = {};
    std::snprintf(text, sizeof text, "%04u-%02u-%02u", time.wYear, time.wMonth, time.wDay);
    return text;
}

std::vector<BYTE> publicKeyInfo(const Context& context) {
    // The answer holds pointers into itself; only its encoding leaves this function.
    const std::string action = "export the public key";
    std::vector<BYTE> info = sizedAnswer(action, [&](BYTE* data, DWORD* size) {
        return CryptExportPublicKeyInfo(context.get(), AT_SIGNATURE, X509_ASN_ENCODING,
                                        reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(data), size);
    });
    return encode(X509_PUBLIC_KEY_INFO, info.data(), action);
}

std::vector<BYTE> publicKeyInfo(const Certificate& certificate) {
    return encode(X509_PUBLIC_KEY_INFO, &certificate->pCertInfo->SubjectPublicKeyInfo, "read the certificate's key");
}

std::vector<BYTE> certificateRequest(const Context& context, const std::string& subject) {
    // version, subject, public key, no attributes: the parts of a CertificationRequestInfo (RFC 2986, 4.1).
    BYTE version[] = {0x02, 0x01, 0x00};
    BYTE attributes[] = {0xA0, 0x00};
    std::vector<BYTE> name = encodedName(subject);
    std::vector<BYTE> publicKey = publicKeyInfo(context);
    CRYPT_DER_BLOB parts[] = {blobOf(version), blobOf(name), blobOf(publicKey), blobOf(attributes)};
    CRYPT_SEQUENCE_OF_ANY request = {ARRAYSIZE(parts), parts};
    char algorithmName[] = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm = {algorithmName, blobOf(DER_NULL)};
    return sizedAnswer("sign the request", [&](BYTE* data, DWORD* size) {
        return CryptSignAndEncodeCertificate(context.get(), AT_SIGNATURE, X509_ASN_ENCODING, X509_SEQUENCE_OF_ANY,
                                             &request, &algorithm, nullptr, data, size);
    });
}

std::vector<BYTE> signMessage(const Context& context, const std::string& container, std::string_view content,
                              bool detached) {
    const std::vector<BYTE> der = readCertificate(requireKey(context, container));
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
    key.dwProvType = PROV_RSA_FULL;
    key.dwKeySpec = AT_SIGNATURE;
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
