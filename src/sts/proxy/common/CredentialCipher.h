// Encrypts a storage credential for the wire, as every client of the proxy
// service must before it opens or creates a server.
//
// The service hands out its public key through getPublicKey as DER
// RSAPublicKey bytes; the key changes with every start of the service, so
// a client fetches it from the instance it talks to.  A certificate is cut
// into pieces of at most blockSize() - 42 bytes (86 for the service's
// 1024-bit key), each piece is encrypted with RSA OAEP (SHA-1) into one
// block of blockSize() bytes, and the blocks are concatenated.  The result
// goes into Credential.cert; Credential.len stays the length of the clear
// certificate.
//
// Usage:
//     CredentialCipher cipher(publicKeyBytes);
//     std::vector<unsigned char> cert;
//     if (cipher.encrypt(clearCert, cert) != CredentialCipher::OK) ...
//
// Only the encrypting direction lives here: clients never receive
// credentials, and the service decrypts with its own private key.
#ifndef KELD_PROXY_CREDENTIALCIPHER_H
#define KELD_PROXY_CREDENTIALCIPHER_H

#include <cstddef>
#include <vector>

#include <openssl/types.h>

class CredentialCipher {
public:
    enum Status {
        OK = 0,
        BAD_KEY = -1,         // the bytes are not a DER RSAPublicKey usable for OAEP
        ENCRYPT_FAILED = -2,  // the cryptographic library refused a piece
    };

    // Bytes of each block that OAEP padding with SHA-1 takes for itself.
    static const std::size_t OAEP_OVERHEAD = 42;

    // Decodes the key; status() tells whether it could be used.  Trailing
    // bytes after the key make it unusable: they mean the caller passed
    // something other than what getPublicKey returned.
    explicit CredentialCipher(const std::vector<unsigned char>& publicKeyDer);
    ~CredentialCipher();
    CredentialCipher(const CredentialCipher&) = delete;
    CredentialCipher& operator=(const CredentialCipher&) = delete;

    Status status() const;
    // Size of one encrypted block in bytes (the modulus size); 0 without a key.
    std::size_t blockSize() const;
    // Largest clear piece that goes into one block; 0 without a key.
    std::size_t pieceSize() const;
    // Length of the cipher text for clearLength bytes of certificate.
    std::size_t encryptedLength(std::size_t clearLength) const;

    // Replaces cipherOut with the encrypted blocks of clear.  An empty
    // certificate gives an empty cipher text.  On failure cipherOut is
    // left empty.
    Status encrypt(const std::vector<unsigned char>& clear,
                   std::vector<unsigned char>& cipherOut) const;

    // One-shot form of the above for a single credential.
    static Status encrypt(const std::vector<unsigned char>& publicKeyDer,
                          const std::vector<unsigned char>& clear,
                          std::vector<unsigned char>& cipherOut);

    // A short English text for a status, for messages.
    static const char* describe(Status status);

private:
    EVP_PKEY* m_pKey;
    std::size_t m_nBlockSize;
};

#endif
