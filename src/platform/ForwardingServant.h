// Stands under a readable object key (corbaloc::host:port/<key>) and sends
// every request on to the real object, which stays in the root POA.  The
// client's ORB follows the forward once and then talks to the real object
// directly, so _is_a, _narrow and ordinary calls all reach it.
#ifndef KELD_PLATFORM_FORWARDINGSERVANT_H
#define KELD_PLATFORM_FORWARDINGSERVANT_H

#include <omniORB4/CORBA.h>

class ForwardingServant : public PortableServer::ServantBase {
public:
    explicit ForwardingServant(CORBA::Object_ptr target);

    // Every operation, the implicit ones included, answers with a location
    // forward to the target.
    CORBA::Boolean _dispatch(omniCallHandle& handle) override;
    CORBA::Boolean _is_a(const char* repoId) override;
    CORBA::Boolean _non_existent() override;

private:
    [[noreturn]] void forward() const;

    CORBA::Object_var m_target;
};

#endif
