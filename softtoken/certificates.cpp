#include "softtoken/certificates.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include <windows.h>

#include <wincrypt.h>

#include "softtoken/result.h"

namespace softtoken {

namespace {

constexpr DWORD ENCODING = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr std::string_view PEM_BEGIN = "-----BEGIN PUBLIC KEY-----\n";
constexpr std::string_view PEM_END = "-----END PUBLIC KEY-----\n";
constexpr unsigned char DER_NULL[] = {0x05, 0x00};
/// PUBLICKEYBLOB of wincrypt.h: BLOBHEADER, RSAPUBKEY, modulus little-endian.
constexpr DWORD RSA1_MAGIC = 0x31415352;
constexpr std::size_t LONGEST_FILE = 1048576;

struct LocalDeleter {
    void operator()(void* memory) const { LocalFree(memory); }
};

struct ContextDeleter {
    void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
};
using CertificateContext = std::unique_ptr<const CERT_CONTEXT, ContextDeleter>;

/// A structure that crypt32 decoded, which lies in one allocation; null when it refused.
template <typename T>
std::unique_ptr<T, LocalDeleter> decode(LPCSTR type, const BYTE* data, DWORD length) {
    void* decoded = nullptr;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(ENCODING, type, data, length, CRYPT_DECODE_ALLOC_FLAG, nullptr, &decoded, &size)) {
        return nullptr;
    }
    return std::unique_ptr<T, LocalDeleter>(static_cast<T*>(decoded));
}

Bytes encode(LPCSTR type, const void* structure) {
    BYTE* encoded = nullptr;
    DWORD size = 0;
    if (!CryptEncodeObjectEx(ENCODING, type, structure, CRYPT_ENCODE_ALLOC_FLAG, nullptr, &encoded, &size)) {
        throw Error(RESULT_CRYPTO, "crypt32 cannot encode the key");
    }
    const std::unique_ptr<BYTE, LocalDeleter> owner(encoded);
    return {encoded, encoded + size};
}

/// crypt32's structures point to bytes that they do not change.
BYTE* unchanged(const unsigned char* bytes) {
    return const_cast<BYTE*>(bytes);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

DATA_BLOB blobOf(ByteView bytes) {
    return {static_cast<DWORD>(bytes.size()), unchanged(bytes.data())};
}

/// crypt32 keeps numbers little-endian.
Bytes bigEndian(const CRYPT_INTEGER_BLOB& number) {
    Bytes bytes(std::make_reverse_iterator(number.pbData + number.cbData), std::make_reverse_iterator(number.pbData));
    bytes.erase(bytes.begin(), std::find_if(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte != 0; }));
    return bytes;
}

/// The two numbers of an RSAPublicKey (RFC 8017, A.1.1); empty ones when it is malformed. Decoded number by number:
/// crypt32's own form of the whole keeps the exponent in 32 bits and refuses what does not fit.
RsaPublicKey rsaNumbers(const CRYPT_BIT_BLOB& key) {
    RsaPublicKey numbers;
    const auto sequence = decode<CRYPT_SEQUENCE_OF_ANY>(X509_SEQUENCE_OF_ANY, key.pbData, key.cbData);
    if (sequence == nullptr || sequence->cValue != 2) {
        return numbers;
    }
    const auto number = [&sequence](DWORD index) {
        const CRYPT_DER_BLOB& der = sequence->rgValue[index];
        const auto decoded = decode<CRYPT_UINT_BLOB>(X509_MULTI_BYTE_UINT, der.pbData, der.cbData);
        return decoded == nullptr ? Bytes() : bigEndian(*decoded);
    };
    numbers.modulus = number(0);
    numbers.exponent = number(1);
    return numbers;
}

bool isAlgorithm(const CRYPT_ALGORITHM_IDENTIFIER& algorithm, const char* oid) {
    return algorithm.pszObjId != nullptr && std::strcmp(algorithm.pszObjId, oid) == 0;
}

/// PUBLICKEYBLOB for crypt32's RSA encoder.
Bytes rsaBlob(const KeyTypeInfo& type, ByteView modulus) {
    const BLOBHEADER header = {PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, CALG_RSA_KEYX};
    DWORD exponent = 0;
    for (const unsigned char byte : standardExponent()) {
        exponent = (exponent << 8) | byte;
    }
    const RSAPUBKEY key = {RSA1_MAGIC, type.bits, exponent};
    Bytes blob(sizeof header + sizeof key);
    std::memcpy(blob.data(), &header, sizeof header);
    std::memcpy(blob.data() + sizeof header, &key, sizeof key);
    blob.insert(blob.end(), modulus.rbegin(), modulus.rend());
    return blob;
}

std::string timeText(const FILETIME& time) {
    SYSTEMTIME parts = {};
    if (!FileTimeToSystemTime(&time, &parts)) {
        return {};
    }
    char text[32] = {};
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02uZ", parts.wYear, parts.wMonth, parts.wDay,
                  parts.wHour, parts.wMinute, parts.wSecond);
    return text;
}

std::string nameText(CERT_NAME_BLOB name) {
    const DWORD size = CertNameToStrW(ENCODING, &name, CERT_X500_NAME_STR, nullptr, 0);
    WideText text(size, WCHAR());
    text.resize(std::max<DWORD>(CertNameToStrW(ENCODING, &name, CERT_X500_NAME_STR, text.data(), size), 1) - 1);
    return narrow(text);
}

std::string commonName(PCCERT_CONTEXT certificate) {
    char oid[] = szOID_COMMON_NAME;
    const DWORD size = CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, 0, oid, nullptr, 0);
    WideText text(size, WCHAR());
    text.resize(std::max<DWORD>(CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, 0, oid, text.data(), size), 1) -
                1);
    return narrow(text);
}

std::string fingerprint(PCCERT_CONTEXT certificate) {
    Bytes hash(20);
    auto size = static_cast<DWORD>(hash.size());
    return CertGetCertificateContextProperty(certificate, CERT_SHA1_HASH_PROP_ID, hash.data(), &size) ? hexText(hash)
                                                                                                      : std::string();
}

/// The row whose curve the certificate names; null for any other.
const KeyTypeInfo* curveOf(const CRYPT_OBJID_BLOB& parameters) {
    const ByteView named(parameters.pbData, parameters.cbData);
    for (const KeyType type : {KEY_TYPE_EC_P256, KEY_TYPE_EC_P384, KEY_TYPE_EC_P521}) {
        const KeyTypeInfo& info = keyTypeInfo(type);
        if (std::equal(named.begin(), named.end(), info.curveParameter.begin(), info.curveParameter.end())) {
            return &info;
        }
    }
    return nullptr;
}

/// publicKey, value2 and value3.
void readSubjectKey(const CERT_PUBLIC_KEY_INFO& key, CertificateDetails& details) {
    if (isAlgorithm(key.Algorithm, szOID_RSA_RSA)) {
        details.publicKey = rsaNumbers(key.PublicKey).modulus;
        details.value2 = static_cast<std::int32_t>(details.publicKey.size() * 8);
        for (const KeyType type : {KEY_TYPE_RSA_1024, KEY_TYPE_RSA_2048, KEY_TYPE_RSA_3072, KEY_TYPE_RSA_4096}) {
            if (keyTypeInfo(type).fieldSize == details.publicKey.size()) {
                details.value3 = type;
            }
        }
        return;
    }
    details.publicKey.assign(key.PublicKey.pbData, key.PublicKey.pbData + key.PublicKey.cbData);
    const KeyTypeInfo* const curve =
        isAlgorithm(key.Algorithm, szOID_ECC_PUBLIC_KEY) ? curveOf(key.Algorithm.Parameters) : nullptr;
    if (curve != nullptr) {
        details.value2 = static_cast<std::int32_t>(curve->bits);
        details.value3 = curve->type;
    }
}

bool hasExtension(const WideText& name, const std::vector<std::string>& extensions) {
    return std::any_of(extensions.begin(), extensions.end(), [&name](const std::string& extension) {
        const WideText wide = widen(extension, CP_ACP);
        return name.size() >= wide.size() &&
               CompareStringOrdinal(name.data() + (name.size() - wide.size()), -1, wide.data(), -1, TRUE) == CSTR_EQUAL;
    });
}

/// The first certificate of a file's contents as DER; empty when there is none.
Bytes certificateOf(ByteView contents) {
    const CERT_BLOB blob = blobOf(contents);
    const CERT_CONTEXT* found = nullptr;
    if (!CryptQueryObject(CERT_QUERY_OBJECT_BLOB, &blob, CERT_QUERY_CONTENT_FLAG_CERT, CERT_QUERY_FORMAT_FLAG_ALL, 0,
                          nullptr, nullptr, nullptr, nullptr, nullptr, reinterpret_cast<const void**>(&found))) {
        return {};
    }
    const CertificateContext certificate(found);
    return {certificate->pbCertEncoded, certificate->pbCertEncoded + certificate->cbCertEncoded};
}

}  // namespace

RsaPublicKey readRsaPublicKey(ByteView subjectPublicKeyInfo) {
    const auto info = decode<CERT_PUBLIC_KEY_INFO>(X509_PUBLIC_KEY_INFO, subjectPublicKeyInfo.data(),
                                                   static_cast<DWORD>(subjectPublicKeyInfo.size()));
    RsaPublicKey key;
    if (info != nullptr && isAlgorithm(info->Algorithm, szOID_RSA_RSA)) {
        key = rsaNumbers(info->PublicKey);
    }
    if (key.modulus.empty() || key.exponent.empty()) {
        throw Error(RESULT_BAD_KEY, "not an RSA SubjectPublicKeyInfo");
    }
    return key;
}

std::string publicKeyPem(const KeyTypeInfo& type, ByteView publicKey) {
    char rsa[] = szOID_RSA_RSA;
    char ec[] = szOID_ECC_PUBLIC_KEY;
    const Bytes key = type.isRsa ? encode(RSA_CSP_PUBLICKEYBLOB, rsaBlob(type, publicKey).data())
                                 : Bytes(publicKey.begin(), publicKey.end());
    CERT_PUBLIC_KEY_INFO info = {};
    info.Algorithm.pszObjId = type.isRsa ? rsa : ec;
    info.Algorithm.Parameters = blobOf(type.isRsa ? ByteView(DER_NULL) : type.curveParameter);
    info.PublicKey = {static_cast<DWORD>(key.size()), unchanged(key.data()), 0};
    const Bytes der = encode(X509_PUBLIC_KEY_INFO, &info);

    DWORD size = 0;
    CryptBinaryToStringA(der.data(), static_cast<DWORD>(der.size()), CRYPT_STRING_BASE64, nullptr, &size);
    std::string base64(size, '\0');
    if (size == 0 ||
        !CryptBinaryToStringA(der.data(), static_cast<DWORD>(der.size()), CRYPT_STRING_BASE64, base64.data(), &size)) {
        throw Error(RESULT_CRYPTO, "crypt32 cannot write PEM");
    }
    base64.resize(size);
    std::erase(base64, '\r');
    return std::string(PEM_BEGIN).append(base64).append(PEM_END);
}

CertificateDetails readCertificate(ByteView der) {
    const CertificateContext certificate(
        CertCreateCertificateContext(ENCODING, der.data(), static_cast<DWORD>(der.size())));
    if (certificate == nullptr) {
        throw Error(RESULT_BAD_CERTIFICATE, "not a DER certificate");
    }
    const CERT_INFO& info = *certificate->pCertInfo;
    CertificateDetails details;
    details.field1 = hexText(bigEndian(info.SerialNumber));
    details.field2 = commonName(certificate.get());
    details.issuer = nameText(info.Issuer);
    details.field4 = timeText(info.NotBefore);
    details.field5 = timeText(info.NotAfter);
    details.value1 = static_cast<std::int32_t>(info.dwVersion) + 1;
    details.field6 = fingerprint(certificate.get());
    details.subject = nameText(info.Subject);
    details.field8 = info.SignatureAlgorithm.pszObjId == nullptr ? "" : info.SignatureAlgorithm.pszObjId;
    readSubjectKey(info.SubjectPublicKeyInfo, details);
    return details;
}

std::vector<std::pair<std::string, Bytes>> certificateFiles(const std::string& folder,
                                                            const std::vector<std::string>& extensions) {
    const WideText wideFolder = widen(folder, CP_ACP);
    std::vector<std::pair<std::string, Bytes>> files;
    for (const FolderEntry& entry : listFolder(wideFolder)) {
        if (entry.isFolder || !hasExtension(entry.name, extensions)) {
            continue;
        }
        const WideText path = wideFolder + TEXT("\\") + entry.name;
        try {
            Bytes der = certificateOf(readFile(path, LONGEST_FILE));
            if (!der.empty()) {
                files.emplace_back(narrow(path, CP_ACP), std::move(der));
            }
        } catch (const Error&) {
            // unreadable
        }
    }
    return files;
}

Bytes protectForUser(ByteView secret, ByteView context) {
    DATA_BLOB in = blobOf(secret);
    DATA_BLOB entropy = blobOf(context);
    DATA_BLOB out = {};
    if (!CryptProtectData(&in, nullptr, &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out)) {
        throw Error(RESULT_CRYPTO, "the platform cannot protect user data");
    }
    const std::unique_ptr<BYTE, LocalDeleter> owner(out.pbData);
    return {out.pbData, out.pbData + out.cbData};
}

SecretBytes unprotectForUser(ByteView blob, ByteView context) {
    DATA_BLOB in = blobOf(blob);
    DATA_BLOB entropy = blobOf(context);
    DATA_BLOB out = {};
    if (!CryptUnprotectData(&in, nullptr, &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out)) {
        throw Error(RESULT_BAD_DATA, "the data is protected for another user, or altered");
    }
    const std::unique_ptr<BYTE, LocalDeleter> owner(out.pbData);
    SecretBytes secret(out.pbData, out.pbData + out.cbData);
    SecureZeroMemory(out.pbData, out.cbData);
    return secret;
}

}  // namespace softtoken
