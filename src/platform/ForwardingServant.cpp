#include "ForwardingServant.h"

ForwardingServant::ForwardingServant(CORBA::Object_ptr target)
    : m_target(CORBA::Object::_duplicate(target))
{
}

void ForwardingServant::forward() const
{
    // The exception consumes the reference it is given.
    throw omniORB::LOCATION_FORWARD(CORBA::Object::_duplicate(m_target.in()));
}

CORBA::Boolean ForwardingServant::_dispatch(omniCallHandle&)
{
    forward();
}

CORBA::Boolean ForwardingServant::_is_a(const char*)
{
    forward();
}

CORBA::Boolean ForwardingServant::_non_existent()
{
    forward();
}
