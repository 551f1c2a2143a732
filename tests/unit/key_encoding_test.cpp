#include "cert/key_encoding.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/scripted_token.h"

namespace test {
namespace {

TEST(KeyEncoding, Hexadecimal) {
    const Lines rows =
        lines("|0x|0X|0xF 0F|0 00|1 01|x1 01|zz 00|G1 01|1G 10|@/ 00|aBCdef ABCDEF|abc 0ABC|0x0x12 0012");
    for (const std::string& row : rows) {
        const std::size_t end = std::min(row.find(' '), row.size());
        EXPECT_EQ(hex(hexToBytes(row.substr(0, end))), row.substr(std::min(end + 1, row.size()))) << row;
    }
    const unsigned char bytes[] = {0x00, 0x9A, 0xFF};
    EXPECT_EQ(bytesToHex(bytes, 3), "009AFF");
    EXPECT_EQ(bytesToHex(bytes, 0) + bytesToHex(bytes, -1) + bytesToHex(nullptr, 0), "");
}

TEST(KeyEncoding, Lengths) {
    const std::pair<std::size_t, std::string> rows[] = {{0, "00"},     {127, "7F"},     {128, "8180"},
                                                        {255, "81FF"}, {256, "820100"}, {65536, "83010000"}};
    for (const auto& [length, octets] : rows) {
        EXPECT_EQ(hex(derEncodeLength(length)), octets);
        EXPECT_EQ(hex(derEncodeTlv(0x04, Bytes(length, 0xEE))), "04" + octets + hex(Bytes(length, 0xEE)));
    }
}

TEST(KeyEncoding, PublicKeys) {
    const auto encodes = [](const std::string& modulus, const char* exponent, const std::string& head,
                            const std::string& tail) {
        const std::string spki = head + "300D06092A864886F70D0101010500" + tail;
        EXPECT_EQ(hex(rsaPublicKeyHexToSpki(modulus, exponent)), spki);
        EXPECT_EQ(hex(rsaPublicKeyBytesToSpki(hexToBytes(modulus), hexToBytes(exponent))), spki);
    };
    const std::string modulus2048 = hex(filled(256, 0x80));
    encodes("7F", "010001", "301C", "030B00300802017F0203010001");
    encodes("80", "010001", "301D", "030C003009020200800203010001");
    encodes("7F", "000003", "301C", "030B00300802017F0203000003");  // leading zeros stay
    encodes("0080", "03", "301B", "030A00300702020080020103");
    encodes("", "", "3018", "030700300402000200");
    encodes("0x1", "3", "301A", "0309003006020101020103");
    encodes(modulus2048, "010001", "30820122", "0382010F003082010A0282010100" + modulus2048 + "0203010001");
    EXPECT_TRUE(isDerPublicKey({}) && isDerPublicKey(Bytes{0x30}));
    EXPECT_FALSE(isDerPublicKey(Bytes{0x2F, 0x30}) || isDerPublicKey(Bytes{0}));
}

TEST(KeyEncoding, NumbersInAWidth) {
    EXPECT_EQ(hex(intToBigEndianBytes(65537, 3)), "010001");
    EXPECT_EQ(hex(intToBigEndianBytes(65537, 0)), "");
    EXPECT_EQ(hex(intToBigEndianBytes(3, 3)), "000003");
    EXPECT_EQ(hex(intToBigEndianBytes(-1, 3)), "000000");
    EXPECT_EQ(hex(intToBigEndianBytes(0x01020304, 2)), "0304");
    EXPECT_EQ(hex(intToBigEndianBytes(0x7FFFFFFF, 5)), "007FFFFFFF");
}

TEST(KeyEncoding, KeyTypes) {
    using Wide = std::basic_string<WCHAR>;
    const WCHAR* const curves[] = {TEXT("P256"), TEXT("P384"), TEXT("P521")};
    constexpr unsigned BITS[] = {0, 0, 1024, 2048, 3072, 4096, 256, 384, 521, 0};
    for (int type = -1; type <= 8; ++type) {
        EXPECT_EQ(keySizeToBits(type), BITS[type + 1]) << type;
        for (const int usage : {0, 1, 2, 3}) {
            const bool isEc = type >= 5 && type <= 7;
            const Wide name = isEc ? Wide(usage == 2 ? TEXT("ECDH_") : TEXT("ECDSA_")) + curves[type - 5] : TEXT("RSA");
            EXPECT_EQ(keySizeToCngEccAlgorithm(type, usage), name) << type << " usage " << usage;
        }
    }
}

}  // namespace
}  // namespace test
