// The process-wide RSA key pair that protects credentials on the wire.
//
// Each run makes a fresh 1024-bit pair (public exponent 65537); the public
// half goes to clients as DER RSAPublicKey through getPublicKey, and what
// they encrypt with it comes back as a whole number of OAEP blocks.  The key
// lives only in memory for the life of the process.  The same class also
// encrypts with a foreign public key, for credentials passed on to a peer.
//
// This class logs nothing; its only message is "public encrypt error!" on
// standard output.
#ifndef KELD_PROXY_PROXYKEYMGR_H
#define KELD_PROXY_PROXYKEYMGR_H

#include <openssl/types.h>

#include <ace/Thread_Mutex.h>

// Serialises the conversion (and so the decryption) of a credential in the
// storage server servant.
extern ACE_Thread_Mutex gs_rsaMutex;

extern "C" void lockThreads();

class ProxyKeyMgr {
public:
    // Bytes of an RSA block that OAEP padding (SHA-1) takes for itself.
    static const int OAEP_OVERHEAD = 42;

    // The first call makes the instance and its key pair of keybits bits;
    // null if that fails.  Later calls ignore keybits.  After destroy() the
    // next call makes a new pair.  No lock: the first call comes from main
    // before any other thread exists.
    static ProxyKeyMgr* getInstance(int keybits);
    // Frees the key and the instance.
    static void destroy();

    // The public key in DER (RSAPublicKey); valid while the instance lives.
    unsigned char* getPublicKey();
    int getPublicKeyLength();
    // Modulus size in bytes: 128 for a 1024-bit key.
    int getRSASize();

    // Replaces the pair; 0, or -1 if generation or its check fails.
    int generateKeyPair(int keybits);

    // Decrypt and Encrypt with this instance's pair.  dst of a decryption
    // has room for capacity bytes.
    int doPrivateDecrypt(int len, const unsigned char* src, char* dst, size_t capacity);
    int doPublicEncrypt(int len, const char* src, unsigned char* dst);
    // Encrypts with a foreign public key given in DER (RSAPublicKey).  A key
    // that cannot be decoded gives -2.
    static int doPublicEncryptWithKey(int keylen, const unsigned char* key, int len,
                                      const char* src, unsigned char* dst);

    // Encrypts len bytes in pieces of at most size - 42 bytes, each into one
    // block of the key's size, and returns the number of bytes written.
    // -2 for a null key, -1 if a block fails (after printing
    // "public encrypt error!"); an empty input gives 0.
    static int Encrypt(EVP_PKEY* rsa, int len, const unsigned char* src, unsigned char* dst);
    // Decrypts whole blocks into dst, which has room for capacity bytes,
    // and returns the number of clear bytes written.  -2 for a null key, -1
    // if a block fails, -3 if the input is not a whole number of blocks (the
    // blocks before the rest are already written), -4 if the clear text would
    // not fit: the sender decides the length, so it is never trusted with it.
    static int Decrypt(EVP_PKEY* rsa, int len, const unsigned char* src, unsigned char* dst,
                       size_t capacity);

    // Mixes the time, the process id and a stack address into the generator.
    static void getRandom();

    // Bytes to upper-case hexadecimal; writes 2 * len characters and no
    // terminator, and returns 2 * len.  Traces to standard output.
    static int uc2c(int len, const unsigned char* src, char* dst);
    // Pairs of hexadecimal digits to bytes; returns len / 2.  Digits are
    // not validated.  Traces to standard output.
    static int c2uc(int len, const char* src, unsigned char* dst);
    // One hexadecimal digit of either case to its value; -1 otherwise.
    static int c2i(char c);
    // Writes "[", two upper-case digits a byte, and "]" to standard output.
    static void print_uc_buf(const unsigned char* buf, int len);

private:
    ProxyKeyMgr();
    ~ProxyKeyMgr();
    ProxyKeyMgr(const ProxyKeyMgr&) = delete;
    ProxyKeyMgr& operator=(const ProxyKeyMgr&) = delete;

    void freeKey();

    static ProxyKeyMgr* s_pInstance;

    int rsa_size;
    int pub_key_len;
    EVP_PKEY* proxy_rsa;
    unsigned char pub_key_uc[4096];
};

#endif
