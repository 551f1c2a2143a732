#include "tests/support/scripted_token.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <type_traits>

namespace test {
namespace {

// Blocks handed out and not yet freed. No container: this is touched by every free of the program, on any thread.
std::array<std::atomic<void*>, 64> g_blocks = {};

void replaceBlock(void* from, void* to) {
    for (std::atomic<void*>& slot : g_blocks) {
        if (void* expected = from; slot.compare_exchange_strong(expected, to)) {
            return;
        }
    }
}

}  // namespace

ScriptedToken& token() {
    static auto* const instance = new ScriptedToken;  // outlives the monitor thread
    return *instance;
}

int unfreedBlocks() {
    return static_cast<int>(g_blocks.size()) - static_cast<int>(std::count(g_blocks.begin(), g_blocks.end(), nullptr));
}

namespace {

// What an operation's arguments are, so that each is shown, and filled on success, in one way.
struct Data {
    const unsigned char* bytes;
    int length;
};
struct Room {
    unsigned char* buffer;
    int* length;
};
/// Room of a size that the library is not told, the length coming in as 0: it takes it to be enough.
struct UntoldRoom : Room {};
struct Block {
    unsigned char** result;
    int* length;
};
struct HashSlot {
    void** hash;
};
struct Identity {
    unsigned char* id;
};

Data credential(const unsigned char* id) {
    return {id, 16};
}

std::string show(const char* text) {
    return text == nullptr ? "null" : "'" + std::string(text) + "'";
}
std::string show(long long number) {
    return std::to_string(number);
}
std::string show(const void* pointer) {
    return pointer == nullptr ? "null" : std::to_string(reinterpret_cast<std::uintptr_t>(pointer));
}
std::string show(const Data& data) {
    constexpr int MOST = 4096;
    if (data.bytes == nullptr || data.length < 0 || data.length > MOST) {
        return (data.bytes == nullptr ? "null[" : "bytes[") + std::to_string(data.length) + "]";
    }
    return hex({data.bytes, data.bytes + data.length});
}
std::string show(const Room& room) {
    return room.buffer == nullptr ? "null" : "out[" + std::to_string(*room.length) + "]";
}
std::string show(const Block& block) {
    return block.result == nullptr ? "null" : "block";
}
std::string show(const Identity& identity) {
    return show(credential(identity.id));
}
std::string show(const HashSlot& slot) {
    return show(*slot.hash);
}

template <typename Argument>
void fill(const Answer& /*answer*/, const Argument& /*argument*/) {
}
void fill(const Answer& answer, const Room& room) {
    if (room.buffer != nullptr) {
        const auto size = static_cast<std::size_t>(std::max(*room.length, 0));
        std::copy_n(answer.output.begin(), std::min(answer.output.size(), size), room.buffer);
        *room.length = answer.length.value_or(static_cast<int>(answer.output.size()));
    }
}
void fill(const Answer& answer, const UntoldRoom& room) {
    std::copy(answer.output.begin(), answer.output.end(), room.buffer);
    *room.length = answer.length.value_or(static_cast<int>(answer.output.size()));
}
void fill(const Answer& answer, const Block& block) {
    if (answer.noBlock) {
        *block.result = nullptr;
        *block.length = answer.length.value_or(0);
        return;
    }
    *block.result = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(answer.output.size(), 1)));
    replaceBlock(nullptr, *block.result);
    int room = static_cast<int>(answer.output.size());
    fill(answer, Room{*block.result, &room});
    *block.length = room;
}
void fill(const Answer& /*answer*/, const HashSlot& slot) {
    *slot.hash = reinterpret_cast<void*>(static_cast<std::uintptr_t>(++token().hashCount));
    token().hashes[*slot.hash] = {};
}
void fill(const Answer& answer, const Identity& identity) {
    std::copy_n(answer.output.begin(), std::min<std::size_t>(answer.output.size(), CREDENTIAL_ID_SIZE), identity.id);
}

template <typename... Arguments>
int call(const char* operation, const Arguments&... arguments) {
    const Answer answer = token().enter(operation, {show(arguments)...});
    const auto fillOne = [&](const auto& argument) {
        // A library that refuses may have allocated its block before.
        if (answer.result == 0 || (std::is_same_v<decltype(argument), const Block&> && !answer.output.empty())) {
            fill(answer, argument);
        }
    };
    (fillOne(arguments), ...);
    return answer.result;
}

template <typename Map>
const typename Map::mapped_type& lend(int result, const Map& lists, const char* serial,
                                      typename Map::mapped_type& lent) {
    const auto list = lists.find(serial);
    return lent = result == 0 && list != lists.end() ? list->second : typename Map::mapped_type();
}

}  // namespace
}  // namespace test

using namespace test;
using Text = const char*;
using In = const unsigned char*;
using Out = unsigned char*;
using Context = void*;

extern "C" {

// The linker sends every call of free in the program here.
void __real_free(void* block);
void __wrap_free(void* block);
void __wrap_free(void* block) {
    if (block != nullptr) {
        replaceBlock(block, nullptr);
    }
    __real_free(block);
}

/// An operation that answers with its result alone, and fills what its arguments say.
#define OPERATION(name, parameters, ...) \
    int zentok_##name parameters {       \
        return call(#name, __VA_ARGS__); \
    }

OPERATION(init, (int first, void* second, int third), first, second, third)
OPERATION(initDevice, (Text serial, bool flag, Context c), serial, flag, c)
OPERATION(deleteKeyPair, (Text serial, In id, Text password, bool flag, Context c), serial, credential(id), password,
          flag, c)
OPERATION(updateKeyPairDetails, (Text serial, In id, Text password, Text alias, In data, int length, Context c), serial,
          credential(id), password, alias, Data{data, length}, c)
OPERATION(importCertificate, (Text serial, Text password, ZentokCertificate* record, Context c), serial, password,
          Identity{record->credentialId}, Data{record->certificate, record->certificateLength},
          Data{record->keyLabel, record->keyLabelLength}, record->alias, c)
OPERATION(signHash,
          (Text serial, In id, Text password, In hash, int hashLength, Out signature, int* length, bool first,
           Context c, bool pss),
          serial, credential(id), password, Data{hash, hashLength}, Room{signature, length}, first, c, pss)
OPERATION(verifySignatureHash,
          (std::uint32_t keyType, Text serial, In hash, int hashLength, In key, int keyLength, In signature, int length,
           Context c, bool pss),
          keyType, serial, Data{hash, hashLength}, Data{key, keyLength}, Data{signature, length}, c, pss)
OPERATION(encrypt,
          (EncryptionType type, PaddingMode padding, In data, int dataLength, Out result, int* length, In key,
           int keyLength, Context c),
          type, padding, Data{data, dataLength}, UntoldRoom{{result, length}}, Data{key, keyLength}, c)
OPERATION(decrypt,
          (Text serial, In id, Text password, In data, int dataLength, Out* result, int* length, bool flag, Context c),
          serial, credential(id), password, Data{data, dataLength}, Block{result, length}, flag, c)
OPERATION(encrypt_aes,
          (Text serial, EncryptionType type, In key, int keyLength, In data, int dataLength, Out* result, int* length,
           bool final, In iv, int ivLength, In extra, int extraLength, Context c),
          serial, type, Data{key, keyLength}, Data{data, dataLength}, Block{result, length}, final, Data{iv, ivLength},
          Data{extra, extraLength}, c)
OPERATION(decrypt_aes,
          (Text serial, In key, int keyLength, In data, int dataLength, Out* result, int* length, bool flag, In iv,
           int ivLength, Context c),
          serial, Data{key, keyLength}, Data{data, dataLength}, Block{result, length}, flag, Data{iv, ivLength}, c)
OPERATION(decryptSymetric,
          (Text serial, In data, int dataLength, Out result, int* length, In iv, int ivLength, In key, int keyLength,
           Context c),
          serial, Data{data, dataLength}, UntoldRoom{{result, length}}, Data{iv, ivLength}, Data{key, keyLength}, c)
OPERATION(ecdhDerive, (Text serial, In id, Text password, In peer, int peerLength, Out* secret, int* length, Context c),
          serial, credential(id), password, Data{peer, peerLength}, Block{secret, length}, c)
OPERATION(generateRamdomNumber, (Text serial, int length, Out buffer, bool software, Context c), serial,
          Room{buffer, &length}, software, c)
OPERATION(initHash, (Text serial, int hashType, void** hash, Context c), serial, hashType, HashSlot{hash}, c)

int zentok_updateHash(void* hash, In data, int length, Context c) {
    const int result = call("updateHash", hash, Data{data, length}, c);
    if (result == 0 && token().hashes.contains(hash)) {
        token().hashes[hash].sum = std::accumulate(data, data + length, token().hashes[hash].sum);
    }
    return result;
}
int zentok_finalHash(void* hash, Out digest, int* length, Context c) {
    const bool isKnown = token().hashes.contains(hash);
    if (isKnown && !token().hashes[hash].runs) {
        token().enter("finalHash", {show(hash), show(Room{digest, length}), show(c)});
        return -1;
    }
    const int result = call("finalHash", hash, Room{digest, length}, c);
    if (isKnown && result == 0) {
        token().hashes[hash].runs = false;
        digest[0] = token().digestsTellSum ? token().hashes[hash].sum : digest[0];
    }
    return result;
}
Lines zentok_getConnectedDeviceList(bool flag, Context c) {
    return token().poll({show(flag), show(c)});
}
TokenInfo zentok_getTokenInfo(Text serial, Context c) {
    const int result = call("getTokenInfo", serial, c);
    return result == 0 && token().infos.contains(serial) ? token().infos[serial] : TokenInfo();
}
int zentok_validatePassword(Text serial, Text password, int attempt, int* retries, Context c) {
    const Lines arguments = {show(serial), show(password), show(attempt), show(*retries), show(c)};
    const Answer answer = token().enter("validatePassword", arguments);
    *retries = answer.retries;
    return answer.result;
}
const std::vector<ZentokKeyPair>& zentok_getKeyPairList(Text serial, Context c) {
    return lend(call("getKeyPairList", serial, c), token().keyPairs, serial, token().lentKeyPairs);
}
const std::vector<ZentokCertificate>& zentok_getCertificateList(Text serial, Context c) {
    static const std::vector<ZentokCertificate> none;
    return call("getCertificateList", serial, c) == 0 ? token().certificates[serial] : none;  // is walked in place
}
const std::vector<ZentokSymmetricKey>& zentok_getAesKeyList(Text serial, Context c) {
    return lend(call("getAesKeyList", serial, c), token().aesKeys, serial, token().lentAesKeys);
}
const ZentokCertificate* zentok_findCertificateForKey(Text serial, In id, Context c) {
    const int result = call("findCertificateForKey", serial, credential(id), c);
    return result == 0 && token().keyCertificate ? &*token().keyCertificate : nullptr;
}
int zentok_generateKeyPair(Text serial, Text password, ZentokKeyPair* key, Context c) {
    ZentokKeyPair expected = {};
    expected.keyUsage = key->keyUsage;
    expected.keyType = key->keyType;
    const bool isClean = std::memcmp(key, &expected, sizeof expected) == 0;
    const int result = call("generateKeyPair", serial, password, isClean ? "all else zero" : "more than that",
                            key->keyUsage, key->keyType, c);
    *key = result == 0 ? token().generatedKey : *key;
    return result;
}
int zentok_importAesKey(Text serial, Text password, ZentokSymmetricKey* key, Context c) {
    const Data value = {key->keyValue, key->keyValueLength};
    const int result = call("importAesKey", serial, password, value, key->keyType, c);
    *key = result == 0 ? token().importedAesKey : *key;
    return result;
}
int zentok_getCertificateDetails(In certificate, int length, CertificateDetails& details, Context c) {
    const int result = call("getCertificateDetails", Data{certificate, length}, c);
    details = result == 0 ? token().certificateDetails : details;
    return result;
}
std::vector<std::pair<std::string, Bytes>> zentok_getFilesWithExtensionsAndConvertDER(const std::string& folder,
                                                                                      const Lines& extensions,
                                                                                      Context c) {
    std::string joined;
    for (const std::string& extension : extensions) {
        joined += extension;
    }
    const int result = call("getFilesWithExtensionsAndConvertDER", folder.c_str(), joined.c_str(), c);
    return result == 0 ? token().certificateFiles : decltype(token().certificateFiles)();
}

}  // extern "C"
