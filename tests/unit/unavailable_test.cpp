#include "capi/csp_interface.h"
#include "cng/key_storage_interface.h"
#include "registration/provider_registration.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

class UnavailableTest : public ProviderTest {};

std::string refusal(const std::string& entry) {
    return entry + "|!" + entry + ": not available in this version";
}

void expectRefusal(const std::string& entry, const std::function<bool()>& call) {
    expect(call, ERROR_CALL_NOT_IMPLEMENTED, refusal(entry));
}

TEST_F(UnavailableTest, CryptoApiEntries) {
    expectRefusal("CPGetProvParam", [] { return CPGetProvParam(0, 0, nullptr, nullptr, 0); });
    expectRefusal("CPSetProvParam", [] { return CPSetProvParam(0, 0, nullptr, 0); });
    expectRefusal("CPDuplicateHash", [] { return CPDuplicateHash(0, 0, nullptr, 0, nullptr); });
    expectRefusal("CPDeriveKey", [] { return CPDeriveKey(0, 0, 0, 0, nullptr); });
    expectRefusal("CPGetKeyParam", [] { return CPGetKeyParam(0, 0, 0, nullptr, nullptr, 0); });
    expectRefusal("CPSetKeyParam", [] { return CPSetKeyParam(0, 0, 0, nullptr, 0); });
    expectRefusal("CPImportKey", [] { return CPImportKey(0, nullptr, 0, 0, 0, nullptr); });
    expectRefusal("CPExportKey", [] { return CPExportKey(0, 0, 0, 0, 0, nullptr, nullptr); });
    expectRefusal("CPEncrypt", [] { return CPEncrypt(0, 0, 0, TRUE, 0, nullptr, nullptr, 0); });
    expectRefusal("CPDecrypt", [] { return CPDecrypt(0, 0, 0, TRUE, 0, nullptr, nullptr); });
    for (const auto entry : {DllRegisterServer, DllUnregisterServer}) {
        EXPECT_EQ(entry(), HRESULT_FROM_WIN32(ERROR_CALL_NOT_IMPLEMENTED));
    }
}

TEST_F(UnavailableTest, KeyStorageTable) {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    EXPECT_EQ(logOf([&] { EXPECT_EQ(GetKeyStorageInterface(nullptr, &table, 0xFFFFFFFF), 0); }),
              lines("GetKeyStorageInterface"));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->Version.MajorVersion, 1);
    EXPECT_EQ(table->Version.MinorVersion, 0);
    const Lines names = lines(
        "OpenProvider|OpenKey|CreatePersistedKey|GetProviderProperty|GetKeyProperty|SetProviderProperty|SetKeyProperty|"
        "FinalizeKey|DeleteKey|FreeProvider|FreeKey|FreeBuffer|Encrypt|Decrypt|IsAlgSupported|EnumAlgorithms|EnumKeys|"
        "ImportKey|ExportKey|SignHash|VerifySignature|PromptUser|NotifyChangeKey|SecretAgreement|DeriveKey|FreeSecret");
    // The slots lie one behind the other; while none looks at its arguments, one type calls them all.
    const auto* slot = reinterpret_cast<NCryptFreeBufferFn const*>(&table->OpenProvider);
    for (const std::string& name : names) {
        const auto call = [&] { EXPECT_EQ((*slot)(nullptr), static_cast<SECURITY_STATUS>(NTE_NOT_SUPPORTED)); };
        EXPECT_EQ(logOf(call), lines(refusal("KSP" + name)));
        ++slot;
    }
    EXPECT_EQ(reinterpret_cast<const char*>(slot), reinterpret_cast<const char*>(table + 1)) << "26 slots";
}

}  // namespace
}  // namespace test
