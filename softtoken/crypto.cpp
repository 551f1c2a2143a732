#include "softtoken/crypto.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "softtoken/libgcrypt.h"
#include "softtoken/result.h"

namespace softtoken {

namespace {

constexpr std::size_t NONCE_SIZE = 12;
constexpr std::size_t TAG_SIZE = 16;
constexpr std::size_t WRAP_BLOCK = 8;

// libgcrypt's own "secure memory" is a pool of fixed size that this platform does not lock into memory. Instead every
// allocation of libgcrypt, secure or not, is wiped when it is given back; for that it carries its size in front.
constexpr std::size_t SIZE_PREFIX = alignof(std::max_align_t);

void* allocateCounted(std::size_t size) {
    if (size > std::numeric_limits<std::size_t>::max() - SIZE_PREFIX) {
        return nullptr;
    }
    auto* const block = static_cast<unsigned char*>(std::malloc(size + SIZE_PREFIX));
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(block, &size, sizeof size);
    return block + SIZE_PREFIX;
}

std::size_t countedSize(const void* memory) {
    std::size_t size = 0;
    std::memcpy(&size, static_cast<const unsigned char*>(memory) - SIZE_PREFIX, sizeof size);
    return size;
}

void freeWiped(void* memory) {
    if (memory != nullptr) {
        SecureZeroMemory(memory, countedSize(memory));
        std::free(static_cast<unsigned char*>(memory) - SIZE_PREFIX);
    }
}

void* reallocateWiped(void* memory, std::size_t size) {
    void* const grown = allocateCounted(size);
    if (grown != nullptr && memory != nullptr) {
        std::memcpy(grown, memory, std::min(size, countedSize(memory)));
        freeWiped(memory);
    }
    return grown;
}

int isNeverSecure(const void*) {
    return 0;
}

/// libgcrypt talks on the host's standard error otherwise.
void dropLogLine(void*, int, const char*, va_list) {
}

/// A cipher handle with its key set.
class Cipher {
public:
    Cipher(int mode, ByteView key) {
        const int algorithm = key.size() == 16   ? GCRY_CIPHER_AES128
                              : key.size() == 24 ? GCRY_CIPHER_AES192
                                                 : GCRY_CIPHER_AES256;
        if (key.size() != 16 && key.size() != 24 && key.size() != 32) {
            throw Error(RESULT_BAD_LENGTH, "an AES key has 16, 24 or 32 bytes");
        }
        checkCrypto(gcry_cipher_open(&handle, algorithm, mode, 0));
        if (const gcry_error_t error = gcry_cipher_setkey(handle, key.data(), key.size())) {
            gcry_cipher_close(handle);
            checkCrypto(error);
        }
    }
    ~Cipher() { gcry_cipher_close(handle); }
    Cipher(const Cipher&) = delete;
    Cipher& operator=(const Cipher&) = delete;
    [[nodiscard]] gcry_cipher_hd_t get() const { return handle; }

private:
    gcry_cipher_hd_t handle = nullptr;
};

/// CBC or ECB by the IV, with the IV set. Whole blocks only: libgcrypt has no padding for block modes.
void startBlocks(const Cipher& cipher, ByteView iv, std::size_t length) {
    if (!iv.empty()) {
        if (iv.size() != AES_BLOCK) {
            throw Error(RESULT_BAD_LENGTH, "an IV has 16 bytes");
        }
        checkCrypto(gcry_cipher_setiv(cipher.get(), iv.data(), iv.size()));
    }
    if (length == 0 || length % AES_BLOCK != 0) {
        throw Error(RESULT_BAD_LENGTH, "data is not in whole blocks");
    }
}

int blockMode(ByteView iv) {
    return iv.empty() ? GCRY_CIPHER_MODE_ECB : GCRY_CIPHER_MODE_CBC;
}

/// Cuts PKCS#7 padding off, or throws when it is not there.
void removePadding(SecretBytes& data) {
    const std::size_t count = data.back();
    bool valid = count >= 1 && count <= AES_BLOCK;
    for (std::size_t index = 0; valid && index < count; ++index) {
        valid = data[data.size() - 1 - index] == count;
    }
    if (!valid) {
        throw Error(RESULT_BAD_DATA, "the padding is wrong");
    }
    data.resize(data.size() - count);
}

}  // namespace

void initialiseCrypto() {
    static const bool ready = [] {
        gcry_set_log_handler(dropLogLine, nullptr);
        gcry_set_allocation_handler(allocateCounted, allocateCounted, isNeverSecure, reallocateWiped, freeWiped);
        gcry_check_version(nullptr);
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        return gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0) == 0;
    }();
    if (!ready) {
        throw Error(RESULT_CRYPTO, "libgcrypt cannot be prepared");
    }
}

void checkCrypto(gcry_error_t error, Result result) {
    if (error != 0) {
        throw Error(gcry_err_code(error) == GPG_ERR_ENOMEM ? RESULT_NO_MEMORY : result, gcry_strerror(error));
    }
}

void fillRandom(std::span<unsigned char> target) {
    gcry_randomize(target.data(), target.size(), GCRY_STRONG_RANDOM);
}

std::array<unsigned char, 32> sha256(ByteView data) {
    std::array<unsigned char, 32> digest = {};
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest.data(), data.data(), data.size());
    return digest;
}

bool sameSecret(ByteView left, ByteView right) {
    unsigned difference = left.size() == right.size() ? 0 : 1;
    for (std::size_t index = 0; index < left.size() && index < right.size(); ++index) {
        difference |= static_cast<unsigned>(left[index] ^ right[index]);
    }
    return difference == 0;
}

SecretBytes deriveKey(ByteView pin, ByteView salt, unsigned cost) {
    SecretBytes key(MASTER_KEY_SIZE);
    checkCrypto(gcry_kdf_derive(pin.data(), pin.size(), GCRY_KDF_SCRYPT, static_cast<int>(cost), salt.data(),
                                salt.size(), 1, key.size(), key.data()));
    return key;
}

Bytes seal(ByteView key, ByteView plaintext, ByteView context) {
    const Cipher cipher(GCRY_CIPHER_MODE_GCM, key);
    Bytes sealed(plaintext.size() + SEAL_OVERHEAD);
    fillRandom(std::span(sealed).first(NONCE_SIZE));
    checkCrypto(gcry_cipher_setiv(cipher.get(), sealed.data(), NONCE_SIZE));
    checkCrypto(gcry_cipher_authenticate(cipher.get(), context.data(), context.size()));
    unsigned char* const body = sealed.data() + NONCE_SIZE;
    checkCrypto(gcry_cipher_encrypt(cipher.get(), body, plaintext.size(), plaintext.data(), plaintext.size()));
    checkCrypto(gcry_cipher_gettag(cipher.get(), body + plaintext.size(), TAG_SIZE));
    return sealed;
}

SecretBytes unseal(ByteView key, ByteView sealed, ByteView context) {
    if (sealed.size() < SEAL_OVERHEAD) {
        throw Error(RESULT_BAD_DATA, "sealed value is too short");
    }
    const Cipher cipher(GCRY_CIPHER_MODE_GCM, key);
    const ByteView body = sealed.subspan(NONCE_SIZE, sealed.size() - SEAL_OVERHEAD);
    SecretBytes plaintext(body.size());
    checkCrypto(gcry_cipher_setiv(cipher.get(), sealed.data(), NONCE_SIZE));
    checkCrypto(gcry_cipher_authenticate(cipher.get(), context.data(), context.size()));
    checkCrypto(gcry_cipher_decrypt(cipher.get(), plaintext.data(), plaintext.size(), body.data(), body.size()));
    checkCrypto(gcry_cipher_checktag(cipher.get(), body.data() + body.size(), TAG_SIZE), RESULT_BAD_DATA);
    return plaintext;
}

SecretBytes encryptAes(ByteView key, ByteView iv, ByteView data, Padding padding) {
    const Cipher cipher(blockMode(iv), key);
    SecretBytes blocks(data.begin(), data.end());
    if (padding == Padding::PKCS7) {
        const std::size_t count = AES_BLOCK - data.size() % AES_BLOCK;
        blocks.resize(data.size() + count, static_cast<unsigned char>(count));
    }
    startBlocks(cipher, iv, blocks.size());
    checkCrypto(gcry_cipher_encrypt(cipher.get(), blocks.data(), blocks.size(), nullptr, 0));
    return blocks;
}

SecretBytes decryptAes(ByteView key, ByteView iv, ByteView data, Padding padding) {
    const Cipher cipher(blockMode(iv), key);
    startBlocks(cipher, iv, data.size());
    SecretBytes blocks(data.begin(), data.end());
    checkCrypto(gcry_cipher_decrypt(cipher.get(), blocks.data(), blocks.size(), nullptr, 0));
    if (padding == Padding::PKCS7) {
        removePadding(blocks);
    }
    return blocks;
}

SecretBytes unwrapKey(ByteView key, ByteView wrapped) {
    if (wrapped.size() < 3 * WRAP_BLOCK || wrapped.size() % WRAP_BLOCK != 0) {
        throw Error(RESULT_BAD_LENGTH, "a wrapped key has at least 24 bytes, in steps of 8");
    }
    const Cipher cipher(GCRY_CIPHER_MODE_AESWRAP, key);
    SecretBytes unwrapped(wrapped.size() - WRAP_BLOCK);
    checkCrypto(gcry_cipher_decrypt(cipher.get(), unwrapped.data(), unwrapped.size(), wrapped.data(), wrapped.size()),
                RESULT_BAD_DATA);
    return unwrapped;
}

}  // namespace softtoken
