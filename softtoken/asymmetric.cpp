#include "softtoken/asymmetric.h"

#include <algorithm>
#include <iterator>

#include "softtoken/crypto.h"
#include "softtoken/libgcrypt.h"

namespace softtoken {

namespace {

constexpr unsigned char OID_P256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr unsigned char OID_P384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr unsigned char OID_P521[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

constexpr KeyTypeInfo KEY_TYPES[] = {
    {KEY_TYPE_RSA_1024, true, 1024, 128, nullptr, {}},
    {KEY_TYPE_RSA_2048, true, 2048, 256, nullptr, {}},
    {KEY_TYPE_RSA_3072, true, 3072, 384, nullptr, {}},
    {KEY_TYPE_RSA_4096, true, 4096, 512, nullptr, {}},
    {KEY_TYPE_EC_P256, false, 256, 32, "NIST P-256", OID_P256},
    {KEY_TYPE_EC_P384, false, 384, 48, "NIST P-384", OID_P384},
    {KEY_TYPE_EC_P521, false, 521, 66, "NIST P-521", OID_P521},
};

constexpr DigestInfo DIGESTS[] = {
    {16, "md5", true},   {20, "sha1", true},    {28, "sha224", false}, {32, "sha256", false},
    {36, nullptr, true}, {48, "sha384", false}, {64, "sha512", false},
};

constexpr unsigned char EXPONENT_65537[] = {1, 0, 1};
constexpr std::size_t LEAST_MODULUS = 128;
constexpr std::size_t LONGEST_MODULUS = 512;
constexpr unsigned char UNCOMPRESSED_POINT = 4;
/// RFC 8017, 7.2.1: two marks, a zero and at least eight random bytes.
constexpr std::size_t PKCS1_OVERHEAD = 11;

/// libgcrypt builds from bytes with "%b", which takes an int and a pointer.
int lengthOf(ByteView bytes) {
    return static_cast<int>(bytes.size());
}

template <typename... Arguments>
Sexp build(const char* format, Arguments... arguments) {
    gcry_sexp_t expression = nullptr;
    checkCrypto(gcry_sexp_build(&expression, nullptr, format, arguments...));
    return Sexp(expression);
}

Sexp find(const Sexp& expression, const char* token) {
    Sexp found(gcry_sexp_find_token(expression.get(), token, 0));
    if (!found) {
        throw Error(RESULT_CRYPTO, std::string("libgcrypt gave no ") + token);
    }
    return found;
}

/// The data behind `token`, which has none when it is empty.
ByteView dataOf(const Sexp& list) {
    std::size_t length = 0;
    const char* const data = gcry_sexp_nth_data(list.get(), 1, &length);
    return {reinterpret_cast<const unsigned char*>(data), length};
}

ByteView withoutLeadingZeros(ByteView number) {
    return {std::find_if(number.begin(), number.end(), [](unsigned char byte) { return byte != 0; }), number.end()};
}

/// The number behind `token`, big-endian in exactly `width` bytes.
template <typename Container>
Container numberOf(const Sexp& expression, const char* token, std::size_t width) {
    const Sexp list = find(expression, token);
    const ByteView number = withoutLeadingZeros(dataOf(list));
    if (number.size() > width) {
        throw Error(RESULT_CRYPTO, std::string("libgcrypt gave too long a ") + token);
    }
    Container padded(width - number.size(), 0);
    padded.insert(padded.end(), number.begin(), number.end());
    return padded;
}

Sexp parseKey(ByteView canonical) {
    gcry_sexp_t expression = nullptr;
    checkCrypto(gcry_sexp_new(&expression, canonical.data(), canonical.size(), 1), RESULT_DAMAGED);
    return Sexp(expression);
}

SecretBytes canonicalForm(const Sexp& expression) {
    const std::size_t size = gcry_sexp_sprint(expression.get(), GCRYSEXP_FMT_CANON, nullptr, 0);
    SecretBytes text(size);
    text.resize(gcry_sexp_sprint(expression.get(), GCRYSEXP_FMT_CANON, text.data(), text.size()));
    return text;
}

Sexp rsaDigest(ByteView digest, bool pss) {
    const DigestInfo& info = digestInfo(digest.size());
    const int length = lengthOf(digest);
    if (info.name == nullptr) {
        if (pss) {
            throw Error(RESULT_BAD_LENGTH, "PSS needs the digest of one hash");
        }
        return build("(data (flags pkcs1-raw) (value %b))", length, digest.data());
    }
    return pss ? build("(data (flags pss) (salt-length %d) (hash %s %b))", length, info.name, length, digest.data())
               : build("(data (flags pkcs1) (hash %s %b))", info.name, length, digest.data());
}

Sexp ecDigest(ByteView digest) {
    const DigestInfo& info = digestInfo(digest.size());
    if (info.name == nullptr) {
        throw Error(RESULT_BAD_LENGTH, "ECDSA needs the digest of one hash");
    }
    return build("(data (flags rfc6979) (hash %s %b))", info.name, lengthOf(digest), digest.data());
}

Sexp rsaPublicKey(ByteView modulus, ByteView exponent) {
    const ByteView number = withoutLeadingZeros(modulus);
    if (number.size() < LEAST_MODULUS || number.size() > LONGEST_MODULUS || withoutLeadingZeros(exponent).empty()) {
        throw Error(RESULT_BAD_KEY, "an RSA key has 1024 to 4096 bits and an exponent");
    }
    return build("(public-key (rsa (n %b) (e %b)))", lengthOf(number), number.data(), lengthOf(exponent),
                 exponent.data());
}

struct MpiDeleter {
    void operator()(gcry_mpi* number) const { gcry_mpi_release(number); }
};
struct PointDeleter {
    void operator()(gcry_mpi_point* point) const { gcry_mpi_point_release(point); }
};
struct ContextDeleter {
    void operator()(gcry_context* context) const { gcry_ctx_release(context); }
};

/// Throws unless `point` is uncompressed and lies on the curve: arithmetic with any other point would leak the key.
void requirePointOnCurve(const KeyTypeInfo& type, ByteView point) {
    gcry_ctx_t opened = nullptr;
    checkCrypto(gcry_mpi_ec_new(&opened, nullptr, type.curve));
    const std::unique_ptr<gcry_context, ContextDeleter> curve(opened);
    const std::unique_ptr<gcry_mpi, MpiDeleter> encoded(
        gcry_mpi_set_opaque_copy(nullptr, point.data(), static_cast<unsigned>(point.size() * 8)));
    const std::unique_ptr<gcry_mpi_point, PointDeleter> decoded(gcry_mpi_point_new(0));
    if (point.size() != 1 + 2 * type.fieldSize || point.front() != UNCOMPRESSED_POINT ||
        gcry_mpi_ec_decode_point(decoded.get(), encoded.get(), opened) != 0 ||
        gcry_mpi_ec_curve_point(decoded.get(), opened) == 0) {
        throw Error(RESULT_BAD_KEY, "not an uncompressed point on the curve");
    }
}

void verify(const Sexp& signature, const Sexp& digest, const Sexp& key) {
    checkCrypto(gcry_pk_verify(signature.get(), digest.get(), key.get()), RESULT_BAD_SIGNATURE);
}

/// libgcrypt's name of the OAEP hash; null: PKCS#1 v1.5.
const char* oaepHash(PaddingMode padding) {
    switch (padding) {
        case PADDING_PKCS1:
            return nullptr;
        case PADDING_OAEP:
        case PADDING_OAEP_SHA1:
            return "sha1";
        case PADDING_OAEP_SHA256:
            return "sha256";
        case PADDING_OAEP_SHA384:
            return "sha384";
        case PADDING_OAEP_SHA512:
            return "sha512";
    }
    throw Error(RESULT_BAD_ARGUMENT, "unknown padding");
}

}  // namespace

const KeyTypeInfo& keyTypeInfo(std::int64_t type) {
    for (const KeyTypeInfo& info : KEY_TYPES) {
        if (info.type == type) {
            return info;
        }
    }
    throw Error(RESULT_BAD_ARGUMENT, "unknown key type " + std::to_string(type));
}

ByteView standardExponent() {
    return EXPONENT_65537;
}

const DigestInfo& digestInfo(std::size_t length) {
    for (const DigestInfo& info : DIGESTS) {
        if (info.length == length) {
            return info;
        }
    }
    throw Error(RESULT_BAD_LENGTH, "no hash has a digest of " + std::to_string(length) + " bytes");
}

std::size_t signatureSize(const KeyTypeInfo& type) {
    return type.isRsa ? type.fieldSize : 2 * type.fieldSize;
}

GeneratedKey generateKey(const KeyTypeInfo& type) {
    const Sexp wanted = type.isRsa ? build("(genkey (rsa (nbits %u) (rsa-use-e 5:65537)))", type.bits)
                                   : build("(genkey (ecc (curve %s)))", type.curve);
    gcry_sexp_t made = nullptr;
    checkCrypto(gcry_pk_genkey(&made, wanted.get()));
    const Sexp both(made);
    const Sexp publicHalf = find(both, "public-key");
    GeneratedKey key;
    key.privateKey = canonicalForm(find(both, "private-key"));
    if (type.isRsa) {
        key.publicKey = numberOf<Bytes>(publicHalf, "n", type.fieldSize);
    } else {
        const Sexp list = find(publicHalf, "q");
        const ByteView point = dataOf(list);
        key.publicKey.assign(point.begin(), point.end());
        requirePointOnCurve(type, key.publicKey);
    }
    return key;
}

Bytes signDigest(const KeyTypeInfo& type, ByteView privateKey, ByteView digest, bool pss) {
    const Sexp data = type.isRsa ? rsaDigest(digest, pss) : ecDigest(digest);
    gcry_sexp_t made = nullptr;
    checkCrypto(gcry_pk_sign(&made, data.get(), parseKey(privateKey).get()));
    const Sexp signature(made);
    if (type.isRsa) {
        return numberOf<Bytes>(signature, "s", type.fieldSize);
    }
    auto both = numberOf<Bytes>(signature, "r", type.fieldSize);
    const auto second = numberOf<Bytes>(signature, "s", type.fieldSize);
    both.insert(both.end(), second.begin(), second.end());
    return both;
}

void verifyRsa(ByteView modulus, ByteView exponent, ByteView digest, ByteView signature, bool pss) {
    const Sexp key = rsaPublicKey(modulus, exponent);
    if (signature.size() != withoutLeadingZeros(modulus).size()) {
        throw Error(RESULT_BAD_SIGNATURE, "the signature is not as long as the modulus");
    }
    verify(build("(sig-val (rsa (s %b)))", lengthOf(signature), signature.data()), rsaDigest(digest, pss), key);
}

void verifyEcdsa(const KeyTypeInfo& type, ByteView point, ByteView digest, ByteView signature) {
    requirePointOnCurve(type, point);
    if (signature.size() != signatureSize(type)) {
        throw Error(RESULT_BAD_SIGNATURE, "the signature has the wrong length");
    }
    const int half = static_cast<int>(type.fieldSize);
    verify(build("(sig-val (ecdsa (r %b) (s %b)))", half, signature.data(), half, signature.data() + type.fieldSize),
           ecDigest(digest), build("(public-key (ecc (curve %s) (q %b)))", type.curve, lengthOf(point), point.data()));
}

Bytes encryptRsa(ByteView modulus, ByteView exponent, PaddingMode padding, ByteView data) {
    const char* const hash = oaepHash(padding);
    const Sexp key = rsaPublicKey(modulus, exponent);
    const std::size_t size = withoutLeadingZeros(modulus).size();
    if (hash == nullptr && data.size() + PKCS1_OVERHEAD > size) {
        throw Error(RESULT_BAD_LENGTH, "the data is too long for the key");  // libgcrypt would shorten the padding
    }
    const Sexp plain = hash == nullptr
                           ? build("(data (flags pkcs1) (value %b))", lengthOf(data), data.data())
                           : build("(data (flags oaep) (hash-algo %s) (value %b))", hash, lengthOf(data), data.data());
    gcry_sexp_t made = nullptr;
    checkCrypto(gcry_pk_encrypt(&made, plain.get(), key.get()), RESULT_BAD_LENGTH);
    return numberOf<Bytes>(Sexp(made), "a", size);
}

SecretBytes decryptRsa(const KeyTypeInfo& type, ByteView privateKey, ByteView data, bool allowPkcs1) {
    if (!type.isRsa) {
        throw Error(RESULT_WRONG_KEY_TYPE, "only RSA keys decrypt");
    }
    if (data.size() != type.fieldSize) {
        throw Error(RESULT_BAD_LENGTH, "the ciphertext is not as long as the modulus");
    }
    const Sexp key = parseKey(privateKey);
    for (const PaddingMode padding :
         {PADDING_OAEP_SHA1, PADDING_OAEP_SHA256, PADDING_OAEP_SHA384, PADDING_OAEP_SHA512, PADDING_PKCS1}) {
        if (padding == PADDING_PKCS1 && !allowPkcs1) {
            break;
        }
        const char* const hash = oaepHash(padding);
        const Sexp cipher = hash == nullptr ? build("(enc-val (flags pkcs1) (rsa (a %b)))", lengthOf(data), data.data())
                                            : build("(enc-val (flags oaep) (hash-algo %s) (rsa (a %b)))", hash,
                                                    lengthOf(data), data.data());
        gcry_sexp_t made = nullptr;
        if (gcry_pk_decrypt(&made, cipher.get(), key.get()) == 0) {
            const Sexp plain(made);
            const ByteView value = dataOf(plain);
            return {value.begin(), value.end()};
        }
    }
    throw Error(RESULT_BAD_DATA, "no padding fits");
}

SecretBytes deriveShared(const KeyTypeInfo& type, ByteView privateKey, ByteView peerPoint) {
    if (type.isRsa) {
        throw Error(RESULT_WRONG_KEY_TYPE, "only EC keys agree on a secret");
    }
    requirePointOnCurve(type, peerPoint);
    const Sexp peer = build("(enc-val (ecdh (e %b)))", lengthOf(peerPoint), peerPoint.data());
    gcry_sexp_t made = nullptr;
    checkCrypto(gcry_pk_decrypt(&made, peer.get(), parseKey(privateKey).get()), RESULT_BAD_KEY);
    const Sexp shared(made);
    const ByteView point = dataOf(shared);
    if (point.size() != 1 + 2 * type.fieldSize) {
        throw Error(RESULT_CRYPTO, "libgcrypt gave no point");
    }
    const ByteView x = point.subspan(1, type.fieldSize);
    return {x.begin(), x.end()};
}

}  // namespace softtoken
