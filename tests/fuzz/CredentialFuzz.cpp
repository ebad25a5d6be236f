// A credential as a client may send it: the first input byte picks the
// form, the rest is the certificate.
//   0: the rest is the encrypted certificate as it stands (any length);
//   1: the rest is encrypted with the service's key and then, by the second
//      byte, cut short, lengthened or left whole;
//   2: the rest decrypted straight into a buffer of a size the second byte
//      picks.
// Decryption never writes past its target, and the conversion either gives
// the whole clear text or fails with an empty certificate.
#include "FuzzSupport.h"
#include "ProxyKeyMgr.h"
#include "ProxyUtilCredential.h"

#include <cstring>
#include <vector>

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

ProxyKeyMgr& keys()
{
    static ProxyKeyMgr* mgr = ProxyKeyMgr::getInstance(1024);
    FUZZ_CHECK(mgr != nullptr);
    return *mgr;
}

// Converts; returns whether it succeeded and checks the failure's form.
bool convert(const std::vector<unsigned char>& cert, uint32_t declared, sts_cred_t& out)
{
    API::Credential cred;
    cred.len = declared;
    cred.type = 0;
    cred.cert.length(static_cast<CORBA::ULong>(cert.size()));
    if (!cert.empty()) std::memcpy(cred.cert.get_buffer(), cert.data(), cert.size());
    std::memset(&out, 0x5a, sizeof(out));
    const int rc = CORBA2ZVS(cred, &out);
    FUZZ_CHECK(rc == 0 || rc == -1);
    FUZZ_CHECK(out.cr_len == declared);
    for (size_t i = 0; rc == -1 && i < sizeof(out.cr_cert); ++i) FUZZ_CHECK(out.cr_cert[i] == 0);
    return rc == 0;
}

void encryptedAndAltered(const uint8_t* data, size_t size)
{
    const uint8_t how = data[0];
    const uint8_t* clear = data + 1;
    const size_t clearSize = size - 1;
    std::vector<unsigned char> cert((clearSize / (128 - ProxyKeyMgr::OAEP_OVERHEAD) + 1) * 128);
    const int n = keys().doPublicEncrypt(static_cast<int>(clearSize), reinterpret_cast<const char*>(clear), cert.data());
    FUZZ_CHECK(n >= 0);
    cert.resize(static_cast<size_t>(n));
    const bool whole = how < 128;
    if (!whole && how % 2 == 0) cert.resize(cert.size() > how % 64u ? cert.size() - how % 64u - 1 : 0);
    if (!whole && how % 2 == 1) cert.insert(cert.end(), how % 64u + 1, how);
    sts_cred_t out;
    const bool ok = convert(cert, static_cast<uint32_t>(clearSize), out);
    if (whole) FUZZ_CHECK(ok == (clearSize <= sizeof(out.cr_cert)));
    if (whole && ok) FUZZ_CHECK(std::memcmp(out.cr_cert, clear, clearSize) == 0);
}

void decryptedIntoSmallRoom(const uint8_t* data, size_t size)
{
    const size_t capacity = data[0] * 5u;
    std::vector<char> room(capacity + 64, '\x7f');
    const int n = keys().doPrivateDecrypt(static_cast<int>(size - 1), data + 1, room.data(), capacity);
    FUZZ_CHECK(n <= static_cast<int>(capacity));
    for (size_t i = capacity; i < room.size(); ++i) FUZZ_CHECK(room[i] == '\x7f');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sts_cred_t out;
    if (size == 0) return 0;
    if (data[0] % 3 == 0) convert(std::vector<unsigned char>(data + 1, data + size), static_cast<uint32_t>(size - 1), out);
    if (data[0] % 3 == 1 && size > 1) encryptedAndAltered(data + 1, size - 1);
    if (data[0] % 3 == 2 && size > 1) decryptedIntoSmallRoom(data + 1, size - 1);
    return 0;
}
