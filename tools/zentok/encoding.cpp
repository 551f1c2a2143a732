#include "tools/zentok/encoding.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>

#include <bcrypt.h>
#include <wincrypt.h>

#include "tools/zentok/failure.h"
#include "tools/zentok/sized_answer.h"
#include "tools/zentok/text.h"

namespace {

/// The DER of a curve's name, as the parameters of an elliptic-curve key have it (RFC 5480), by the size of a
/// coordinate in bytes.
struct Curve {
    std::size_t size;
    std::array<BYTE, 10> name;
};

constexpr Curve CURVES[] = {
    {32, {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}},
    {48, {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}},
    {66, {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}},
};

// AlgorithmIdentifiers: rsaEncryption and sha256WithRSAEncryption (RFC 4055), ecPublicKey (RFC 5480) without its curve,
// and ecdsa-with-SHA256 (RFC 5758).
constexpr BYTE RSA_ENCRYPTION[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                   0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};
constexpr BYTE SHA256_WITH_RSA[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                    0xF7, 0x0D, 0x01, 0x01, 0x0B, 0x05, 0x00};
constexpr BYTE EC_PUBLIC_KEY[] = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
constexpr BYTE ECDSA_WITH_SHA256[] = {0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};

Bytes encodeSequence(std::initializer_list<std::span<const BYTE>> parts) {
    std::vector<CRYPT_DER_BLOB> blobs;
    blobs.reserve(parts.size());
    for (const std::span<const BYTE> part : parts) {
        blobs.push_back(blobOf(part));
    }
    const CRYPT_SEQUENCE_OF_ANY sequence = {static_cast<DWORD>(blobs.size()), blobs.data()};
    return encodeObject(X509_SEQUENCE_OF_ANY, &sequence, "encode a sequence");
}

Bytes encodeBits(std::span<const BYTE> bytes) {
    const CRYPT_BIT_BLOB bits = {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data()), 0};
    return encodeObject(X509_BITS, &bits, "encode a bit string");
}

/// INTEGER of a big-endian number without sign; the platform's encoder has it little-endian.
Bytes encodeNumber(std::span<const BYTE> bytes) {
    Bytes littleEndian(bytes.rbegin(), bytes.rend());
    const DATA_BLOB number = blobOf(littleEndian);
    return encodeObject(X509_MULTI_BYTE_UINT, &number, "encode a number");
}

Bytes encodeName(const std::string& subject) {
    const WideText wide = toWide(subject);
    DWORD size = 0;
    const WCHAR* wrong = nullptr;
    if (CertStrToNameW(X509_ASN_ENCODING, wide.c_str(), CERT_X500_NAME_STR, nullptr, nullptr, &size, &wrong) == FALSE) {
        throw UsageError("--subject is no X.500 name such as \"CN=Somebody, O=Firm, C=DE\"" +
                         (wrong == nullptr || *wrong == 0 ? "" : "; it goes wrong at \"" + toUtf8(wrong) + "\""));
    }
    Bytes name(size);
    if (CertStrToNameW(X509_ASN_ENCODING, wide.c_str(), CERT_X500_NAME_STR, nullptr, name.data(), &size, nullptr) ==
        FALSE) {
        throw platformFailure("encode the subject", GetLastError());
    }
    name.resize(size);
    return name;
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

Bytes derOf(const std::string& content, const std::string& file) {
    if (content.find("-----BEGIN ") == std::string::npos) {
        return {content.begin(), content.end()};
    }
    const auto length = static_cast<DWORD>(content.size());
    DWORD size = 0;
    Bytes der;
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

Bytes encodeObject(const char* type, const void* value, const std::string& action) {
    return sizedAnswer(action, [&](BYTE* data, DWORD* size) {
        return CryptEncodeObjectEx(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, type, value, 0, nullptr, data, size);
    });
}

Bytes rsaPublicKeyInfo(std::span<const BYTE> blob) {
    // A token that holds its keys as SubjectPublicKeyInfo has them exported as if they were moduli.
    const auto content = blob.subspan(std::min(blob.size(), sizeof(BLOBHEADER) + sizeof(RSAPUBKEY)));
    Bytes modulus(content.rbegin(), content.rend());
    DWORD size = 0;
    if (CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, modulus.data(), static_cast<DWORD>(modulus.size()),
                            0, nullptr, nullptr, &size) != FALSE) {
        return modulus;
    }
    const Bytes key = encodeObject(RSA_CSP_PUBLICKEYBLOB, blob.data(), "encode the public key");
    return encodeSequence({RSA_ENCRYPTION, encodeBits(key)});
}

Bytes ecPublicKeyInfo(std::span<const BYTE> blob) {
    BCRYPT_ECCKEY_BLOB header = {};
    if (blob.size() < sizeof header) {
        throw Failure("the provider gave a public key that is none");
    }
    std::memcpy(&header, blob.data(), sizeof header);
    const auto* curve = std::ranges::find(CURVES, header.cbKey, &Curve::size);
    if (curve == std::end(CURVES) || blob.size() != sizeof header + 2 * curve->size) {
        throw Failure("the provider gave a public key on an unknown curve");
    }
    Bytes point = {0x04};  // not compressed (SEC 1, 2.3.3)
    point.insert(point.end(), blob.begin() + sizeof header, blob.end());
    const std::span<const BYTE> name(curve->name.data(), std::size_t{2} + curve->name[1]);
    return encodeSequence({encodeSequence({EC_PUBLIC_KEY, name}), encodeBits(point)});
}

Bytes certificationRequestInfo(const std::string& subject, std::span<const BYTE> publicKeyInfo) {
    constexpr BYTE VERSION[] = {0x02, 0x01, 0x00};
    constexpr BYTE ATTRIBUTES[] = {0xA0, 0x00};
    return encodeSequence({VERSION, encodeName(subject), publicKeyInfo, ATTRIBUTES});
}

Bytes certificationRequest(std::span<const BYTE> info, std::span<const BYTE> signature, bool isRsa) {
    if (isRsa) {
        return encodeSequence({info, SHA256_WITH_RSA, encodeBits(signature)});
    }
    const std::size_t half = signature.size() / 2;
    const Bytes value = encodeSequence({encodeNumber(signature.first(half)), encodeNumber(signature.subspan(half))});
    return encodeSequence({info, ECDSA_WITH_SHA256, encodeBits(value)});
}
