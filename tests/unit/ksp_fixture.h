// What the tests of the key storage operations share: a provider on "T1", keys, and statuses held as last errors.
#pragma once

#include <algorithm>

#include "cng/functions.h"
#include "cng/keys.h"
#include "cng/provider.h"
#include "core/process_iv.h"
#include "tests/support/password_user.h"
#include "tests/unit/provider_test.h"

namespace test {

constexpr DWORD INVALID_HANDLE = lastError(NTE_INVALID_HANDLE), INVALID_PARAMETER = lastError(NTE_INVALID_PARAMETER);
constexpr DWORD TOO_SMALL = lastError(NTE_BUFFER_TOO_SMALL), NOT_SUPPORTED = lastError(NTE_NOT_SUPPORTED);
constexpr DWORD INTERNAL_ERROR = lastError(NTE_INTERNAL_ERROR), BAD_DATA = lastError(NTE_BAD_DATA);

inline bool succeeds(SECURITY_STATUS status) {
    SetLastError(static_cast<DWORD>(status));
    return status == ERROR_SUCCESS;
}

/// CALL for a function that gives a status.
#define KSP_CALL(call, ...) \
    expectEntry(            \
        #call, [&] { return succeeds(call); }, __VA_ARGS__)
inline BYTE* input(const Bytes& bytes) {
    return const_cast<BYTE*>(bytes.data());
}

const std::string KSP_CACHED = "KSP: PIN already validated";
const std::string KSP_ASKS = "KSP: Password not validated, checking SSO|" + ONE_DIALOG;
const std::string ASKED_AGAIN = "|" + INFO + "|validatePassword('T1', '5678', 1, 0, null)|";

/// The key AA of the token.
inline KSP_KEY keyObject(std::uint32_t keyType, std::uint32_t bits, const Bytes& publicKey = {}) {
    KSP_KEY key;
    std::fill(std::begin(key.credentialId), std::end(key.credentialId), static_cast<unsigned char>(0xAA));
    key.keyType = keyType;
    key.bitSize = bits;
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = static_cast<std::int32_t>(publicKey.size());
    return key;
}

class KspTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        setProcessIv({});
        provider.deviceName = "T1";
        provider.firmwareVersion = "2.0.0";
        provider.initialized = true;
        cachePin();
    }

    KSP_PROVIDER provider;
    const NCRYPT_PROV_HANDLE prov = handleOf(&provider);
    const KSP_PROVIDER unopened;
    Guarded buffer{300};
    DWORD length = UNTOUCHED;
};

}  // namespace test
