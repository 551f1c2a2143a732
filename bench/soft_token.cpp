// The built ZentokCSP.dll through the platform's calls and the key storage table, and ZentokDSCLibrary.dll bare beside
// it. This program itself is linked with the null token, whose operations have the same names.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <windows.h>

#include <wincrypt.h>

#include "bench/null_token.h"
#include "bench/sections.h"
#include "cng/key_storage_interface.h"
#include "core/container_map.h"
#include "core/token_library.h"
#include "core/wide_text.h"

namespace bench {
namespace {

constexpr char CONTAINER[] = "bench";  // as scripts/bench makes it
constexpr char PROVIDER[] = "Zentok Cryptographic Provider CSP";
constexpr DWORD AES_KEY_SIZE = 32;
constexpr DWORD AES_BLOCK = 16;
constexpr std::ptrdiff_t LAST_BLOCKS = 32;  // bytes; two blocks decide what padding comes out

// What the key storage table takes as if it wrote to it.
BYTE g_zeros[AES_KEY_SIZE] = {};  // an AES key, a digest, an IV
BYTE g_pin[] = "123456";
BYTE g_signature[512];

template <typename Function>
Function* load(const char* library, const char* name) {
    const FARPROC entry = GetProcAddress(LoadLibraryA(library), name);
    if (entry == nullptr) {
        throw std::runtime_error(std::string(library) + " with " + name + " cannot be loaded");
    }
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(entry));
}

/// The library's own operation behind the name of one that this program is linked with.
template <typename Operation>
Operation* real(Operation& /*ofNullToken*/, const char* name) {
    return load<Operation>("ZentokDSCLibrary.dll", name);
}

/// The bare library with its first token and the first key of it.
struct Library {
    decltype(&zentok_init) init = real(zentok_init, "zentok_init");
    decltype(&zentok_getConnectedDeviceList) getConnectedDeviceList =
        real(zentok_getConnectedDeviceList, "zentok_getConnectedDeviceList");
    decltype(&zentok_getKeyPairList) getKeyPairList = real(zentok_getKeyPairList, "zentok_getKeyPairList");
    decltype(&zentok_signHash) signHash = real(zentok_signHash, "zentok_signHash");
    decltype(&zentok_initHash) initHash = real(zentok_initHash, "zentok_initHash");
    decltype(&zentok_updateHash) updateHash = real(zentok_updateHash, "zentok_updateHash");
    decltype(&zentok_encrypt_aes) encryptAes = real(zentok_encrypt_aes, "zentok_encrypt_aes");
    decltype(&zentok_decrypt_aes) decryptAes = real(zentok_decrypt_aes, "zentok_decrypt_aes");
    decltype(&zentok_decryptSymetric) decryptSymetric = real(zentok_decryptSymetric, "zentok_decryptSymetric");
    std::string serial = getConnectedDeviceList(false, nullptr).at(0);
    ZentokKeyPair key = getKeyPairList(serial.c_str(), nullptr).at(0);

    void sign() const {
        int length = sizeof g_signature;
        require(signHash(serial.c_str(), key.credentialId, PIN, g_zeros, sizeof g_zeros, g_signature, &length, false,
                         nullptr, false) == TOKEN_OK,
                "zentok_signHash");
    }
    void listDevices() const { getConnectedDeviceList(false, nullptr); }
    std::size_t copyList() const {
        const std::vector<ZentokKeyPair> keys = getKeyPairList(serial.c_str(), nullptr);
        keep(keys.data());
        return keys.size();
    }
};

HCRYPTPROV acquire() {
    HCRYPTPROV context = 0;
    require(CryptAcquireContextA(&context, CONTAINER, PROVIDER, PROV_RSA_FULL, CRYPT_SILENT), "CryptAcquireContext");
    return context;
}

/// A client of CryptoAPI, logged in. Its handles end with the process.
struct CryptoApi {
    HCRYPTPROV context = acquire();
    HCRYPTHASH hash = 0;
    HCRYPTHASH keyData = 0;
    HCRYPTKEY aesKey = 0;

    CryptoApi() {
        require(CryptSetProvParam(context, PP_SIGNATURE_PIN, g_pin, 0), "PP_SIGNATURE_PIN");
        require(CryptCreateHash(context, CALG_SHA_256, 0, 0, &hash), "CryptCreateHash");
        require(CryptCreateHash(context, CALG_SHA_256, 0, 0, &keyData), "CryptCreateHash");
        require(CryptDeriveKey(context, CALG_AES_256, keyData, 0, &aesKey), "CryptDeriveKey");
    }
    void sign() const {
        DWORD size = sizeof g_signature;
        require(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, g_signature, &size), "CryptSignHash");
    }
};

/// A client of the key storage table, logged in. An AES key gets into an object encrypted to the token's key.
struct KeyStorage {
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    WideText keyName;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    NCRYPT_KEY_HANDLE aesKey = 0;
    DWORD size = 0;

    explicit KeyStorage(const Library& library) : keyName(widened(keyText(library.key.credentialId))) {
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE* offered = nullptr;
        (*load<decltype(GetKeyStorageInterface)>("ZentokCSP.dll", "GetKeyStorageInterface"))(nullptr, &offered, 0);
        table = offered;
        succeed(table->OpenProvider(&provider, nullptr, 0));
        succeed(table->OpenKey(provider, &key, keyName.c_str(), 0, 0));
        succeed(table->SetProviderProperty(provider, NCRYPT_PIN_PROPERTY, g_pin, sizeof g_pin, 0));
        BYTE wrapped[512];
        succeed(table->Encrypt(provider, key, g_zeros, AES_KEY_SIZE, nullptr, wrapped, sizeof wrapped, &size,
                               NCRYPT_PAD_OAEP_FLAG));
        succeed(table->ImportKey(provider, key, TEXT("OpaqueTransport"), nullptr, &aesKey, wrapped, size, 0));
        succeed(table->SetKeyProperty(provider, aesKey, TEXT("IV"), g_zeros, AES_BLOCK, 0));
    }
    static void succeed(SECURITY_STATUS status) { require(status == ERROR_SUCCESS, "a call of the key storage table"); }
    void sign() {
        succeed(table->SignHash(provider, key, nullptr, g_zeros, sizeof g_zeros, g_signature, sizeof g_signature, &size,
                                0));
    }
    void reopen() {
        table->FreeKey(provider, key);
        succeed(table->OpenKey(provider, &key, keyName.c_str(), 0, 0));
    }
};

/// A cipher or a hash over `bytes` bytes.
struct Transformation {
    std::string name;
    std::size_t lines;                      ///< that it has in the log
    Call call;                              ///< through the provider
    std::function<void(bool copied)> bare;  ///< in the library, with or without the copies that its contract demands
};

void addThroughput(Report& report, DWORD bytes, const Transformation& row) {
    const auto bare = [&] { row.bare(false); };
    const auto demanded = [&] {
        checkLevel(row.lines);
        row.bare(true);
    };
    const bool isLarge = bytes == 1 << 20;
    const std::string size = bytes == 64 ? ", 64 B" : isLarge ? ", 1 MiB" : ", 4 KiB";
    const auto target = isLarge ? std::optional(Target{0.97, false}) : std::nullopt;
    report.addThroughput(row.name + size, bytes, measurePair(row.call, bare), target);
    report.addThroughput(row.name + size + ", against what is demanded", bytes, measurePair(row.call, demanded),
                         target);
}

void measureThroughput(Report& report, const Library& library, CryptoApi& capi, KeyStorage& cng, DWORD bytes) {
    const char* const serial = library.serial.c_str();
    const int length = static_cast<int>(bytes);
    std::vector<BYTE> clear(bytes + AES_BLOCK);
    std::vector<BYTE> output(bytes + AES_BLOCK);
    void* bareHash = nullptr;
    require(library.initHash("", HASH_SHA256, &bareHash, nullptr) == TOKEN_OK, "zentok_initHash");
    const auto deliver = [&](int code, unsigned char* result, int size, bool copied) {
        require(code == TOKEN_OK, "a call of the bare library");
        if (copied) {
            std::copy_n(result, size, output.begin());
        }
        std::free(result);
    };
    const auto bareEncrypt = [&](int size, bool final, bool copied) {
        unsigned char* result = nullptr;
        int resultSize = 0;
        const int code = library.encryptAes(serial, ENCRYPTION_AES_LONG_CBC, g_zeros, AES_KEY_SIZE, clear.data(), size,
                                            &result, &resultSize, final, g_zeros, AES_BLOCK, nullptr, 0, nullptr);
        deliver(code, result, resultSize, copied);
    };
    const auto encrypt = [&](std::vector<BYTE>& data, DWORD size) {
        require(CryptEncrypt(capi.aesKey, 0, TRUE, 0, data.data(), &size, bytes + AES_BLOCK), "CryptEncrypt");
    };
    // Ciphertext of that size with padding in it.
    bareEncrypt(length - 1, true, true);
    const std::vector<BYTE> bareCipher(output);
    std::vector<BYTE> cipher(bytes + AES_BLOCK);
    encrypt(cipher, bytes - 1);
    cipher.resize(bytes);
    const std::vector<BYTE> lastBlocks(cipher.end() - LAST_BLOCKS, cipher.end());

    const Transformation rows[] = {
        {"CPHashData, SHA-256", 1, [&] { require(CryptHashData(capi.hash, clear.data(), bytes, 0), "CryptHashData"); },
         [&](bool) { library.updateHash(bareHash, clear.data(), length, nullptr); }},
        {"CPEncrypt, AES-256-CBC", 3, [&] { encrypt(output, bytes); },
         [&](bool copied) { bareEncrypt(length, true, copied); }},
        {"CPDecrypt, AES-256-CBC", 8,
         [&] {
             // The plaintext came in place: for the padding the last two blocks have to be ciphertext again.
             std::copy(lastBlocks.begin(), lastBlocks.end(), cipher.end() - LAST_BLOCKS);
             DWORD size = bytes;
             require(CryptDecrypt(capi.aesKey, 0, TRUE, 0, cipher.data(), &size), "CryptDecrypt");
         },
         [&](bool copied) {
             unsigned char* result = nullptr;
             int size = 0;
             const int code = library.decryptAes(serial, g_zeros, AES_KEY_SIZE, bareCipher.data(), length, &result,
                                                 &size, false, g_zeros, AES_BLOCK, nullptr);
             deliver(code, result, size, copied);
         }},
        {"KSPEncrypt, AES-256-CBC", 3,
         [&] {
             KeyStorage::succeed(cng.table->Encrypt(cng.provider, cng.aesKey, clear.data(), bytes, nullptr,
                                                    output.data(), bytes, &cng.size, 0));
         },
         [&](bool copied) { bareEncrypt(length, false, copied); }},
        {"KSPDecrypt, AES-256-CBC", 6,
         [&] {
             KeyStorage::succeed(cng.table->Decrypt(cng.provider, cng.aesKey, clear.data(), bytes, nullptr,
                                                    output.data(), bytes, &cng.size, 0));
         },
         [&](bool copied) {
             // The scratch block that is demanded.
             auto* const target = copied ? static_cast<unsigned char*>(std::malloc(bytes)) : output.data();
             int size = 0;
             const int code = library.decryptSymetric(serial, clear.data(), length, target, &size, g_zeros, AES_BLOCK,
                                                      g_zeros, AES_KEY_SIZE, nullptr);
             deliver(code, copied ? target : nullptr, size, copied);
         }},
    };
    for (const Transformation& row : rows) {
        addThroughput(report, bytes, row);
    }
}

}  // namespace

void measureSoftToken(Report& report) {
    report.section("The whole way over the software token");
    const Library library;
    const CryptoApi capi;
    KeyStorage cng(library);
    constexpr Target TARGET = {1.3, true};
    const auto findKey = [&] {
        library.listDevices();
        library.copyList();
        return library.copyList();
    };
    const auto signature = [&](std::size_t lines) {
        return [&library, lines] {
            checkLevel(lines);
            library.sign();
        };
    };
    report.add("CryptSignHash, RSA-2048", measurePair([&] { capi.sign(); }, signature(5)), TARGET);
    report.add("SignHash of the key storage table, RSA-2048", measurePair([&] { cng.sign(); }, signature(6)), TARGET);
    const auto acquireFloor = [&] {
        library.init(0, nullptr, 2);
        library.listDevices();
        checkLevel(8 + findKey());
    };
    report.add("CryptAcquireContext + CryptReleaseContext, warm",
               measurePair([] { CryptReleaseContext(acquire(), 0); }, acquireFloor), TARGET);
    report.add("OpenKey + FreeKey of the key storage table",
               measurePair([&] { cng.reopen(); }, [&] { checkLevel(6 + findKey()); }), TARGET);
}

void measureThroughput(Report& report) {
    report.section("Throughput over the software token, against the bare library call");
    const Library library;
    CryptoApi capi;
    KeyStorage cng(library);
    for (const DWORD bytes : {64, 4096, 1 << 20}) {
        measureThroughput(report, library, capi, cng, bytes);
    }
}

void signOnce(bool throughProvider) {
    if (throughProvider) {
        CryptoApi().sign();
    } else {
        Library().sign();
    }
}

}  // namespace bench
