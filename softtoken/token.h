// Software tokens as folders, and the objects in them:
//
//   <serial>\token.txt                what the token is; a folder without a readable one is no token
//   <serial>\pin.txt, sso.txt, lock   see pin.h
//   <serial>\keys\<id>.txt            a key pair, its private half sealed; <id>.pub.pem: the public half for OpenSSL
//   <serial>\certificates\<name>.txt  a certificate; <name> is the key's id, or "chain-" and a hash of the certificate
//   <serial>\aes\<id>.txt             an AES key, sealed
//
// An id is a credentialId in hexadecimal. Everything is a checked record (files.h) written in one piece. A damaged file
// takes its object out of the lists and refuses its use, nothing else. Failures are thrown as softtoken::Error.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/token_library.h"
#include "softtoken/asymmetric.h"
#include "softtoken/files.h"
#include "softtoken/object_list.h"
#include "softtoken/pin.h"
#include "softtoken/secret.h"

namespace softtoken {

/// What the process keeps about one token folder, for as long as it lives.
struct TokenMemory {
    explicit TokenMemory(const WideText& folder);

    PinGuard pin;
    ObjectList<ZentokKeyPair> keyPairs;
    ObjectList<ZentokCertificate> certificates;
    ObjectList<ZentokSymmetricKey> aesKeys;
};

/// A connected token, as its description says at this moment.
struct Token {
    WideText folder;
    std::string serial;
    std::string label;
    std::string firmware;
    bool isStrict = false;  ///< FIPS 140-3
    TokenMemory* memory = nullptr;
};

/// The folder of all tokens, see tokenHome of token_admin.h.
WideText baseFolder();

/// May this text name a token?
bool isSerial(std::string_view serial);

/// Error RESULT_NO_TOKEN. Forgets a verified PIN when the token is gone.
Token openToken(std::string_view serial);

/// The serials of all connected tokens by name. Forgets the verified PINs of all others.
std::vector<std::string> connectedTokens();

/// Writes a new token into a folder under a name that is no serial and renames it. Error RESULT_EXISTS.
void createTokenFolder(const Token& description, std::string_view pin, int retryLimit, unsigned pinCost);

/// Renames the folder out of sight, then deletes it.
void deleteTokenFolder(const Token& token);

// `masterKey` is what PinGuard gives for the PIN; `credentialId` has 16 bytes.

/// A private key in the clear.
struct PrivateKey {
    const KeyTypeInfo& type;
    SecretBytes key;
};

ZentokKeyPair createKeyPair(const Token& token, ByteView masterKey, const KeyTypeInfo& type, std::int32_t usage,
                            std::string_view alias);
PrivateKey loadPrivateKey(const Token& token, ByteView masterKey, const unsigned char* credentialId);
void renameKeyPair(const Token& token, const unsigned char* credentialId, std::string_view alias);
WideText publicKeyPath(const Token& token, const unsigned char* credentialId);

/// Deletes the pair, and with it the certificate that nothing could use any more.
void deleteKeyPair(const Token& token, const unsigned char* credentialId);

/// Stores a certificate under its key. One without a key (all-zero credentialId) is stored once, however often it
/// comes.
void storeCertificate(const Token& token, const ZentokCertificate& certificate);

/// The key's certificate in the current list, or null.
const ZentokCertificate* findCertificate(const Token& token, const unsigned char* credentialId);

/// Stores `key.keyValue` and fills in the rest of the record, which keeps its keyValue.
void storeAesKey(const Token& token, ByteView masterKey, ZentokSymmetricKey& key);

/// The clear AES key behind the keyValue of a listed record. Such a value is a reference: the key's id, filled up with
/// zeros to the key's length. Error RESULT_NO_OBJECT.
SecretBytes loadAesKey(const Token& token, ByteView masterKey, ByteView reference);

}  // namespace softtoken
