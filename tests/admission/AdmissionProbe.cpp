// A client in a process of its own, so that each can have its own TLS
// identity:
//   admission_probe CORBALOC [CERTIFICATE KEY CA_FILE]
// calls getString on the storage server manager at CORBALOC and prints the
// answer; with KELD_PROBE_IMAGE set it also writes a 1 MiB image on the
// default disk server and reads it back, and prints "image round trip ok".
// Exit 0 on an answer, 1 on a CORBA exception (its name printed) or bytes
// that differ, 2 when the TLS identity cannot be used.
#include "TlsTransport.h"

#include "Proxy.hh"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

// A 1 MiB image written and read back through the service.
bool imageRoundTrip(API::StorageServerManager_ptr manager)
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    API::SessionDefinition ssd = API::SessionDefinition();
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup("probe");
    API::StorageServer_var server =
        manager->openServerV12(1, ssd, (std::string("Disk:") + host).c_str(), API::Credential(), "", 0);
    API::ImageDefinitionV13 imd = API::ImageDefinitionV13();
    imd.base_name = CORBA::string_dup("over-tls");
    API::Bytes data(1 << 20);
    data.length(1 << 20);
    for (CORBA::ULong i = 0; i < data.length(); ++i) data[i] = static_cast<CORBA::Octet>(i * 7);
    API::Image_var image = server->createImageV13(1, "lsu0", imd, 0);
    API::UInt64 done = 0;
    image->writeImageV12(1, data, data.length(), 0, done);
    server->closeImageV12(2, image, 0, 0);
    image = server->openImageV13(3, "lsu0", imd, 1);
    API::Bytes_var back;
    image->readImageV12(1, back, data.length(), 0, done);
    server->closeImageV12(4, image, 0, 0);
    const bool same = done == data.length() && std::memcmp(back->get_buffer(), data.get_buffer(), done) == 0;
    std::printf("%s\n", same ? "image round trip ok" : "image round trip differs");
    return same;
}

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 5) return 2;
    const std::string problem = argc == 5 ? useTlsTransport({argv[2], argv[3], argv[4]}, KELD_TLS_MODULE_PATH) : "";
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        return 2;
    }
    int orbArgc = 1;
    try {
        CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, argv);
        CORBA::Object_var obj = orb->string_to_object(argv[1]);
        API::StorageServerManager_var manager = API::StorageServerManager::_narrow(obj);
        CORBA::String_var answer = manager->getString();
        std::printf("%s\n", answer.in());
        const bool same = std::getenv("KELD_PROBE_IMAGE") == nullptr || imageRoundTrip(manager);
        orb->destroy();
        return same ? 0 : 1;
    } catch (const CORBA::Exception& e) {
        std::printf("%s\n", e._name());
        return 1;
    }
}
