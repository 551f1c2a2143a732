#include "cert/key_encoding.h"

#include "core/token_library.h"

namespace {

constexpr unsigned char TAG_INTEGER = 0x02;
constexpr unsigned char TAG_BIT_STRING = 0x03;
constexpr unsigned char TAG_SEQUENCE = 0x30;

/// AlgorithmIdentifier { rsaEncryption, NULL }
constexpr unsigned char RSA_ALGORITHM_IDENTIFIER[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                      0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

using Bytes = std::vector<unsigned char>;

struct EcAlgorithmNames {
    std::int32_t keyType;
    const WCHAR* signature;
    const WCHAR* agreement;
};

// BCRYPT_ECDSA_P256_ALGORITHM and its kin, spelt out: not every platform header has all of them.
constexpr EcAlgorithmNames EC_ALGORITHM_NAMES[] = {
    {KEY_TYPE_EC_P256, TEXT("ECDSA_P256"), TEXT("ECDH_P256")},
    {KEY_TYPE_EC_P384, TEXT("ECDSA_P384"), TEXT("ECDH_P384")},
    {KEY_TYPE_EC_P521, TEXT("ECDSA_P521"), TEXT("ECDH_P521")},
};

unsigned char digitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned char>(digit - '0');
    }
    if (digit >= 'a' && digit <= 'f') {
        return static_cast<unsigned char>(digit - 'a' + 10);
    }
    if (digit >= 'A' && digit <= 'F') {
        return static_cast<unsigned char>(digit - 'A' + 10);
    }
    return 0;
}

void append(Bytes& target, std::span<const unsigned char> bytes) {
    target.insert(target.end(), bytes.begin(), bytes.end());
}

std::size_t lengthSize(std::size_t length) {
    std::size_t octets = 1;
    for (std::size_t rest = length < 0x80 ? 0 : length; rest > 0; rest >>= 8) {
        ++octets;
    }
    return octets;
}

std::size_t tlvSize(std::size_t contentSize) {
    return 1 + lengthSize(contentSize) + contentSize;
}

void appendLength(Bytes& target, std::size_t length) {
    std::size_t following = lengthSize(length) - 1;
    target.push_back(static_cast<unsigned char>(following == 0 ? length : 0x80 + following));
    while (following > 0) {
        target.push_back(static_cast<unsigned char>(length >> 8 * --following));
    }
}

void appendHeader(Bytes& target, unsigned char tag, std::size_t contentSize) {
    target.push_back(tag);
    appendLength(target, contentSize);
}

/// A zero byte in front keeps a value positive whose first bit is set.
bool needsSignByte(std::span<const unsigned char> value) {
    return !value.empty() && (value.front() & 0x80) != 0;
}

std::size_t integerSize(std::span<const unsigned char> value) {
    return value.size() + (needsSignByte(value) ? 1 : 0);
}

void appendInteger(Bytes& target, std::span<const unsigned char> value) {
    appendHeader(target, TAG_INTEGER, integerSize(value));
    if (needsSignByte(value)) {
        target.push_back(0);
    }
    append(target, value);
}

}  // namespace

std::vector<unsigned char> hexToBytes(std::string_view text) {
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
    }
    Bytes bytes;
    bytes.reserve((text.size() + 1) / 2);
    if (text.size() % 2 != 0) {
        bytes.push_back(digitValue(text.front()));
        text.remove_prefix(1);
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(digitValue(text[i]) << 4 | digitValue(text[i + 1])));
    }
    return bytes;
}

void writeHex(std::span<const unsigned char> bytes, char* digits) {
    constexpr char DIGITS[] = "0123456789ABCDEF";
    for (const unsigned char byte : bytes) {
        *digits++ = DIGITS[byte >> 4];
        *digits++ = DIGITS[byte & 0x0F];
    }
}

std::string bytesToHex(const unsigned char* bytes, std::int32_t count) {
    const std::span<const unsigned char> all(bytes, static_cast<std::size_t>(count < 1 ? 0 : count));
    std::string text(2 * all.size(), '\0');
    writeHex(all, text.data());
    return text;
}

std::vector<unsigned char> derEncodeLength(std::size_t length) {
    Bytes octets;
    appendLength(octets, length);
    return octets;
}

std::vector<unsigned char> derEncodeTlv(unsigned char tag, std::span<const unsigned char> content) {
    Bytes encoding;
    encoding.reserve(tlvSize(content.size()));
    appendHeader(encoding, tag, content.size());
    append(encoding, content);
    return encoding;
}

std::vector<unsigned char> rsaPublicKeyHexToSpki(std::string_view modulus, std::string_view exponent) {
    return rsaPublicKeyBytesToSpki(hexToBytes(modulus), hexToBytes(exponent));
}

std::vector<unsigned char> rsaPublicKeyBytesToSpki(std::span<const unsigned char> modulus,
                                                   std::span<const unsigned char> exponent) {
    // From the inside out, so that all of it goes into one block.
    const std::size_t keySize = tlvSize(integerSize(modulus)) + tlvSize(integerSize(exponent));
    const std::size_t bitStringSize = 1 + tlvSize(keySize);
    const std::size_t contentSize = sizeof RSA_ALGORITHM_IDENTIFIER + tlvSize(bitStringSize);
    Bytes spki;
    spki.reserve(tlvSize(contentSize));
    appendHeader(spki, TAG_SEQUENCE, contentSize);
    append(spki, RSA_ALGORITHM_IDENTIFIER);
    appendHeader(spki, TAG_BIT_STRING, bitStringSize);
    spki.push_back(0);  // no unused bits
    appendHeader(spki, TAG_SEQUENCE, keySize);
    appendInteger(spki, modulus);
    appendInteger(spki, exponent);
    return spki;
}

std::vector<unsigned char> intToBigEndianBytes(std::int32_t value, std::size_t width) {
    Bytes bytes(width, 0);
    for (std::size_t i = width; i > 0 && value > 0; --i, value >>= 8) {
        bytes[i - 1] = static_cast<unsigned char>(value & 0xFF);
    }
    return bytes;
}

bool isDerPublicKey(std::span<const unsigned char> publicKey) {
    return publicKey.empty() || publicKey.front() == TAG_SEQUENCE;
}

std::uint32_t keySizeToBits(std::int32_t keyType) {
    constexpr std::uint32_t BITS[] = {0, 1024, 2048, 3072, 4096, 256, 384, 521};
    return keyType >= 0 && keyType < static_cast<std::int32_t>(std::size(BITS)) ? BITS[keyType] : 0;
}

std::int32_t rsaBitsToKeySize(std::uint32_t bits) {
    for (const std::int32_t keyType : {KEY_TYPE_RSA_1024, KEY_TYPE_RSA_2048, KEY_TYPE_RSA_3072, KEY_TYPE_RSA_4096}) {
        if (keySizeToBits(keyType) == bits) {
            return keyType;
        }
    }
    return 0;
}

const WCHAR* keySizeToCngEccAlgorithm(std::int32_t keyType, std::int32_t keyUsage) {
    for (const EcAlgorithmNames& row : EC_ALGORITHM_NAMES) {
        if (row.keyType == keyType) {
            return keyUsage == KEY_USAGE_EXCHANGE ? row.agreement : row.signature;
        }
    }
    return TEXT("RSA");
}
