#include "ProxyKeyMgr.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

#include <unistd.h>

ACE_Thread_Mutex gs_rsaMutex;

ProxyKeyMgr* ProxyKeyMgr::s_pInstance = nullptr;

// OpenSSL 3 does its own locking and thread identification, so there are no
// callbacks left to register.  Older builds installed empty ones here, which
// protected nothing either: concurrent use of the pair is serialised by the
// callers through gs_rsaMutex.
extern "C" void lockThreads()
{
}

namespace {

struct CtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using CtxPtr = std::unique_ptr<EVP_PKEY_CTX, CtxFree>;

// A context for one direction of OAEP (SHA-1, the padding clients use) on
// key; null if the key cannot do it.
CtxPtr newOaepContext(EVP_PKEY* key, bool bEncrypt)
{
    CtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!ctx) return ctx;
    const int ok = bEncrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_decrypt_init(ctx.get());
    if (ok <= 0 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) <= 0) {
        ctx.reset();
    }
    return ctx;
}

EVP_PKEY* newRsaPair(int keybits)
{
    if (keybits <= 0) return nullptr;
    CtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    size_t bits = static_cast<size_t>(keybits);
    unsigned int exponent = 0x10001;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_RSA_BITS, &bits),
        OSSL_PARAM_construct_uint(OSSL_PKEY_PARAM_RSA_E, &exponent),
        OSSL_PARAM_construct_end(),
    };
    EVP_PKEY* pair = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0
        || EVP_PKEY_CTX_set_params(ctx.get(), params) <= 0
        || EVP_PKEY_generate(ctx.get(), &pair) <= 0) {
        ERR_clear_error();
        return nullptr;
    }
    return pair;
}

bool pairIsSound(EVP_PKEY* pair)
{
    CtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pair, nullptr));
    return ctx && EVP_PKEY_check(ctx.get()) == 1;
}

// DER RSAPublicKey of pair into buf; its length, or -1 if it does not fit.
int encodePublicKey(EVP_PKEY* pair, unsigned char* buf, int size)
{
    const int len = i2d_PublicKey(pair, nullptr);
    if (len <= 0 || len > size) return -1;
    unsigned char* p = buf;
    return i2d_PublicKey(pair, &p);
}

int encryptFailed()
{
    ERR_clear_error();
    std::printf("public encrypt error!\n");
    std::fflush(stdout);
    return -1;
}

} // namespace

ProxyKeyMgr::ProxyKeyMgr()
    : rsa_size(0), pub_key_len(0), proxy_rsa(nullptr)
{
    std::memset(pub_key_uc, 0, sizeof(pub_key_uc));
}

ProxyKeyMgr::~ProxyKeyMgr()
{
    freeKey();
}

void ProxyKeyMgr::freeKey()
{
    EVP_PKEY_free(proxy_rsa);
    proxy_rsa = nullptr;
    rsa_size = 0;
    pub_key_len = 0;
}

ProxyKeyMgr* ProxyKeyMgr::getInstance(int keybits)
{
    if (s_pInstance != nullptr) return s_pInstance;
    s_pInstance = new (std::nothrow) ProxyKeyMgr();
    if (s_pInstance == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (s_pInstance->generateKeyPair(keybits) != 0) destroy();
    return s_pInstance;
}

void ProxyKeyMgr::destroy()
{
    delete s_pInstance;
    s_pInstance = nullptr;
}

unsigned char* ProxyKeyMgr::getPublicKey()
{
    return pub_key_uc;
}

int ProxyKeyMgr::getPublicKeyLength()
{
    return pub_key_len;
}

int ProxyKeyMgr::getRSASize()
{
    return rsa_size;
}

int ProxyKeyMgr::generateKeyPair(int keybits)
{
    freeKey();
    getRandom();
    EVP_PKEY* pair = newRsaPair(keybits);
    if (pair == nullptr) return -1;
    if (!pairIsSound(pair)) {
        // The failed pair is dropped without being released, as it always
        // has been; nothing can reach it any more.
        ERR_clear_error();
        return -1;
    }
    std::memset(pub_key_uc, 0, sizeof(pub_key_uc));
    const int len = encodePublicKey(pair, pub_key_uc, static_cast<int>(sizeof(pub_key_uc)));
    if (len < 0) {
        EVP_PKEY_free(pair);
        return -1;
    }
    proxy_rsa = pair;
    rsa_size = EVP_PKEY_get_size(pair);
    pub_key_len = len;
    lockThreads();
    return 0;
}

int ProxyKeyMgr::doPrivateDecrypt(int len, const unsigned char* src, char* dst, size_t capacity)
{
    return Decrypt(proxy_rsa, len, src, reinterpret_cast<unsigned char*>(dst), capacity);
}

int ProxyKeyMgr::doPublicEncrypt(int len, const char* src, unsigned char* dst)
{
    return Encrypt(proxy_rsa, len, reinterpret_cast<const unsigned char*>(src), dst);
}

int ProxyKeyMgr::doPublicEncryptWithKey(int keylen, const unsigned char* key, int len,
                                        const char* src, unsigned char* dst)
{
    EVP_PKEY* peer = nullptr;
    if (key != nullptr && keylen > 0) {
        const unsigned char* p = key;
        peer = d2i_PublicKey(EVP_PKEY_RSA, nullptr, &p, keylen);
        if (peer == nullptr) ERR_clear_error();
    }
    const int n = Encrypt(peer, len, reinterpret_cast<const unsigned char*>(src), dst);
    EVP_PKEY_free(peer);
    return n;
}

int ProxyKeyMgr::Encrypt(EVP_PKEY* rsa, int len, const unsigned char* src, unsigned char* dst)
{
    if (rsa == nullptr) return -2;
    getRandom();
    if (len <= 0) return 0;
    const int size = EVP_PKEY_get_size(rsa);
    const int piece = size - OAEP_OVERHEAD;
    CtxPtr ctx = newOaepContext(rsa, true);
    // A foreign key too small to carry one byte would never get through
    // the input: it fails like a block.
    if (!ctx || piece <= 0) return encryptFailed();
    int total = 0;
    while (len > 0) {
        const int n = std::min(len, piece);
        size_t outlen = static_cast<size_t>(size);
        if (EVP_PKEY_encrypt(ctx.get(), dst + total, &outlen, src, static_cast<size_t>(n)) <= 0) {
            return encryptFailed();
        }
        total += static_cast<int>(outlen);
        src += n;
        len -= n;
    }
    return total;
}

int ProxyKeyMgr::Decrypt(EVP_PKEY* rsa, int len, const unsigned char* src, unsigned char* dst,
                         size_t capacity)
{
    if (rsa == nullptr) return -2;
    const int size = EVP_PKEY_get_size(rsa);
    if (size <= 0) return -1;
    CtxPtr ctx = newOaepContext(rsa, false);
    // OpenSSL wants room for a whole block, the caller only promises room
    // for the clear text: each block goes through a buffer of its own.
    std::vector<unsigned char> block(static_cast<size_t>(size));
    int total = 0;
    while (len >= size) {
        size_t outlen = block.size();
        if (!ctx || EVP_PKEY_decrypt(ctx.get(), block.data(), &outlen, src, block.size()) <= 0) {
            ERR_clear_error();
            return -1;
        }
        if (outlen > capacity - static_cast<size_t>(total)) return -4;
        std::memcpy(dst + total, block.data(), outlen);
        total += static_cast<int>(outlen);
        src += size;
        len -= size;
    }
    return len > 0 ? -3 : total;
}

void ProxyKeyMgr::getRandom()
{
    struct {
        time_t now;
        pid_t pid;
        const void* self;
    } seed;
    std::memset(&seed, 0, sizeof(seed));
    seed.now = time(nullptr);
    seed.pid = getpid();
    seed.self = &seed;
    RAND_seed(&seed, sizeof(seed));
}

int ProxyKeyMgr::uc2c(int len, const unsigned char* src, char* dst)
{
    static const char digits[] = "0123456789ABCDEF";
    for (int i = 0; i < len; ++i) {
        dst[2 * i] = digits[src[i] >> 4];
        dst[2 * i + 1] = digits[src[i] & 0x0F];
    }
    std::printf("SRC    LENGTH = %d\n", len);
    std::printf("TARGET LENGTH = %d\n", 2 * len);
    std::printf("CONTENT[%.*s]\n", 2 * len, dst);
    return 2 * len;
}

int ProxyKeyMgr::c2uc(int len, const char* src, unsigned char* dst)
{
    const int n = len / 2;
    for (int i = 0; i < n; ++i) {
        const unsigned high = static_cast<unsigned>(c2i(src[2 * i]));
        const unsigned low = static_cast<unsigned>(c2i(src[2 * i + 1]));
        dst[i] = static_cast<unsigned char>((high << 4) | low);
    }
    std::printf("SRC    LENGTH = %d\n", len);
    std::printf("TARGET LENGTH = %d\n", n);
    std::printf("CONTENT[%.*s]\n", len, src);
    return n;
}

int ProxyKeyMgr::c2i(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void ProxyKeyMgr::print_uc_buf(const unsigned char* buf, int len)
{
    std::printf("[");
    for (int i = 0; i < len; ++i) std::printf("%02X", buf[i]);
    std::printf("]");
}
