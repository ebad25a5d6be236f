#include "PublicKey.h"

#include "ProxyKeyMgr.h"

#include <cstring>

API::Bytes* publicKeyBytes()
{
    ProxyKeyMgr* keys = ProxyKeyMgr::getInstance(1024);
    API::Bytes_var bytes = new API::Bytes;
    if (keys == nullptr) return bytes._retn();
    const int len = keys->getPublicKeyLength();
    bytes->length(static_cast<CORBA::ULong>(len));
    std::memcpy(bytes->get_buffer(), keys->getPublicKey(), static_cast<size_t>(len));
    return bytes._retn();
}
