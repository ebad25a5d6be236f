// The root POA of this test process, made and activated once, for servants
// tested without a service around them.
#ifndef KELD_TESTS_SERVANTS_TESTPOA_H
#define KELD_TESTS_SERVANTS_TESTPOA_H

#include <omniORB4/CORBA.h>

inline PortableServer::POA_ptr testPoa()
{
    static PortableServer::POA_ptr poa = [] {
        int argc = 0;
        CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);
        CORBA::Object_var obj = orb->resolve_initial_references("RootPOA");
        PortableServer::POA_ptr root = PortableServer::POA::_narrow(obj);
        PortableServer::POAManager_var(root->the_POAManager())->activate();
        return root;
    }();
    return poa;
}

#endif
