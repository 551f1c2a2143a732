#include "cert/certificate_import.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "cert/utils.h"
#include "core/log.h"

namespace {

constexpr char CA_FOLDER[] = "\\ZentokDSC\\Certificates";
constexpr std::size_t MAX_LABEL_LENGTH = 128;  // characters

/// What the CA folder holds, by common name. Of two files with one name the first gives the record and the last the
/// details.
struct KnownIssuers {
    std::map<std::string, ZentokCertificate> certificates;
    std::map<std::string, CertificateDetails> details;
};

void logStep(const std::string& message) {
    logInfo("importCertificateWithChain: " + message);
}

std::int32_t fail(std::int32_t result, const std::string& message) {
    logError("importCertificateWithChain: " + message);
    return result;
}

bool isLengthSound(const ZentokCertificate& record) {
    return record.certificateLength >= 0 &&
           record.certificateLength <= static_cast<std::int32_t>(sizeof record.certificate);
}

std::int32_t parse(const ZentokCertificate& record, CertificateDetails& details) {
    return zentok_getCertificateDetails(record.certificate, record.certificateLength, details, nullptr);
}

/// The alias of a record without white space around it. A field without a terminator is read to its end.
template <std::size_t Size>
std::string trimmedAlias(const char (&alias)[Size]) {
    std::string text(alias, std::find(alias, std::end(alias), '\0'));
    return Utils().trim(text);
}

void setAlias(ZentokCertificate& record, const std::string& text) {
    std::fill(std::begin(record.alias), std::end(record.alias), '\0');
    text.copy(record.alias, MAX_LABEL_LENGTH);
}

/// The name to give the key pair: the record's alias, which gets one of the certificate's own if it is blank.
std::string labelOf(ZentokCertificate& leaf, const CertificateDetails& details) {
    std::string label = trimmedAlias(leaf.alias);
    if (label.empty()) {
        label = (details.field2 + "_" + details.issuer).substr(0, MAX_LABEL_LENGTH);
        setAlias(leaf, label);
        logStep("label not provided, using: " + label);
    }
    return label;
}

std::string baseFolder() {
    // Not tested for existence: a wrong setting falls back to no other folder.
    if (std::string home = Utils::getEnv("ZENTOK_HOME"); !home.empty()) {
        return home;
    }
    for (const char* folder : {"C:/Program Files (x86)/Halvane/Zentok", "C:/Program Files/Halvane/Zentok"}) {
        if (Utils::pathExists(folder)) {
            return folder;
        }
    }
    return Utils::getExecutableDir();
}

using CaFiles = std::vector<std::pair<std::string, std::vector<unsigned char>>>;

CaFiles readCaFiles() {
    const std::string folder = baseFolder() + CA_FOLDER;
    logStep("CA Folder: " + folder);
    return zentok_getFilesWithExtensionsAndConvertDER(folder, {".cer", ".der", ".pem", ".crt"}, nullptr);
}

KnownIssuers knownIssuers(const CaFiles& files) {
    KnownIssuers known;
    for (const auto& [path, der] : files) {
        CertificateDetails details;
        if (der.empty() ||
            zentok_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, nullptr) != TOKEN_OK) {
            continue;
        }
        const std::string name = Utils::extractCommonName(details.subject);
        if (!known.certificates.contains(name)) {
            ZentokCertificate record = {};
            if (!setCertificate(record, der)) {
                logError("importCertificateWithChain: " + path + " passed over, " + std::to_string(der.size()) +
                         " bytes are more than a token holds");
                continue;
            }
            setAlias(record, name);
            known.certificates.emplace(name, record);
        }
        known.details[name] = std::move(details);
    }
    return known;
}

/// The leaf and its issuers, root first; empty when one is missing. Names alone decide, no signature is checked, and
/// two certificates that name each other as issuer are followed without end.
std::vector<ZentokCertificate> findChain(const ZentokCertificate& leaf, const CertificateDetails& leafDetails,
                                         const KnownIssuers& known) {
    std::vector<ZentokCertificate> chain = {leaf};
    std::string name = Utils::extractCommonName(leafDetails.issuer);
    while (!name.empty()) {
        const auto issuer = known.certificates.find(name);
        if (issuer == known.certificates.end()) {
            logStep("Issuer '" + name + "' NOT found — skipping chain import");
            return {};
        }
        chain.push_back(issuer->second);
        const CertificateDetails& details = known.details.at(name);
        name = Utils::extractCommonName(details.issuer);
        if (Utils::extractCommonName(details.subject) == name) {
            break;
        }
    }
    std::reverse(chain.begin(), chain.end());
    return chain;
}

std::int32_t importChain(const std::string& device, const std::string& password, std::vector<ZentokCertificate>& chain,
                         void* libraryContext) {
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const int result = zentok_importCertificate(device.c_str(), password.c_str(), &chain[i], libraryContext);
        if (result != TOKEN_OK) {
            return fail(result, "chain import failed at index " + std::to_string(i) + " ret=" + std::to_string(result));
        }
        logStep("certificate imported successfully");
    }
    return TOKEN_OK;
}

std::int32_t importAlone(const std::string& device, const std::string& password, ZentokCertificate& leaf,
                         void* libraryContext) {
    logStep("chain import skipped — performing normal leaf import");
    const int result = zentok_importCertificate(device.c_str(), password.c_str(), &leaf, libraryContext);
    return result == TOKEN_OK ? TOKEN_OK : fail(result, "leaf import failed ret=" + std::to_string(result));
}

bool belongsTo(const ZentokKeyPair& key, const CertificateDetails& details) {
    const std::size_t size = details.publicKey.size();
    return size <= sizeof key.publicKey && key.publicKeyLength == static_cast<std::int32_t>(size) &&
           std::equal(details.publicKey.begin(), details.publicKey.end(), key.publicKey);
}

/// Gives the certificate's key pair a name if it has none. Whatever fails here leaves the import a success.
void nameKeyPair(const std::string& device, const std::string& password, const ZentokCertificate& leaf,
                 const std::string& label, void* libraryContext) {
    const std::vector<ZentokKeyPair> keys = zentok_getKeyPairList(device.c_str(), libraryContext);
    for (const ZentokKeyPair& key : keys) {
        CertificateDetails details;
        // The library may have changed the record that it imported.
        if (!isLengthSound(leaf) || parse(leaf, details) != TOKEN_OK) {
            return;
        }
        if (belongsTo(key, details)) {
            if (trimmedAlias(key.alias).empty()) {
                logStep("updating empty key pair alias to: " + label);
                zentok_updateKeyPairDetails(device.c_str(), key.credentialId, password.c_str(), label.c_str(), nullptr,
                                            0, libraryContext);
            }
            return;
        }
    }
}

}  // namespace

bool setCertificate(ZentokCertificate& record, std::span<const unsigned char> der) {
    if (der.size() > sizeof record.certificate) {
        return false;
    }
    std::copy(der.begin(), der.end(), record.certificate);
    record.certificateLength = static_cast<std::int32_t>(der.size());
    return true;
}

std::int32_t importCertificateWithChain(const std::string& device, const std::string& password, ZentokCertificate& leaf,
                                        void* libraryContext) {
    if (!isLengthSound(leaf)) {
        return fail(CERTIFICATE_LENGTH_REFUSED,
                    "a certificate of " + std::to_string(leaf.certificateLength) + " bytes does not fit its record");
    }
    CertificateDetails details;
    if (const std::int32_t result = parse(leaf, details); result != TOKEN_OK) {
        return fail(result, "certificate parsing failed");
    }
    const std::string label = labelOf(leaf, details);
    std::vector<ZentokCertificate> chain;
    if (const CaFiles files = readCaFiles(); !files.empty()) {
        chain = findChain(leaf, details, knownIssuers(files));
    }
    if (const std::int32_t result = chain.empty() ? importAlone(device, password, leaf, libraryContext)
                                                  : importChain(device, password, chain, libraryContext);
        result != TOKEN_OK) {
        return result;
    }
    if (!chain.empty()) {
        std::copy_n(chain.back().credentialId, CREDENTIAL_ID_SIZE, leaf.credentialId);
    }
    if (!password.empty()) {
        nameKeyPair(device, password, leaf, label, libraryContext);
    }
    return TOKEN_OK;
}
