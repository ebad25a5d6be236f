#include "StorageServerManagerImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "PublicKey.h"
#include "RemoteLoggerImpl.h"
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
    OwnSession(const API::SessionDefinition& ssd, sts_log_v7_t log)
    {
        const char* id = ssd.id;
        fillSessionDefinition(sd, ssd.proxy, copySessionId(id, id != nullptr ? std::strlen(id) : 0),
                              ssd.flags, log);
    }
    void release() { std::free(const_cast<char*>(sd.sd_id)); }
    sts_session_def_t sd = {};
};

} // namespace

StorageServerManagerImpl::StorageServerManagerImpl(const CORBA::ORB_ptr& orb,
                                                   const PortableServer::POA_ptr& poa,
                                                   ProxyLogger* plog, SessionManager* sm)
    : m_vobjORB(CORBA::ORB::_duplicate(orb)),
      m_vobjPOA(PortableServer::POA::_duplicate(poa)),
      m_plog(plog),
      m_sm(sm),
      m_callSeq(plog)
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

CallSequence& StorageServerManagerImpl::getCallSequence(const API::SessionDefinition& ssd)
{
    return m_callSeq.getCallSequence(ssd.id);
}

// Activates a new servant in the root POA and narrows its reference.  The
// servant is live from here on, before any storage call: a failure later
// does not undo the activation.
template <typename Servant, typename Interface>
typename Interface::_ptr_type StorageServerManagerImpl::activate(Servant* servant, CallSequence& cs,
                                                                 const char* szWho,
                                                                 const char* nilLog,
                                                                 const char* nilText)
{
    PortableServer::ObjectId_var id = m_vobjPOA->activate_object(servant);
    CORBA::Object_var obj = m_vobjPOA->id_to_reference(id);
    if (CORBA::is_nil(obj)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "POA object is nil");
        failRecorded(cs, STS_ESEQUENCE, "fail to get reference to CORBA Object on server side.");
    }
    typename Interface::_ptr_type ref = Interface::_narrow(obj);
    if (CORBA::is_nil(ref)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "%s", nilLog);
        failRecorded(cs, STS_ESEQUENCE, nilText);
    }
    return ref;
}

// A retry of an open or create answers with the object made the first time.
static API::StorageServer_ptr replayServer(CallSequence& cs)
{
    API::StorageServer_ptr ref = API::StorageServer::_nil();
    cs.getStorageServerPtr(ref);
    return ref;
}

StorageServerImpl* StorageServerManagerImpl::newStorageServer(CallSequence& cs, const char* szWho)
{
    StorageServerImpl* servant = new (std::nothrow) StorageServerImpl(m_vobjPOA, m_plog, m_sm, nullptr);
    if (servant == nullptr) {
        errno = ENOMEM;
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "new StorageSvrImpl failed");
        failRecorded(cs, STS_ENOMEM_OBJ, "fail to new one instance of StorageServerImpl on server side");
    }
    return servant;
}

API::StorageServer_ptr StorageServerManagerImpl::openServerV12(API::UInt64 callsequence,
                                                               const API::SessionDefinition& ssd,
                                                               const char* name,
                                                               const API::Credential& cred,
                                                               const char* inf, API::UInt32 flag)
{
    static const char* szWho = "StorageServerManagerImpl::openServer";
    return runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr,
        replayServer,
        [&](CallSequence& cs) {
            // The creation reference is kept for the life of the process.
            StorageServerImpl* servant = newStorageServer(cs, szWho);
            API::StorageServer_var ref = activate<StorageServerImpl, API::StorageServer>(
                servant, cs, szWho, "StorageSvr object is nil",
                "fail to get reference to StorageServer object on server side");
            m_plog->logMsg(nullptr, szWho, STS_ESINFO, "succeed to get the reference StorageServer object.");
            servant->openServer(ssd, name, cred, inf, flag, cs);
            cs.setStorageServerPtr(ref);
            cs.recordCompletion(0, "ok");
            return ref._retn();
        });
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
    return runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr,
        replayServer,
        [&](CallSequence& cs) {
            StorageServerImpl* servant = newStorageServer(cs, szWho);
            // The POA alone keeps this one: freed when it is deactivated.
            PortableServer::ServantBase_var owner = servant;
            API::StorageServer_var ref = servant->_this();
            if (CORBA::is_nil(ref)) {
                m_plog->logMsg(nullptr, szWho, STS_ESERROR, "StorageSvr object is nil");
                failRecorded(cs, STS_ESEQUENCE, "fail to get reference to StorageServer object on server side");
            }
            m_plog->logMsg(nullptr, szWho, STS_ESINFO, "succeed to get the reference StorageServer object.");
            servant->createServer(ssd, name, cred, inf, hosts, nhost);
            cs.setStorageServerPtr(ref);
            cs.recordCompletion(0, "ok");
            return ref._retn();
        });
}

void StorageServerManagerImpl::closeServerV12(API::UInt64 callsequence,
                                              const API::SessionDefinition& ssd,
                                              API::StorageServer_ptr ss_to_close)
{
    static const char* szWho = "StorageServerManagerImpl::closeServerV12";
    runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            PortableServer::ServantBase_var servant = m_vobjPOA->reference_to_servant(ss_to_close);
            dynamic_cast<StorageServerImpl*>(servant.in())->closeServerX(cs);
            cs.storeObjForDeactivate(ss_to_close, m_vobjPOA);
            cs.recordCompletion(0, "ok");
        });
}

API::RemoteLogger_ptr StorageServerManagerImpl::openRmtLoggerV12(API::UInt64 callsequence,
                                                                 const API::SessionDefinition& ssd)
{
    static const char* szWho = "StorageServerManagerImpl::openRmtLogger";
    return runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr,
        [](CallSequence& cs) {
            API::RemoteLogger_ptr ref = API::RemoteLogger::_nil();
            cs.getRemLogPtr(ref);
            return ref;
        },
        [&](CallSequence& cs) {
            RemoteLoggerImpl* servant = new (std::nothrow) RemoteLoggerImpl(m_plog);
            if (servant == nullptr) {
                errno = ENOMEM;
                m_plog->logMsg(nullptr, szWho, STS_ESERROR, "new RemoteLoggerImpl failed");
                failRecorded(cs, STS_ENOMEM_OBJ, "fail to new one instance of RemoteLogger Object on server side");
            }
            API::RemoteLogger_var ref = activate<RemoteLoggerImpl, API::RemoteLogger>(
                servant, cs, szWho, "RmtLogger object is nil",
                "fail to get reference to RemoteLogger object on server side");
            m_plog->logMsg(nullptr, szWho, STS_ESINFO, "succeed to get the refenrece RemoteLogger object.");
            servant->openRmtLoggerX(cs);
            cs.setRemLogPtr(ref);
            cs.recordCompletion(0, "ok");
            return ref._retn();
        });
}

void StorageServerManagerImpl::closeRmtLoggerV12(API::UInt64 callsequence,
                                                 const API::SessionDefinition& ssd,
                                                 API::RemoteLogger_ptr rl_to_close)
{
    static const char* szWho = "StorageServerManagerImpl::closeRmtLoggerV12";
    runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            PortableServer::ServantBase_var servant = m_vobjPOA->reference_to_servant(rl_to_close);
            dynamic_cast<RemoteLoggerImpl*>(servant.in())->closeRmtLoggerX(cs);
            cs.storeObjForDeactivate(rl_to_close, m_vobjPOA);
            cs.recordCompletion(0, "ok");
        });
}

// The manager is given the running ORB (not a nil one), so this destroys
// the POA and then really shuts the ORB down: the service's run returns and
// the process closes what is open and exits with 0.
void StorageServerManagerImpl::shutdownV12(API::UInt64 callsequence, const API::SessionDefinition& ssd)
{
    static const char* szWho = "StorageServerManagerImpl::shutdown";
    runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            m_plog->logMsg(nullptr, szWho, STS_ESINFO, "let us shutdown this server");
            m_vobjPOA->destroy(true, false);
            if (!CORBA::is_nil(m_vobjORB)) m_vobjORB->shutdown(false);
            cs.recordCompletion(0, "ok");
        });
}

void StorageServerManagerImpl::endLibraryUse(const sts_session_def_t& sd, const char* szWho,
                                             const char* willText, const char* alarmLabel,
                                             sts_severity_t failSeverity)
{
    if (!m_bInited) return;
    m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "%s", willText);
    const int nErr = terminateStorageLibrary(m_plog, &sd, szWho, alarmLabel);
    if (nErr != 0) {
        m_plog->logMsg(&sd, szWho, failSeverity, "sts_terminate failed, sts return %d", nErr);
        return;
    }
    m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "succeed to terminate sts");
    m_bInited = false;
}

// Loads the storage library only for the length of the query.
CORBA::Long StorageServerManagerImpl::getServerPropByNameV12(API::UInt64 callsequence,
                                                             const API::SessionDefinition& ssd,
                                                             const char* svn,
                                                             API::ServerInformation_out svrInfoOut)
{
    static const char* szWho = "StorageServerManagerImpl::getServerPropByName";
    return runSequenced(getCallSequence(ssd), callsequence, szWho, nullptr,
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
                m_bInited = false;
                m_plog->logMsg(&sd, szWho, STS_ESERROR, "sts_init failed, sts return %d", rc);
                own.release();
                failRecorded(cs, rc, "fail to call sts_init");
            }
            try {
                m_bInited = true;
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
                endLibraryUse(sd, szWho, "sts_terminate will be called", "SUPER2!WRONG", STS_ESWARN);
            } catch (...) {
                endLibraryUse(sd, szWho, "sts_terminate will be called in catch", "SUPER3!WRONG", STS_ESWARN);
                own.release();
                throw;
            }
            own.release();
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
    bReceivedRequest = true;
    m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "got one request of shutting down server");
    try {
        sts_cred_t c = {};
        const sts_cred_t* pCred = nullptr;
        if (cred.len != 0) {
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "cred length %d", static_cast<int>(cred.len));
            for (CORBA::ULong i = 0; i < 3 && i < cred.cert.length(); ++i) {
                m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "cred  %02X", cred.cert[i]);
            }
            CORBA2ZVS(cred, &c);
            m_plog->logMsg(&sd, szWho, STS_ESDEBUG, "cr_len is %d, cr_type is %d, cr_cert [%.1024s]",
                           static_cast<int>(c.cr_len), static_cast<int>(c.cr_type), c.cr_cert);
            pCred = &c;
        }
        const int rc = STS_CALL(stsa_shutdown_server, &sd, svn, pCred, when);
        if (rc != 0) {
            m_plog->logMsg(&sd, szWho, STS_ESERROR, "sts_shutdown_server failed, sts return %d", rc);
            throw API::STSError(rc, "fail to call sts_shutdown_server");
        }
    } catch (...) {
        endLibraryUse(sd, szWho, "sts_terminate will be called in catch", "SUPER5!WRONG", STS_ESERROR);
        throw;
    }
    endLibraryUse(sd, szWho, "sts_terminate will be called", "SUPER4!WRONG", STS_ESERROR);
    m_plog->logMsg(&sd, szWho, STS_ESINFO, "succeed to shutdown server %s", svn);
    return 0;
}

char* StorageServerManagerImpl::getString()
{
    char text[512];
    std::snprintf(text, sizeof(text), "ZVS_VERSION=%d", PROTOCOL_LEVEL);
    return CORBA::string_dup(text);
}

API::Bytes* StorageServerManagerImpl::getPublicKey()
{
    return publicKeyBytes();
}

API::StorageServer_ptr StorageServerManagerImpl::openServer(const API::SessionDefinition&, const char*, const API::Credential&, const char*, API::UInt32)
{
    refuseOperation();
}

API::RemoteLogger_ptr StorageServerManagerImpl::openRmtLogger()
{
    refuseOperation();
}

void StorageServerManagerImpl::shutdown()
{
    refuseOperation();
}

CORBA::Long StorageServerManagerImpl::getServerPropByName(const API::SessionDefinition&, const char*, API::ServerInformation_out)
{
    refuseOperation();
}

CORBA::Long StorageServerManagerImpl::shutdownServer(const API::SessionDefinition&, const char*, const API::Credential&, CORBA::Long)
{
    refuseOperation();
}

API::StorageServer_ptr StorageServerManagerImpl::createServer(const API::SessionDefinition&, const char*, const API::Credential&, const char*, const API::STSHostSeq&, CORBA::Long)
{
    refuseOperation();
}
