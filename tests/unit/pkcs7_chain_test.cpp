#include "cert/pkcs7_chain.h"

#include <algorithm>

#include "cert/certificate_import.h"
#include "cert/key_encoding.h"
#include "tests/unit/provider_test.h"

namespace test {
namespace {

Bytes text(unsigned char tag, const std::string& characters) {
    return derEncodeTlv(tag, Bytes(characters.begin(), characters.end()));
}

Bytes sequence(const std::vector<Bytes>& parts, unsigned char tag = 0x30) {
    Bytes content;
    for (const Bytes& part : parts) {
        content.insert(content.end(), part.begin(), part.end());
    }
    return derEncodeTlv(tag, content);
}

/// A certificate as far as the platform parses it: its signature is none.
ZentokCertificate certificate(const std::string& subject, const std::string& issuer) {
    const auto name = [](const std::string& commonName) {
        return sequence({sequence({sequence({{0x06, 0x03, 0x55, 0x04, 0x03}, text(0x0C, commonName)})}, 0x31)});
    };
    const Bytes algorithm = {0x30, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
    const Bytes validity = sequence({text(0x17, "200101000000Z"), text(0x17, "491231235959Z")});
    const Bytes key = rsaPublicKeyBytesToSpki(filled(128, 1), Bytes{1, 0, 1});
    const Bytes body = sequence({{0x02, 0x01, 0x05}, algorithm, name(issuer), validity, name(subject), key});
    ZentokCertificate record = {};
    EXPECT_TRUE(setCertificate(record, sequence({body, algorithm, {0x03, 0x02, 0x00, 0x00}})));
    return record;
}

const ZentokCertificate LEAF = certificate("the one on the token", "Mid");
const ZentokCertificate MID = certificate("Mid", "Root");
const ZentokCertificate ROOT = certificate("Root", "Root");
const ZentokCertificate BROKEN = {};

Bytes der(const ZentokCertificate& record) {
    return {record.certificate, record.certificate + record.certificateLength};
}

class Pkcs7ChainTest : public ProviderTest {};

TEST_F(Pkcs7ChainTest, Order) {
    const auto orders = [](const ZentokCertificate& leaf, const std::vector<ZentokCertificate>& candidates,
                           std::vector<ZentokCertificate> expected, const std::string& log) {
        std::vector<ZentokCertificate> chain;
        expect([&] { return !(chain = orderCertificateChain(leaf, candidates)).empty(); }, 0, log);
        EXPECT_TRUE(std::equal(chain.begin(), chain.end(), expected.begin(), expected.end(),
                               [](const auto& left, const auto& right) { return der(left) == der(right); }));
    };
    const std::vector<ZentokCertificate> own = {ROOT};
    orders(LEAF, {ROOT, BROKEN, MID, LEAF}, {LEAF, MID, ROOT}, "[ROOT] Self-signed root detected.");
    orders(LEAF, {LEAF, MID}, {LEAF, MID}, "");
    orders(own.front(), own, own, "");
    orders(ROOT, own, {ROOT, ROOT}, "[ROOT] Self-signed root detected.");
    orders(BROKEN, own, {BROKEN}, "[ERROR] Cannot parse leaf cert");
}

TEST_F(Pkcs7ChainTest, Message) {
    DWORD size = 0;
    const auto builds = [&size](BYTE* output, bool asksForMore = false) {
        return BuildCertificateChain({LEAF, BROKEN, ROOT, MID}, output, &size) != FALSE &&
               (GetLastError() == ERROR_MORE_DATA) == asksForMore;
    };
    expect([&] { return builds(nullptr, true); }, 0, "");
    const DWORD needed = size;
    RimmedBuffer buffer(needed);
    size = needed - 1;
    expect([&] { return builds(buffer.data(), true); }, 0, "");
    EXPECT_EQ(size, needed);
    expect([&] { return builds(buffer.data()); }, 0, "");
    const Bytes message = buffer.first(size);
    const auto positionOf = [&](const Bytes& part) {
        return std::search(message.begin(), message.end(), part.begin(), part.end()) - message.begin();
    };
    EXPECT_EQ(positionOf({0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02}), 4) << "signedData";
    // Their order is not looked at: an encoder of a SET may sort.
    for (const ZentokCertificate& each : {ROOT, MID, LEAF}) {
        EXPECT_LT(positionOf(der(each)), static_cast<std::ptrdiff_t>(message.size()));
    }

    ZentokCertificate overlong = LEAF;
    overlong.certificateLength = sizeof LEAF.certificate + 1;
    const auto refuses = [&size](const std::vector<ZentokCertificate>& list, DWORD code, const std::string& log) {
        expect([&] { return BuildCertificateChain(list, nullptr, &size) != FALSE; }, code, log);
    };
    refuses({}, NO_KEY, "!Certificate Is Empty");
    refuses({BROKEN, ROOT}, BAD_KEY, "!Failed creating leaf certificate");
    refuses({overlong, ROOT}, BAD_KEY, "!Failed creating leaf certificate");
}

}  // namespace
}  // namespace test
