#include "softtoken/token.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "softtoken/certificates.h"
#include "softtoken/result.h"

namespace softtoken {

namespace {

constexpr std::size_t ID_SIZE = sizeof(ZentokKeyPair::credentialId);
constexpr std::size_t LABEL_SIZE = sizeof(ZentokKeyPair::keyLabel);
constexpr std::size_t LONGEST_ALIAS = sizeof(ZentokKeyPair::alias) - 1;
constexpr std::size_t LONGEST_SERIAL = 64;
constexpr std::size_t LONGEST_TEXT = 128;
constexpr std::size_t LONGEST_PRIVATE_KEY = 8192;
constexpr std::size_t LONGEST_AES_KEY = 32;
constexpr std::string_view CLASS_2 = "140-2";
constexpr std::string_view CLASS_3 = "140-3";

ByteView idView(const unsigned char* credentialId) {
    return {credentialId, ID_SIZE};
}

WideText pathOf(const WideText& folder, const std::string& name) {
    return folder + TEXT("\\") + widen(name);
}

WideText keyFolder(const WideText& token) {
    return token + TEXT("\\keys");
}

WideText certificateFolder(const WideText& token) {
    return token + TEXT("\\certificates");
}

WideText aesFolder(const WideText& token) {
    return token + TEXT("\\aes");
}

WideText keyPath(const Token& token, const unsigned char* credentialId) {
    return pathOf(keyFolder(token.folder), hexText(idView(credentialId)) + ".txt");
}

WideText certificatePath(const Token& token, const std::string& name) {
    return pathOf(certificateFolder(token.folder), name + ".txt");
}

/// What seals a secret to its place: the kind of the object, its id and its type.
std::string sealContext(std::string_view kind, ByteView credentialId, std::int64_t type) {
    return std::string(kind).append(" ").append(hexText(credentialId)).append(" ").append(std::to_string(type));
}

void createFolder(const WideText& path) {
    if (!CreateDirectoryW(path.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
        throw Error(RESULT_STORAGE, "cannot create " + narrow(path));
    }
}

/// Fills a byte field and its length from a record's value, which the caller bounded.
template <std::size_t Size>
void fill(unsigned char (&field)[Size], std::int32_t& length, const Bytes& value) {
    std::copy(value.begin(), value.end(), field);
    length = static_cast<std::int32_t>(value.size());
}

template <std::size_t Size>
void fill(char (&field)[Size], const std::string& value) {
    std::copy(value.begin(), value.end(), field);
}

// The fields that the three kinds of objects share.

template <typename Object>
void storeCommon(Record& record, const Object& object) {
    record.setNumber("created", static_cast<std::int64_t>(currentFileTime()));
    record.setBytes("id", idView(object.credentialId));
    record.setText("alias", std::string_view(object.alias, strnlen(object.alias, LONGEST_ALIAS)));
    record.setBytes("label", {object.keyLabel, static_cast<std::size_t>(object.keyLabelLength)});
}

template <typename Object>
void readCommon(const Record& record, Stored<Object>& stored) {
    stored.created = static_cast<std::uint64_t>(record.number("created", 0, INT64_MAX));
    const Bytes id = record.bytes("id", ID_SIZE, ID_SIZE);
    std::copy(id.begin(), id.end(), stored.object.credentialId);
    fill(stored.object.alias, record.text("alias", LONGEST_ALIAS));
    fill(stored.object.keyLabel, stored.object.keyLabelLength, record.bytes("label", 0, LABEL_SIZE));
}

/// An ObjectList's reader: what `read` makes of the file, nothing when it is damaged.
template <typename Object, void (*read)(const Record&, Stored<Object>&)>
std::optional<Stored<Object>> readObject(const WideText& path) {
    try {
        Stored<Object> stored;
        const Record record = Record::read(path);
        readCommon(record, stored);
        read(record, stored);
        return stored;
    } catch (const Error&) {
        return std::nullopt;
    }
}

void readKeyPair(const Record& record, Stored<ZentokKeyPair>& stored) {
    ZentokKeyPair& pair = stored.object;
    fill(pair.publicKey, pair.publicKeyLength, record.bytes("public", 1, sizeof pair.publicKey));
    pair.keyUsage = static_cast<std::int32_t>(record.number("usage", KEY_USAGE_SIGN, KEY_USAGE_BOTH));
    pair.keyType = static_cast<std::int32_t>(record.number("type", KEY_TYPE_RSA_1024, KEY_TYPE_EC_P521));
    pair.tokenFlag = true;
}

void readStoredCertificate(const Record& record, Stored<ZentokCertificate>& stored) {
    ZentokCertificate& certificate = stored.object;
    fill(certificate.certificate, certificate.certificateLength,
         record.bytes("certificate", 1, sizeof certificate.certificate));
}

void readAesKey(const Record& record, Stored<ZentokSymmetricKey>& stored) {
    ZentokSymmetricKey& key = stored.object;
    std::copy_n(key.credentialId, ID_SIZE, key.keyValue);
    key.keyValueLength = static_cast<std::int32_t>(record.number("length", AES_BLOCK, LONGEST_AES_KEY));
    key.keyUsage = KEY_USAGE_BOTH;
    key.keyType = static_cast<std::int32_t>(record.number("type", KEY_TYPE_AES_128, KEY_TYPE_AES_192));
    key.tokenFlag = true;
}

/// The memory of every token folder that this process has seen. Never taken down: the host may still call from another
/// thread while the process ends.
struct Registry {
    std::mutex mutex;
    std::map<WideText, std::unique_ptr<TokenMemory>> tokens;
};

Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

TokenMemory& memoryOf(const WideText& folder) {
    Registry& all = registry();
    const std::lock_guard hold(all.mutex);
    std::unique_ptr<TokenMemory>& memory = all.tokens[folder];
    if (memory == nullptr) {
        memory = std::make_unique<TokenMemory>(folder);
    }
    return *memory;
}

/// Forgets the verified PINs of the folders for which `isGone` says so.
template <typename Predicate>
void forgetLogins(Predicate isGone) {
    Registry& all = registry();
    const std::lock_guard hold(all.mutex);
    for (const auto& [folder, memory] : all.tokens) {
        if (isGone(folder)) {
            memory->pin.forget();
        }
    }
}

void writeDescription(const WideText& folder, const Token& token) {
    Record record;
    record.setText("label", token.label);
    record.setText("class", token.isStrict ? CLASS_3 : CLASS_2);
    record.setText("firmware", token.firmware);
    record.write(folder + TEXT("\\token.txt"));
}

/// A name in the base folder that is no serial.
WideText hiddenFolder(const WideText& base) {
    return base + TEXT("\\.") + widen(hexText(randomBytes<Bytes>(8)));
}

/// Lengths and texts of a certificate that comes from a caller.
void checkCertificate(const ZentokCertificate& certificate) {
    if (certificate.certificateLength < 1 ||
        certificate.certificateLength > static_cast<std::int32_t>(sizeof certificate.certificate) ||
        certificate.keyLabelLength < 0 || certificate.keyLabelLength > static_cast<std::int32_t>(LABEL_SIZE)) {
        throw Error(RESULT_BAD_LENGTH, "a length in the certificate record is out of bounds");
    }
    if (strnlen(certificate.alias, sizeof certificate.alias) == sizeof certificate.alias) {
        throw Error(RESULT_BAD_ARGUMENT, "the alias does not end");
    }
}

}  // namespace

TokenMemory::TokenMemory(const WideText& folder)
    : pin(folder),
      keyPairs(keyFolder(folder), readObject<ZentokKeyPair, readKeyPair>),
      certificates(certificateFolder(folder), readObject<ZentokCertificate, readStoredCertificate>),
      aesKeys(aesFolder(folder), readObject<ZentokSymmetricKey, readAesKey>) {
}

WideText baseFolder() {
    for (const auto& [variable, below] : {std::pair{TEXT("ZENTOK_SOFTTOKEN_HOME"), TEXT("")},
                                          std::pair{TEXT("LOCALAPPDATA"), TEXT("\\ZentokSoftToken")}}) {
        WideText value(GetEnvironmentVariableW(variable, nullptr, 0), WCHAR());
        value.resize(GetEnvironmentVariableW(variable, value.data(), static_cast<DWORD>(value.size())));
        if (!value.empty()) {
            return value + below;
        }
    }
    throw Error(RESULT_NO_TOKEN, "neither ZENTOK_SOFTTOKEN_HOME nor LOCALAPPDATA names a folder");
}

bool isSerial(std::string_view serial) {
    // Windows drops a dot at the end of a folder's name: such a serial would be a second name of another token.
    return !serial.empty() && serial.size() <= LONGEST_SERIAL && serial.front() != '.' && serial.back() != '.' &&
           std::all_of(serial.begin(), serial.end(), [](char character) {
               return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
                      (character >= 'a' && character <= 'z') || character == '.' || character == '_' ||
                      character == '-';
           });
}

Token openToken(std::string_view serial) {
    Token token;
    token.serial = serial;
    if (!isSerial(serial)) {
        throw Error(RESULT_NO_TOKEN, "no token has this serial");
    }
    token.folder = pathOf(baseFolder(), token.serial);
    try {
        const Record record = Record::read(token.folder + TEXT("\\token.txt"));
        token.label = record.text("label", LONGEST_TEXT);
        token.firmware = record.text("firmware", LONGEST_TEXT);
        token.isStrict = record.text("class", LONGEST_TEXT) != CLASS_2;
    } catch (const Error& error) {
        forgetLogins([&token](const WideText& folder) { return folder == token.folder; });
        throw Error(RESULT_NO_TOKEN, "token " + token.serial + " is not connected: " + error.what());
    }
    token.memory = &memoryOf(token.folder);
    return token;
}

std::vector<std::string> connectedTokens() {
    const WideText base = baseFolder();
    std::vector<std::string> serials;
    std::vector<WideText> folders;
    for (const FolderEntry& entry : listFolder(base)) {
        const std::string name = narrow(entry.name);
        if (!entry.isFolder || !isSerial(name)) {
            continue;
        }
        try {
            folders.push_back(openToken(name).folder);
            serials.push_back(name);
        } catch (const Error&) {
            // a folder that is no token
        }
    }
    forgetLogins([&folders](const WideText& folder) {
        return std::find(folders.begin(), folders.end(), folder) == folders.end();
    });
    return serials;
}

void createTokenFolder(const Token& description, std::string_view pin, int retryLimit, unsigned pinCost) {
    const WideText base = baseFolder();
    const WideText target = pathOf(base, description.serial);
    createFolder(base);
    if (modificationTime(target) != 0) {
        throw Error(RESULT_EXISTS, "there is a token " + description.serial + " already");
    }
    const WideText folder = hiddenFolder(base);
    try {
        createFolder(folder);
        for (const WideText& below : {keyFolder(folder), certificateFolder(folder), aesFolder(folder)}) {
            createFolder(below);
        }
        PinGuard(folder).create(pin, randomBytes<SecretBytes>(MASTER_KEY_SIZE), retryLimit, pinCost);
        writeDescription(folder, description);
        if (!MoveFileExW(folder.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH)) {
            throw Error(RESULT_STORAGE, "cannot name the folder of token " + description.serial);
        }
    } catch (...) {
        if (modificationTime(folder) != 0) {
            removeFolder(folder);
        }
        throw;
    }
}

void deleteTokenFolder(const Token& token) {
    const WideText hidden = hiddenFolder(baseFolder());
    token.memory->pin.forget();
    if (!MoveFileExW(token.folder.c_str(), hidden.c_str(), MOVEFILE_WRITE_THROUGH)) {
        throw Error(RESULT_STORAGE, "token " + token.serial + " is in use");
    }
    removeFolder(hidden);
}

ZentokKeyPair createKeyPair(const Token& token, ByteView masterKey, const KeyTypeInfo& type, std::int32_t usage,
                            std::string_view alias) {
    if (usage < KEY_USAGE_SIGN || usage > KEY_USAGE_BOTH || alias.size() > LONGEST_ALIAS) {
        throw Error(RESULT_BAD_ARGUMENT, "unknown key usage, or too long an alias");
    }
    const GeneratedKey key = generateKey(type);
    ZentokKeyPair pair = {};
    fillRandom(pair.credentialId);
    fill(pair.publicKey, pair.publicKeyLength, key.publicKey);
    const std::string label = hexText(pair.credentialId);
    fill(pair.keyLabel, pair.keyLabelLength, Bytes(label.begin(), label.end()));
    fill(pair.alias, std::string(alias));
    pair.keyUsage = usage;
    pair.keyType = type.type;
    pair.tokenFlag = true;

    Record record;
    storeCommon(record, pair);
    record.setNumber("type", pair.keyType);
    record.setNumber("usage", pair.keyUsage);
    record.setBytes("public", key.publicKey);
    record.setBytes("private",
                    seal(masterKey, key.privateKey, bytesOf(sealContext("key pair", pair.credentialId, pair.keyType))));
    // The record comes last: with it the key exists. Without it nothing may stay.
    const WideText pem = publicKeyPath(token, pair.credentialId);
    writeFile(pem, bytesOf(publicKeyPem(type, key.publicKey)));
    try {
        record.write(keyPath(token, pair.credentialId));
    } catch (...) {
        DeleteFileW(pem.c_str());
        throw;
    }
    return pair;
}

PrivateKey loadPrivateKey(const Token& token, ByteView masterKey, const unsigned char* credentialId) {
    const Record record = Record::read(keyPath(token, credentialId));
    const KeyTypeInfo& type = keyTypeInfo(record.number("type", KEY_TYPE_RSA_1024, KEY_TYPE_EC_P521));
    const Bytes sealed = record.bytes("private", SEAL_OVERHEAD, LONGEST_PRIVATE_KEY);
    return {type, unseal(masterKey, sealed, bytesOf(sealContext("key pair", idView(credentialId), type.type)))};
}

void renameKeyPair(const Token& token, const unsigned char* credentialId, std::string_view alias) {
    if (alias.size() > LONGEST_ALIAS) {
        throw Error(RESULT_BAD_ARGUMENT, "too long an alias");
    }
    const WideText path = keyPath(token, credentialId);
    Record record = Record::read(path);
    record.setText("alias", alias);
    record.write(path);
}

WideText publicKeyPath(const Token& token, const unsigned char* credentialId) {
    return pathOf(keyFolder(token.folder), hexText(idView(credentialId)) + ".pub.pem");
}

void deleteKeyPair(const Token& token, const unsigned char* credentialId) {
    const WideText path = keyPath(token, credentialId);
    if (modificationTime(path) == 0) {
        throw Error(RESULT_NO_OBJECT, "the token has no such key");
    }
    removeFile(path);
    removeFile(publicKeyPath(token, credentialId));
    removeFile(certificatePath(token, hexText(idView(credentialId))));
}

void storeCertificate(const Token& token, const ZentokCertificate& certificate) {
    checkCertificate(certificate);
    const ByteView der(certificate.certificate, static_cast<std::size_t>(certificate.certificateLength));
    readCertificate(der);
    const ByteView id = idView(certificate.credentialId);
    const bool isChain = std::all_of(id.begin(), id.end(), [](unsigned char byte) { return byte == 0; });
    const WideText path =
        certificatePath(token, isChain ? "chain-" + hexText(ByteView(sha256(der)).first(ID_SIZE)) : hexText(id));
    if (isChain && readObject<ZentokCertificate, readStoredCertificate>(path)) {
        return;
    }
    Record record;
    storeCommon(record, certificate);
    record.setBytes("certificate", der);
    record.write(path);
}

const ZentokCertificate* findCertificate(const Token& token, const unsigned char* credentialId) {
    static constexpr std::array<unsigned char, ID_SIZE> NO_KEY = {};
    if (std::memcmp(credentialId, NO_KEY.data(), ID_SIZE) == 0) {
        return nullptr;
    }
    const std::vector<ZentokCertificate>& all = token.memory->certificates.current();
    const auto found = std::find_if(all.begin(), all.end(), [credentialId](const ZentokCertificate& certificate) {
        return std::memcmp(certificate.credentialId, credentialId, ID_SIZE) == 0;
    });
    return found == all.end() ? nullptr : &*found;
}

void storeAesKey(const Token& token, ByteView masterKey, ZentokSymmetricKey& key) {
    const std::int32_t expected = key.keyValueLength == 16   ? KEY_TYPE_AES_128
                                  : key.keyValueLength == 24 ? KEY_TYPE_AES_192
                                  : key.keyValueLength == 32 ? KEY_TYPE_AES_256
                                                             : 0;
    if (expected == 0) {
        throw Error(RESULT_BAD_LENGTH, "an AES key has 16, 24 or 32 bytes");
    }
    if (key.keyType < KEY_TYPE_AES_128 || key.keyType > KEY_TYPE_AES_192) {
        throw Error(RESULT_BAD_ARGUMENT, "not an AES key type");
    }
    fillRandom(key.credentialId);
    const std::string label = hexText(key.credentialId);
    fill(key.keyLabel, key.keyLabelLength, Bytes(label.begin(), label.end()));
    std::memset(key.alias, 0, sizeof key.alias);
    key.keyUsage = KEY_USAGE_BOTH;
    key.tokenFlag = true;

    Record record;
    storeCommon(record, key);
    record.setNumber("type", key.keyType);
    record.setNumber("length", key.keyValueLength);
    record.setBytes("secret", seal(masterKey, {key.keyValue, static_cast<std::size_t>(key.keyValueLength)},
                                   bytesOf(sealContext("AES key", key.credentialId, key.keyType))));
    record.write(pathOf(aesFolder(token.folder), label + ".txt"));
}

SecretBytes loadAesKey(const Token& token, ByteView masterKey, ByteView reference) {
    if (reference.size() < ID_SIZE) {
        throw Error(RESULT_NO_OBJECT, "not a key of the list");
    }
    const ByteView id = reference.first(ID_SIZE);
    const Record record = Record::read(pathOf(aesFolder(token.folder), hexText(id) + ".txt"));
    const std::int64_t type = record.number("type", KEY_TYPE_AES_128, KEY_TYPE_AES_192);
    const Bytes sealed = record.bytes("secret", SEAL_OVERHEAD + AES_BLOCK, SEAL_OVERHEAD + LONGEST_AES_KEY);
    return unseal(masterKey, sealed, bytesOf(sealContext("AES key", id, type)));
}

}  // namespace softtoken
