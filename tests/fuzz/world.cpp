#include "tests/fuzz/world.h"

#include "cert/key_encoding.h"
#include "cng/functions.h"
#include "core/container_map.h"
#include "core/pin_cache.h"
#include "core/process_iv.h"
#include "tests/fuzz/certificates.h"

namespace test {
namespace {

/// What an operation of the library may put where.
struct Operation {
    const char* name;
    std::size_t most = 0;   ///< bytes of output: no contract lets it write more
    std::size_t usual = 0;  ///< bytes of its true answer
    bool allocates = false;
};
constexpr Operation OPERATIONS[] = {
    {"signHash", 1024, 128},
    {"finalHash", 1024, 32},
    {"encrypt", 128, 128},        // into the room of the smallest key's ciphertext: it is not told more
    {"decryptSymetric", 16, 16},  // into the room of a block
    // The longest plaintext that callers of the CryptoAPI front make room for: its length is not checked, by contract.
    {"decrypt", LARGEST_PLAINTEXT, 32, true},
    {"decrypt_aes", LARGEST_PLAINTEXT, 16, true},
    {"encrypt_aes", 600, 16, true},
    {"ecdhDerive", 200, 32, true},
    {"generateRamdomNumber", 64, 16},
    {"importAesKey"},
    {"generateKeyPair"},
    {"importCertificate", 16, 16},
    {"verifySignatureHash"},
    {"deleteKeyPair"},
    {"initHash"},
    {"updateHash"},
    {"initDevice"},
    {"getCertificateDetails"},
    {"validatePassword"},
    {"getKeyPairList"},
    {"getCertificateList"},
    {"getAesKeyList"},
    {"findCertificateForKey"},
    {"getTokenInfo"},
    {"getConnectedDeviceList"},
    {"init"},
    {"updateKeyPairDetails"},
    {"getFilesWithExtensionsAndConvertDER"},
};
constexpr int RESULTS[] = {0, 0, 0, 0, 1, TOKEN_SSO_EXPIRED, TOKEN_WEAK_HASH};
constexpr unsigned char IDS[] = {0xAA, 0xBB, 0x00};

/// A length as the library may tell it.
std::int32_t length(Input& in, std::size_t honest) {
    constexpr std::int32_t LIES[] = {-1, INT_MIN, INT_MAX, 0x10000, 0};
    switch (in.number() % 8) {
        case 0:
            return in.one(LIES);
        case 1:
            return in.number<std::int16_t>();
        default:
            return static_cast<std::int32_t>(honest);
    }
}

template <typename Record>
void fillLabel(Input& in, Record& record) {
    std::fill(std::begin(record.credentialId), std::end(record.credentialId), in.one(IDS));
    record.keyLabelLength = length(in, sizeof record.keyLabel);
    const std::string alias = in.text(sizeof record.alias);  // one that fills its field has no terminator
    alias.copy(record.alias, sizeof record.alias);
}
ZentokKeyPair keyRecord(Input& in) {
    ZentokKeyPair key = {};
    fillLabel(in, key);
    const Bytes publicKey = in.bytes(sizeof key.publicKey);
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = length(in, publicKey.size());
    key.keyUsage = in.number() % 5;
    key.keyType = in.number() % 9;
    key.tokenFlag = in.flag();
    return key;
}
ZentokSymmetricKey aesRecord(Input& in) {
    ZentokSymmetricKey key = {};
    fillLabel(in, key);
    key.keyValueLength = length(in, 16);
    key.keyType = KEY_TYPE_AES_128 + in.number() % 4;
    return key;
}
ZentokCertificate certificateRecord(Input& in) {
    ZentokCertificate record = {};
    fillLabel(in, record);
    const Bytes der = certificate(in);
    std::copy_n(der.begin(), std::min(der.size(), sizeof record.certificate), record.certificate);
    record.certificateLength = length(in, der.size());
    return record;
}
template <typename Record>
std::vector<Record> records(Input& in, Record (*one)(Input&), std::size_t most) {
    std::vector<Record> list(in.number() % (most + 1));
    for (Record& record : list) {
        record = one(in);
    }
    return list;
}

void fillToken(Input& in) {
    token().keyPairs["T1"] = records(in, keyRecord, 3);
    token().aesKeys["T1"] = records(in, aesRecord, 2);
    // More than one that is changed could name each other as issuer, and then the walk has no end, by contract.
    token().certificates["T1"] = records(in, certificateRecord, 1);
    if (in.flag()) {
        token().keyCertificate = certificateRecord(in);
    }
}

ZentokCertificate wholeCertificate(Input& in) {
    const Bytes der = hexToBytes(in.one(CERTIFICATES));
    ZentokCertificate record = {};
    record.certificateLength = static_cast<std::int32_t>(der.size());
    std::copy(der.begin(), der.end(), record.certificate);
    return record;
}

/// What the library says of tokens and certificate files, and a longer list of certificates.
void fillLibrary(Input& in) {
    const std::vector<ZentokCertificate> certificates = records(in, wholeCertificate, 2);
    token().certificates["T1"].insert(token().certificates["T1"].end(), certificates.begin(), certificates.end());
    Lines serials(in.number() % 4);
    for (std::string& serial : serials) {
        serial = in.flag() ? in.text() : "T1";
        TokenInfo& info = token().infos[serial] = tokenInfo(in.text());
        info.ssoEnabled = in.number() % 3;
        info.ssoValidated = in.number() % 3;
        info.firmwareVersion = in.text();
        info.text1 = in.text();
    }
    token().setDevices(serials.empty() ? Lines{"T1"} : serials);
    token().certificateDetails.issuer = in.flag() ? "CN=a" : in.text();
    token().certificateDetails.subject = "CN=a";  // of all: two that name each other are followed without end, too
    token().certificateDetails.publicKey = in.flag() ? filled(256, 1) : in.bytes(2000);
    for (unsigned count = in.number() % 3; count > 0; --count) {
        token().certificateFiles.push_back({in.text(), in.flag() ? certificate(in) : in.bytes(5000)});
    }
}

Answer lie(Input& in, const Operation& operation) {
    Answer answer = {.result = in.one(RESULTS), .output = in.bytes(operation.most)};
    const std::int32_t told = length(in, answer.output.size());
    // A block that is smaller than the library says is beyond anybody's check.
    answer.length = operation.allocates ? std::min(told, static_cast<std::int32_t>(answer.output.size())) : told;
    answer.noBlock = operation.allocates && in.flag();
    answer.retries = told;
    switch (in.number() % 6) {
        case 0:
            answer.during = [later = in.bytes(200)] {
                Input changed(later);
                fillToken(changed);
                fillLibrary(changed);
            };
            break;
        case 1:
            answer.during = [] { token().setDevices({}); };
            break;
        default:
            break;
    }
    return answer;
}

}  // namespace

void forgetState() {
    setProcessIv({});
    g_useHardwareRng = 1;
    const std::lock_guard lock(g_pinStatesLock);
    g_pinStates.clear();
    g_containerMap.clear();
}

void scriptLibrary(Input& in, bool lies) {
    token().reset();
    token().infos["T1"] = tokenInfo(in.flag() ? "1.1" : "1.2", 1, 1);  // signed on: no road ends at the dialog
    token().generatedKey = keyPair(IDS[0], KEY_USAGE_BOTH, KEY_TYPE_RSA_2048, "", filled(256, 1));
    token().keyPairs["T1"] = {token().generatedKey};
    token().aesKeys["T1"].resize(1);
    token().aesKeys["T1"][0].keyType = KEY_TYPE_AES_128;
    for (const Operation& operation : OPERATIONS) {
        token().on(operation.name, {{.output = filled(operation.usual, 1)}});
    }
    if (lies) {
        fillToken(in);
        token().generatedKey = keyRecord(in);
        token().importedAesKey = aesRecord(in);
        const unsigned char choice = in.number();
        for (unsigned count = choice % 5; count > 0; --count) {
            const Operation& operation = in.one(OPERATIONS);
            token().on(operation.name, {lie(in, operation), {.output = filled(operation.usual, 1)}});
        }
        if (choice / 5 == 40) {  // rare: most inputs are about something else
            fillLibrary(in);
        }
    } else {
        Input root({});
        token().keyCertificate = wholeCertificate(root);
    }
}

Bytes certificate(Input& in) {
    Bytes der = hexToBytes(in.one(CERTIFICATES));
    for (unsigned changes = in.number() % 4; changes > 0; --changes) {
        der[in.number<std::uint16_t>() % der.size()] = in.number();
    }
    return der;
}

World::World(Input& in, bool lies) {
    scriptLibrary(in, lies);
    forgetState();
    pinStateStore("T1", "1234");
    context.serial = provider.deviceName = "T1";
    context.initialized = context.silent = provider.initialized = true;
    provider.firmwareVersion = "2.0.0";

    auto* const rsa = new KEY_HANDLE();
    std::fill(std::begin(rsa->credentialId), std::end(rsa->credentialId), IDS[0]);
    rsa->credentialIdLength = CREDENTIAL_ID_SIZE;
    rsa->bitSize = 1024;
    rsa->publicKeyLength = 128;
    auto* const aes = new KEY_HANDLE();
    aes->algId = KEY_TYPE_AES_256;
    aes->symmetricKeyLength = 32;
    keys = {reinterpret_cast<HCRYPTKEY>(rsa), reinterpret_cast<HCRYPTKEY>(aes)};
    for (const auto& [type, bits, point] : {std::tuple{KEY_TYPE_RSA_1024, 1024U, 128}, {KEY_TYPE_EC_P256, 256U, 65}}) {
        auto* const key = new KSP_KEY;
        std::copy_n(rsa->credentialId, CREDENTIAL_ID_SIZE, key->credentialId);
        key->credentialIdLength = CREDENTIAL_ID_SIZE;
        key->keyType = static_cast<std::uint32_t>(type);
        key->bitSize = bits;
        key->publicKey[0] = 4;
        key->publicKeyLength = point;
        key->finalized = true;
        kspKeys.push_back(reinterpret_cast<NCRYPT_KEY_HANDLE>(key));
    }
    auto* const kspAes = new KSP_KEY;
    kspAes->symmetricKeyLength = 16;
    kspKeys.push_back(reinterpret_cast<NCRYPT_KEY_HANDLE>(kspAes));
}

void World::end() {
    for (const HCRYPTHASH hash : hashes) {
        require(CPDestroyHash(capi, hash) != FALSE, "a hash that cannot be destroyed");
    }
    for (const HCRYPTKEY key : keys) {
        require(CPDestroyKey(capi, key) != FALSE, "a key that cannot be destroyed");
    }
    for (const NCRYPT_KEY_HANDLE key : kspKeys) {
        KSPFreeKey(cng, key);
    }
    require(unfreedBlocks() == 0, "a block of the token library that nobody freed");
}

}  // namespace test
