#include "cert/public_key.h"

#include "cert/key_encoding.h"
#include "core/log.h"

std::vector<unsigned char> rawModulusToSpki(std::span<const unsigned char> modulus) {
    return rsaPublicKeyHexToSpki(bytesToHex(modulus.data(), static_cast<std::int32_t>(modulus.size())), "010001");
}

std::vector<unsigned char> rsaPublicKeyToSpki(std::span<const unsigned char> publicKey, const char* rawText,
                                              const char* derText) {
    if (isDerPublicKey(publicKey)) {
        logInfo(derText);
        return {publicKey.begin(), publicKey.end()};
    }
    logInfo(rawText);
    return rawModulusToSpki(publicKey);
}
