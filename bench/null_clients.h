// Clients of the provider's code over the null token, whose handles end with the process; and beside them what the
// library does for them.
#pragma once

#include <string>
#include <vector>

#include "bench/counters.h"
#include "bench/measure.h"
#include "bench/null_token.h"
#include "capi/csp_interface.h"
#include "capi/hash.h"
#include "capi/user_keys.h"
#include "cng/functions.h"
#include "core/token_library.h"
#include "core/wide_text.h"

namespace bench {

constexpr std::size_t KEYS = 10;  ///< on the one token, unless said otherwise
constexpr DWORD DIGEST_SIZE = 32;

inline HCRYPTPROV acquire(const std::string& container) {
    VTableProvStruc platformTable = {};
    HCRYPTPROV context = 0;
    require(CPAcquireContext(&context, container.c_str(), CRYPT_SILENT, &platformTable), "CPAcquireContext");
    return context;
}
inline void acquireAndRelease(const std::string& container) {
    require(CPReleaseContext(acquire(container), 0), "CPReleaseContext");
}

/// A context on the last key of the first token, with that key and a SHA-256 hash.
class CryptoApiClient {
public:
    CryptoApiClient() {
        require(CPCreateHash(context, CALG_SHA_256, 0, 0, &hash), "CPCreateHash");
        require(CPGetUserKey(context, AT_KEYEXCHANGE, &key), "CPGetUserKey");
        ecKey.algId = ALG_EC_KEY;
        ecKey.bitSize = 256;
        ecKey.publicKeyLength = 65;
        sign();
    }
    /// The hash becomes what it was before its first signature: running, and bound to no key.
    void startOver() const {
        HASH_CONTEXT& record = *reinterpret_cast<HASH_CONTEXT*>(hash);
        record.mechanism = record.hashAlgorithm;
        record.hashLen = 0;
        record.credentialIdLength = 0;
        record.finalized = false;
    }
    void sign() {
        DWORD length = sizeof signature;
        require(CPSignHash(context, hash, AT_SIGNATURE, nullptr, 0, signature, &length), "CPSignHash");
    }
    void verify() { verifyWith(key); }
    void verifyEc() { verifyWith(reinterpret_cast<HCRYPTKEY>(&ecKey)); }
    void verifyWithContainer() { verifyWith(0); }
    void getHashParam(DWORD parameter) const {
        BYTE value[MAX_DIGEST_SIZE];
        DWORD length = sizeof value;
        require(CPGetHashParam(context, hash, parameter, value, &length, 0), "CPGetHashParam");
    }
    void getName() const {
        BYTE value[64];
        DWORD length = sizeof value;
        require(CPGetProvParam(context, PP_NAME, value, &length, 0), "CPGetProvParam");
    }
    void getKeyLength() const {
        DWORD value = 0;
        DWORD length = sizeof value;
        require(CPGetKeyParam(context, key, KP_KEYLEN, reinterpret_cast<BYTE*>(&value), &length, 0), "CPGetKeyParam");
    }

private:
    void verifyWith(HCRYPTKEY publicKey) {
        require(CPVerifySignature(context, hash, signature, SIGNATURE_SIZE, publicKey, nullptr, 0),
                "CPVerifySignature");
    }

    HCRYPTPROV context = acquire(keyTextOf(0, KEYS - 1));
    HCRYPTHASH hash = 0;
    HCRYPTKEY key = 0;
    KEY_HANDLE ecKey = {};
    BYTE signature[SIGNATURE_SIZE] = {};
};

/// A provider object with the last key of the last of so many tokens.
class KeyStorageClient {
public:
    explicit KeyStorageClient(std::size_t tokens = 1, std::size_t keys = KEYS)
        : name(widened(keyTextOf(tokens - 1, keys - 1))) {
        require(KSPOpenProvider(&provider, nullptr, 0) == ERROR_SUCCESS, "KSPOpenProvider");
        reopen();
    }
    void reopen() {
        KSPFreeKey(provider, key);
        require(KSPOpenKey(provider, &key, name.c_str(), 0, 0) == ERROR_SUCCESS, "KSPOpenKey");
    }
    void sign() const {
        BYTE digest[DIGEST_SIZE] = {};
        BYTE signature[SIGNATURE_SIZE];
        DWORD length = 0;
        require(KSPSignHash(provider, key, nullptr, digest, sizeof digest, signature, sizeof signature, &length, 0) ==
                    ERROR_SUCCESS,
                "KSPSignHash");
    }
    void read(const WCHAR* property) {
        require(KSPGetKeyProperty(provider, key, property, value, sizeof value, &size, 0) == ERROR_SUCCESS,
                "KSPGetKeyProperty");
    }
    void readOfProvider(const WCHAR* property) {
        require(KSPGetProviderProperty(provider, property, value, sizeof value, &size, 0) == ERROR_SUCCESS,
                "KSPGetProviderProperty");
    }

private:
    WideText name;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    BYTE value[2048] = {};
    DWORD size = 0;
};

// The work that a contract demands of the library.

inline void copyList(const std::string& serial = "NULL-1") {
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(serial.c_str(), nullptr);
    keep(keys.data());
}
inline void listDevices() {
    const std::vector<std::string> devices = zentok_getConnectedDeviceList(false, nullptr);
    keep(devices.data());
}
inline void finishHash() {
    BYTE digest[DIGEST_SIZE];
    int length = sizeof digest;
    zentok_finalHash(nullptr, digest, &length, nullptr);
}
inline void signOnToken() {
    BYTE signature[SIGNATURE_SIZE] = {};
    int length = sizeof signature;
    zentok_signHash("NULL-1", signature, PIN, signature, DIGEST_SIZE, signature, &length, false, nullptr, false);
}
inline void verifyInLibrary() {
    const BYTE bytes[SIGNATURE_SIZE] = {};
    zentok_verifySignatureHash(KEY_TYPE_RSA_2048, "NULL-1", bytes, DIGEST_SIZE, bytes, SIGNATURE_SIZE, bytes,
                               SIGNATURE_SIZE, nullptr, false);
}

}  // namespace bench
