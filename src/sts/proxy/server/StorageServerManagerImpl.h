// The first object a client reaches, "Proxy.StorageServerManager": it turns
// a client's request into a StorageServer or RemoteLogger object, closes
// them again, answers a property query for a server nobody has opened, and
// carries the two shutdown operations.  Its calls are sequenced per client
// session, not per object.
#ifndef KELD_PROXY_STORAGESERVERMANAGERIMPL_H
#define KELD_PROXY_STORAGESERVERMANAGERIMPL_H

#include "CallSequence.h"
#include "ServantSupport.h"
#include "ShutdownAdmission.h"
#include "sts_types.h"

#include "Proxy.hh"

#include <atomic>
#include <memory>

class ProxyLogger;
class SessionManager;

class StorageServerManagerImpl : public virtual POA_API::StorageServerManager {
public:
    // orb is the one shutdownV12 shuts down; the service hands the running
    // ORB, so that a client's shutdown really ends the service.
    StorageServerManagerImpl(const CORBA::ORB_ptr& orb, const PortableServer::POA_ptr& poa,
                             ProxyLogger* plog, SessionManager* sm);
    ~StorageServerManagerImpl() override;

    API::StorageServer_ptr openServerV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, const char* name, const API::Credential& cred, const char* inf, API::UInt32 flag) override;
    void closeServerV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, API::StorageServer_ptr ss_to_close) override;
    API::RemoteLogger_ptr openRmtLoggerV12(API::UInt64 callsequence, const API::SessionDefinition& ssd) override;
    void closeRmtLoggerV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, API::RemoteLogger_ptr rl_to_close) override;
    void shutdownV12(API::UInt64 callsequence, const API::SessionDefinition& ssd) override;
    CORBA::Long getServerPropByNameV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, const char* svn, API::ServerInformation_out svrInfoOut) override;
    CORBA::Long shutdownServerV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, const char* svn, const API::Credential& cred, CORBA::Long when) override;
    API::StorageServer_ptr createServerV12(API::UInt64 callsequence, const API::SessionDefinition& ssd, const char* name, const API::Credential& cred, const char* inf, const API::STSHostSeq& hosts, CORBA::Long nhost) override;
    char* getString() override;
    API::Bytes* getPublicKey() override;

    // The record of the client's session; held for the length of one call.
    std::shared_ptr<CallSequence> getCallSequence(const API::SessionDefinition& ssd);
    PortableServer::POA_ptr _default_POA() override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    API::StorageServer_ptr openServer(const API::SessionDefinition& ssd, const char* name, const API::Credential& cred, const char* inf, API::UInt32 flag) override;
    API::RemoteLogger_ptr openRmtLogger() override;
    void shutdown() override;
    CORBA::Long getServerPropByName(const API::SessionDefinition& sd, const char* svn, API::ServerInformation_out svrInfo) override;
    CORBA::Long shutdownServer(const API::SessionDefinition& sd, const char* svn, const API::Credential& cred, CORBA::Long when) override;
    API::StorageServer_ptr createServer(const API::SessionDefinition& sd, const char* name, const API::Credential& cred, const char* inf, const API::STSHostSeq& hosts, CORBA::Long nhost) override;

private:
    class StorageServerImpl* newServer();
    void endLibraryUse(bool& held, const sts_session_def_t& sd, const char* szWho, const char* willText,
                       const char* alarmLabel, sts_severity_t failSeverity);

    std::atomic<bool> m_bInited{false};   // a query's failed terminate left the library held
    CORBA::ORB_var m_vobjORB;
    PortableServer::POA_var m_vobjPOA;
    ProxyLogger* m_plog;
    SessionManager* m_sm;
    CallSequenceMgr m_callSeq;
    ShutdownAdmission m_shutdownAdmission;
};

#endif
