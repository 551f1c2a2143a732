#include <memory>

#include "core/container_map.h"
#include "core/wide_text.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

/// A record with something in every field that a key object copies, and an alias without a terminator.
ZentokKeyPair fullRecord(unsigned char id, int usage, int type) {
    ZentokKeyPair key = keyPair(id, usage, type, "", filled(300, id));
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    key.keyLabel[127] = id;
    key.keyLabelLength = 128;
    key.tokenFlag = true;
    return key;
}

void expectCopied(const KSP_KEY& key, unsigned char id, std::uint32_t type, std::uint32_t usage, std::uint32_t bits) {
    EXPECT_EQ(keyText(key.credentialId), idText(id));
    EXPECT_EQ(Bytes(key.publicKey, key.publicKey + key.publicKeyLength), filled(300, id));
    EXPECT_EQ(std::string(key.alias, sizeof key.alias), std::string(128, 'n'));
    EXPECT_TRUE(key.credentialIdLength == 16 && key.keyLabelLength == 128 && key.keyLabel[127] == id && key.tokenFlag);
    EXPECT_TRUE(key.keyType == type && key.keyUsage == usage && key.bitSize == bits);
}

using KspKeysTest = KspTest;

TEST_F(KspKeysTest, Open) {
    NCRYPT_KEY_HANDLE handle = 0;
    const auto open = [&](const std::string& name) {
        return KSPOpenKey(handleOf(&provider), &handle, widened(name).c_str(), 1, 7);
    };
    token().setDevices({"T1", "T2"});
    EXPECT_EQ(open(AA), NTE_NO_KEY) << "no key at all";
    token().keyPairs["T1"] = {fullRecord(0xAA, 1, 2)};
    token().keyPairs["T2"] = {keyPair(0xCC, 2, 5, idText(0xBB)), keyPair(0xBB, 2, 7, "mine")};
    const std::string available = "|KSP: Available key: ";
    const std::string onT1 = "|KSP: Resolved key to device: T1" + available + AA;
    const std::string onT2 = available + idText(0xCC) + available + idText(0xBB);
    const std::string found = "|KSP: Key match found, proceeding...|KSP: Key opened, algorithm=";
    const std::tuple<std::string, unsigned char, std::string> rows[] = {
        {AA, 0xAA, onT1 + found + "2 bits=2048"},
        {"mine", 0, "|KSP: Resolved key to device: T2" + onT2},
        {"", 0, onT2},  // the provider has moved
        {idText(0xBB), 0xCC, "|KSP: Resolved key to device: T2" + onT2 + found + "5 bits=256"},
        {std::string(32, 'a'), 0, onT1}};
    for (const auto& [name, id, log] : rows) {
        expect([&, key = name] { return succeeds(open(key)); }, id != 0 ? 0 : NO_KEY,
               "KSPOpenKey|KSP: Opening key: " + name + log +
                   (id != 0 ? "" : "|!KSP: Input key not found on token: " + name),
               ANY_CALLS);
        if (id != 0) {
            const std::unique_ptr<KSP_KEY> key(recordOf<KSP_KEY>(handle));
            EXPECT_EQ(keyText(key->credentialId), idText(id));
        }
    }
    EXPECT_EQ(open(AA), 0);
    expectCopied(*recordOf<KSP_KEY>(handle), 0xAA, 2, 1, 2048);
    EXPECT_EQ(KSPFreeKey(0, handle), 0);
    for (const int lie : {-1, 1025}) {
        token().keyPairs["T1"][0].publicKeyLength = lie;
        EXPECT_EQ(open(AA), NTE_INTERNAL_ERROR);
    }
}

TEST_F(KspKeysTest, CreateAndFinalize) {
    token().generatedKey = fullRecord(0xCC, 3, 4);  // what the token makes is its own affair
    const struct {
        const WCHAR* algorithm;
        DWORD spec, setBits;
        std::uint32_t usage, type, bits;  // type 0: refused
    } rows[] = {{TEXT("RSA"), 0, 0, 1, 2, 2048},       {TEXT("RSA"), 1, 3072, 2, 3, 3072},
                {TEXT("RSA"), 2, 4096, 1, 4, 4096},    {TEXT("RSA"), 0, 1500, 1, 2, 1500},
                {TEXT("RSA"), 0, 1024, 1, 0, 0},       {TEXT("ECDSA_P256"), 1, 9, 1, 5, 256},
                {TEXT("ECDSA_P384"), 0, 0, 1, 6, 384}, {TEXT("ECDH_P521"), 0, 0, 2, 7, 521}};
    for (const auto& row : rows) {
        NCRYPT_KEY_HANDLE handle = 0;
        ASSERT_EQ(KSPCreatePersistedKey(handleOf(&provider), &handle, row.algorithm, TEXT("any"), row.spec, 0x80), 0);
        const std::unique_ptr<KSP_KEY> key(recordOf<KSP_KEY>(handle));
        key->bitSize = row.setBits;
        const auto finalize = [&] { return succeeds(KSPFinalizeKey(handleOf(&provider), handle, 7)); };
        if (row.type == 0) {
            EXPECT_FALSE(finalize());
            continue;
        }
        const std::string log = "KSPFinalizeKey|" + KSP_CACHED +
                                "|KSP: FinalizeKey - generating key, algorithm=" + std::to_string(row.type) +
                                " bitSize=" + std::to_string(row.bits);
        const std::string call = "generateKeyPair('T1', '1234', 'all else zero', " + std::to_string(row.usage) + ", " +
                                 std::to_string(row.type) + ", null)";
        token().onResult("generateKeyPair", {-7, 0});
        expect(finalize, INTERNAL_ERROR, log + "|!KSP: Key generation failed: -7", call);
        expect(finalize, 0, log + "|KSP: Key finalized successfully", call);
        expectCopied(*key, 0xCC, row.type, row.usage, row.bits);
        expect(finalize, 0, "KSPFinalizeKey");
    }
}

TEST_F(KspKeysTest, DeleteAndEnumerate) {
    auto* key = new KSP_KEY(keyObject(2, 2048));
    key->tokenFlag = true;
    const auto remove = [&] { return succeeds(KSPDeleteKey(handleOf(&provider), handleOf(key), 7)); };
    token().onResult("deleteKeyPair", {13, 0});
    const std::string call = "deleteKeyPair('T1', " + AA + ", '1234', 1, null)";
    EXPECT_FALSE(remove());
    expect(remove, 0, "KSPDeleteKey|" + KSP_CACHED + "|KSP: Key deleted successfully", call);

    token().keyPairs["T1"] = {keyPair(0xAA, 1, 2), keyPair(0xBB, 2, 6)};
    NCryptKeyName* item = nullptr;
    void* state = nullptr;
    const auto next = [&] { return KSPEnumKeys(handleOf(&provider), nullptr, &item, &state, 7); };
    for (const auto& [id, algorithm] : {std::pair{AA, TEXT("RSA")}, {idText(0xBB), TEXT("ECDH_P384")}}) {
        EXPECT_EQ(next(), 0);
        EXPECT_TRUE(narrowed(item->pszName) == id && WideView(item->pszAlgid) == algorithm);
        EXPECT_EQ(KSPFreeBuffer(item->pszName) | KSPFreeBuffer(item->pszAlgid) | KSPFreeBuffer(item), 0);
    }
    EXPECT_EQ(next(), NTE_NO_MORE_ITEMS);
    EXPECT_EQ(KSPFreeBuffer(state), 0);
}

}  // namespace
}  // namespace test
