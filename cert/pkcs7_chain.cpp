#include "cert/pkcs7_chain.h"

#include <memory>
#include <string>

#include <wincrypt.h>

#include "core/last_error.h"
#include "core/log.h"

namespace {

constexpr DWORD ENCODING = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

static_assert(sizeof(CERT_CHAIN_PARA) == 32 && sizeof(CMSG_SIGNED_ENCODE_INFO) == 48);

/// Releases a platform handle, and leaves the caller the last error of what went before.
template <auto Release, auto... Arguments>
struct Releaser {
    template <typename Handle>
    void operator()(Handle* handle) const {
        const LastErrorKeeper keeper;
        Release(handle, Arguments...);
    }
};

using CertificateContext = std::unique_ptr<const CERT_CONTEXT, Releaser<&CertFreeCertificateContext>>;
using CertificateStore = std::unique_ptr<void, Releaser<&CertCloseStore, DWORD{0}>>;
using ChainContext = std::unique_ptr<const CERT_CHAIN_CONTEXT, Releaser<&CertFreeCertificateChain>>;
using Message = std::unique_ptr<void, Releaser<&CryptMsgClose>>;

BOOL fail(const char* message) {
    logError(message);
    return FALSE;
}

BOOL fail(DWORD code, const char* message) {
    logError(message);
    SetLastError(code);
    return FALSE;
}

/// Null when the certificate cannot be parsed, or its length lies outside its field.
const CERT_CONTEXT* parse(const ZentokCertificate& record) {
    if (record.certificateLength < 0 ||
        record.certificateLength > static_cast<std::int32_t>(sizeof record.certificate)) {
        return nullptr;
    }
    return CertCreateCertificateContext(ENCODING, record.certificate, static_cast<DWORD>(record.certificateLength));
}

bool isIssuedBy(const CERT_CONTEXT& certificate, const CERT_CONTEXT& issuer) {
    return CertCompareCertificateName(X509_ASN_ENCODING, &certificate.pCertInfo->Issuer, &issuer.pCertInfo->Subject) !=
           FALSE;
}

struct Issuer {
    const ZentokCertificate* record = nullptr;
    const CERT_CONTEXT* context = nullptr;
};

Issuer findIssuer(const CERT_CONTEXT& certificate, const ZentokCertificate& leaf,
                  const std::vector<ZentokCertificate>& candidates) {
    for (const ZentokCertificate& candidate : candidates) {
        if (&candidate == &leaf) {
            continue;
        }
        const CERT_CONTEXT* context = parse(candidate);
        if (context != nullptr && isIssuedBy(certificate, *context)) {
            return {&candidate, context};
        }
    }
    return {};
}

CertificateStore makeStore(const std::vector<ZentokCertificate>& certificates) {
    CertificateStore store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    if (store != nullptr) {
        for (const ZentokCertificate& record : certificates) {
            if (const CertificateContext certificate(parse(record)); certificate != nullptr) {
                CertAddCertificateContextToStore(store.get(), certificate.get(), CERT_STORE_ADD_ALWAYS, nullptr);
            }
        }
    }
    return store;
}

ChainContext buildChain(const CERT_CONTEXT* leaf, HCERTSTORE store) {
    CERT_CHAIN_PARA parameters = {};
    parameters.cbSize = sizeof parameters;
    const CERT_CHAIN_CONTEXT* chain = nullptr;
    if (CertGetCertificateChain(nullptr, leaf, nullptr, store, &parameters, 0, nullptr, &chain) == FALSE) {
        return nullptr;
    }
    return ChainContext(chain);
}

/// The encoded certificates of every simple chain, root first. The bytes stay the chain's.
std::vector<CERT_BLOB> encodedCertificates(const CERT_CHAIN_CONTEXT& chain) {
    std::vector<CERT_BLOB> certificates;
    for (DWORD i = 0; i < chain.cChain; ++i) {
        const CERT_SIMPLE_CHAIN& simpleChain = *chain.rgpChain[i];
        for (DWORD element = simpleChain.cElement; element > 0; --element) {
            const CERT_CONTEXT& certificate = *simpleChain.rgpElement[element - 1]->pCertContext;
            certificates.push_back({certificate.cbCertEncoded, certificate.pbCertEncoded});
        }
    }
    return certificates;
}

Message openMessage(std::vector<CERT_BLOB>& certificates) {
    CMSG_SIGNED_ENCODE_INFO info = {};
    info.cbSize = sizeof info;
    info.cCertEncoded = static_cast<DWORD>(certificates.size());
    info.rgCertEncoded = certificates.data();
    return Message(CryptMsgOpenToEncode(ENCODING, 0, CMSG_SIGNED, &info, nullptr, nullptr));
}

}  // namespace

std::vector<ZentokCertificate> orderCertificateChain(const ZentokCertificate& leaf,
                                                     const std::vector<ZentokCertificate>& candidates) {
    // The contexts of this walk are left to the process, by contract: none is freed.
    std::vector<ZentokCertificate> chain = {leaf};
    const CERT_CONTEXT* current = parse(leaf);
    if (current == nullptr) {
        logInfo("[ERROR] Cannot parse leaf cert");
        return chain;
    }
    for (Issuer issuer = findIssuer(*current, leaf, candidates); issuer.record != nullptr;
         issuer = findIssuer(*issuer.context, leaf, candidates)) {
        chain.push_back(*issuer.record);
        if (isIssuedBy(*issuer.context, *issuer.context)) {
            logInfo("[ROOT] Self-signed root detected.");
            break;
        }
    }
    return chain;
}

BOOL BuildCertificateChain(const std::vector<ZentokCertificate>& certificates, BYTE* output, DWORD* length) {
    if (certificates.empty()) {
        return fail(static_cast<DWORD>(NTE_NO_KEY), "Certificate Is Empty");
    }
    const CertificateContext leaf(parse(certificates.front()));
    if (leaf == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "Failed creating leaf certificate");
    }
    const CertificateStore store = makeStore(certificates);
    if (store == nullptr) {
        return fail("BuildCertificateChain: CertOpenStore failed");
    }
    const ChainContext chain = buildChain(leaf.get(), store.get());
    if (chain == nullptr) {
        return fail("Chain build failed");
    }
    std::vector<CERT_BLOB> encoded = encodedCertificates(*chain);
    if (encoded.empty()) {
        return fail("No certificates in PKCS#7 chain");
    }
    const Message message = openMessage(encoded);
    if (message == nullptr) {
        return fail("BuildCertificateChain: CryptMsgOpenToEncode failed");
    }
    DWORD size = 0;
    CryptMsgUpdate(message.get(), nullptr, 0, TRUE);  // no content, the certificates are all
    CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &size);
    if (output == nullptr || *length < size) {
        *length = size;
        SetLastError(ERROR_MORE_DATA);  // a size answer is a success with this code
        return TRUE;
    }
    if (CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, output, length) == FALSE) {
        return fail("BuildCertificateChain: CryptMsgGetParam failed");
    }
    return TRUE;
}
