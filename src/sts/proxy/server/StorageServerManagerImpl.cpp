#include "StorageServerManagerImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtilCredential.h"
#include "PublicKey.h"
#include "RemoteLoggerImpl.h"
#include "ServantFactory.h"
#include "SessionId.h"
#include "SessionManager.h"
#include "StorageServerImpl.h"
#include "StsLibrary.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

const int PROTOCOL_LEVEL = 13;

// A session definition of the manager's own, for one storage call.
struct OwnSession {
    OwnSession(const API::SessionDefinition& ssd, sts_log_v7_t log) : id(ssd.id)
    {
        fillSessionDefinition(sd, ssd.proxy, id.c_str(), ssd.flags, log);
    }
    SessionId id;
    sts_session_def_t sd = {};
};

const FactoryTexts kServerTexts = {
    "new StorageSvrImpl failed", "fail to new one instance of StorageServerImpl on server side",
    "StorageSvr object is nil", "fail to get reference to StorageServer object on server side",
    "succeed to get the reference StorageServer object.", STS_ESINFO};

const FactoryTexts kLoggerTexts = {
    "new RemoteLoggerImpl failed", "fail to new one instance of RemoteLogger Object on server side",
    "RmtLogger object is nil", "fail to get reference to RemoteLogger object on server side",
    "succeed to get the refenrece RemoteLogger object.", STS_ESINFO};

} // namespace

StorageServerManagerImpl::StorageServerManagerImpl(const CORBA::ORB_ptr& orb,
                                                   const PortableServer::POA_ptr& poa,
                                                   ProxyLogger* plog, SessionManager* sm)
    : m_vobjORB(CORBA::ORB::_duplicate(orb)),
      m_vobjPOA(PortableServer::POA::_duplicate(poa)),
      m_plog(plog),
      m_sm(sm),
      m_callSeq(plog, [sm](const std::string& id) { return sm != nullptr && sm->HasSession(id.c_str()); })
{
    setCorelibLogger(plog);
    m_plog->logMsg(nullptr, "StorageServerManagerImpl::StorageServerManagerImpl", STS_ESDEBUG,
                   "StorageServerManager object had been inited here %p", static_cast<void*>(this));
}

StorageServerManagerImpl::~StorageServerManagerImpl()
{
    m_plog->logMsg(nullptr, "StorageServerManagerImpl::~StorageServerManagerImpl", STS_ESDEBUG,
                   "object of StorageServerManagerImpl is destroyed here %p", static_cast<void*>(this));
}

PortableServer::POA_ptr StorageServerManagerImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

std::shared_ptr<CallSequence> StorageServerManagerImpl::getCallSequence(const API::SessionDefinition& ssd)
{
    return m_callSeq.getCallSequence(ssd.id);
}

StorageServerImpl* StorageServerManagerImpl::newServer()
{
    return new (std::nothrow) StorageServerImpl(m_vobjPOA, m_plog, m_sm, nullptr);
}

API::StorageServer_ptr StorageServerManagerImpl::openServerV12(API::UInt64 callsequence,
                                                               const API::SessionDefinition& ssd,
                                                               const char* name,
                                                               const API::Credential& cred,
                                                               const char* inf, API::UInt32 flag)
{
    static const char* szWho = "StorageServerManagerImpl::openServer";
    return runFactory<API::StorageServer>(*getCallSequence(ssd), callsequence, {m_plog, nullptr, szWho},
        kServerTexts, [&] { return newServer(); },
        [&](StorageServerImpl& server, CallSequence& cs) { server.openServer(ssd, name, cred, inf, flag, cs); });
}

API::StorageServer_ptr StorageServerManagerImpl::createServerV12(API::UInt64 callsequence,
                                                                 const API::SessionDefinition& ssd,
                                                                 const char* name,
                                                                 const API::Credential& cred,
                                                                 const char* inf,
                                                                 const API::STSHostSeq& hosts,
                                                                 CORBA::Long nhost)
{
    static const char* szWho = "StorageServerManagerImpl::CreateServer";
    return runFactory<API::StorageServer>(*getCallSequence(ssd), callsequence, {m_plog, nullptr, szWho},
        kServerTexts, [&] { return newServer(); },
        [&](StorageServerImpl& server, CallSequence&) { server.createServer(ssd, name, cred, inf, hosts, nhost); });
}

void StorageServerManagerImpl::closeServerV12(API::UInt64 callsequence,
                                              const API::SessionDefinition& ssd,
                                              API::StorageServer_ptr ss_to_close)
{
    static const char* szWho = "StorageServerManagerImpl::closeServerV12";
    runClose<StorageServerImpl>(*getCallSequence(ssd), callsequence, szWho, m_vobjPOA, ss_to_close,
        [](StorageServerImpl& server, CallSequence& cs) { server.closeServerX(cs); });
}

API::RemoteLogger_ptr StorageServerManagerImpl::openRmtLoggerV12(API::UInt64 callsequence,
                                                                 const API::SessionDefinition& ssd)
{
    static const char* szWho = "StorageServerManagerImpl::openRmtLogger";
    return runFactory<API::RemoteLogger>(*getCallSequence(ssd), callsequence, {m_plog, nullptr, szWho},
        kLoggerTexts, [&] { return new (std::nothrow) RemoteLoggerImpl(m_plog); },
        [](RemoteLoggerImpl& logger, CallSequence& cs) { logger.openRmtLoggerX(cs); });
}

void StorageServerManagerImpl::closeRmtLoggerV12(API::UInt64 callsequence,
                                                 const API::SessionDefinition& ssd,
                                                 API::RemoteLogger_ptr rl_to_close)
{
    static const char* szWho = "StorageServerManagerImpl::closeRmtLoggerV12";
    runClose<RemoteLoggerImpl>(*getCallSequence(ssd), callsequence, szWho, m_vobjPOA, rl_to_close,
        [](RemoteLoggerImpl& logger, CallSequence& cs) { logger.closeRmtLoggerX(cs); });
}

// The manager is given the running ORB (not a nil one), so this destroys
// the POA and then really shuts the ORB down: the service's run returns and
// the process closes what is open and exits with 0.  Only for a server of
// the domain: a refusal touches no record.
void StorageServerManagerImpl::shutdownV12(API::UInt64 callsequence, const API::SessionDefinition& ssd)
{
    static const char* szWho = "StorageServerManagerImpl::shutdown";
    m_shutdownAdmission.admitCaller(m_plog, szWho);
    runSequenced(*getCallSequence(ssd), callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            m_plog->logMsg(nullptr, szWho, STS_ESINFO, "let us shutdown this server");
            m_vobjPOA->destroy(true, false);
            if (!CORBA::is_nil(m_vobjORB)) m_vobjORB->shutdown(false);
            cs.recordCompletion(0, "ok");
        });
}

// Ends the use of the library that `held` says this call holds.  A failed
// terminate leaves the library held by the manager, for the next
// shutdownServer to release.
void StorageServerManagerImpl::endLibraryUse(bool& held, const sts_session_def_t& sd, const char* szWho,
                                             const char* willText, const char* alarmLabel,
                                             sts_severity_t failSeverity)
{
    if (!held) return;
    m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "%s", willText);
    const int nErr = terminateStorageLibrary(m_plog, &sd, szWho, alarmLabel);
    if (nErr != 0) {
        m_plog->logMsg(&sd, szWho, failSeverity, "sts_terminate failed, sts return %d", nErr);
        m_bInited = true;
        return;
    }
    m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "succeed to terminate sts");
    held = false;
}

// Loads the storage library only for the length of the query.
CORBA::Long StorageServerManagerImpl::getServerPropByNameV12(API::UInt64 callsequence,
                                                             const API::SessionDefinition& ssd,
                                                             const char* svn,
                                                             API::ServerInformation_out svrInfoOut)
{
    static const char* szWho = "StorageServerManagerImpl::getServerPropByName";
    return runSequenced(*getCallSequence(ssd), callsequence, szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getServerInfo(svrInfoOut);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            API::ServerInformation* info = newOutRecord<API::ServerInformation>();
            svrInfoOut = info;
            OwnSession own(ssd, log_corelib);
            const sts_session_def_t& sd = own.sd;
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "get one request of getting server prop byname");
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "call sts_init to init the sts module");
            const int rc = initStorageLibrary();
            if (rc != 0) {
                m_plog->logMsg(&sd, szWho, STS_ESERROR, "sts_init failed, sts return %d", rc);
                failRecorded(cs, rc, "fail to call sts_init");
            }
            bool held = true;   // this call's own init: concurrent queries each end theirs
            try {
                m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "succeed to call sts_init");
                m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "ready to call sts_get_server_prop_byname for %s", svn);
                sts_server_info_t cinfo = {};
                int nErr = 0;
                {
                    ACE_Guard<ACE_Thread_Mutex> guard(gs_stsMutex);
                    nErr = STS_CALL(stsa_get_server_prop_byname, &sd, svn, &cinfo);
                }
                if (nErr != 0) {
                    m_plog->logMsg(&sd, szWho, STS_ESERROR, "sts_get_server_prop_byname failed for %s, sts return %d", svn, nErr);
                    failRecorded(cs, nErr, "fail to call sts_get_server_prop_byname");
                }
                ZVS2CORBA(cinfo, info);
                cs.setServerInfo(*info);
                m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "storage server name is %s", cinfo.srv_server);
                m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "storage server current connect is: %d", static_cast<int>(cinfo.srv_nconnect));
                m_plog->logMsg(&sd, szWho, STS_ESINFO, "succeed to get server prop by name");
                endLibraryUse(held, sd, szWho, "sts_terminate will be called", "SUPER2!WRONG", STS_ESWARN);
            } catch (...) {
                endLibraryUse(held, sd, szWho, "sts_terminate will be called in catch", "SUPER3!WRONG", STS_ESWARN);
                throw;
            }
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

// The one sequenced operation that ignores its number: a retry runs again.
// It reaches the library only while something else holds it.
CORBA::Long StorageServerManagerImpl::shutdownServerV12(API::UInt64, const API::SessionDefinition& ssd,
                                                        const char* svn, const API::Credential& cred,
                                                        CORBA::Long when)
{
    static const char* szWho = "StorageServerManagerImpl::shutdownServer";
    OwnSession own(ssd, nullptr);
    const sts_session_def_t& sd = own.sd;
    const UnsequencedCall call;
    m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "got one request of shutting down server");
    bool held = m_bInited.exchange(false);
    try {
        sts_cred_t c = {};
        const sts_cred_t* pCred = nullptr;
        if (cred.len != 0) {
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "cred length %d", static_cast<int>(cred.len));
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "cred %s", maskedCredential(cred.cert.length()).c_str());
            CORBA2ZVS(cred, &c);
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "cr_len is %d, cr_type is %d, cr_cert %s",
                           static_cast<int>(c.cr_len), static_cast<int>(c.cr_type), maskedCredential(c).c_str());
            pCred = &c;
        }
        const int rc = STS_CALL(stsa_shutdown_server, &sd, svn, pCred, when);
        if (rc != 0) {
            m_plog->logMsg(&sd, szWho, STS_ESERROR, "sts_shutdown_server failed, sts return %d", rc);
            throw API::STSError(rc, "fail to call sts_shutdown_server");
        }
    } catch (...) {
        endLibraryUse(held, sd, szWho, "sts_terminate will be called in catch", "SUPER5!WRONG", STS_ESERROR);
        throw;
    }
    endLibraryUse(held, sd, szWho, "sts_terminate will be called", "SUPER4!WRONG", STS_ESERROR);
    m_plog->logMsg(&sd, szWho, STS_ESINFO, "succeed to shutdown server %s", svn);
    return 0;
}

char* StorageServerManagerImpl::getString()
{
    // The text never changes: formatted once, not at each call (the
    // formatting cost as much as the rest of the servant's side of a call).
    static const std::string text = [] {
        char buffer[512];
        std::snprintf(buffer, sizeof(buffer), "ZVS_VERSION=%d", PROTOCOL_LEVEL);
        return std::string(buffer);
    }();
    return CORBA::string_dup(text.c_str());
}

API::Bytes* StorageServerManagerImpl::getPublicKey()
{
    return publicKeyBytes();
}
