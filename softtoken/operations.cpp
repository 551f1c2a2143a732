// The 28 operations: arguments checked, the work handed on, every exception turned into a code.
//
// What the contract leaves open is decided here: the arguments of zentok_init, `flag` of the device list and of
// zentok_initDevice, `attempt`, `first`, `extra` and `context` change nothing. An operation that needs no private key
// of a token ignores the serial, except zentok_generateRamdomNumber with `software` false, which wants a connected
// token. An out length or an allocated result is written only on success.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <windows.h>

#include "core/token_library.h"
#include "softtoken/asymmetric.h"
#include "softtoken/certificates.h"
#include "softtoken/crypto.h"
#include "softtoken/hashes.h"
#include "softtoken/result.h"
#include "softtoken/token.h"

using softtoken::ByteView;
using softtoken::Error;
using softtoken::Padding;
using softtoken::SecretBytes;
using softtoken::Token;

namespace {

constexpr std::size_t LONGEST_PIN = 255;
constexpr std::size_t LONGEST_INPUT_TEXT = 1024;

/// Runs an operation to its code. Nothing escapes: the caller may be any host, in any language.
template <typename Work>
int guarded(Work work) noexcept {
    try {
        softtoken::initialiseCrypto();
        work();
        return TOKEN_OK;
    } catch (const Error& error) {
        return error.code;
    } catch (const std::bad_alloc&) {
        return softtoken::RESULT_NO_MEMORY;
    } catch (...) {
        return softtoken::RESULT_CRYPTO;
    }
}

/// Runs an operation that answers with a value, where `absent` stands for every failure.
template <typename Value, typename Work>
Value guardedValue(Value absent, Work work) noexcept {
    try {
        softtoken::initialiseCrypto();
        return work();
    } catch (...) {
        return absent;
    }
}

[[noreturn]] void failArgument() {
    throw Error(softtoken::RESULT_BAD_ARGUMENT, "null pointer");
}

template <typename... Pointer>
void require(const Pointer*... pointers) {
    if (((pointers == nullptr) || ...)) {
        failArgument();
    }
}

/// A text of bounded length.
std::string_view textOf(const char* text, std::size_t longest) {
    require(text);
    const std::size_t length = strnlen(text, longest + 1);
    if (length > longest) {
        throw Error(softtoken::RESULT_BAD_ARGUMENT, "the text is too long");
    }
    return {text, length};
}

/// Bytes that must be there.
ByteView bytesIn(const unsigned char* data, int length) {
    require(data);
    if (length <= 0) {
        throw Error(softtoken::RESULT_BAD_LENGTH, "no data");
    }
    return {data, static_cast<std::size_t>(length)};
}

/// Bytes that may be absent: length 0, or null with length 0.
ByteView optionalBytesIn(const unsigned char* data, int length) {
    if (length == 0) {
        return {};
    }
    return bytesIn(data, length);
}

/// Copies a result into the caller's room of `*length` bytes.
void copyOut(ByteView result, unsigned char* target, int* length) {
    if (*length < 0 || static_cast<std::size_t>(*length) < result.size()) {
        throw Error(softtoken::RESULT_BUFFER_TOO_SMALL, "no room for the result");
    }
    std::copy(result.begin(), result.end(), target);
    *length = static_cast<int>(result.size());
}

/// Hands a result over in memory of the C allocator, which the caller frees; never null, also when it is empty.
void allocateOut(ByteView result, unsigned char** target, int* length) {
    auto* const memory = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(result.size(), 1)));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    std::copy(result.begin(), result.end(), memory);
    *target = memory;
    *length = static_cast<int>(result.size());
}

Token tokenOf(const char* serial) {
    return softtoken::openToken(textOf(serial, LONGEST_INPUT_TEXT));
}

SecretBytes masterKeyOf(const Token& token, const char* password) {
    return token.memory->pin.unlock(textOf(password, LONGEST_PIN));
}

struct WipingDeleter {
    void operator()(ZentokSymmetricKey* key) const {
        SecureZeroMemory(key, sizeof *key);
        delete key;
    }
};

/// Is this AES type CBC? Throws unless it is an AES type that fits the key.
bool isCbc(EncryptionType type, std::size_t keyLength) {
    const bool isShort = type == ENCRYPTION_AES_128_CBC || type == ENCRYPTION_AES_128_ECB;
    const bool isLong = type == ENCRYPTION_AES_LONG_CBC || type == ENCRYPTION_AES_LONG_ECB;
    if (!isShort && !isLong) {
        throw Error(softtoken::RESULT_BAD_ARGUMENT, "not an AES type");
    }
    if (isShort ? keyLength != 16 : keyLength != 24 && keyLength != 32) {
        throw Error(softtoken::RESULT_BAD_LENGTH, "the key does not fit the type");
    }
    return type == ENCRYPTION_AES_128_CBC || type == ENCRYPTION_AES_LONG_CBC;
}

const std::vector<ZentokKeyPair> NO_KEY_PAIRS;
const std::vector<ZentokCertificate> NO_CERTIFICATES;
const std::vector<ZentokSymmetricKey> NO_AES_KEYS;

}  // namespace

int zentok_init(int, void*, int) {
    return guarded([] {});
}

std::vector<std::string> zentok_getConnectedDeviceList(bool, void*) {
    return guardedValue(std::vector<std::string>(), softtoken::connectedTokens);
}

int zentok_initDevice(const char* serial, bool, void*) {
    return guarded([=] { tokenOf(serial); });
}

TokenInfo zentok_getTokenInfo(const char* serial, void*) {
    return guardedValue(TokenInfo(), [=] {
        const Token token = tokenOf(serial);
        const softtoken::SsoState sso = token.memory->pin.sso();
        TokenInfo info;
        info.text1 = token.label.empty() ? token.serial : token.label;
        info.text2 = "Zentok Soft Token";
        info.text3 = token.serial;
        // The third character tells the FIPS class.
        info.modelVersion = token.isStrict ? "SW2.0" : "SW1.0";
        info.firmwareVersion = token.firmware;
        info.ssoEnabled = sso.enabled ? 1 : 0;
        info.ssoValidated = sso.live ? 1 : 0;
        return info;
    });
}

int zentok_validatePassword(const char* serial, const char* password, int, int* retries, void*) {
    return guarded([=] {
        const Token token = tokenOf(serial);
        const auto report = [&token, retries] {
            if (retries != nullptr) {
                *retries = token.memory->pin.counter().retries;
            }
        };
        try {
            masterKeyOf(token, password);
        } catch (const Error&) {
            report();
            throw;
        }
        report();
    });
}

const std::vector<ZentokKeyPair>& zentok_getKeyPairList(const char* serial, void*) {
    return *guardedValue(&NO_KEY_PAIRS, [=] { return &tokenOf(serial).memory->keyPairs.current(); });
}

const std::vector<ZentokCertificate>& zentok_getCertificateList(const char* serial, void*) {
    return *guardedValue(&NO_CERTIFICATES, [=] { return &tokenOf(serial).memory->certificates.current(); });
}

const std::vector<ZentokSymmetricKey>& zentok_getAesKeyList(const char* serial, void*) {
    return *guardedValue(&NO_AES_KEYS, [=] { return &tokenOf(serial).memory->aesKeys.current(); });
}

const ZentokCertificate* zentok_findCertificateForKey(const char* serial, const unsigned char* credentialId, void*) {
    return guardedValue(static_cast<const ZentokCertificate*>(nullptr), [=] {
        require(credentialId);
        return softtoken::findCertificate(tokenOf(serial), credentialId);
    });
}

int zentok_generateKeyPair(const char* serial, const char* password, ZentokKeyPair* keyPair, void*) {
    return guarded([=] {
        require(keyPair);
        const Token token = tokenOf(serial);
        const SecretBytes masterKey = masterKeyOf(token, password);
        const std::int32_t type = keyPair->keyType == KEY_TYPE_ANY ? KEY_TYPE_RSA_2048 : keyPair->keyType;
        *keyPair =
            softtoken::createKeyPair(token, masterKey, softtoken::keyTypeInfo(type), keyPair->keyUsage, std::string());
    });
}

int zentok_deleteKeyPair(const char* serial, const unsigned char* credentialId, const char* password, bool, void*) {
    return guarded([=] {
        require(credentialId);
        const Token token = tokenOf(serial);
        masterKeyOf(token, password);
        softtoken::deleteKeyPair(token, credentialId);
    });
}

int zentok_updateKeyPairDetails(const char* serial, const unsigned char* credentialId, const char* password,
                                const char* alias, const unsigned char*, int, void*) {
    return guarded([=] {
        require(credentialId);
        const Token token = tokenOf(serial);
        masterKeyOf(token, password);
        softtoken::renameKeyPair(token, credentialId, textOf(alias, LONGEST_INPUT_TEXT));
    });
}

int zentok_importCertificate(const char* serial, const char* password, ZentokCertificate* certificate, void*) {
    return guarded([=] {
        require(certificate);
        const Token token = tokenOf(serial);
        masterKeyOf(token, password);
        softtoken::storeCertificate(token, *certificate);
    });
}

int zentok_importAesKey(const char* serial, const char* password, ZentokSymmetricKey* key, void*) {
    return guarded([=] {
        require(key);
        const Token token = tokenOf(serial);
        // Works on a copy, so that a failure leaves the caller's record as it was.
        const std::unique_ptr<ZentokSymmetricKey, WipingDeleter> copy(new ZentokSymmetricKey(*key));
        softtoken::storeAesKey(token, masterKeyOf(token, password), *copy);
        *key = *copy;
    });
}

int zentok_signHash(const char* serial, const unsigned char* credentialId, const char* password,
                    const unsigned char* hash, int hashLength, unsigned char* signature, int* signatureLength, bool,
                    void*, bool pss) {
    return guarded([=] {
        require(credentialId, signature, signatureLength);
        const ByteView digest = bytesIn(hash, hashLength);
        const Token token = tokenOf(serial);
        const SecretBytes masterKey = masterKeyOf(token, password);
        if (softtoken::digestInfo(digest.size()).isWeak && token.isStrict) {
            throw Error(TOKEN_WEAK_HASH, "this token signs no MD5 and no SHA-1 digests");
        }
        const softtoken::PrivateKey key = softtoken::loadPrivateKey(token, masterKey, credentialId);
        if (*signatureLength < static_cast<int>(softtoken::signatureSize(key.type))) {
            throw Error(softtoken::RESULT_BUFFER_TOO_SMALL, "no room for the signature");
        }
        copyOut(softtoken::signDigest(key.type, key.key, digest, pss), signature, signatureLength);
    });
}

int zentok_verifySignatureHash(std::uint32_t keyType, const char*, const unsigned char* hash, int hashLength,
                               const unsigned char* publicKey, int publicKeyLength, const unsigned char* signature,
                               int signatureLength, void*, bool pss) {
    return guarded([=] {
        const ByteView digest = bytesIn(hash, hashLength);
        const ByteView encodedKey = bytesIn(publicKey, publicKeyLength);
        const ByteView signedBytes = bytesIn(signature, signatureLength);
        const softtoken::KeyTypeInfo& type = softtoken::keyTypeInfo(keyType);
        if (type.isRsa) {
            const softtoken::RsaPublicKey key = softtoken::readRsaPublicKey(encodedKey);
            softtoken::verifyRsa(key.modulus, key.exponent, digest, signedBytes, pss);
        } else {
            softtoken::verifyEcdsa(type, encodedKey, digest, signedBytes);
        }
    });
}

int zentok_encrypt(EncryptionType, PaddingMode padding, const unsigned char* data, int dataLength,
                   unsigned char* result, int* resultLength, const unsigned char* publicKey, int publicKeyLength,
                   void*) {
    return guarded([=] {
        require(result, resultLength);
        const ByteView plain = bytesIn(data, dataLength);
        const softtoken::RsaPublicKey key = softtoken::readRsaPublicKey(bytesIn(publicKey, publicKeyLength));
        const softtoken::Bytes cipher = softtoken::encryptRsa(key.modulus, key.exponent, padding, plain);
        // The length is no room here: it comes in as 0, and the buffer has the size of the modulus by contract.
        *resultLength = static_cast<int>(cipher.size());
        copyOut(cipher, result, resultLength);
    });
}

int zentok_decrypt(const char* serial, const unsigned char* credentialId, const char* password,
                   const unsigned char* data, int dataLength, unsigned char** result, int* resultLength, bool, void*) {
    return guarded([=] {
        require(credentialId, result, resultLength);
        const ByteView cipher = bytesIn(data, dataLength);
        const Token token = tokenOf(serial);
        const SecretBytes masterKey = masterKeyOf(token, password);
        const softtoken::PrivateKey key = softtoken::loadPrivateKey(token, masterKey, credentialId);
        allocateOut(softtoken::decryptRsa(key.type, key.key, cipher, !token.isStrict), result, resultLength);
    });
}

int zentok_encrypt_aes(const char*, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* data, int dataLength, unsigned char** result, int* resultLength, bool final,
                       const unsigned char* iv, int ivLength, const unsigned char*, int, void*) {
    return guarded([=] {
        require(result, resultLength);
        const ByteView clearKey = bytesIn(key, keyLength);
        const ByteView plain = final ? optionalBytesIn(data, dataLength) : bytesIn(data, dataLength);
        static constexpr unsigned char ZERO_IV[softtoken::AES_BLOCK] = {};
        ByteView start;
        if (isCbc(type, clearKey.size())) {
            start = optionalBytesIn(iv, ivLength);
            start = start.empty() ? ByteView(ZERO_IV) : start;
        }
        allocateOut(softtoken::encryptAes(clearKey, start, plain, final ? Padding::PKCS7 : Padding::NONE), result,
                    resultLength);
    });
}

int zentok_decrypt_aes(const char* serial, const unsigned char* key, int keyLength, const unsigned char* data,
                       int dataLength, unsigned char** result, int* resultLength, bool flag, const unsigned char* iv,
                       int ivLength, void*) {
    return guarded([=] {
        require(result, resultLength);
        const ByteView givenKey = bytesIn(key, keyLength);
        const ByteView cipher = bytesIn(data, dataLength);
        const ByteView start = optionalBytesIn(iv, ivLength);
        if (!flag) {
            allocateOut(softtoken::decryptAes(givenKey, start, cipher, Padding::PKCS7), result, resultLength);
            return;
        }
        // A key of the list. Callers try one after the other on a wrapped key, so that without an IV the result must
        // tell the right key: RFC 3394 has an integrity check, block modes have none.
        const Token token = tokenOf(serial);
        const SecretBytes tokenKey = softtoken::loadAesKey(token, token.memory->pin.unlockedKey(), givenKey);
        allocateOut(start.empty() ? softtoken::unwrapKey(tokenKey, cipher)
                                  : softtoken::decryptAes(tokenKey, start, cipher, Padding::PKCS7),
                    result, resultLength);
    });
}

int zentok_decryptSymetric(const char*, const unsigned char* data, int dataLength, unsigned char* result,
                           int* resultLength, const unsigned char* iv, int ivLength, const unsigned char* key,
                           int keyLength, void*) {
    return guarded([=] {
        require(result, resultLength);
        const ByteView cipher = bytesIn(data, dataLength);
        const SecretBytes plain =
            softtoken::decryptAes(bytesIn(key, keyLength), optionalBytesIn(iv, ivLength), cipher, Padding::NONE);
        // The caller's room is the length of the data by contract; the length comes in as 0.
        *resultLength = dataLength;
        copyOut(plain, result, resultLength);
    });
}

int zentok_ecdhDerive(const char* serial, const unsigned char* credentialId, const char* password,
                      const unsigned char* peerPublicKey, int peerPublicKeyLength, unsigned char** secret,
                      int* secretLength, void*) {
    return guarded([=] {
        require(credentialId, secret, secretLength);
        const ByteView peer = bytesIn(peerPublicKey, peerPublicKeyLength);
        const Token token = tokenOf(serial);
        const SecretBytes masterKey = masterKeyOf(token, password);
        const softtoken::PrivateKey key = softtoken::loadPrivateKey(token, masterKey, credentialId);
        allocateOut(softtoken::deriveShared(key.type, key.key, peer), secret, secretLength);
    });
}

int zentok_generateRamdomNumber(const char* serial, int length, unsigned char* buffer, bool software, void*) {
    return guarded([=] {
        bytesIn(buffer, length);
        if (!software) {
            tokenOf(serial);
        }
        softtoken::fillRandom({buffer, static_cast<std::size_t>(length)});
    });
}

int zentok_initHash(const char*, int hashType, void** hash, void*) {
    return guarded([=] {
        require(hash);
        *hash = softtoken::beginHash(hashType);
    });
}

int zentok_updateHash(void* hash, const unsigned char* data, int length, void*) {
    return guarded([=] { softtoken::updateHash(hash, optionalBytesIn(data, length)); });
}

int zentok_finalHash(void* hash, unsigned char* digest, int* digestLength, void*) {
    return guarded([=] {
        require(digest, digestLength);
        const auto room = static_cast<std::size_t>(std::max(*digestLength, 0));
        *digestLength = static_cast<int>(softtoken::finishHash(hash, {digest, room}));
    });
}

int zentok_getCertificateDetails(const unsigned char* certificate, int certificateLength, CertificateDetails& details,
                                 void*) {
    return guarded([=, &details] { details = softtoken::readCertificate(bytesIn(certificate, certificateLength)); });
}

std::vector<std::pair<std::string, std::vector<unsigned char>>> zentok_getFilesWithExtensionsAndConvertDER(
    const std::string& folder, const std::vector<std::string>& extensions, void*) {
    using Files = std::vector<std::pair<std::string, std::vector<unsigned char>>>;
    return guardedValue(Files(), [&] { return softtoken::certificateFiles(folder, extensions); });
}
