// CPGetKeyParam and CPSetKeyParam. The two sides are no mirror images: an unknown parameter fails to read and succeeds
// to write.
#include <algorithm>
#include <cstring>
#include <span>

#include "capi/entry.h"
#include "capi/user_keys.h"
#include "cert/certificate_import.h"
#include "core/login.h"
#include "core/pin_cache.h"
#include "core/process_iv.h"

namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t LOGIN_BUFFER_SIZE = 256;
static_assert(LOGIN_BUFFER_SIZE >= PASSWORD_BUFFER_SIZE);

constexpr std::uint32_t USAGE_PERMISSIONS[] = {
    CRYPT_EXPORT | CRYPT_READ,                                  // no usage
    CRYPT_ENCRYPT | CRYPT_EXPORT | CRYPT_READ,                  // KEY_USAGE_SIGN
    CRYPT_DECRYPT | CRYPT_EXPORT | CRYPT_READ,                  // KEY_USAGE_EXCHANGE
    CRYPT_ENCRYPT | CRYPT_DECRYPT | CRYPT_EXPORT | CRYPT_READ,  // KEY_USAGE_BOTH
};

std::uint32_t modeOf(const KEY_HANDLE& key) {
    return key.mode;
}
std::uint32_t permissionsOf(const KEY_HANDLE& key) {
    return USAGE_PERMISSIONS[key.keyUsage < std::size(USAGE_PERMISSIONS) ? key.keyUsage : 0];
}
std::uint32_t algIdOf(const KEY_HANDLE& key) {
    return key.algId;
}
std::uint32_t bitSizeOf(const KEY_HANDLE& key) {
    return key.bitSize;
}

/// A parameter that reads as 32 bits out of the key object.
struct ValueParameter {
    const char* name;
    std::uint32_t (*valueOf)(const KEY_HANDLE& key);
    const char* valueLog;  // or null
    DWORD param;
    bool zeroLengthAsks;  // a buffer with a length of 0 asks for the size, instead of being too small
};

constexpr ValueParameter VALUE_PARAMETERS[] = {
    {"KP_MODE", modeOf, "CPGetKeyParam - KP_MODE = ", KP_MODE, false},
    {"KP_PERMISSIONS", permissionsOf, nullptr, KP_PERMISSIONS, true},
    {"KP_ALGID", algIdOf, "CPGetKeyParam - copying alg id : ", KP_ALGID, true},
    // Both the key's size in bits, also for AES, where the platform would expect the cipher's 128.
    {"KP_BLOCKLEN/KP_KEYLEN", bitSizeOf, nullptr, KP_BLOCKLEN, true},
    {"KP_BLOCKLEN/KP_KEYLEN", bitSizeOf, nullptr, KP_KEYLEN, true},
};

/// The IV that KP_IV takes for a key. Its `algId` must hold a symmetric key type, which it does for few AES keys only.
struct IvParameter {
    ALG_ID algId;
    std::size_t ivSize;  // bytes
};

constexpr IvParameter IV_PARAMETERS[] = {{KEY_TYPE_AES_256, 16}, {KEY_TYPE_AES_192, 8}};

BOOL failWithoutLength() {
    return fail(ERROR_INVALID_PARAMETER, "CPGetKeyParam: pcbDataLen is null");
}

BOOL getValue(const KEY_HANDLE& key, const ValueParameter& parameter, BYTE* pbData, DWORD* pcbDataLen) {
    if (pcbDataLen == nullptr) {
        return failWithoutLength();
    }
    const std::string entry = std::string("CPGetKeyParam: ") + parameter.name;
    const std::uint32_t value = parameter.valueOf(key);
    const DWORD room = *pcbDataLen;
    *pcbDataLen = sizeof value;
    if (pbData == nullptr || (room == 0 && parameter.zeroLengthAsks)) {
        logInfo(entry + " size query, return TRUE");
        return TRUE;
    }
    if (room < sizeof value) {
        return fail(ERROR_MORE_DATA, entry + " buffer too small, return FALSE");
    }
    if (parameter.valueLog != nullptr) {
        logInfo(parameter.valueLog + std::to_string(value));
    }
    std::memcpy(pbData, &value, sizeof value);
    logInfo("CPGetKeyParam: return TRUE");
    return TRUE;
}

/// Reads the certificate from the token every time, a size query included; needs no PIN.
BOOL getCertificate(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pcbDataLen) {
    static_cast<void>(zentok_initDevice(context.serial.c_str(), true, context.tokenContext));
    const ZentokCertificate* record =
        zentok_findCertificateForKey(context.serial.c_str(), key.credentialId, context.tokenContext);
    if (record == nullptr) {
        return fail(static_cast<DWORD>(NTE_NOT_FOUND), "CPGetKeyParam: KP_CERTIFICATE not found, return FALSE");
    }
    if (record->certificateLength < 0 ||
        static_cast<std::size_t>(record->certificateLength) > sizeof record->certificate) {
        return fail(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL),
                    "CPGetKeyParam: the token library gave a certificate of " +
                        std::to_string(record->certificateLength) + " bytes");
    }
    if (pcbDataLen == nullptr) {
        return failWithoutLength();
    }
    const auto size = static_cast<DWORD>(record->certificateLength);
    const DWORD room = *pcbDataLen;
    *pcbDataLen = size;
    if (pbData == nullptr || room == 0) {
        logInfo("CPGetKeyParam: KP_CERTIFICATE size query, len=" + std::to_string(size) + ", return TRUE");
        return TRUE;
    }
    if (room < size) {
        return fail(ERROR_MORE_DATA, "CPGetKeyParam: KP_CERTIFICATE buffer too small, return FALSE");
    }
    std::memcpy(pbData, record->certificate, size);
    logInfo("CPGetKeyParam: KP_CERTIFICATE copied, len=" + std::to_string(size) + ", return TRUE");
    return TRUE;
}

/// Any other key succeeds and leaves the vector alone.
BOOL setIv(const KEY_HANDLE& key, const BYTE* pbData) {
    const auto* parameter = std::find_if(std::begin(IV_PARAMETERS), std::end(IV_PARAMETERS),
                                         [&](const IvParameter& row) { return row.algId == key.algId; });
    if (parameter == std::end(IV_PARAMETERS)) {
        return TRUE;
    }
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_IV pbData is null");
    }
    setProcessIv({pbData, parameter->ivSize});
    return TRUE;
}

/// Reads the 32 bits of a parameter that a null pointer leaves as it is. False without them.
bool takeValue(const char* name, const BYTE* pbData, std::uint32_t& value) {
    if (pbData == nullptr) {
        return false;
    }
    std::memcpy(&value, pbData, sizeof value);
    logInfo(std::string("CPSetKeyParam: ") + name + " = " + std::to_string(value));
    return true;
}

/// How many of the `most` bytes at `data` can be read without a fault; all of them when the platform does not know the
/// memory at all.
std::size_t readableSize(const BYTE* data, std::size_t most) {
    constexpr DWORD READABLE = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                               PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    std::size_t size = 0;
    while (size < most) {
        MEMORY_BASIC_INFORMATION region = {};
        if (VirtualQuery(data + size, &region, sizeof region) == 0 || region.State != MEM_COMMIT) {
            return size == 0 ? most : std::min(size, most);
        }
        if ((region.Protect & READABLE) == 0 || (region.Protect & PAGE_GUARD) != 0) {
            break;
        }
        const auto* end = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize;
        size = static_cast<std::size_t>(end - data);
    }
    return std::min(size, most);
}

BOOL failCutOff() {
    return fail(static_cast<DWORD>(NTE_BAD_DATA), "CPSetKeyParam: KP_CERTIFICATE is longer than what can be read");
}

/// The caller gives no length: the size of the certificate at the start of `data` comes from its own length octets
/// (X.690, 8.1.3), of which forms up to three octets are taken.
BOOL measureCertificate(Bytes data, std::size_t& size) {
    if (data.empty() || data[0] != 0x30) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA), "CPSetKeyParam: KP_CERTIFICATE invalid DER (not a SEQUENCE)");
    }
    if (data.size() < 2) {
        return failCutOff();
    }
    if (data[1] < 0x80) {
        size = std::size_t{2} + data[1];
        return TRUE;
    }
    const std::size_t octets = data[1] & 0x7F;
    if (octets < 1 || octets > 3) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA), "CPSetKeyParam: KP_CERTIFICATE unsupported DER length encoding");
    }
    if (data.size() < 2 + octets) {
        return failCutOff();
    }
    std::size_t content = 0;
    for (const unsigned char octet : data.subspan(2, octets)) {
        content = content << 8 | octet;
    }
    size = 2 + octets + content;
    return TRUE;
}

/// The PIN that the token wants for a new certificate: the cached one, or that of a login, which is cached. Empty in a
/// context without a token and on a token that is signed on.
BOOL obtainPassword(const CSP_CONTEXT& context, std::string& password) {
    password = pinStateGetPassword(context.serial);
    if (!password.empty() || context.serial.empty()) {
        return TRUE;
    }
    char entered[LOGIN_BUFFER_SIZE] = {};
    if (!loginUser(&context, entered)) {
        return fail(static_cast<DWORD>(NTE_FAIL), "CPSetKeyParam: KP_CERTIFICATE login failed");
    }
    password = entered;
    pinStateStore(context.serial, password);
    return TRUE;
}

BOOL storeCertificate(const CSP_CONTEXT& context, const KEY_HANDLE& key, const BYTE* pbData) {
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_CERTIFICATE pbData is null");
    }
    ZentokCertificate record = {};
    const Bytes data(pbData, readableSize(pbData, sizeof record.certificate));
    std::size_t size = 0;
    if (measureCertificate(data, size) == FALSE) {
        return FALSE;
    }
    logInfo("CPSetKeyParam: KP_CERTIFICATE DER length=" + std::to_string(size));
    if (size <= sizeof record.certificate && size > data.size()) {
        return failCutOff();
    }
    if (!setCertificate(record, {pbData, size})) {
        return fail(static_cast<DWORD>(NTE_BAD_DATA), "CPSetKeyParam: KP_CERTIFICATE is longer than the " +
                                                          std::to_string(sizeof record.certificate) +
                                                          " bytes that a token stores");
    }
    std::string password;
    if (obtainPassword(context, password) == FALSE) {
        return FALSE;
    }
    std::memcpy(record.credentialId, key.credentialId, sizeof record.credentialId);
    std::memcpy(record.keyLabel, key.keyLabel, sizeof record.keyLabel);
    record.keyLabelLength = static_cast<std::int32_t>(key.keyLabelLength);
    std::memcpy(record.alias, key.alias, sizeof record.alias - 1);
    const int result = importCertificateWithChain(context.serial, password, record, context.tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_FAIL),
                    "CPSetKeyParam: KP_CERTIFICATE import failed ret=" + std::to_string(result));
    }
    logInfo("CPSetKeyParam: KP_CERTIFICATE imported successfully");
    return TRUE;
}

BOOL setParameter(const CSP_CONTEXT& context, KEY_HANDLE& key, DWORD dwParam, const BYTE* pbData) {
    std::uint32_t value = 0;
    switch (dwParam) {
        case KP_IV:
            return setIv(key, pbData);
        case KP_PADDING:  // accepted and dropped, as permissions are
            takeValue("KP_PADDING", pbData, value);
            return TRUE;
        case KP_MODE:
            if (takeValue("KP_MODE", pbData, value)) {
                key.mode = value;
            }
            return TRUE;
        case KP_PERMISSIONS:
            takeValue("KP_PERMISSIONS", pbData, value);
            return TRUE;
        case KP_CERTIFICATE:
            return storeCertificate(context, key, pbData);
        default:
            logInfo("CPSetKeyParam: unhandled dwParam=" + std::to_string(dwParam));
            return TRUE;
    }
}

}  // namespace

BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                          DWORD /*dwFlags*/) {
    logInfo("CPGetKeyParam");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPGetKeyParam: context is null or not initialized");
    }
    const KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPGetKeyParam: key handle is null");
    }
    logInfo("CPGetKeyParam - dwparam : " + std::to_string(dwParam));
    logInfoBytes("CPGetKeyParam - key id : ", {key->credentialId, key->credentialIdLength});
    if (dwParam == KP_CERTIFICATE) {
        return getCertificate(*context, *key, pbData, pcbDataLen);
    }
    const auto* parameter = std::find_if(std::begin(VALUE_PARAMETERS), std::end(VALUE_PARAMETERS),
                                         [=](const ValueParameter& row) { return row.param == dwParam; });
    if (parameter == std::end(VALUE_PARAMETERS)) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE),
                    "CPGetKeyParam: unsupported dwParam=" + std::to_string(dwParam) + ", return FALSE");
    }
    return getValue(*key, *parameter, pbData, pcbDataLen);
}

BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, CONST BYTE* pbData, DWORD dwFlags) {
    logInfo("CPSetKeyParam");
    const CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPSetKeyParam: context is null or not initialized");
    }
    KEY_HANDLE* key = keyOf(hKey);
    if (key == nullptr) {
        return fail(static_cast<DWORD>(NTE_BAD_KEY), "CPSetKeyParam: key handle is null");
    }
    logInfoBytes("Set key param key id : ", key->credentialId);
    logInfo("Set key param  dwParam : " + std::to_string(dwParam));
    logInfo("Set key param  dwFlags : " + std::to_string(dwFlags));
    logInfo("Set key param key algo : " + std::to_string(key->algId));
    if (setParameter(*context, *key, dwParam, pbData) == FALSE) {
        return FALSE;
    }
    logInfo("CPSetKeyParam: return TRUE");
    return TRUE;
}
