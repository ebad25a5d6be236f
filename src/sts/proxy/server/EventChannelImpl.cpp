#include "EventChannelImpl.h"

EventChannelImpl::EventChannelImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : m_vobjPOA(PortableServer::POA::_duplicate(poa)), m_plog(plog)
{
}

EventChannelImpl::~EventChannelImpl() = default;

PortableServer::POA_ptr EventChannelImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

void EventChannelImpl::closeEvchannel()
{
    refuseOperation();
}

void EventChannelImpl::closeEvchannelV12(API::UInt64)
{
    notImplementedYet();
}

CORBA::Long EventChannelImpl::getEvent(API::Event_out)
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::getEventV11(API::EventV11&)
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::getEventV12(API::UInt64, API::EventV11&)
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::deleteEvent(const API::Event&)
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::deleteEventV12(API::UInt64, const API::Event&)
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::getPushEvent(API::Event_out)
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::getPushEventV12(API::UInt64, API::Event_out)
{
    notImplementedYet();
}

CORBA::Long EventChannelImpl::getEvcId()
{
    refuseOperation();
}

CORBA::Long EventChannelImpl::getEvcIdV12(API::UInt64)
{
    notImplementedYet();
}
