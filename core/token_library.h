// The contract of ZentokDSCLibrary, the token library: its records, its enumerations and its 28 operations.
//
// Every operation on a token names it by its serial text, as zentok_getConnectedDeviceList delivers it; there is no
// session. The records cross the boundary as blocks of memory, and strings and vectors as the standard containers of
// the one toolchain that builds both modules: offsets and sizes below are binary facts and are held by static_asserts.
//
// Ownership:
//  - a result delivered through a pointer to pointer comes from malloc and is released by the caller with std::free;
//  - vectors returned by reference and records returned by pointer stay the library's: copy at once, keep nothing;
//  - what is returned by value, and a CertificateDetails, is the caller's.
//
// Unless said otherwise an operation returns 0 for success and any other value for failure. `context` is a reserved
// slot that is null today and is carried through on every call.
//
// Operations come from the host's threads and from the device monitor's thread at the same time: the provider takes no
// lock around them, and the library must be safe for that.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

constexpr std::uint32_t CREDENTIAL_ID_SIZE = 16;  ///< bytes of a key's identity on its token

/// The token's self-description, zentok_getTokenInfo. `text1` is empty when the library could not answer for the
/// serial.
struct TokenInfo {
    std::string text1;  ///< not empty: the token answered
    std::string text2;
    std::string text3;
    std::string text4;
    std::string modelVersion;     ///< third character '1': FIPS 140-2 class
    std::string firmwareVersion;  ///< dotted text, e.g. "2.0.0"
    std::string text7;
    unsigned char unread1[12] = {};
    std::int32_t ssoEnabled = 0;
    std::int32_t ssoValidated = 0;  ///< 1 together with ssoEnabled 1: the PIN need not be asked
    unsigned char unread2[20] = {};
    std::string text8;
    std::string text9;
    /// A library newer than this header may write a longer record into the caller's storage; this room absorbs it.
    unsigned char reserve[184] = {};
};

/// A key pair on a token. Also the input of zentok_generateKeyPair, with only `keyUsage` and `keyType` set.
struct ZentokKeyPair {
    std::int32_t reserved;
    unsigned char credentialId[16];  ///< the key's identity on its token
    unsigned char publicKey[1024];   ///< RSA: raw big-endian modulus or DER SubjectPublicKeyInfo; EC: raw point
    std::int32_t publicKeyLength;    ///< bytes used in publicKey
    unsigned char keyLabel[128];
    std::int32_t keyLabelLength;  ///< bytes used in keyLabel
    char alias[129];              ///< NUL-terminated
    unsigned char padding1[3];
    std::int32_t keyUsage;  ///< KeyUsage
    std::int32_t keyType;   ///< KeyType; 0 on input lets the library choose
    bool tokenFlag;         ///< set by the library, handed back to zentok_decrypt and zentok_deleteKeyPair
    unsigned char padding2[3];
};

/// A certificate on a token; `credentialId` is all zero for a chain certificate without a key.
struct ZentokCertificate {
    std::int32_t reserved;
    unsigned char credentialId[16];
    unsigned char certificate[3072];  ///< DER
    std::int32_t certificateLength;   ///< bytes used in certificate
    unsigned char keyLabel[128];
    std::int32_t keyLabelLength;
    char alias[129];
    unsigned char padding[19];
    std::int32_t reserved2;
};

/// An AES key on a token.
struct ZentokSymmetricKey {
    unsigned char reserved[8];
    unsigned char credentialId[16];
    unsigned char keyValue[128];  ///< in: the clear key; in a list: what zentok_decrypt_aes takes as its key
    std::int32_t keyValueLength;  ///< 16, 24 or 32
    unsigned char keyLabel[128];
    std::int32_t keyLabelLength;
    char alias[129];
    unsigned char padding1[3];
    std::int32_t keyUsage;
    std::int32_t keyType;  ///< SymmetricKeyType
    bool tokenFlag;        ///< handed back to zentok_decrypt_aes when a key of the list is tried
    unsigned char padding2[3];
};

/// What zentok_getCertificateDetails reads out of a DER certificate.
struct CertificateDetails {
    std::string field1;
    std::string field2;  ///< first part of the label that certificate import composes
    std::string issuer;  ///< issuer distinguished name
    std::string field4;
    std::string field5;
    std::int32_t value1 = 0;
    std::int32_t value2 = 0;
    std::int32_t value3 = 0;
    std::string field6;
    std::string subject;  ///< subject distinguished name
    std::string field8;
    std::vector<unsigned char> publicKey;  ///< same form as ZentokKeyPair::publicKey, so the two compare as bytes
};

// The layouts above, held. std::string is 32 bytes and std::vector 24 in the release runtime of every 64-bit toolchain
// that can build this.
// offsetof on a record with strings is conditionally supported; every compiler named in the build offers it.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif
static_assert(sizeof(std::string) == 32 && sizeof(std::vector<unsigned char>) == 24);
static_assert(offsetof(TokenInfo, text2) == 32 && offsetof(TokenInfo, modelVersion) == 128);
static_assert(offsetof(TokenInfo, firmwareVersion) == 160 && offsetof(TokenInfo, text7) == 192);
static_assert(offsetof(TokenInfo, ssoEnabled) == 236 && offsetof(TokenInfo, ssoValidated) == 240);
static_assert(offsetof(TokenInfo, text8) == 264 && offsetof(TokenInfo, text9) == 296);
static_assert(offsetof(TokenInfo, reserve) == 328 && sizeof(TokenInfo) >= 328);
static_assert(offsetof(CertificateDetails, field2) == 32 && offsetof(CertificateDetails, issuer) == 64);
static_assert(offsetof(CertificateDetails, value1) == 160 && offsetof(CertificateDetails, value3) == 168);
static_assert(offsetof(CertificateDetails, field6) == 176 && offsetof(CertificateDetails, subject) == 208);
static_assert(offsetof(CertificateDetails, field8) == 240 && offsetof(CertificateDetails, publicKey) == 272);
static_assert(sizeof(CertificateDetails) == 296);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
static_assert(offsetof(ZentokKeyPair, credentialId) == 4 && offsetof(ZentokKeyPair, publicKey) == 20);
static_assert(offsetof(ZentokKeyPair, publicKeyLength) == 1044 && offsetof(ZentokKeyPair, keyLabel) == 1048);
static_assert(offsetof(ZentokKeyPair, keyLabelLength) == 1176 && offsetof(ZentokKeyPair, alias) == 1180);
static_assert(offsetof(ZentokKeyPair, keyUsage) == 1312 && offsetof(ZentokKeyPair, keyType) == 1316);
static_assert(offsetof(ZentokKeyPair, tokenFlag) == 1320 && sizeof(ZentokKeyPair) == 1324);
static_assert(offsetof(ZentokCertificate, credentialId) == 4 && offsetof(ZentokCertificate, certificate) == 20);
static_assert(offsetof(ZentokCertificate, certificateLength) == 3092 && offsetof(ZentokCertificate, keyLabel) == 3096);
static_assert(offsetof(ZentokCertificate, keyLabelLength) == 3224 && offsetof(ZentokCertificate, alias) == 3228);
static_assert(offsetof(ZentokCertificate, reserved2) == 3376 && sizeof(ZentokCertificate) == 3380);
static_assert(offsetof(ZentokSymmetricKey, credentialId) == 8 && offsetof(ZentokSymmetricKey, keyValue) == 24);
static_assert(offsetof(ZentokSymmetricKey, keyValueLength) == 152 && offsetof(ZentokSymmetricKey, keyLabel) == 156);
static_assert(offsetof(ZentokSymmetricKey, keyLabelLength) == 284 && offsetof(ZentokSymmetricKey, alias) == 288);
static_assert(offsetof(ZentokSymmetricKey, keyUsage) == 420 && offsetof(ZentokSymmetricKey, keyType) == 424);
static_assert(offsetof(ZentokSymmetricKey, tokenFlag) == 428 && sizeof(ZentokSymmetricKey) == 432);
static_assert(sizeof(bool) == 1);

/// `keyUsage` of the records.
enum KeyUsage : std::int32_t { KEY_USAGE_SIGN = 1, KEY_USAGE_EXCHANGE = 2, KEY_USAGE_BOTH = 3 };

/// `keyType` of ZentokKeyPair.
enum KeyType : std::int32_t {
    KEY_TYPE_ANY = 0,
    KEY_TYPE_RSA_1024 = 1,
    KEY_TYPE_RSA_2048 = 2,
    KEY_TYPE_RSA_3072 = 3,
    KEY_TYPE_RSA_4096 = 4,
    KEY_TYPE_EC_P256 = 5,
    KEY_TYPE_EC_P384 = 6,
    KEY_TYPE_EC_P521 = 7,
};

/// `keyType` of ZentokSymmetricKey.
enum SymmetricKeyType : std::int32_t { KEY_TYPE_AES_128 = 8, KEY_TYPE_AES_256 = 10, KEY_TYPE_AES_192 = 11 };

/// Cipher of zentok_encrypt and zentok_encrypt_aes.
enum EncryptionType : std::int32_t {
    ENCRYPTION_AES_128_CBC = 1,
    ENCRYPTION_AES_LONG_CBC = 2,  ///< 192 or 256-bit key
    ENCRYPTION_AES_128_ECB = 5,
    ENCRYPTION_AES_LONG_ECB = 6,
    ENCRYPTION_RSA_1024 = 7,
    ENCRYPTION_RSA_2048 = 8,
    ENCRYPTION_RSA_3072 = 9,
    ENCRYPTION_RSA_4096 = 10,
};

/// Padding of zentok_encrypt.
enum PaddingMode : std::int32_t {
    PADDING_PKCS1 = 1,
    PADDING_OAEP = 4,  ///< with the library's default hash
    PADDING_OAEP_SHA256 = 5,
    PADDING_OAEP_SHA384 = 6,
    PADDING_OAEP_SHA512 = 7,
    PADDING_OAEP_SHA1 = 8,
};

/// Hash selector of zentok_initHash.
enum HashType : std::int32_t {
    HASH_SHA1 = 2,
    HASH_SHA256 = 3,
    HASH_SHA384 = 4,
    HASH_SHA512 = 5,
    HASH_SHA224 = 6,
};

/// The result codes that the provider tells apart; every other non-zero code is just a failure.
enum TokenResult : std::int32_t {
    TOKEN_OK = 0,
    TOKEN_CLOCK_MISMATCH = 48,  ///< zentok_validatePassword: the token's clock disagrees with the system's
    TOKEN_SSO_EXPIRED = 49,     ///< zentok_signHash, zentok_decrypt: the single sign-on state has lapsed
    TOKEN_WEAK_HASH = 51,       ///< zentok_signHash: SHA-1 and MD5 are refused by this token
};

// C linkage for plain names; the containers in some results are those of the one toolchain of both modules.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#elif defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4190)
#endif

extern "C" {

/// Prepares the library; always called as (0, nullptr, 2), repeatedly. The result is ignored.
int zentok_init(int, void*, int);

/// Serial of each connected token; empty: none. The flag is always false.
std::vector<std::string> zentok_getConnectedDeviceList(bool flag, void* context);

/// Opens the token; `flag` is false on first opening and true directly before zentok_findCertificateForKey.
int zentok_initDevice(const char* serial, bool flag, void* context);

TokenInfo zentok_getTokenInfo(const char* serial, void* context);

/// Checks the PIN. `attempt` is always 1. On a rejection `retries` holds the attempts left, 0 meaning locked.
int zentok_validatePassword(const char* serial, const char* password, int attempt, int* retries, void* context);

const std::vector<ZentokKeyPair>& zentok_getKeyPairList(const char* serial, void* context);
const std::vector<ZentokCertificate>& zentok_getCertificateList(const char* serial, void* context);
const std::vector<ZentokSymmetricKey>& zentok_getAesKeyList(const char* serial, void* context);

/// The key's certificate, the library's own record; null: the key has none.
const ZentokCertificate* zentok_findCertificateForKey(const char* serial, const unsigned char* credentialId,
                                                      void* context);

/// In: keyUsage and keyType. Out on success: the whole record.
int zentok_generateKeyPair(const char* serial, const char* password, ZentokKeyPair* keyPair, void* context);

int zentok_deleteKeyPair(const char* serial, const unsigned char* credentialId, const char* password, bool tokenFlag,
                         void* context);

/// Renames the key pair to `alias`; null and 0 are passed for `data` and `dataLength`. The result is ignored.
int zentok_updateKeyPairDetails(const char* serial, const unsigned char* credentialId, const char* password,
                                const char* alias, const unsigned char* data, int dataLength, void* context);

int zentok_importCertificate(const char* serial, const char* password, ZentokCertificate* certificate, void* context);

/// In: keyValue, keyValueLength, keyType. Out: the rest of the record.
int zentok_importAesKey(const char* serial, const char* password, ZentokSymmetricKey* key, void* context);

/// Signs a digest. `signatureLength` enters as the room in `signature` and returns the bytes written. `first` is always
/// false; `pss` selects RSA-PSS. RSA signatures are big-endian, EC ones r || s.
int zentok_signHash(const char* serial, const unsigned char* credentialId, const char* password,
                    const unsigned char* hash, int hashLength, unsigned char* signature, int* signatureLength,
                    bool first, void* context, bool pss);

/// 0: the signature is good. `publicKey` is a DER SubjectPublicKeyInfo for RSA, the raw point for EC.
int zentok_verifySignatureHash(std::uint32_t keyType, const char* serial, const unsigned char* hash, int hashLength,
                               const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                               int signatureLength, void* context, bool pss);

/// RSA public-key encryption into the caller's buffer, whose room the library is not told: it has the modulus' size at
/// least. `resultLength` enters as 0.
int zentok_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* data, int dataLength,
                   unsigned char* result, int* resultLength, const unsigned char* publicKey, int publicKeyLength,
                   void* context);

/// RSA private-key decryption; the result is allocated.
int zentok_decrypt(const char* serial, const unsigned char* credentialId, const char* password,
                   const unsigned char* data, int dataLength, unsigned char** result, int* resultLength, bool tokenFlag,
                   void* context);

/// AES under a key that the caller holds; the result is allocated. `final` is CryptoAPI's Final argument. A null IV of
/// length 0 means none. The last pair of data arguments is always null and 0. `serial` may be empty.
int zentok_encrypt_aes(const char* serial, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* data, int dataLength, unsigned char** result, int* resultLength, bool final,
                       const unsigned char* iv, int ivLength, const unsigned char* extra, int extraLength,
                       void* context);

/// AES decryption; the result is allocated. `flag` is false on the data path and the key's tokenFlag when a key of
/// zentok_getAesKeyList is tried. `serial` may be empty.
int zentok_decrypt_aes(const char* serial, const unsigned char* key, int keyLength, const unsigned char* data,
                       int dataLength, unsigned char** result, int* resultLength, bool flag, const unsigned char* iv,
                       int ivLength, void* context);

/// Symmetric decryption into the caller's buffer.
int zentok_decryptSymetric(const char* serial, const unsigned char* data, int dataLength, unsigned char* result,
                           int* resultLength, const unsigned char* iv, int ivLength, const unsigned char* key,
                           int keyLength, void* context);

/// Raw ECDH on the token; the secret is allocated.
int zentok_ecdhDerive(const char* serial, const unsigned char* credentialId, const char* password,
                      const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** secret,
                      int* secretLength, void* context);

/// Random bytes; `software` true asks for the library's own generator, and `serial` may then be empty.
int zentok_generateRamdomNumber(const char* serial, int length, unsigned char* buffer, bool software, void* context);

/// Creates a running hash behind `hash`, which the caller cleared. `serial` may be empty.
int zentok_initHash(const char* serial, int hashType, void** hash, void* context);
int zentok_updateHash(void* hash, const unsigned char* data, int length, void* context);

/// Ends the hash: `digestLength` enters as the room and returns the digest size. The object is gone afterwards.
int zentok_finalHash(void* hash, unsigned char* digest, int* digestLength, void* context);

/// Parses a DER certificate; no token is involved.
int zentok_getCertificateDetails(const unsigned char* certificate, int certificateLength, CertificateDetails& details,
                                 void* context);

/// Every file of `folder` with one of the `extensions` (each with its dot), as (path, DER bytes).
std::vector<std::pair<std::string, std::vector<unsigned char>>> zentok_getFilesWithExtensionsAndConvertDER(
    const std::string& folder, const std::vector<std::string>& extensions, void* context);

}  // extern "C"

#if defined(__clang__)
#pragma clang diagnostic pop
#elif defined(_MSC_VER)
#pragma warning(pop)
#endif
