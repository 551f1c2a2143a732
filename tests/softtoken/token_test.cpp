// Tokens as folders, what lies on them, and the library in its host.
#include <cstring>
#include <filesystem>

#include "softtoken/result.h"
#include "tests/softtoken/softtoken_test.h"

namespace test {
namespace {

TEST_F(SoftTokenTest, TokensComeAndGoWithTheirFolders) {
    createToken(FipsClass::FIPS_140_3, "A-TOKEN");
    EXPECT_EQ(zentok_getConnectedDeviceList(false, nullptr), (Texts{"A-TOKEN", SERIAL}));
    EXPECT_EQ(zentok_getTokenInfo("A-TOKEN", nullptr).modelVersion[2], '2') << "the class";
    softtoken::removeToken("A-TOKEN");
    EXPECT_EQ(zentok_getTokenInfo("A-TOKEN", nullptr).text1, "");
    replug();
    EXPECT_EQ(zentok_initDevice(SERIAL, true, nullptr), 0);
    // What Windows would take for another name, or for another folder, is no serial.
    for (const std::string serial : {"TOKEN-1.", "..", "TOKEN-1\\keys", "TOKEN-1 ", "*"}) {
        EXPECT_THROW(createToken(FipsClass::FIPS_140_2, serial.c_str()), softtoken::Error) << serial;
        EXPECT_NE(zentok_initDevice(serial.c_str(), false, nullptr), 0) << serial;
    }
}

TEST_F(SoftTokenTest, KeyPairsAreListedRenamedAndDeleted) {
    const std::vector<ZentokKeyPair>& empty = zentok_getKeyPairList(SERIAL, nullptr);
    ZentokKeyPair made = {};
    made.keyUsage = KEY_USAGE_EXCHANGE;
    ASSERT_EQ(zentok_generateKeyPair(SERIAL, PIN, &made, nullptr), 0);
    EXPECT_EQ(made.keyType, KEY_TYPE_RSA_2048) << "the token's choice";
    const std::vector<ZentokKeyPair>* const list = &zentok_getKeyPairList(SERIAL, nullptr);
    EXPECT_TRUE(list->size() == 1 && std::memcmp(list->data(), &made, sizeof made) == 0);
    for (int count = 0; count < 100; ++count) {
        ASSERT_EQ(&zentok_getKeyPairList(SERIAL, nullptr), list) << "reading alone gives the same list";
    }
    EXPECT_EQ(empty.size(), 0U) << "a list outlives changes";
    ASSERT_EQ(zentok_updateKeyPairDetails(SERIAL, made.credentialId, PIN, "a%b", nullptr, 0, nullptr), 0);
    EXPECT_STREQ(zentok_getKeyPairList(SERIAL, nullptr)[0].alias, "a%b");
    ASSERT_EQ(zentok_deleteKeyPair(SERIAL, made.credentialId, PIN, true, nullptr), 0);
    EXPECT_EQ(sign(made), softtoken::RESULT_NO_OBJECT);
}

// What each file of the token takes with it when it is damaged: the token, the PIN, signatures, the list.
TEST_F(SoftTokenTest, ADamagedFileTakesItsObjectAndNothingElse) {
    const ZentokKeyPair pair = newKey(KEY_TYPE_EC_P256);
    const auto working = [&] {
        return std::string(zentok_initDevice(SERIAL, false, nullptr) == 0 ? "token " : "") +
               (validate(PIN) == 0 ? "pin " : "") + (sign(pair) == 0 ? "sign " : "") +
               (zentok_getKeyPairList(SERIAL, nullptr).empty() ? "" : "list");
    };
    const std::string key = "keys\\" + hexText(pair.credentialId) + ".txt";
    for (const auto& [name, left] :
         {std::pair{"token.txt", ""}, {"pin.txt", "token list"}, {key.c_str(), "token pin "}}) {
        const Bytes whole = softtoken::readFile(path(name), 65536);
        std::vector<Bytes> variants = {Bytes(whole.size()), Bytes(70000, 'x'), {'s', 'u', 'm', '=', '\n'}};
        for (std::size_t position = 0; position < whole.size(); position += 37) {
            variants.emplace_back(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(position));
            variants.push_back(whole);
            variants.back()[position] ^= 4;
        }
        for (const Bytes& variant : variants) {
            softtoken::writeFile(path(name), variant);
            EXPECT_EQ(working(), left) << name << " of " << variant.size() << " bytes";
        }
        softtoken::writeFile(path(name), whole);
        EXPECT_EQ(working(), "token pin sign list");
    }
}

// A write that fails at its last step leaves the file as it was and nothing beside it.
TEST_F(SoftTokenTest, AFileIsReplacedWholeOrNotAtAll) {
    const Bytes before = softtoken::readFile(path("pin.txt"), 65536);
    softtoken::writeFile(path("pin.txt.1-1.tmp"), before);
    const HANDLE reader =
        CreateFileW(path("pin.txt").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(validate(PIN), softtoken::RESULT_STORAGE);
    CloseHandle(reader);
    EXPECT_EQ(softtoken::readFile(path("pin.txt"), 65536), before);
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
        EXPECT_NE(entry.path().extension(), ".tmp") << "also that of a process that was killed";
    }
}

// Hosts load and free a provider for each use. Unloaded for good each time, its runtime runs out of thread-local slots.
TEST(ModuleTest, ManyRoundsOfLoadingAndFreeing) {
#ifdef __WINE__
    GTEST_SKIP() << "Wine finds no native module by an address in it, so that none can pin itself";
#endif
    for (int round = 0; round < 1600; ++round) {
        const HMODULE library = LoadLibraryA("ZentokDSCLibrary.dll");
        ASSERT_NE(library, nullptr) << "round " << round;
        FreeLibrary(library);
    }
    EXPECT_NE(GetModuleHandleA("ZentokDSCLibrary.dll"), nullptr);
}

}  // namespace
}  // namespace test
