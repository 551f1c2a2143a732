#include "core/wide_text.h"
#include "tests/unit/ksp_fixture.h"

namespace test {
namespace {

class KspPropertiesTest : public KspTest {
protected:
    SECURITY_STATUS get(const WCHAR* name, DWORD room = 300) {
        return KSPGetKeyProperty(handleOf(&provider), handleOf(&key), name, buffer.data(), room, &length, 7);
    }
    WideView text(const WCHAR* name) {
        EXPECT_EQ(get(name), 0);
        return {reinterpret_cast<WCHAR*>(buffer.data()), length / 2 - 1};
    }
    std::uint32_t number(const WCHAR* name) {
        return get(name) == 0 ? *reinterpret_cast<std::uint32_t*>(buffer.data()) : UNTOUCHED;
    }
    SECURITY_STATUS set(const WCHAR* name, const void* input, DWORD size) {
        auto* bytes = static_cast<PBYTE>(const_cast<void*>(input));
        return KSPSetKeyProperty(handleOf(&provider), handleOf(&key), name, bytes, size, 7);
    }
    KSP_KEY key = keyObject(2, 2048);
};

TEST_F(KspPropertiesTest, Read) {
    EXPECT_TRUE(get(TEXT("Name"), 65) == NTE_BUFFER_TOO_SMALL && length == 66);
    EXPECT_TRUE(text(TEXT("Name")) == widened(AA) && text(TEXT("Unique Name")) == widened(AA));
    const std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, WideView, WideView, std::uint32_t> rows[] = {
        {5, 2, 256, TEXT("ECDH_P256"), TEXT("ECDH"), 1},
        {7, 3, 521, TEXT("ECDSA_P521"), TEXT("ECDSA"), 3},
        {8, 9, 0, TEXT("RSA"), TEXT("RSA"), 0}};
    for (const auto& [type, usage, bits, algorithm, group, flags] : rows) {
        key.keyType = type;
        key.keyUsage = usage;
        key.bitSize = bits;
        EXPECT_TRUE(text(TEXT("Algorithm Name")) == algorithm && text(TEXT("Algorithm Group")) == group);
        EXPECT_TRUE(number(TEXT("Length")) == bits && number(TEXT("Block Length")) == bits / 8);
        EXPECT_EQ(number(TEXT("Key Usage")), flags);
        EXPECT_TRUE(number(TEXT("Lengths")) == 1024 && length == 16);
    }
    EXPECT_EQ(get(TEXT("name")), NTE_NOT_SUPPORTED);
}

TEST_F(KspPropertiesTest, Certificate) {
    const WCHAR* const name = TEXT("SmartCardKeyCertificate");
    expect([=, this] { return succeeds(get(name)); }, static_cast<DWORD>(NTE_NOT_FOUND),
           "KSPGetKeyProperty|KSP: GetKeyProperty: SmartCardKeyCertificate|!KSP: Certificate not found for key",
           "initDevice('T1', 1, null)|findCertificateForKey('T1', " + AA + ", null)");
    token().keyCertificate = ZentokCertificate{};
    token().keyCertificate->certificate[199] = 7;
    token().keyCertificate->certificateLength = 200;
    EXPECT_EQ(get(name, 199), NTE_BUFFER_TOO_SMALL);
    EXPECT_TRUE(get(name, 200) == 0 && length == 200 && buffer.first(200).back() == 7);
    token().keyCertificate->certificateLength = 3073;
    EXPECT_EQ(get(name), NTE_INTERNAL_ERROR);

    const Bytes der = filled(3073);
    std::fill(std::begin(key.alias), std::end(key.alias), 'n');
    key.keyLabel[0] = 0xEE;
    key.keyLabelLength = 1;
    EXPECT_EQ(set(name, der.data(), 3073), NTE_INVALID_PARAMETER);
    EXPECT_EQ(set(name, der.data(), 3072), 0);
    const Lines calls = token().takeCalls();
    const std::string import = "importCertificate('T1', '1234', " + AA + ", " + hex(filled(3072)) + ", EE, '" +
                               std::string(128, 'n') + "', null)";
    EXPECT_NE(std::find(calls.begin(), calls.end(), import), calls.end());
    token().onResult("importCertificate", {-3});
    EXPECT_EQ(set(name, der.data(), 9), NTE_INTERNAL_ERROR);
}

TEST_F(KspPropertiesTest, Write) {
    const std::uint64_t wide = 0x400000003;
    EXPECT_EQ(set(TEXT("HWND Handle"), &wide, 8) | set(TEXT("HWND Handle"), &wide, 7), 0);
    EXPECT_EQ(provider.parentWindow, wide) << "stays, unlike the provider's own";
    for (const auto& [flags, usage] : {std::pair{4U, 0U}, {2U, 1U}, {5U, 2U}, {7U, 3U}, {4U, 3U}}) {
        EXPECT_EQ(set(TEXT("Key Usage"), &flags, 4), 0);
        EXPECT_EQ(key.keyUsage, usage);
    }
    const WCHAR* const mode = TEXT("ChainingMode");
    EXPECT_EQ(set(mode, TEXT("ChainingModeECB"), 1), 0) << "its size plays no part";
    EXPECT_EQ(set(mode, TEXT("ChainingModeGCM"), 32), NTE_NOT_SUPPORTED);
    EXPECT_EQ(set(mode, TEXT("ChainingModeCBC"), 0), 0);
    EXPECT_EQ(text(mode), TEXT("ChainingModeECB"));
    const Bytes iv = filled(33, 1);
    for (const auto& [keyLength, size, fits] :
         {std::tuple{16, 16U, true}, {32, 16U, true}, {24, 8U, true}, {24, 16U, false}, {0, 33U, true}}) {
        key.symmetricKeyLength = keyLength;
        EXPECT_EQ(set(TEXT("IV"), nullptr, 16), 0) << "cleared";
        EXPECT_EQ(set(TEXT("IV"), iv.data(), size), fits ? 0 : NTE_INVALID_PARAMETER);
        EXPECT_EQ(*processIv(), Bytes(iv.begin(), iv.begin() + (fits ? size : 0)));
    }
}

}  // namespace
}  // namespace test
