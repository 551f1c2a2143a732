// CPGetProvParam and CPSetProvParam: what a context is, can do and holds.
#include <algorithm>
#include <cstring>
#include <map>

#include "capi/entry.h"
#include "cert/pkcs7_chain.h"
#include "core/container_map.h"
#include "core/firmware_policy.h"
#include "core/pin_cache.h"
#include "core/token_library.h"

namespace {

constexpr char PROVIDER_NAME[] = "Zentok Cryptographic Provider CSP";
constexpr DWORD SIGNING_PROTOCOLS[] = {1, 2};

/// Where the caller wants the answer. `length` is never null.
struct Output {
    BYTE* data;
    DWORD* length;

    bool takes(DWORD size) const { return data != nullptr && *length >= size; }
};

/// What a caller without room for the answer gets beside its size. Each parameter keeps its own.
enum class Protocol {
    SHORT_FAILS,  ///< TRUE for a null buffer, ERROR_MORE_DATA and FALSE for a short one
    MORE_DATA,    ///< ERROR_MORE_DATA and TRUE for both
    NO_ERROR_SET  ///< TRUE for both
};

BOOL tellSize(const Output& output, DWORD size, Protocol protocol) {
    *output.length = size;
    if (protocol == Protocol::MORE_DATA) {
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    }
    const bool fails = protocol == Protocol::SHORT_FAILS && output.data != nullptr;
    return fails ? failQuietly(ERROR_MORE_DATA) : TRUE;
}

void put(const Output& output, const void* value, DWORD size) {
    std::memcpy(output.data, value, size);
    *output.length = size;
}

BOOL logSuccess(DWORD size) {
    logInfo("CPGetProvParam out length : " + std::to_string(size));
    logInfo("CPGetProvParam return success");
    return TRUE;
}

BOOL give(const Output& output, const void* value, DWORD size, Protocol protocol) {
    if (!output.takes(size)) {
        return tellSize(output, size, protocol);
    }
    put(output, value, size);
    return logSuccess(size);
}

struct Parameter {
    DWORD param;
    BOOL (*get)(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD dwFlags);
    Protocol protocol = Protocol::SHORT_FAILS;
    DWORD value = 0;  // of getConstant
};

BOOL getConstant(CSP_CONTEXT& /*context*/, const Parameter& parameter, const Output& output, DWORD /*dwFlags*/) {
    return give(output, &parameter.value, sizeof parameter.value, parameter.protocol);
}

/// Says that there is a PIN, never which.
BOOL getPin(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD dwFlags) {
    logInfo("CPGetProvParam: PIN query");
    return getConstant(context, parameter, output, dwFlags);
}

BOOL getName(CSP_CONTEXT& /*context*/, const Parameter& parameter, const Output& output, DWORD /*dwFlags*/) {
    return give(output, PROVIDER_NAME, sizeof PROVIDER_NAME, parameter.protocol);
}

BOOL getContainer(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD /*dwFlags*/) {
    context.containerQueried = true;  // by the size query too: CPGetUserKey selects differently from now on
    const auto size = static_cast<DWORD>(context.containerName.size() + 1);
    if (output.data == nullptr) {
        *output.length = size;
        return logSuccess(size);  // the one size query with a line
    }
    return give(output, context.containerName.c_str(), size, parameter.protocol);
}

BOOL getKeysetType(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD /*dwFlags*/) {
    return give(output, &context.keysetType, sizeof context.keysetType, parameter.protocol);
}

BOOL getUseHardwareRng(CSP_CONTEXT& /*context*/, const Parameter& parameter, const Output& output, DWORD /*dwFlags*/) {
    const DWORD value = g_useHardwareRng;
    if (!output.takes(sizeof value)) {
        logInfo("Required size is Large");
        return tellSize(output, sizeof value, parameter.protocol);
    }
    logInfo("CPGetProvParam: PP_USE_HARDWARE_RNG = " + std::to_string(value));
    return give(output, &value, sizeof value, parameter.protocol);
}

/// A self-relative descriptor with a null DACL: everybody may do everything.
BOOL getSecurityDescriptor(CSP_CONTEXT& /*context*/, const Parameter& parameter, const Output& output,
                           DWORD /*dwFlags*/) {
    logInfo("CPGetProvParam: PP_KEYSET_SEC_DESCR");
    SECURITY_DESCRIPTOR descriptor = {};
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
    DWORD size = 0;
    MakeSelfRelativeSD(&descriptor, nullptr, &size);
    if (!output.takes(size)) {
        return tellSize(output, size, parameter.protocol);
    }
    if (MakeSelfRelativeSD(&descriptor, output.data, &size) == FALSE) {
        return fail(static_cast<DWORD>(NTE_FAIL), "CPGetProvParam PP_KEYSET_SEC_DESCR: MakeSelfRelativeSD failed");
    }
    *output.length = size;
    return logSuccess(size);
}

/// The algorithm that the flags move the context to; PP_ENUMALGS and PP_ENUMALGS_EX share one position. Null with the
/// failure reported under `name`.
const AlgorithmRow* nextAlgorithm(CSP_CONTEXT& context, DWORD dwFlags, const char* name) {
    const std::string entry = std::string("CPGetProvParam ") + name;
    switch (dwFlags & ~static_cast<DWORD>(CRYPT_SGC_ENUM)) {
        case CRYPT_FIRST:
            context.algorithmEnumIndex = 0;
            break;
        case 0:  // moves on, also as the very first call, which then skips a row
        case CRYPT_NEXT:
            ++context.algorithmEnumIndex;
            break;
        default:
            fail(ERROR_INVALID_PARAMETER, entry + ": invalid dwFlags=" + std::to_string(dwFlags));
            return nullptr;
    }
    const std::span<const AlgorithmRow> table = selectAlgorithmTable(context);
    if (context.algorithmEnumIndex >= table.size()) {
        fail(ERROR_NO_MORE_ITEMS, entry + ": no more algorithms, index=" + std::to_string(context.algorithmEnumIndex));
        return nullptr;
    }
    return &table[context.algorithmEnumIndex];
}

/// Cut to the field, which `field` being zero terminates. Returns the length of the whole name: the platform's
/// structures count the terminator, this provider does not.
template <std::size_t N>
DWORD copyName(CHAR (&field)[N], const char* name) {
    const std::size_t length = std::strlen(name);
    std::memcpy(field, name, std::min(length, N - 1));
    return static_cast<DWORD>(length);
}

BOOL giveAlgorithm(const Output& output, const void* item, DWORD size, const char* name, const std::string& success) {
    // The position has moved: a caller with a short buffer has skipped the item.
    if (!output.takes(size)) {
        *output.length = size;
        return fail(ERROR_MORE_DATA, std::string("CPGetProvParam ") + name +
                                         ": output buffer too small, required=" + std::to_string(size));
    }
    put(output, item, size);
    logInfo("CPGetProvParam: returned " + success);
    return TRUE;
}

BOOL getAlgorithm(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD dwFlags) {
    PROV_ENUMALGS item = {};
    static_assert(sizeof item == 32);
    if (output.data == nullptr) {
        return tellSize(output, sizeof item, parameter.protocol);
    }
    const AlgorithmRow* row = nextAlgorithm(context, dwFlags, "PP_ENUMALGS");
    if (row == nullptr) {
        return FALSE;
    }
    item.aiAlgid = row->algorithmId;
    item.dwBitLen = row->defaultBits;
    item.dwNameLen = copyName(item.szName, row->shortName);
    return giveAlgorithm(output, &item, sizeof item, "PP_ENUMALGS", std::string("algorithm -> ") + row->shortName);
}

BOOL getAlgorithmEx(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD dwFlags) {
    PROV_ENUMALGS_EX item = {};
    static_assert(sizeof item == 88);
    if (output.data == nullptr) {
        return tellSize(output, sizeof item, parameter.protocol);
    }
    const AlgorithmRow* row = nextAlgorithm(context, dwFlags, "PP_ENUMALGS_EX");
    if (row == nullptr) {
        return FALSE;
    }
    item.aiAlgid = row->algorithmId;
    item.dwDefaultLen = row->defaultBits;
    item.dwMinLen = row->minBits;
    item.dwMaxLen = row->maxBits;
    item.dwProtocols = row->protocols;
    item.dwNameLen = copyName(item.szName, row->shortName);
    item.dwLongNameLen = copyName(item.szLongName, row->longName);
    return giveAlgorithm(output, &item, sizeof item, "PP_ENUMALGS_EX",
                         std::string("EX algorithm -> ") + row->shortName);
}

/// Lists the token's keys as of acquire, not the names in the registry.
BOOL getNextContainer(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD dwFlags) {
    switch (dwFlags & ~static_cast<DWORD>(CRYPT_MACHINE_KEYSET)) {
        case CRYPT_FIRST:
            context.containerEnumIndex = 0;
            break;
        case CRYPT_NEXT:
            ++context.containerEnumIndex;
            break;
        default:  // 0 included, unlike the algorithms
            return fail(ERROR_INVALID_PARAMETER,
                        "CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=" + std::to_string(dwFlags));
    }
    if (context.containerEnumIndex >= context.keyNames.size()) {
        return fail(ERROR_NO_MORE_ITEMS, "CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=" +
                                             std::to_string(context.containerEnumIndex));
    }
    const std::string& name = context.keyNames[context.containerEnumIndex];
    const auto size = static_cast<DWORD>(name.size() + 1);
    if (!output.takes(size)) {
        return tellSize(output, size, parameter.protocol);
    }
    put(output, name.c_str(), size);
    logInfo("CPGetProvParam: returned container -> " + name);
    return TRUE;
}

BOOL getNextSigningProtocol(CSP_CONTEXT& context, const Parameter& parameter, const Output& output, DWORD dwFlags) {
    context.signingProtocolEnumIndex = dwFlags == CRYPT_FIRST ? 0 : context.signingProtocolEnumIndex + 1;
    const std::uint32_t index = context.signingProtocolEnumIndex;
    if (index >= std::size(SIGNING_PROTOCOLS)) {
        logInfo("CPGetProvParam: PP_ENUMEX_SIGNING_PROT no more items");
        return failQuietly(ERROR_NO_MORE_ITEMS);
    }
    const DWORD value = SIGNING_PROTOCOLS[index];
    if (!output.takes(sizeof value)) {
        return tellSize(output, sizeof value, parameter.protocol);
    }
    put(output, &value, sizeof value);
    logInfo("CPGetProvParam: PP_ENUMEX_SIGNING_PROT index=" + std::to_string(index) +
            " value=" + std::to_string(value));
    return TRUE;
}

/// The certificate chain of the context's container as PKCS#7, with BuildCertificateChain's own size protocol.
BOOL getCertificateChain(CSP_CONTEXT& context, const Parameter& /*parameter*/, const Output& output,
                         DWORD /*dwFlags*/) {
    const char* serial = context.serial.c_str();
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(serial, context.tokenContext);
    const std::vector<ZentokCertificate> certificates = zentok_getCertificateList(serial, context.tokenContext);
    std::map<std::string, std::vector<ZentokCertificate>> chains;
    for (const ZentokKeyPair& key : keys) {
        const ZentokCertificate* leaf = zentok_findCertificateForKey(serial, key.credentialId, context.tokenContext);
        if (leaf == nullptr) {
            continue;
        }
        const std::string container = keyText(key.credentialId);
        logInfo("Key-cert link found; container=" + container);
        std::vector<ZentokCertificate> chain = orderCertificateChain(*leaf, certificates);
        if (!chain.empty()) {
            chains[container] = std::move(chain);
        }
    }
    const auto found = chains.find(context.containerName);
    if (found == chains.end()) {
        *output.length = 0;
        return fail(static_cast<DWORD>(NTE_NO_KEY),
                    "CPGetProvParam PP_CERTCHAIN: container not found, containerName=" + context.containerName);
    }
    return BuildCertificateChain(found->second, output.data, output.length);
}

constexpr DWORD HARDWARE_AND_REMOVABLE = CRYPT_IMPL_HARDWARE | CRYPT_IMPL_REMOVABLE;

constexpr Parameter PARAMETERS[] = {
    {PP_ENUMALGS, getAlgorithm},
    {PP_ENUMCONTAINERS, getNextContainer, Protocol::MORE_DATA},
    {PP_IMPTYPE, getConstant, Protocol::SHORT_FAILS, HARDWARE_AND_REMOVABLE},
    {PP_NAME, getName, Protocol::NO_ERROR_SET},
    {PP_VERSION, getConstant, Protocol::SHORT_FAILS, 0x100},
    {PP_CONTAINER, getContainer},
    {PP_KEYSET_SEC_DESCR, getSecurityDescriptor, Protocol::MORE_DATA},
    {PP_CERTCHAIN, getCertificateChain},
    {PP_PROVTYPE, getConstant, Protocol::SHORT_FAILS, PROV_RSA_FULL},
    {PP_KEYSTORAGE, getConstant, Protocol::SHORT_FAILS, 9},
    {PP_ENUMALGS_EX, getAlgorithmEx},
    {PP_KEYSET_TYPE, getKeysetType},
    {PP_ADMIN_PIN, getPin, Protocol::MORE_DATA, 1},
    {PP_KEYEXCHANGE_PIN, getPin, Protocol::MORE_DATA, 1},
    {PP_SIGNATURE_PIN, getPin, Protocol::MORE_DATA, 1},
    {PP_SIG_KEYSIZE_INC, getConstant, Protocol::SHORT_FAILS, 1024},
    {PP_KEYX_KEYSIZE_INC, getConstant, Protocol::SHORT_FAILS, 1024},
    {PP_UNIQUE_CONTAINER, getContainer},
    {PP_USE_HARDWARE_RNG, getUseHardwareRng, Protocol::MORE_DATA},
    {PP_KEYSPEC, getConstant, Protocol::MORE_DATA, AT_KEYEXCHANGE},
    {PP_ENUMEX_SIGNING_PROT, getNextSigningProtocol, Protocol::MORE_DATA},
};

/// A PIN of the caller's own, validated on the token and cached. A refused one leaves the cache as it is.
BOOL setPin(const CSP_CONTEXT& context, const BYTE* pbData) {
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL PIN data");
    }
    const std::string pin = reinterpret_cast<const char*>(pbData);
    logInfo("CPSetProvParam - passwordLength : " + std::to_string(pin.size()));
    int retries = 0;
    const int result = zentok_validatePassword(context.serial.c_str(), pin.c_str(), 1, &retries, context.tokenContext);
    if (result != TOKEN_OK) {
        return fail(static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD),
                    "CPSetProvParam - Token password validation failed : " + std::to_string(result));
    }
    pinStateStore(context.serial, pin);
    return TRUE;
}

BOOL setUseHardwareRng(const BYTE* pbData) {
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG");
    }
    DWORD value = 0;
    std::memcpy(&value, pbData, sizeof value);
    const bool hardware = value != 0;
    g_useHardwareRng = hardware ? 1 : 0;
    logInfo("CPSetProvParam: PP_USE_HARDWARE_RNG set to " + std::to_string(hardware));
    return TRUE;
}

}  // namespace

BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pcbData, DWORD dwFlags) {
    logInfo("CPGetProvParam");
    CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPGetProvParam: context is null or not initialized");
    }
    logInfo("CPGetProvParam input : " + std::to_string(dwParam));
    logInfo("CPGetProvParam : " + std::to_string(dwFlags));
    const auto* parameter = std::find_if(std::begin(PARAMETERS), std::end(PARAMETERS),
                                         [=](const Parameter& row) { return row.param == dwParam; });
    if (parameter == std::end(PARAMETERS)) {
        return fail(static_cast<DWORD>(NTE_BAD_TYPE), "CPGetProvParam: unsupported dwParam=" + std::to_string(dwParam));
    }
    if (pcbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPGetProvParam: pcbData is null");
    }
    return parameter->get(*context, *parameter, {pbData, pcbData}, dwFlags);
}

BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, CONST BYTE* pbData, DWORD /*dwFlags*/) {
    logInfo("CPSetProvParam");
    CSP_CONTEXT* context = contextOf(hProv);
    if (!isUsable(context)) {
        return fail(static_cast<DWORD>(NTE_BAD_UID), "CPSetProvParam: context is null or not initialized");
    }
    logInfo("CPSetProvParam - input param : " + std::to_string(dwParam));
    switch (dwParam) {
        case PP_CLIENT_HWND:
            context->parentWindow = 0;
            if (pbData != nullptr) {
                std::memcpy(&context->parentWindow, pbData, sizeof context->parentWindow);
            }
            return TRUE;
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN:
            return setPin(*context, pbData);
        case PP_USE_HARDWARE_RNG:
            return setUseHardwareRng(pbData);
        default:
            return fail(static_cast<DWORD>(NTE_BAD_TYPE),
                        "CPSetProvParam: unsupported dwParam=" + std::to_string(dwParam));
    }
}
