#include "bench/null_token.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>

#include "bench/counters.h"
#include "core/container_map.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

namespace bench {
namespace {

struct NullToken {
    std::string serial;
    std::vector<ZentokKeyPair> keys;
};

constexpr unsigned char RESULT_BYTE = 0x5A;
constexpr int DIGEST_SIZE = 32;  // SHA-256

// Replaced whole, and what was there before stays in being: the device monitor may be reading it.
std::atomic<const std::vector<NullToken>*> g_tokens = nullptr;
ZentokCertificate g_certificate;
const std::vector<ZentokCertificate> NO_CERTIFICATES;
const std::vector<ZentokSymmetricKey> NO_AES_KEYS;

ZentokKeyPair keyPair(std::size_t token, std::size_t key) {
    ZentokKeyPair pair = {};
    pair.credentialId[0] = static_cast<unsigned char>(token);
    pair.credentialId[14] = static_cast<unsigned char>(key >> 8);
    pair.credentialId[15] = static_cast<unsigned char>(key);
    std::fill_n(pair.publicKey, SIGNATURE_SIZE, RESULT_BYTE);  // a raw modulus
    pair.publicKeyLength = SIGNATURE_SIZE;
    std::strcpy(pair.alias, "null");
    pair.keyUsage = KEY_USAGE_BOTH;
    pair.keyType = KEY_TYPE_RSA_2048;
    return pair;
}

int give(unsigned char* target, int* length, int size) {
    std::memset(target, RESULT_BYTE, static_cast<std::size_t>(size));
    *length = size;
    return TOKEN_OK;
}

int giveBlock(unsigned char** target, int* length, int size) {
    *target = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(std::max(size, 1))));
    return give(*target, length, size);
}

std::vector<std::string> serials() {
    std::vector<std::string> list;
    const std::vector<NullToken>& tokens = *g_tokens;
    list.reserve(tokens.size());
    std::transform(tokens.begin(), tokens.end(), std::back_inserter(list), std::mem_fn(&NullToken::serial));
    return list;
}

TokenInfo tokenInfo() {
    TokenInfo info;
    info.text1 = "null";
    info.modelVersion = "1.2";  // FIPS 140-3
    info.firmwareVersion = "2.1.0";
    return info;
}

const std::vector<ZentokKeyPair>& keysOf(const char* serial) {
    return std::ranges::find(*g_tokens, serial, &NullToken::serial)->keys;
}

}  // namespace

void plugIn(std::size_t tokens, std::size_t keys) {
    g_certificate.certificateLength = 1024;
    auto* const added = new std::vector<NullToken>(tokens);
    for (std::size_t token = 0; token < tokens; ++token) {
        NullToken& current = added->at(token);
        current.serial = "NULL-" + std::to_string(token + 1);
        for (std::size_t key = 0; key < keys; ++key) {
            current.keys.push_back(keyPair(token, key));
        }
        pinStateStore(current.serial, PIN);
        pinStateMarkDeviceInitialised(current.serial);
    }
    g_tokens = added;
}

std::string keyTextOf(std::size_t token, std::size_t key) {
    return keyText(keyPair(token, key).credentialId);
}

using Text = const char*;
using In = const unsigned char*;
using Out = unsigned char*;
using Context = void*;
using CertificateFiles = std::vector<std::pair<std::string, std::vector<unsigned char>>>;

/// An operation that counts itself and then does what is said; its arguments are named where they are used.
#define OPERATION(Result, name, parameters, ...) \
    Result zentok_##name parameters {            \
        countLibraryCall();                      \
        __VA_ARGS__;                             \
    }
#define SUCCEEDS(name, parameters) OPERATION(int, name, parameters, return TOKEN_OK)

extern "C" {

SUCCEEDS(init, (int, void*, int))
SUCCEEDS(initDevice, (Text, bool, Context))
SUCCEEDS(validatePassword, (Text, Text, int, int*, Context))
SUCCEEDS(generateKeyPair, (Text, Text, ZentokKeyPair*, Context))
SUCCEEDS(deleteKeyPair, (Text, In, Text, bool, Context))
SUCCEEDS(updateKeyPairDetails, (Text, In, Text, Text, In, int, Context))
SUCCEEDS(importCertificate, (Text, Text, ZentokCertificate*, Context))
SUCCEEDS(importAesKey, (Text, Text, ZentokSymmetricKey*, Context))
SUCCEEDS(verifySignatureHash, (std::uint32_t, Text, In, int, In, int, In, int, Context, bool))
SUCCEEDS(updateHash, (void*, In, int, Context))
SUCCEEDS(getCertificateDetails, (In, int, CertificateDetails&, Context))
OPERATION(int, signHash, (Text, In, Text, In, int, Out signature, int* length, bool, Context, bool),
          return give(signature, length, SIGNATURE_SIZE))
OPERATION(int, encrypt, (EncryptionType, PaddingMode, In, int, Out result, int* length, In, int, Context),
          return give(result, length, SIGNATURE_SIZE))
OPERATION(int, decrypt, (Text, In, Text, In, int, Out* result, int* length, bool, Context),
          return giveBlock(result, length, DIGEST_SIZE))
OPERATION(int, encrypt_aes,
          (Text, EncryptionType, In, int, In, int dataLength, Out* result, int* resultLength, bool, In, int, In, int,
           Context),
          return giveBlock(result, resultLength, dataLength))
OPERATION(int, decrypt_aes, (Text, In, int, In, int dataLength, Out* result, int* resultLength, bool, In, int, Context),
          return giveBlock(result, resultLength, dataLength))
OPERATION(int, decryptSymetric, (Text, In, int dataLength, Out result, int* resultLength, In, int, In, int, Context),
          return give(result, resultLength, dataLength))
OPERATION(int, ecdhDerive, (Text, In, Text, In, int, Out* secret, int* length, Context),
          return giveBlock(secret, length, DIGEST_SIZE))
OPERATION(int, generateRamdomNumber, (Text, int length, Out buffer, bool, Context),
          return give(buffer, &length, length))
OPERATION(int, initHash, (Text, int, void** hash, Context), *hash = &g_certificate; return TOKEN_OK)
OPERATION(int, finalHash, (void*, Out digest, int* length, Context), return give(digest, length, DIGEST_SIZE))
OPERATION(std::vector<std::string>, getConnectedDeviceList, (bool, Context), return serials())
OPERATION(TokenInfo, getTokenInfo, (Text, Context), return tokenInfo())
OPERATION(const std::vector<ZentokKeyPair>&, getKeyPairList, (Text serial, Context), return keysOf(serial))
OPERATION(const std::vector<ZentokCertificate>&, getCertificateList, (Text, Context), return NO_CERTIFICATES)
OPERATION(const std::vector<ZentokSymmetricKey>&, getAesKeyList, (Text, Context), return NO_AES_KEYS)
OPERATION(const ZentokCertificate*, findCertificateForKey, (Text, In, Context), return &g_certificate)
OPERATION(CertificateFiles, getFilesWithExtensionsAndConvertDER,
          (const std::string&, const std::vector<std::string>&, Context), return {})

}  // extern "C"

}  // namespace bench
