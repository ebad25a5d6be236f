#include "CredentialCipher.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <memory>

namespace {

struct CtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using CtxPtr = std::unique_ptr<EVP_PKEY_CTX, CtxFree>;

// The whole of der as an RSA public key, or null.
EVP_PKEY* decodeRsaPublicKey(const std::vector<unsigned char>& der)
{
    if (der.empty()) return nullptr;
    const unsigned char* p = der.data();
    EVP_PKEY* key = d2i_PublicKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size()));
    if (key != nullptr && p != der.data() + der.size()) {
        EVP_PKEY_free(key);
        key = nullptr;
    }
    return key;
}

CtxPtr newOaepEncryptContext(EVP_PKEY* key)
{
    CtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (ctx && (EVP_PKEY_encrypt_init(ctx.get()) <= 0
                || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) <= 0)) {
        ctx.reset();
    }
    return ctx;
}

} // namespace

CredentialCipher::CredentialCipher(const std::vector<unsigned char>& publicKeyDer)
    : m_pKey(decodeRsaPublicKey(publicKeyDer)), m_nBlockSize(0)
{
    if (m_pKey != nullptr) {
        const int size = EVP_PKEY_get_size(m_pKey);
        // A modulus too small to carry one byte next to the padding is no
        // key for credentials.
        if (size > static_cast<int>(OAEP_OVERHEAD)) {
            m_nBlockSize = static_cast<std::size_t>(size);
        } else {
            EVP_PKEY_free(m_pKey);
            m_pKey = nullptr;
        }
    }
    ERR_clear_error();
}

CredentialCipher::~CredentialCipher()
{
    EVP_PKEY_free(m_pKey);
}

CredentialCipher::Status CredentialCipher::status() const
{
    return m_pKey != nullptr ? OK : BAD_KEY;
}

std::size_t CredentialCipher::blockSize() const
{
    return m_nBlockSize;
}

std::size_t CredentialCipher::pieceSize() const
{
    return m_nBlockSize == 0 ? 0 : m_nBlockSize - OAEP_OVERHEAD;
}

std::size_t CredentialCipher::encryptedLength(std::size_t clearLength) const
{
    const std::size_t piece = pieceSize();
    if (piece == 0) return 0;
    return (clearLength + piece - 1) / piece * m_nBlockSize;
}

CredentialCipher::Status CredentialCipher::encrypt(const std::vector<unsigned char>& clear,
                                                   std::vector<unsigned char>& cipherOut) const
{
    cipherOut.clear();
    if (m_pKey == nullptr) return BAD_KEY;
    if (clear.empty()) return OK;
    CtxPtr ctx = newOaepEncryptContext(m_pKey);
    if (!ctx) {
        ERR_clear_error();
        return BAD_KEY;
    }
    std::vector<unsigned char> out(encryptedLength(clear.size()));
    std::size_t done = 0;
    for (std::size_t at = 0; at < clear.size(); at += pieceSize()) {
        const std::size_t n = std::min(pieceSize(), clear.size() - at);
        std::size_t outlen = m_nBlockSize;
        if (EVP_PKEY_encrypt(ctx.get(), out.data() + done, &outlen, clear.data() + at, n) <= 0
            || outlen != m_nBlockSize) {
            ERR_clear_error();
            return ENCRYPT_FAILED;
        }
        done += outlen;
    }
    cipherOut.swap(out);
    return OK;
}

CredentialCipher::Status CredentialCipher::encrypt(const std::vector<unsigned char>& publicKeyDer,
                                                   const std::vector<unsigned char>& clear,
                                                   std::vector<unsigned char>& cipherOut)
{
    return CredentialCipher(publicKeyDer).encrypt(clear, cipherOut);
}

const char* CredentialCipher::describe(Status status)
{
    switch (status) {
    case OK:
        return "success";
    case BAD_KEY:
        return "the public key is not a usable DER RSAPublicKey";
    case ENCRYPT_FAILED:
        return "encryption of a credential block failed";
    }
    return "unknown status";
}
