#include "KeysTestSupport.h"

#include "ProxyKeyMgr.h"

ByteVec pattern(std::size_t n)
{
    ByteVec b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i * 37 + 11);
    return b;
}

ByteVec publicKeyOf(ProxyKeyMgr* mgr)
{
    const unsigned char* key = mgr->getPublicKey();
    return ByteVec(key, key + mgr->getPublicKeyLength());
}

int decryptWith(ProxyKeyMgr* mgr, const ByteVec& cipher, ByteVec& clear)
{
    clear.assign(cipher.size(), 0);
    const int n = mgr->doPrivateDecrypt(static_cast<int>(cipher.size()), cipher.data(),
                                        reinterpret_cast<char*>(clear.data()), clear.size());
    clear.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return n;
}

ByteVec tinyRsaPublicKeyDer()
{
    // SEQUENCE { INTEGER modulus (40 bytes, odd, high bit clear), INTEGER 65537 }
    ByteVec der = {0x30, 0x2F, 0x02, 0x28};
    der.push_back(0x7F);
    der.insert(der.end(), 38, 0xE5);
    der.push_back(0x01);
    const unsigned char exponent[] = {0x02, 0x03, 0x01, 0x00, 0x01};
    der.insert(der.end(), exponent, exponent + sizeof(exponent));
    return der;
}
