// A server with nothing but the ORB: receives or sends a sequence<octet>,
// answers a string.  It takes the same ORB options as the service, so that
// the difference measured against it is what the service adds.
//   bare_orb_server <object key> -ORBendPoint giop:tcp:127.0.0.1:PORT [-ORB...]
#include "BareOrb.hh"

#include <cstdio>

namespace {

class SinkImpl : public POA_BareOrb::Sink {
public:
    void put(const BareOrb::Bytes&) override {}

    // A new sequence for each call, as any server must return one.
    BareOrb::Bytes* get(CORBA::ULong length) override
    {
        BareOrb::Bytes_var out = new BareOrb::Bytes(length);
        out->length(length);
        return out._retn();
    }

    char* getString() override { return CORBA::string_dup("BareOrb::Sink::getString"); }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: bare_orb_server <object key> -ORBendPoint ...\n");
        return 2;
    }
    CORBA::ORB_var orb = CORBA::ORB_init(argc, argv);
    CORBA::Object_var ref = orb->resolve_initial_references("omniINSPOA");
    PortableServer::POA_var poa = PortableServer::POA::_narrow(ref);
    PortableServer::ServantBase_var sink = new SinkImpl;
    PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(argv[1]);
    poa->activate_object_with_id(id.in(), sink.in());
    PortableServer::POAManager_var manager = poa->the_POAManager();
    manager->activate();
    orb->run();
    return 0;
}
