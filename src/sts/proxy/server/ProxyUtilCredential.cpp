// The two conversions that decrypt: they use the service's own private key,
// so they belong to the service and not to the records shared with clients
// (a client only ever encrypts).
#include "ProxyUtilCredential.h"

#include "ProxyKeyMgr.h"

#include <algorithm>
#include <cstring>

int CORBA2ZVS(const API::Credential& from, sts_cred_v7_t* to)
{
    char clear[1024] = {0};
    ProxyKeyMgr* keys = ProxyKeyMgr::getInstance(1024);
    std::memset(static_cast<void*>(to), 0, 8);   // the records' first eight bytes, as every conversion
    to->cr_len = from.len;
    // A type the storage API does not know has no value in its record:
    // like a failed decryption, it leaves an empty certificate, which the
    // plug-in refuses as a wrong credential.
    if (from.type > static_cast<API::UInt64>(STS_CRED_MD5)) {
        to->cr_type = STS_CRED_NONE;
        std::memset(to->cr_cert, 0, sizeof(to->cr_cert));
        return -1;
    }
    to->cr_type = static_cast<sts_cred_type_v7_t>(from.type);
    if (keys == nullptr) return -1;
    const int n = keys->doPrivateDecrypt(static_cast<int>(from.cert.length()),
                                         from.cert.get_buffer(), clear, sizeof(clear));
    if (n < 0) {
        // Whatever the client sent, a failed decryption leaves an empty
        // certificate, which the plug-in refuses as a wrong credential.
        std::memset(to->cr_cert, 0, sizeof(to->cr_cert));
        return -1;
    }
    // The declared length, not the decrypted one: the sender is trusted with
    // the length, but never with writing past the certificate's 1024 bytes.
    std::memcpy(to->cr_cert, clear, std::min<size_t>(from.len, sizeof(to->cr_cert)));
    return 0;
}

int CORBA2ZVS(const API::STSHost& from, sts_host_v9_t* to)
{
    std::memset(static_cast<void*>(to), 0, 8);
    boundedCopy(to->sh_name, from.sh_name, 512);
    CORBA2ZVS(from.sh_cred, &to->sh_cred);
    boundedCopy(to->sh_iface, from.sh_iface, 512);
    return 0;
}
