// What the software token answers, and the one exception that carries an answer inside it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace softtoken {

/// Results of the 28 operations beside those of TokenResult (0, 49, 51). No caller tells them apart; they are for logs.
enum Result : std::int32_t {
    RESULT_BAD_ARGUMENT = 1,  ///< null pointer, unknown selector, text too long
    RESULT_BAD_LENGTH,        ///< a length that is negative, zero or does not fit what it measures
    RESULT_BUFFER_TOO_SMALL,  ///< the caller's room; nothing was written
    RESULT_NO_TOKEN,          ///< no folder with a readable description under this serial
    RESULT_NO_OBJECT,         ///< no such key on the token
    RESULT_DAMAGED,           ///< a file of the token is unreadable, cut or altered
    RESULT_WRONG_PIN,         ///< also an empty PIN without single sign-on, which costs no retry
    RESULT_PIN_LOCKED,        ///< no retry left; the PIN was not looked at
    RESULT_NOT_LOGGED_IN,     ///< an AES key of the list, with no PIN verified in this process
    RESULT_WRONG_KEY_TYPE,    ///< an operation that this kind of key cannot do
    RESULT_BAD_KEY,           ///< a public key or point that is malformed or off its curve
    RESULT_BAD_SIGNATURE,     ///< the signature does not belong to digest and key
    RESULT_BAD_DATA,          ///< ciphertext, padding or wrapped key that does not open
    RESULT_BAD_CERTIFICATE,   ///< not a DER certificate
    RESULT_SPENT_HASH,        ///< null, unknown, finished or evicted hash
    RESULT_STORAGE,           ///< a file or folder could not be written
    RESULT_STORAGE_FULL,      ///< the disk is full; what was stored before is intact
    RESULT_BUSY,              ///< another process holds the token's lock
    RESULT_EXISTS,            ///< a token of this serial is there already
    RESULT_NO_MEMORY,
    RESULT_CRYPTO,  ///< libgcrypt or crypt32 refused for a reason of its own
};

/// Thrown inside the software token and by its management calls, never by the 28 operations.
class Error : public std::runtime_error {
public:
    Error(std::int32_t result, const std::string& text) : std::runtime_error(text), code(result) {}

    std::int32_t code;  ///< Result or TokenResult
};

}  // namespace softtoken
