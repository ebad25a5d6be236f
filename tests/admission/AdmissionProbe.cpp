// A client in a process of its own, so that each can have its own TLS
// identity:
//   admission_probe CORBALOC [CERTIFICATE KEY CA_FILE]
// calls getString on the storage server manager at CORBALOC and prints the
// answer.  Exit 0 on an answer, 1 on a CORBA exception (its name printed),
// 2 when the TLS identity cannot be used.
#include "TlsTransport.h"

#include "Proxy.hh"

#include <cstdio>

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 5) {
        std::fprintf(stderr, "usage: admission_probe CORBALOC [CERTIFICATE KEY CA_FILE]\n");
        return 2;
    }
    if (argc == 5) {
        const std::string problem = useTlsTransport({argv[2], argv[3], argv[4]}, KELD_TLS_MODULE_PATH);
        if (!problem.empty()) {
            std::fprintf(stderr, "%s\n", problem.c_str());
            return 2;
        }
    }
    int orbArgc = 1;
    char* orbArgv[] = {argv[0], nullptr};
    try {
        CORBA::ORB_var orb = CORBA::ORB_init(orbArgc, orbArgv);
        CORBA::Object_var obj = orb->string_to_object(argv[1]);
        API::StorageServerManager_var manager = API::StorageServerManager::_narrow(obj);
        CORBA::String_var answer = manager->getString();
        std::printf("%s\n", answer.in());
        orb->destroy();
        return 0;
    } catch (const CORBA::Exception& e) {
        std::printf("%s\n", e._name());
        return 1;
    }
}
