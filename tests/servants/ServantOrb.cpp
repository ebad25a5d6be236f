#include "ServantOrb.h"

#include "ServantSupport.h"

namespace {

CORBA::ORB_var g_orb;
PortableServer::POA_var g_poa;

class OrbEnvironment : public ::testing::Environment {
public:
    void TearDown() override
    {
        if (CORBA::is_nil(g_orb)) return;
        g_poa = PortableServer::POA::_nil();
        g_orb->destroy();
    }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new OrbEnvironment);

} // namespace

PortableServer::POA_ptr testPoa()
{
    if (CORBA::is_nil(g_poa)) {
        int argc = 1;
        static char name[] = "servants";
        static char* argv[] = {name, nullptr};
        g_orb = CORBA::ORB_init(argc, argv);
        CORBA::Object_var obj = g_orb->resolve_initial_references("RootPOA");
        g_poa = PortableServer::POA::_narrow(obj);
        PortableServer::POAManager_var manager = g_poa->the_POAManager();
        manager->activate();
    }
    return g_poa.in();
}
