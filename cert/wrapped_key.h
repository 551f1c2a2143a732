// AES keys on their way onto a token: the record that imports one, and the search for the token's key that opens a
// wrapped one.
#pragma once

#include <span>
#include <string>

#include "core/library_buffer.h"
#include "core/token_library.h"

/// Opens a wrapped AES key of at most INT_MAX bytes with a key-encryption key on the token: the first of the token's
/// list, 192-bit keys left out, under which the library decrypts `wrapped` without an IV. The library's word is the
/// only test. True with the clear key in `key`, which is empty on entry, and with `foundText` and the key-encryption
/// key's id in the log; false, without a line, when no key fits.
bool unwrapWithTokenKey(const std::string& serial, void* tokenContext, std::span<const unsigned char> wrapped,
                        const char* foundText, LibraryBuffer& key);

/// Makes `record` what zentok_importAesKey takes: the clear key, its type, and zeros. False, with a line under the
/// entry's name, when the key does not fit its field.
bool fillSymmetricKey(const char* entry, ZentokSymmetricKey& record, std::span<const unsigned char> key,
                      SymmetricKeyType keyType);

/// True when the answer of zentok_importAesKey can be copied into a key object; else its length of a label lies outside
/// the field, and a line under the entry's name says so.
bool isReadableAnswer(const char* entry, const ZentokSymmetricKey& record);
