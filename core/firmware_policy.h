// What a token's FIPS class and firmware version forbid, stated once for both fronts.
//
// A rule returns true when the operation may go on. When it may not, the rule has logged why at error level, under the
// name of the entry that asked, and has signalled the named event where there is one; the entry sets its own code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <windows.h>

#include <wincrypt.h>

#include "core/token_library.h"

struct CSP_CONTEXT;

/// FIPS 140-2 still allows SHA-1 and PKCS#1 v1.5 decryption, FIPS 140-3 does not. 140-3 is also what an unreadable
/// token counts as.
enum class FirmwareClass { FIPS_140_2, FIPS_140_3 };

/// The class that a model version names: 140-2 exactly when its third character is '1'.
FirmwareClass firmwareClass(const TokenInfo& info);

/// A row of the algorithm table, as PP_ENUMALGS and PP_ENUMALGS_EX report it. Lengths are bits.
struct AlgorithmRow {
    ALG_ID algorithmId;
    std::uint32_t minBits;
    std::uint32_t maxBits;
    std::uint32_t defaultBits;
    std::uint32_t bitsIncrement;  ///< not exported
    std::uint32_t protocols;      ///< CRYPT_FLAG_*
    const char* shortName;        ///< at most 19 characters
    const char* longName;         ///< at most 39 characters
};

/// The algorithms that a context offers: with SHA-1 and RSA-1024 on a class 140-2 token, else without; asks the token
/// anew on each call and never for a context without one. The rows have static lifetime.
std::span<const AlgorithmRow> selectAlgorithmTable(const CSP_CONTEXT& context);

/// "2.0.17" as {2, 0, 17}; a piece counts by its leading digits, the empty text gives the empty list.
std::vector<int> parseVersion(const std::string& version);

/// -1, 0 or 1; missing pieces count as 0, so "2.0" equals "2.0.0".
int compareVersions(const std::string& left, const std::string& right);

/// SHA-1 hash objects: only on a class 140-2 token. Logs the permission too.
bool ruleSha1Hash(const CSP_CONTEXT& context);

/// MD5 hash objects: never.
bool ruleMd5Hash();

/// Private-key decryption with PKCS#1 v1.5 padding: on class 140-2, or without a token.
bool rulePkcs1Decrypt(const char* entry, const std::string& serial, void* tokenContext);

/// Generating an RSA key that the entry's own test found `tooShort`: never, on any token. `askToken`: the token is
/// asked all the same, and its answer dropped.
bool ruleRsa1024Generate(const char* entry, bool tooShort, bool askToken, const std::string& serial,
                         void* tokenContext);

/// Signing with a key of `keyType`: RSA-1024 never, on any token.
bool ruleRsa1024Sign(const char* entry, std::int32_t keyType, const std::string& serial, void* tokenContext);

/// A signature that the token library itself refused with TOKEN_WEAK_HASH.
bool ruleWeakHashSign(const char* entry, int libraryResult);

/// RSA-PSS ("PSS", KSPSignHash and KSPVerifySignature): firmware 2.0.0 and later.
bool rulePssFirmware(const char* entry, const std::string& firmwareVersion);

/// ECDH ("ECDH" in KSPSecretAgreement, "ECDH derive" in KSPDeriveKey): firmware 2.0.0 and later.
bool ruleEcdhFirmware(const char* entry, const char* operation, const std::string& firmwareVersion);
