// CSP_CONTEXT, the record behind a CryptoAPI provider handle. The handle is the record's address; a context is used by
// one thread at a time, by the platform's contract, and holds neither a cryptographic object nor a PIN.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "core/token_library.h"

struct CSP_CONTEXT {
    std::uint64_t reserved = 0;
    std::string serial;              ///< the token in use; empty in a verification context, which has none
    void* tokenContext = nullptr;    ///< trailing argument of token library calls
    std::string containerName;       ///< effective container: the first key text that the name maps to, else the name
    std::string requestedContainer;  ///< the name that the caller gave; new keys are filed under it
    bool initialized = false;
    std::uint64_t parentWindow = 0;
    std::uint32_t keysetType = 0;
    std::uint32_t algorithmEnumIndex = 0;
    std::uint64_t containerEnumIndex = 0;
    std::uint32_t signingProtocolEnumIndex = 0;
    std::vector<std::string> keyNames;  ///< key text of every key pair on the token, as of acquire
    bool containerQueried = false;      ///< the container's name was read; changes how CPGetUserKey selects a key
    bool silent = false;                ///< CRYPT_SILENT was given: never prompt
    unsigned char signatureKeyId[CREDENTIAL_ID_SIZE] = {};
    std::uint32_t signatureKeyIdLength = 0;  ///< 0 or 16
    unsigned char exchangeKeyId[CREDENTIAL_ID_SIZE] = {};
    std::uint32_t exchangeKeyIdLength = 0;  ///< 0 or 16
};

/// 1: CPGenRandom draws from the token's hardware generator, 0: from the library's software one. One value for the
/// whole process, whichever context set it.
inline std::atomic<unsigned char> g_useHardwareRng = 1;
