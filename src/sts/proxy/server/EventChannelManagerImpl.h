// The second advertised object, "Proxy.EventChannelManager".  It opens no
// event channels; it serves a client without a server session: a remote
// logger, the public key and a fixed text.  Nothing here is sequenced: a
// repeated call runs again.
#ifndef KELD_PROXY_EVENTCHANNELMANAGERIMPL_H
#define KELD_PROXY_EVENTCHANNELMANAGERIMPL_H

#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class EventChannelManagerImpl : public virtual POA_API::EventChannelManager {
public:
    EventChannelManagerImpl(const CORBA::ORB_ptr& orb, const PortableServer::POA_ptr& poa,
                            ProxyLogger* plog);
    ~EventChannelManagerImpl() override;

    API::RemoteLogger_ptr openRmtLoggerV12(API::UInt64 callsequence) override;
    void increaseCounterV12(API::UInt64 callsequence) override;
    void decreaseCounterV12(API::UInt64 callsequence) override;
    char* getString() override;
    API::Bytes* getPublicKey() override;

    // Not in the contract, so no client reaches it.
    void shutdownV12(API::UInt64 callsequence);

    PortableServer::POA_ptr _default_POA() override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    API::EventChannel_ptr openEvchannel(const API::SessionDefinition& ssd, const char* name, const API::Credential& cred, const char* inf, const API::Event& event, CORBA::Long mode) override;
    API::EventChannel_ptr openEvchannelV11(const API::SessionDefinition& ssd, const char* name, const API::Credential& cred, const char* inf, API::Int32 flags, API::EvSeqNoV11 evseqno) override;
    API::EventChannel_ptr openEvchannelV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, const char* name, const API::Credential& cred, const char* inf, API::Int32 flags, API::EvSeqNoV11 evseqno) override;
    API::RemoteLogger_ptr openRmtLogger() override;
    void increaseCounter() override;
    void decreaseCounter() override;

private:
    int m_evcCounter = 0;   // moved by the counter operations; read by nothing
    CORBA::ORB_var m_vobjORB;
    PortableServer::POA_var m_vobjPOA;
    ProxyLogger* m_plog;
};

#endif
