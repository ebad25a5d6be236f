// The event channel the contract keeps.
// Older forms of its operations are refused; operations whose work is not
// built yet answer CORBA::NO_IMPLEMENT.
#ifndef KELD_PROXY_EVENTCHANNELIMPL_H
#define KELD_PROXY_EVENTCHANNELIMPL_H

#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class EventChannelImpl : public virtual POA_API::EventChannel {
public:
    EventChannelImpl(PortableServer::POA_ptr poa, ProxyLogger* plog);
    ~EventChannelImpl() override;

    void closeEvchannel() override;
    void closeEvchannelV12(API::UInt64 callsequence) override;
    CORBA::Long getEvent(API::Event_out event) override;
    CORBA::Long getEventV11(API::EventV11& event) override;
    CORBA::Long getEventV12(API::UInt64 callsequence, API::EventV11& event) override;
    CORBA::Long deleteEvent(const API::Event& event) override;
    CORBA::Long deleteEventV12(API::UInt64 callsequence, const API::Event& ev) override;
    CORBA::Long getPushEvent(API::Event_out event) override;
    CORBA::Long getPushEventV12(API::UInt64 callsequence, API::Event_out event) override;
    CORBA::Long getEvcId() override;
    CORBA::Long getEvcIdV12(API::UInt64 callsequence) override;
    PortableServer::POA_ptr _default_POA() override;

private:
    PortableServer::POA_var m_vobjPOA;
    ProxyLogger* m_plog;
};

#endif
