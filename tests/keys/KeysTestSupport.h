// Shared pieces of the key tests.
#ifndef KELD_TESTS_KEYSTESTSUPPORT_H
#define KELD_TESTS_KEYSTESTSUPPORT_H

#include <cstddef>
#include <vector>

class ProxyKeyMgr;

using ByteVec = std::vector<unsigned char>;

// n bytes that are neither constant nor a simple count.
ByteVec pattern(std::size_t n);

// The DER public key the manager hands to clients.
ByteVec publicKeyOf(ProxyKeyMgr* mgr);

// Decrypts with the manager into clear and returns its result; clear is
// empty after a failure.
int decryptWith(ProxyKeyMgr* mgr, const ByteVec& cipher, ByteVec& clear);

// A well-formed RSAPublicKey whose modulus has only 40 bytes, too few to
// carry any OAEP payload.
ByteVec tinyRsaPublicKeyDer();

#endif
