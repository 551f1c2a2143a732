// KSPGetKeyProperty and KSPSetKeyProperty.
#include <algorithm>
#include <climits>
#include <cstring>

#include "cert/certificate_import.h"
#include "cert/key_encoding.h"
#include "cng/entry.h"
#include "cng/property_answer.h"
#include "core/container_map.h"
#include "core/login.h"
#include "core/pin_cache.h"
#include "core/process_iv.h"

namespace {

constexpr WideView CHAINING_MODE_CBC = TEXT("ChainingModeCBC");
constexpr WideView CHAINING_MODE_ECB = TEXT("ChainingModeECB");

struct GetRequest {
    const KSP_PROVIDER& provider;
    const KSP_KEY& key;
    Output output;
};

struct SetRequest {
    KSP_PROVIDER& provider;
    KSP_KEY& key;
    const BYTE* input;
    DWORD size;
};

/// The platform's flags and the token's numbers are the same two, crossed over.
DWORD keyUsageFlags(std::uint32_t keyUsage) {
    switch (keyUsage) {
        case KEY_USAGE_SIGN:
            return NCRYPT_ALLOW_SIGNING_FLAG;
        case KEY_USAGE_EXCHANGE:
            return NCRYPT_ALLOW_DECRYPT_FLAG;
        case KEY_USAGE_BOTH:
            return NCRYPT_ALLOW_SIGNING_FLAG | NCRYPT_ALLOW_DECRYPT_FLAG;
        default:
            return 0;
    }
}

/// The key's text, never the name that its creation was given.
SECURITY_STATUS getName(const GetRequest& request) {
    return answerText(request.output, widened(keyText(request.key.credentialId)).c_str());
}

SECURITY_STATUS getAlgorithm(const GetRequest& request) {
    return answerText(request.output, keySizeToCngEccAlgorithm(static_cast<std::int32_t>(request.key.keyType),
                                                               static_cast<std::int32_t>(request.key.keyUsage)));
}

SECURITY_STATUS getAlgorithmGroup(const GetRequest& request) {
    const KSP_KEY& key = request.key;
    if (key.keyType < KEY_TYPE_EC_P256 || key.keyType > KEY_TYPE_EC_P521) {
        return answerText(request.output, TEXT("RSA"));
    }
    return answerText(request.output, key.keyUsage == KEY_USAGE_EXCHANGE ? TEXT("ECDH") : TEXT("ECDSA"));
}

/// Those of RSA, for every key.
SECURITY_STATUS getLengths(const GetRequest& request) {
    constexpr NCRYPT_SUPPORTED_LENGTHS RSA_LENGTHS = {1024, 4096, 1024, 2048};
    return answerValue(request.output, RSA_LENGTHS);
}

/// Asks the token each time: a size query and a read are two searches.
SECURITY_STATUS getCertificate(const GetRequest& request) {
    const KSP_PROVIDER& provider = request.provider;
    zentok_initDevice(provider.deviceName.c_str(), true, provider.tokenContext);
    const ZentokCertificate* record =
        zentok_findCertificateForKey(provider.deviceName.c_str(), request.key.credentialId, provider.tokenContext);
    if (record == nullptr) {
        return failStatus(NTE_NOT_FOUND, "KSP: Certificate not found for key");
    }
    if (record->certificateLength < 0 ||
        record->certificateLength > static_cast<std::int32_t>(sizeof record->certificate)) {
        return failStatus(NTE_INTERNAL_ERROR, "KSPGetKeyProperty: the token library gave a certificate of " +
                                                  std::to_string(record->certificateLength) + " bytes");
    }
    return answerBytes(request.output, {record->certificate, static_cast<std::size_t>(record->certificateLength)});
}

struct ReadableProperty {
    const WCHAR* name;
    SECURITY_STATUS (*get)(const GetRequest& request);
};

constexpr ReadableProperty READABLE_PROPERTIES[] = {
    {TEXT("Name"), getName},
    {TEXT("Algorithm Name"), getAlgorithm},
    {TEXT("Algorithm Group"), getAlgorithmGroup},
    {TEXT("Length"), [](const GetRequest& request) { return answerDword(request.output, request.key.bitSize); }},
    {TEXT("Lengths"), getLengths},
    {TEXT("Key Usage"),
     [](const GetRequest& request) { return answerDword(request.output, keyUsageFlags(request.key.keyUsage)); }},
    // Although no private key is ever exported.
    {TEXT("Export Policy"),
     [](const GetRequest& request) { return answerDword(request.output, NCRYPT_ALLOW_EXPORT_FLAG); }},
    {TEXT("Block Length"),
     [](const GetRequest& request) { return answerDword(request.output, request.key.bitSize >> 3); }},
    {TEXT("Key Type"), [](const GetRequest& request) { return answerDword(request.output, 0); }},
    {TEXT("Unique Name"), getName},
    {TEXT("Provider Handle"),
     [](const GetRequest& request) {
         return answerValue(request.output, reinterpret_cast<NCRYPT_PROV_HANDLE>(&request.provider));
     }},
    {TEXT("SmartCardKeyCertificate"), getCertificate},
    {TEXT("ChainingMode"),
     [](const GetRequest& request) {
         return answerText(request.output,
                           (request.key.chainingMode == 0 ? CHAINING_MODE_CBC : CHAINING_MODE_ECB).data());
     }},
    {TEXT("Security Descr"),
     [](const GetRequest& /*request*/) {
         return failStatus(NTE_NOT_SUPPORTED, "KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported");
     }},
};

SECURITY_STATUS setCertificateProperty(const SetRequest& request) {
    if (request.input == nullptr || request.size == 0) {
        return failStatus(NTE_INVALID_PARAMETER,
                          "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty");
    }
    ZentokCertificate record = {};
    if (!setCertificate(record, {request.input, request.size})) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: certificate of " + std::to_string(request.size) +
                                                     " bytes is larger than the token's record");
    }
    const KSP_PROVIDER& provider = request.provider;
    if (!kspEnsurePasswordValidated(provider.deviceName, provider.tokenContext)) {
        return failStatus(NTE_FAIL, "KSPSetKeyProperty: password validation failed for certificate import");
    }
    const KSP_KEY& key = request.key;
    static_assert(sizeof record.credentialId == sizeof key.credentialId);
    static_assert(sizeof record.keyLabel == sizeof key.keyLabel);
    static_assert(sizeof record.alias > sizeof key.alias, "an alias that fills its field finds its terminator here");
    std::memcpy(record.credentialId, key.credentialId, sizeof record.credentialId);
    std::memcpy(record.keyLabel, key.keyLabel, sizeof record.keyLabel);
    record.keyLabelLength = key.keyLabelLength;
    std::memcpy(record.alias, key.alias, sizeof key.alias);
    const std::int32_t result = importCertificateWithChain(
        provider.deviceName, pinStateGetPassword(provider.deviceName), record, provider.tokenContext);
    if (result != TOKEN_OK) {
        return failStatus(NTE_INTERNAL_ERROR, "KSP: Import certificate failed: " + std::to_string(result));
    }
    logInfo("KSP: Certificate stored successfully");
    return ERROR_SUCCESS;
}

SECURITY_STATUS setPin(const SetRequest& request) {
    if (request.input == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: NCRYPT_PIN_PROPERTY pbInput is null");
    }
    return validatePin(request.provider, request.input);
}

/// The value at the start of the input. False for one that is null or too short, which its property lets pass.
template <typename Value>
bool readInput(const SetRequest& request, Value& value) {
    if (request.input == nullptr || request.size < sizeof value) {
        return false;
    }
    std::memcpy(&value, request.input, sizeof value);
    return true;
}

/// A short input leaves the window alone, unlike the same property of the provider.
SECURITY_STATUS setWindow(const SetRequest& request) {
    readInput(request, request.provider.parentWindow);
    return ERROR_SUCCESS;
}

SECURITY_STATUS setLength(const SetRequest& request) {
    if (readInput(request, request.key.bitSize)) {
        logInfo("KSP: Key length set to " + std::to_string(request.key.bitSize));
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS setKeyUsage(const SetRequest& request) {
    DWORD flags = 0;
    if (!readInput(request, flags)) {
        return ERROR_SUCCESS;
    }
    for (const std::uint32_t usage : {KEY_USAGE_SIGN, KEY_USAGE_EXCHANGE, KEY_USAGE_BOTH}) {
        if ((flags & keyUsageFlags(KEY_USAGE_BOTH)) == keyUsageFlags(usage)) {
            request.key.keyUsage = usage;
        }
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS setChainingMode(const SetRequest& request) {
    if (request.input == nullptr || request.size == 0) {
        return ERROR_SUCCESS;
    }
    // The text's length is where its terminator is, whatever the size says. One character more than a mode has tells.
    const WideText mode = textOf({request.input, (CHAINING_MODE_CBC.size() + 1) * sizeof(WCHAR)});
    if (mode == CHAINING_MODE_CBC) {
        request.key.chainingMode = 0;
        logInfo("KSP: Chaining mode set to CBC");
        return ERROR_SUCCESS;
    }
    if (mode == CHAINING_MODE_ECB) {
        request.key.chainingMode = 1;
        logInfo("KSP: Chaining mode set to ECB");
        return ERROR_SUCCESS;
    }
    return failStatus(NTE_NOT_SUPPORTED, "KSP: Unsupported chaining mode");
}

/// The size that an IV must have for the key; 0: any.
DWORD expectedIvSize(const KSP_KEY& key) {
    switch (key.symmetricKeyLength) {
        case 24:
            return 8;
        case 16:
        case 32:
            return 16;
        default:
            return 0;
    }
}

SECURITY_STATUS setIv(const SetRequest& request) {
    if (request.input == nullptr || request.size == 0) {
        setProcessIv({});
        logInfo("KSP: IV cleared");
        return ERROR_SUCCESS;
    }
    const DWORD expected = expectedIvSize(request.key);
    if (expected != 0 && request.size != expected) {
        return failStatus(NTE_INVALID_PARAMETER, "KSP: IV size mismatch: got " + std::to_string(request.size) +
                                                     ", expected " + std::to_string(expected));
    }
    // The library counts in signed 32-bit numbers.
    if (request.size > INT_MAX) {
        return failStatus(NTE_INVALID_PARAMETER,
                          "KSP: IV larger than the token library takes, size: " + std::to_string(request.size));
    }
    setProcessIv({request.input, request.size});
    logInfo("KSP: IV set, size: " + std::to_string(request.size));
    return ERROR_SUCCESS;
}

struct WritableProperty {
    const WCHAR* name;
    SECURITY_STATUS (*set)(const SetRequest& request);
};

constexpr WritableProperty WRITABLE_PROPERTIES[] = {
    {TEXT("SmartCardKeyCertificate"), setCertificateProperty},
    {TEXT("SmartCardPin"), setPin},
    {TEXT("HWND Handle"), setWindow},
    {TEXT("Length"), setLength},
    {TEXT("Key Usage"), setKeyUsage},
    {TEXT("ChainingMode"), setChainingMode},
    {TEXT("IV"), setIv},
};

/// The row of an exact, case-sensitive name; null when there is none.
template <typename Property, std::size_t count>
const Property* findProperty(const Property (&table)[count], LPCWSTR name) {
    const auto* row = std::find_if(std::begin(table), std::end(table),
                                   [=](const Property& property) { return WideView(property.name) == name; });
    return row != std::end(table) ? row : nullptr;
}

}  // namespace

SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD /*dwFlags*/) {
    logInfo("KSPGetKeyProperty");
    const KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPGetKeyProperty: provider handle is null or not initialized");
    }
    const KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPGetKeyProperty: key handle is null");
    }
    if (pszProperty == nullptr || pcbResult == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPGetKeyProperty: pszProperty or pcbResult is null");
    }
    logInfo("KSP: GetKeyProperty: " + narrowed(pszProperty));
    const ReadableProperty* property = findProperty(READABLE_PROPERTIES, pszProperty);
    if (property == nullptr) {
        return failStatus(NTE_NOT_SUPPORTED, "KSPGetKeyProperty: unsupported property");
    }
    return property->get({*provider, *key, {pbOutput, cbOutput, pcbResult}});
}

SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbInput, DWORD cbInput, DWORD /*dwFlags*/) {
    logInfo("KSPSetKeyProperty");
    KSP_PROVIDER* provider = kspProviderOf(hProvider);
    if (!isUsable(provider)) {
        return failStatus(NTE_INVALID_HANDLE, "KSPSetKeyProperty: provider handle is null or not initialized");
    }
    KSP_KEY* key = kspKeyOf(hKey);
    if (key == nullptr) {
        return failStatus(NTE_INVALID_HANDLE, "KSPSetKeyProperty: key handle is null");
    }
    if (pszProperty == nullptr) {
        return failStatus(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: pszProperty is null");
    }
    const WritableProperty* property = findProperty(WRITABLE_PROPERTIES, pszProperty);
    if (property == nullptr) {
        return failStatus(NTE_NOT_SUPPORTED, "KSPSetKeyProperty: unsupported property");
    }
    return property->set({*provider, *key, pbInput, cbInput});
}
