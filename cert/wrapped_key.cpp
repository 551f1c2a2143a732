#include "cert/wrapped_key.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "core/container_map.h"
#include "core/log.h"

namespace {

bool fits(std::int32_t length, std::size_t field) {
    return length >= 0 && static_cast<std::size_t>(length) <= field;
}

}  // namespace

bool unwrapWithTokenKey(const std::string& serial, void* tokenContext, std::span<const unsigned char> wrapped,
                        const char* foundText, LibraryBuffer& key) {
    const std::vector<ZentokSymmetricKey> keys = zentok_getAesKeyList(serial.c_str(), tokenContext);
    for (const ZentokSymmetricKey& candidate : keys) {
        if (candidate.keyType != KEY_TYPE_AES_128 && candidate.keyType != KEY_TYPE_AES_256) {
            continue;
        }
        if (!fits(candidate.keyValueLength, sizeof candidate.keyValue)) {
            logError("The token library gave AES key " + keyText(candidate.credentialId) +
                     " with keyValueLength=" + std::to_string(candidate.keyValueLength));
            continue;
        }
        LibraryBuffer result;
        if (zentok_decrypt_aes(serial.c_str(), candidate.keyValue, candidate.keyValueLength, wrapped.data(),
                               static_cast<int>(wrapped.size()), &result.data, &result.length, candidate.tokenFlag,
                               nullptr, 0, tokenContext) == TOKEN_OK) {
            logInfo(foundText + keyText(candidate.credentialId));
            std::swap(key.data, result.data);
            std::swap(key.length, result.length);
            return true;
        }
    }
    return false;
}

bool fillSymmetricKey(const char* entry, ZentokSymmetricKey& record, std::span<const unsigned char> key,
                      SymmetricKeyType keyType) {
    record = {};
    if (key.size() > sizeof record.keyValue) {
        logError(std::string(entry) + ": AES key of " + std::to_string(key.size()) + " bytes is too long");
        return false;
    }
    std::copy(key.begin(), key.end(), record.keyValue);
    record.keyValueLength = static_cast<std::int32_t>(key.size());
    record.keyType = keyType;
    return true;
}

bool isReadableAnswer(const char* entry, const ZentokSymmetricKey& record) {
    if (fits(record.keyLabelLength, sizeof record.keyLabel)) {
        return true;
    }
    logError(std::string(entry) + ": the token library gave AES key " + keyText(record.credentialId) +
             " with keyLabelLength=" + std::to_string(record.keyLabelLength));
    return false;
}
