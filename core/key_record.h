// What the token library says of a key pair, read with care.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "core/container_map.h"
#include "core/log.h"
#include "core/token_library.h"

/// The alias up to its terminator, or the whole field of a record without one.
inline std::string_view aliasText(const ZentokKeyPair& key) {
    return {key.alias, static_cast<std::size_t>(std::find(key.alias, std::end(key.alias), '\0') - key.alias)};
}

/// False, with a line in the log under the entry's name, when a length in the record lies outside its field.
inline bool isSoundRecord(const char* entry, const ZentokKeyPair& record) {
    const auto fits = [](std::int32_t length, std::size_t field) {
        return length >= 0 && static_cast<std::size_t>(length) <= field;
    };
    if (fits(record.publicKeyLength, sizeof record.publicKey) && fits(record.keyLabelLength, sizeof record.keyLabel)) {
        return true;
    }
    logError(std::string(entry) + ": the token library gave key " + keyText(record.credentialId) +
             " with publicKeyLength=" + std::to_string(record.publicKeyLength) +
             " keyLabelLength=" + std::to_string(record.keyLabelLength));
    return false;
}
