// KSP_PROVIDER, the record behind an NCRYPT_PROV_HANDLE. The handle is the record's address; the record carries no lock
// and no count of references, and its owner must not free it while a call runs or a secret of it lives.
#pragma once

#include <cstdint>
#include <string>

#include "cng/key_storage_interface.h"

struct KSP_PROVIDER {
    std::string deviceName;          ///< the token in use; empty: none was connected. KSPOpenKey may change it
    void* tokenContext = nullptr;    ///< trailing argument of token library calls
    bool initialized = false;        ///< set by a completed open and never cleared
    std::uint64_t parentWindow = 0;  ///< the property "HWND Handle"; stored only
    std::uint32_t reserved1 = 0;
    std::uint32_t reserved2 = 0;
    std::uint64_t reserved3 = 0;
    std::string firmwareVersion;  ///< of the first token at open; stays when deviceName changes
};

/// The property "SmartCardPin", of a provider and of a key: puts the PIN to the token and caches one that it accepts.
/// `input` is narrow text whose length is where its terminator is; 16-bit text therefore ends after one character.
/// NTE_VALIDATION_FAILED when the token refuses, and the PIN cache stays as it was.
SECURITY_STATUS validatePin(const KSP_PROVIDER& provider, const BYTE* input);
