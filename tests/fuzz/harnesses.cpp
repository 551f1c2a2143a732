#include "tests/fuzz/harnesses.h"

#include "cng/functions.h"
#include "cng/secret.h"
#include "tests/fuzz/world.h"

namespace test {
namespace {

constexpr const WCHAR* BLOB_TYPES[] = {
    TEXT("RSAPUBLICBLOB"),   TEXT("PUBLICBLOB"),       TEXT("ECCPUBLICBLOB"),
    TEXT("OpaqueKeyBlob"),   TEXT("KeyDataBlob"),      TEXT("CAPIPUBLICBLOB"),
    TEXT("OpaqueTransport"), TEXT("PKCS8_PRIVATEKEY"), TEXT("Another"),
};
constexpr const WCHAR* PROPERTIES[] = {
    TEXT("Name"),        TEXT("Algorithm Name"), TEXT("Algorithm Group"), TEXT("Length"),
    TEXT("Lengths"),     TEXT("Key Usage"),      TEXT("Export Policy"),   TEXT("Block Length"),
    TEXT("Key Type"),    TEXT("Unique Name"),    TEXT("Provider Handle"), TEXT("SmartCardKeyCertificate"),
    TEXT("Impl Type"),   TEXT("Version"),        TEXT("Max Name Length"), TEXT("Security Descr Support"),
    TEXT("HWND Handle"), TEXT("SmartCardPin"),   TEXT("ChainingMode"),    TEXT("IV"),
};
constexpr DWORD KEY_PARAMS[] = {KP_IV,          KP_PADDING,  KP_MODE, KP_PERMISSIONS, KP_ALGID,
                                KP_CERTIFICATE, KP_BLOCKLEN, KP_SALT, KP_KEYLEN};
constexpr DWORD SETTABLE_PARAMS[] = {PP_CLIENT_HWND, PP_KEYEXCHANGE_PIN, PP_USE_HARDWARE_RNG, PP_CERTCHAIN};
constexpr DWORD ASKING_PARAMS[] = {PP_NAME,      PP_ENUMCONTAINERS,     PP_KEYSET_SEC_DESCR, PP_CERTCHAIN,
                                   PP_ADMIN_PIN, PP_KEYEXCHANGE_PIN,    PP_SIGNATURE_PIN,    PP_USE_HARDWARE_RNG,
                                   PP_KEYSPEC,   PP_ENUMEX_SIGNING_PROT};
constexpr DWORD HASH_PARAMS[] = {HP_ALGID, HP_HASHVAL, HP_HASHSIZE, HP_HMAC_INFO};
constexpr const WCHAR* HASHES[] = {TEXT("SHA1"), TEXT("SHA224"), TEXT("SHA384"), TEXT("SHA512"), TEXT("SHA256")};
constexpr const WCHAR* CREATABLE[] = {TEXT("RSA"), TEXT("ECDSA_P256"), TEXT("ECDH_P521")};
constexpr ALG_ID ALGORITHMS[] = {CALG_SHA1,    CALG_SHA_256, CALG_SHA_384,  CALG_SHA_512,  CALG_HMAC,
                                 CALG_AES_128, CALG_AES_256, CALG_RSA_KEYX, CALG_RSA_SIGN, CALG_MD5};

/// The bytes with a terminator behind them, also as wide text of an odd size: where the contract tells no size, that is
/// the end.
Bytes terminated(Bytes bytes) {
    bytes.insert(bytes.end(), sizeof(WCHAR) + 1, 0);
    return bytes;
}

void readProviderParam(HCRYPTPROV context, DWORD param, DWORD flags, Input& in) {
    const bool asks = std::ranges::count(ASKING_PARAMS, param) != 0;
    ANSWERS(asks ? SIZE_MAX : 0, CAPI(CPGetProvParam(context, param, out, size, flags)));
}

/// What a client does with a key that it made, which then is one of the world's.
void useKey(World& world, HCRYPTKEY key, Input& in) {
    if (key == 0) {
        return;
    }
    world.keys.push_back(key);
    for (const DWORD param : {KP_ALGID, KP_PERMISSIONS, KP_BLOCKLEN, KP_MODE, KP_CERTIFICATE}) {
        ANSWERS(param == KP_MODE ? 0 : 1, CAPI(CPGetKeyParam(world.capi, key, param, out, size, 0)));
    }
    ANSWERS(0, CAPI(CPExportKey(world.capi, key, 0, PUBLICKEYBLOB, 0, out, size)));
    const Bytes text = in.bytes(600);
    for (const bool encrypts : {true, false}) {
        Guarded data(std::max<std::size_t>(text.size() + in.number(), LARGEST_PLAINTEXT));
        std::copy(text.begin(), text.end(), data.data());
        auto size = static_cast<DWORD>(text.size());
        const bool done = encrypts ? CAPI(CPEncrypt(world.capi, key, 0, 1, CRYPT_OAEP, data.data(), &size, data.size()))
                                   : CAPI(CPDecrypt(world.capi, key, 0, 1, CRYPT_OAEP, data.data(), &size));
        require(!done || size <= data.size(), "more data than room");
    }
}

void compute(World& world, NCRYPT_KEY_HANDLE key, Input& in, void* padding, DWORD cipherFlags, DWORD signFlags) {
    Bytes text = in.bytes(600);
    text.resize(std::max<std::size_t>(text.size(), 16));  // a block: the library decrypts into as much as it gets
    Guarded data(text);
    for (const auto cipher : {KSPEncrypt, KSPDecrypt}) {
        ANSWERS(0, ksp(cipher(world.cng, key, data.data(), data.size(), padding, out, room, size, cipherFlags)));
    }
    ANSWERS(0, ksp(KSPSignHash(world.cng, key, padding, data.data(), 16, out, room, size, signFlags)));
    ksp(KSPVerifySignature(world.cng, key, padding, data.data(), 16, data.data(), data.size(), signFlags));
}

void useKspKey(World& world, NCRYPT_KEY_HANDLE key, Input& in) {
    if (key == 0) {
        return;
    }
    world.kspKeys.push_back(key);
    for (const WCHAR* name : {PROPERTIES[0], PROPERTIES[1], PROPERTIES[2], PROPERTIES[3], PROPERTIES[11]}) {
        ANSWERS(0, ksp(KSPGetKeyProperty(world.cng, key, name, out, room, size, 0)));
    }
    for (const WCHAR* type : {BLOB_TYPES[0], BLOB_TYPES[2], BLOB_TYPES[5]}) {
        ANSWERS(0, ksp(KSPExportKey(world.cng, key, 0, type, nullptr, out, room, size, 0)));
    }
    compute(world, key, in, nullptr, NCRYPT_PAD_OAEP_FLAG, 0);
}

void usePadding(World& world, Input& in) {
    const NCRYPT_KEY_HANDLE key = in.one(world.kspKeys);
    const DWORD flags = in.number();
    Guarded name(in.flag() ? widened(in.text()) : WideText(in.one(HASHES)));
    const BCRYPT_OAEP_PADDING_INFO oaep = {in.number() == 1 ? nullptr : name.text(), nullptr, in.number<ULONG>()};
    static_assert(offsetof(BCRYPT_OAEP_PADDING_INFO, pbLabel) == offsetof(BCRYPT_PSS_PADDING_INFO, cbSalt));
    const std::size_t size = (flags & BCRYPT_PAD_PSS) != 0 ? sizeof(BCRYPT_PSS_PADDING_INFO) : sizeof oaep;
    Guarded info({reinterpret_cast<const unsigned char*>(&oaep), size});
    compute(world, key, in, info.data(), flags, flags);
}

// --- Blobs ---

/// Whole, and without its last byte: what a reader that goes one byte too far needs.
std::vector<Bytes> blobs(Input& in) {
    const Bytes whole = in.bytes();
    return {whole, {whole.begin(), whole.end() - (whole.empty() ? 0 : 1)}};
}

void importCapi(World& world, Input& in) {
    const std::vector<Bytes> given = blobs(in);
    const HCRYPTKEY with = in.flag() ? in.one(world.keys) : 0;
    for (const Bytes& blob : given) {
        Guarded data(blob);
        useKey(world, CAPI_MADE(CPImportKey(world.capi, data.data(), data.size(), with, 0, handle)), in);
    }
}

void importCng(World& world, Input& in) {
    Guarded type(WideText(in.one(BLOB_TYPES)));
    const std::vector<Bytes> given = blobs(in);
    const NCRYPT_KEY_HANDLE with = in.flag() ? in.one(world.kspKeys) : 0;
    for (const Bytes& blob : given) {
        Guarded data(blob);
        useKspKey(world,
                  KSP_MADE(KSPImportKey(world.cng, with, type.text(), nullptr, handle, data.data(), data.size(), 0)),
                  in);
    }
}

// --- Parameters and properties ---

void keyParam(World& world, Input& in) {
    const HCRYPTKEY key = in.one(world.keys);
    const DWORD param = in.one(KEY_PARAMS);
    Bytes value = in.bytes();
    value.resize(param == KP_CERTIFICATE ? value.size() : 16);  // all others have a size that both sides know
    Guarded data(value);
    CAPI(CPSetKeyParam(world.capi, key, param, data.data(), 0));
    for (const DWORD readable : KEY_PARAMS) {
        ANSWERS(readable == KP_MODE ? 0 : 1, CAPI(CPGetKeyParam(world.capi, key, readable, out, size, 0)));
    }
}

void providerParam(World& world, Input& in) {
    const DWORD param = in.flag() ? in.number() : in.one(SETTABLE_PARAMS);
    world.context.keyNames = {in.text(), in.text()};
    world.context.containerName = idText(in.flag() ? 0xAA : 0xBB);
    Bytes value = in.bytes(600);
    value.resize(std::max(value.size(), sizeof(HWND)));
    Guarded data(terminated(value));
    CAPI(CPSetProvParam(world.capi, param, data.data(), 0));
    const DWORD flags = in.number() % 3;
    readProviderParam(world.capi, param, flags, in);
}

void property(World& world, Input& in) {
    const NCRYPT_KEY_HANDLE key = in.one(world.kspKeys);
    Guarded name(in.flag() ? widened(in.text()) : WideText(in.one(PROPERTIES)));
    const Bytes value = in.bytes();
    const WideView asked = name.text();
    const bool isText = asked == TEXT("SmartCardPin") || asked == TEXT("ChainingMode");  // read to their terminator
    Guarded data(isText ? terminated(value) : value);
    const DWORD given = isText ? in.number() : data.size();
    ksp(KSPSetKeyProperty(world.cng, key, name.text(), data.data(), given, 0));
    ksp(KSPSetProviderProperty(world.cng, name.text(), data.data(), given, 0));
    ANSWERS(0, ksp(KSPGetKeyProperty(world.cng, key, name.text(), out, room, size, 0)));
    ANSWERS(0, ksp(KSPGetProviderProperty(world.cng, name.text(), out, room, size, 0)));
}

// --- Key derivation ---

void deriveFrom(World& world, NCRYPT_SECRET_HANDLE secret, Input& in) {
    Guarded kdf(in.flag() ? WideText(TEXT("SP800_56ACONCAT")) : widened(in.text()));
    std::vector<std::unique_ptr<Guarded>> values;
    std::vector<NCryptBuffer> list;
    for (unsigned count = in.number() % 6; count > 0; --count) {
        const ULONG type = in.number() % 16;
        values.push_back(in.flag() ? std::make_unique<Guarded>(WideText(in.one(HASHES)))
                                   : std::make_unique<Guarded>(in.bytes()));
        list.push_back({values.back()->size(), type, in.number() == 1 ? nullptr : values.back()->data()});
    }
    Guarded buffers({reinterpret_cast<const unsigned char*>(list.data()), list.size() * sizeof list[0]});
    NCryptBufferDesc parameters = {NCRYPTBUFFER_VERSION, static_cast<ULONG>(list.size()),
                                   reinterpret_cast<NCryptBuffer*>(buffers.data())};
    ANSWERS(0, ksp(KSPDeriveKey(world.cng, secret, kdf.text(), &parameters, out, room, size, 0)));
}

void derivation(World& world, Input& in) {
    KSP_SECRET secret;
    secret.provider = &world.provider;
    secret.secretLength = 1 + in.number() % static_cast<int>(sizeof secret.secretValue);
    deriveFrom(world, reinterpret_cast<NCRYPT_SECRET_HANDLE>(&secret), in);
}

void agreement(World& world, Input& in) {
    const NCRYPT_KEY_HANDLE own = in.one(world.kspKeys);
    const NCRYPT_KEY_HANDLE peer = in.one(world.kspKeys);
    if (const auto secret = KSP_MADE(KSPSecretAgreement(world.cng, own, peer, handle, 0))) {
        deriveFrom(world, secret, in);
        KSPFreeSecret(world.cng, secret);
    }
}

// --- Containers ---

void container(World& world, Input& in) {
    constexpr DWORD TYPES[] = {REG_SZ, REG_SZ, REG_BINARY, REG_MULTI_SZ, REG_DWORD};
    constexpr DWORD FLAGS[] = {0, CRYPT_NEWKEYSET, CRYPT_DELETEKEYSET};
    const DWORD type = in.one(TYPES);
    const std::string name = in.text();
    Bytes value = in.bytes(3000);
    value.push_back(0xFF);  // the platform looks for a terminator behind text without one
    RegSetKeyValueA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok\\CSP\\Containers", name.c_str(), type, value.data(),
                    static_cast<DWORD>(value.size() - 1));
    const DWORD flags = in.one(FLAGS) | CRYPT_SILENT;
    VTableProvStruc table = {};
    HCRYPTPROV context = 0;
    if (CAPI(CPAcquireContext(&context, name.c_str(), flags, &table)) && context != 0) {
        for (const DWORD param : {PP_CONTAINER, PP_UNIQUE_CONTAINER, PP_ENUMCONTAINERS}) {
            readProviderParam(context, param, CRYPT_FIRST, in);
        }
        useKey(world, CAPI_MADE(CPGenKey(context, CALG_RSA_KEYX, 0, handle)), in);
        CPReleaseContext(context, 0);
    }
    RegDeleteTreeA(HKEY_CURRENT_USER, "SOFTWARE\\Zentok");
}

// --- Certificates ---

/// The leaf "a" and files with the subjects "b", "c" and so on. Each is issued by itself or by the next: two that name
/// each other as issuer are followed without end, by contract.
void importCertificate(World& world, Input& in) {
    std::vector<Answer> parsed;
    const unsigned files = in.number() % 4;
    for (unsigned i = 0; i <= files; ++i) {
        std::string noise = in.text(40);
        std::replace(noise.begin(), noise.end(), '=', '_');
        const auto named = [&](unsigned by) { return noise + "CN=" + static_cast<char>('a' + by) + "," + noise; };
        CertificateDetails details;
        details.field2 = noise;
        details.issuer = named(i + in.number() % 2);
        details.subject = named(i);
        details.publicKey = in.flag() ? filled(256, 1) : in.bytes(2000);
        parsed.push_back({.result = in.number() == 1 ? 1 : 0, .during = [=] { token().certificateDetails = details; }});
        if (i > 0) {
            token().certificateFiles.emplace_back("file", in.flag() ? certificate(in) : in.bytes(5000));
        }
    }
    token().on("getCertificateDetails", parsed);
    Guarded der(in.flag() ? certificate(in) : in.bytes(5000));
    if (in.flag()) {
        CAPI(CPSetKeyParam(world.capi, in.one(world.keys), KP_CERTIFICATE, der.data(), 0));
    } else {
        ksp(KSPSetKeyProperty(world.cng, in.one(world.kspKeys), PROPERTIES[11], der.data(), der.size(), 0));
    }
}

// --- What the token library returns ---

void openKeys(World& world, Input& in) {
    const DWORD spec = in.number() % 3;
    useKey(world, CAPI_MADE(CPGetUserKey(world.capi, spec, handle)), in);
    Guarded name(widened(in.flag() ? in.text() : idText(0xAA)));
    useKspKey(world, KSP_MADE(KSPOpenKey(world.cng, handle, name.text(), spec, 0)), in);
}

void generateKeys(World& world, Input& in) {
    const ALG_ID algorithm = in.one(ALGORITHMS);
    useKey(world, CAPI_MADE(CPGenKey(world.capi, algorithm, 0, handle)), in);
    const WCHAR* const name = in.one(CREATABLE);
    const NCRYPT_KEY_HANDLE created = KSP_MADE(KSPCreatePersistedKey(world.cng, handle, name, name, 0, 0));
    ksp(KSPFinalizeKey(world.cng, created, 0));
    useKspKey(world, created, in);
}

/// The provider as the token says that it is.
void reopen(World& world, Input& /*in*/) {
    const auto opened = made([](NCRYPT_PROV_HANDLE* handle) { return ksp(KSPOpenProvider(handle, nullptr, 0)); });
    world.provider = *reinterpret_cast<const KSP_PROVIDER*>(opened);
    ksp(KSPFreeProvider(opened));
}

void enumerate(World& world, Input& in) {
    PVOID state = nullptr;
    NCryptKeyName* item = nullptr;
    for (unsigned left = in.number() % 5; left > 0 && ksp(KSPEnumKeys(world.cng, nullptr, &item, &state, 0)); --left) {
        KSPFreeBuffer(item->pszName);
        KSPFreeBuffer(item->pszAlgid);
        KSPFreeBuffer(item);
    }
    if (state != nullptr) {
        static_cast<KSP_KEY_ENUM*>(state)->~KSP_KEY_ENUM();
        KSPFreeBuffer(state);
    }
}

void hash(World& world, Input& in) {
    const ALG_ID algorithm = in.one(ALGORITHMS);
    const HCRYPTKEY key = in.one(world.keys);
    const auto keep = [&](HCRYPTHASH hash) { world.hashes.insert(world.hashes.end(), hash != 0, hash); };
    keep(CAPI_MADE(CPCreateHash(world.capi, algorithm, key, 0, handle)));
    while (!world.hashes.empty() && !in.ended()) {
        const HCRYPTHASH used = in.one(world.hashes);
        Guarded data(in.bytes(600));
        Guarded digest(64);
        HMAC_INFO info = {in.one(ALGORITHMS), nullptr, 0, nullptr, 0};
        Guarded hmacInfo({reinterpret_cast<const unsigned char*>(&info), sizeof info});
        const DWORD param = in.one(HASH_PARAMS);
        switch (in.number() % 9) {
            case 0:
                CAPI(CPHashData(world.capi, used, data.data(), data.size(), 0));
                break;
            case 1:
                CAPI(CPSetHashParam(world.capi, used, HP_HMAC_INFO, hmacInfo.data(), 0));
                break;
            case 2:
                CAPI(CPSetHashParam(world.capi, used, HP_HASHVAL, digest.data(), 0));
                break;
            case 3:
                keep(CAPI_MADE(CPDuplicateHash(world.capi, used, nullptr, 0, handle)));
                break;
            case 4:
                useKey(world, CAPI_MADE(CPDeriveKey(world.capi, info.HashAlgid, used, 0, handle)), in);
                break;
            case 5:
                CAPI(CPVerifySignature(world.capi, used, data.data(), data.size(), in.flag() ? key : 0, nullptr, 0));
                break;
            case 6:
                ANSWERS(0, CAPI(CPSignHash(world.capi, used, param % 3, nullptr, 0, out, size)));
                break;
            case 7:
                ANSWERS(0, CAPI(CPGetHashParam(world.capi, used, param, out, size, 0)));
                break;
            default:
                CAPI(CPGenRandom(world.capi, data.size(), data.data()));
                return;
        }
    }
}

/// A client's whole session, one call after the other.
void session(World& world, Input& in) {
    constexpr void (*STEPS[])(World&, Input&) = {openKeys,  generateKeys,  enumerate, hash,
                                                 agreement, importCapi,    importCng, property,
                                                 keyParam,  providerParam, reopen,    usePadding};
    for (int step = 0; step < 8 && !in.ended(); ++step) {
        in.one(STEPS)(world, in);
    }
}

template <void (*run)(World&, Input&), bool lies>
void runIn(std::span<const unsigned char> bytes) {
    Input in(bytes);
    World world(in, lies);
    run(world, in);
    world.end();
}

constexpr Harness HARNESSES[] = {
    {"capi-blob", runIn<importCapi, false>},   {"cng-blob", runIn<importCng, false>},
    {"key-parameter", runIn<keyParam, false>}, {"provider-parameter", runIn<providerParam, true>},
    {"property", runIn<property, false>},      {"derivation", runIn<derivation, false>},
    {"container", runIn<container, true>},     {"certificate", runIn<importCertificate, false>},
    {"token-answers", runIn<session, true>},
};

}  // namespace

std::span<const Harness> harnesses() {
    return HARNESSES;
}

}  // namespace test
