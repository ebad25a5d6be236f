#include "StorageServerImpl.h"

#include "ProxyKeyMgr.h"
#include "ProxyLogger.h"
#include "ProxyUtilCredential.h"
#include "ProxyV9SVC.h"
#include "RemoteLoggerImpl.h"
#include "SessionId.h"
#include "SessionManager.h"
#include "StsLibrary.h"

#include <ace/Guard_T.h>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

StorageServerImpl::StorageServerImpl(PortableServer::POA_ptr pobjPOA, ProxyLogger* plog,
                                     SessionManager* sm, const sts_session_def_t* sd,
                                     std::shared_ptr<ServantGate> parentGate)
    : SequencedServant(pobjPOA, plog, parentGate), m_sm(sm)
{
    if (parentGate != nullptr) parentGate->adopt(m_gate);
    std::memset(&m_sd, 0, sizeof(m_sd));
    if (sd != nullptr) {
        m_sd = *sd;
        m_sessionId = SessionId(sd->sd_id);
        m_sd.sd_id = m_sessionId.c_str();
    }
    m_plog->logMsg(nullptr, "StorageServerImpl::StorageServerImpl", STS_ESDEBUG,
                   "init object StorageServerImpl %p", static_cast<void*>(this));
    setPluginLogger(plog);
}

void StorageServerImpl::registerOpen()
{
    keepOpen([this] { abandon(); });
    if (m_sm != nullptr && m_ssn != nullptr) m_sm->AddServer(m_ssn, m_gate);
}

void StorageServerImpl::abandon()
{
    static const char* szWho = "StorageServerImpl::abandon";
    if (m_svh != nullptr) {
        closeLogged(m_svh, szWho, 8, "sts_close_server failed, sts return %d", "closed the server its client left open");
        m_svh = nullptr;
    }
    if (m_bIsTargetServer || m_ssn == nullptr) return;
    if (m_sm != nullptr) {
        if (m_sd.sd_id != nullptr) m_sm->Erase(m_sd.sd_id, m_ssn);
        m_sm->RemoveServer(m_ssn);
    }
    const char* id = m_sd.sd_id != nullptr ? m_sd.sd_id : "";
    if (STS_CALL(stsa_close_handle, m_ssn, 8) == 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to close one session handle for id %s", id);
    } else {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "fail to close one session handle for id %s", id);
    }
    m_ssn = nullptr;
    if (m_bInited && terminateStorageLibrary(m_plog, &m_sd, szWho, "SUPER2!WRONG") == 0) m_bInited = false;
}

// No storage call here: a server that was not closed keeps its handles.
StorageServerImpl::~StorageServerImpl()
{
    m_plog->logMsg(nullptr, "StorageServerImpl::~StorageServerImpl", STS_ESDEBUG,
                   "object of StorageServerImpl is destroyed here %p", static_cast<void*>(this));
}

void StorageServerImpl::logCredential(const char* szWho, const char* lengthText,
                                      const API::Credential& cred)
{
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, lengthText, static_cast<int>(cred.len),
                   static_cast<int>(cred.type));
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "cred %s", maskedCredential(cred.cert.length()).c_str());
}

bool StorageServerImpl::closeLogged(sts_handle_t h, const char* szWho, sts_uint32_t flags, const char* failText,
                                    const char* okText)
{
    const int nErr = STS_CALL(stsa_close_handle, h, flags);
    if (nErr != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, failText, nErr);
        return false;
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "%s", okText);
    return true;
}

// Undoes a failed open or create; logs what fails and never throws.
void StorageServerImpl::undoFailedOpen(const char* szWho)
{
    if (m_svh != nullptr) {
        closeLogged(m_svh, szWho, 0, "sts_close_server failed, sts return %d", "succeed to close server");
    }
    if (m_ssn != nullptr) {
        if (m_sd.sd_id != nullptr && m_sm != nullptr) {
            m_sm->Erase(m_sd.sd_id, m_ssn);
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to delete session handle for id %s", m_sd.sd_id);
        }
        closeLogged(m_ssn, szWho, 0, "sts_close_session failed, sts return %d", "succeed to close session");
    }
    if (m_bInited) {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "sts_terminate will be called");
        const int nErr = terminateStorageLibrary(m_plog, &m_sd, szWho, "SUPER!WRONG");
        if (nErr != 0) {
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_terminate failed, sts return %d", nErr);
        } else {
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to terminate sts");
            m_bInited = false;
        }
    }
}

void StorageServerImpl::openServer(const API::SessionDefinition& ssd, const char* name,
                                   const API::Credential& cred, const char* inf, API::UInt32 flag,
                                   CallSequence& cs)
{
    static const char* szWho = "StorageServerImpl::openServer";
    m_sessionId = SessionId(ssd.id);
    fillSessionDefinition(m_sd, ssd.proxy, m_sessionId.c_str(), ssd.flags, logm_plugin);
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of opening server");
    if (flag != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "cleanup operation only, return directly");
        m_bCleanup = true;
        return;
    }
    try {
        int nErr = initStorageLibrary();
        if (nErr != 0) {
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_init failed, sts return %d", nErr);
            m_bInited = false;
            failRecorded(cs, nErr, "fail to init sts");
        }
        m_bInited = true;
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to init sts");

        nErr = STS_CALL(stsa_open_session, &m_sd, &m_ssn);
        if (nErr != 0) {
            m_ssn = nullptr;
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_open_session failed, sts return %d", nErr);
            failRecorded(cs, nErr, "fail to open the sts session");
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to open sts session");
        if (m_sd.sd_id != nullptr && m_sm != nullptr) {
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "adding sts session handle into SessionManager");
            m_sm->Push(m_sd.sd_id, m_ssn);
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to add session handle for id %s", m_sd.sd_id);
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "storage server name pass in is %s", name);

        sts_cred_t c = {};
        const sts_cred_t* pCred = nullptr;
        if (cred.len != 0) {
            logCredential(szWho, "cred length %d, cred type %d", cred);
            {
                ACE_Guard<ACE_Thread_Mutex> guard(gs_rsaMutex);
                CORBA2ZVS(cred, &c);
            }
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "cr_len is %d, cr_type is %d, cr_cert %s",
                           static_cast<int>(c.cr_len), static_cast<int>(c.cr_type), maskedCredential(c).c_str());
            pCred = &c;
        }
        nErr = STS_CALL(stsa_open_server, m_ssn, name, pCred, inf, &m_svh);
        if (nErr != 0) {
            m_svh = nullptr;
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_open_server failed, sts return %d", nErr);
            failRecorded(cs, nErr, "fail to open the sts server");
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESINFO, "succeed to open sts server");
        registerOpen();
    } catch (...) {
        undoFailedOpen(szWho);
        throw;
    }
}

// Relies on the storage library being up already: without it the session
// cannot open and the call yields 2060010.  It takes a use of its own
// while it is, so that its handles never outlive the plug-ins that made
// them, whichever server closes last.
void StorageServerImpl::createServer(const API::SessionDefinition& ssd, const char* name,
                                     const API::Credential& cred, const char* inf,
                                     const API::STSHostSeq& hostsseq, CORBA::Long nhost)
{
    static const char* szWho = "StorageServerImpl::createServer";
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of creating server");
    const char* id = ssd.id;
    // The session key is the start of the proxy string, cut to the id's
    // length: keys of created servers are made that way.
    if (id != nullptr) m_sessionId = SessionId(ssd.proxy, std::strlen(id));
    fillSessionDefinition(m_sd, ssd.proxy, m_sessionId.c_str(), ssd.flags, nullptr);
    m_bInited = retainStorageLibrary() == 0;

    int nErr = STS_CALL(stsa_open_session, &m_sd, &m_ssn);
    if (nErr != 0) {
        m_ssn = nullptr;
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_open_session failed, sts return %d", nErr);
        undoFailedOpen(szWho);
        throw API::STSError(nErr, "fail to open the STS session");
    }
    try {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to open sts session");
        if (m_sd.sd_id != nullptr && m_sm != nullptr) {
            m_sm->Push(m_sd.sd_id, m_ssn);
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to add session handle for id %s", m_sd.sd_id);
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "storage server name pass in is %s", name);

        const CORBA::ULong count = nhost > 0 ? std::min<CORBA::ULong>(nhost, hostsseq.length()) : 0;
        // Kept as long as the server object: the plug-in may hold on to it.
        m_hosts.assign(count > 0 ? count : 1, sts_host_t());
        for (CORBA::ULong i = 0; i < count; ++i) CORBA2ZVS(hostsseq[i], &m_hosts[i]);

        sts_cred_t c = {};
        const sts_cred_t* pCred = nullptr;
        if (cred.len != 0) {
            CORBA2ZVS(cred, &c);
            pCred = &c;
        }
        nErr = STS_CALL(stsa_create_server, m_ssn, name, pCred, inf, m_hosts.data(), static_cast<int>(count), &m_svh);
        if (nErr != 0) {
            m_svh = nullptr;
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_create_server failed, sts return %d", nErr);
            throw API::STSError(nErr, "fail to create the STS server");
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESINFO, "succeed to create sts server");
        registerOpen();
    } catch (...) {
        undoFailedOpen(szWho);
        throw;
    }
}

// The close of the server handle, the session (unless a target server, which
// uses its parent's) and the library use.  Records only failures.
void StorageServerImpl::closeHandles(CallSequence& cs, const char* szWho)
{
    const HandleClosing closing(*m_gate, cs, site(szWho));
    // No call runs in the server or its children now: the children's
    // handles go first, while the server they belong to is still open.
    m_gate->severChildren();
    if (m_svh == nullptr) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts server handle is NULL");
        failRecorded(cs, STS_ENOT_OPEN, "server has not been opened");
    }
    if (bServerRmtLog) m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "proxyserver remote log shutdown");
    int nErr = STS_CALL(stsa_close_handle, m_svh, 0);
    if (nErr != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_close_server failed, sts return %d", nErr);
        failRecorded(cs, nErr, "fail to close the sts server");
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to close sts server");
    m_svh = nullptr;

    if (!m_bIsTargetServer) {
        if (m_ssn == nullptr) {
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts sesion is NULL");
            failRecorded(cs, STS_ENOT_OPEN, "sts session has not been opened");
        }
        if (m_sd.sd_id != nullptr && m_sm != nullptr) {
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "delete session handle for id %s", m_sd.sd_id);
            m_sm->Erase(m_sd.sd_id, m_ssn);
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to delete session handle for id %s", m_sd.sd_id);
        }
        if (m_sm != nullptr) m_sm->RemoveServer(m_ssn);
        nErr = STS_CALL(stsa_close_handle, m_ssn, 0);
        if (nErr != 0) {
            m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_close_session failed, sts return %d", nErr);
            failRecorded(cs, nErr, "fail to close the sts session");
        }
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to close sts session");
        m_ssn = nullptr;
    } else {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "needn't to close sts session because this is the target server");
    }

    if (!m_bInited) {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "m_bInited is false, not init");
        return;
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "sts_terminate will be called");
    nErr = terminateStorageLibrary(m_plog, &m_sd, szWho, "SUPER1!WRONG");
    if (nErr != 0) {
        // The close still counts as a success.
        m_plog->logMsg(&m_sd, szWho, STS_ESWARN, "sts_terminate failed, sts return %d", nErr);
        return;
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to terminate sts");
    m_bInited = false;
}

void StorageServerImpl::closeServerX(CallSequence& cs)
{
    static const char* szWho = "StorageServerImpl::closeServerX";
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of closing server");
    if (m_bCleanup) {
        m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "cleanup operation only, return directly");
        return;
    }
    closeHandles(cs, szWho);
}

void StorageServerImpl::closeServerV12(API::UInt64 callsequence)
{
    static const char* szWho = "StorageServerImpl::closeServer";
    runSequenced(m_CallSeq, callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of closing server");
            if (m_bCleanup) {
                m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "cleanup operation only, return directly");
            } else {
                closeHandles(cs, szWho);
            }
            // Deactivated after a grace period, so that a retried close
            // still reaches the object.
            cs.storeServantForDeactivate(this, m_vobjPOA);
            cs.recordCompletion(0, "ok");
        });
}

API::StorageServer_ptr StorageServerImpl::openTargetServerV12(API::UInt64 callsequence,
                                                              const char* name,
                                                              const API::Credential& cred,
                                                              const char* inf)
{
    static const char* szWho = "StorageServerImpl::openTargetServer";
    return runSequenced(m_CallSeq, callsequence, szWho, nullptr,
        [](CallSequence& cs) {
            API::StorageServer_ptr ref = API::StorageServer::_nil();
            cs.getStorageServerPtr(ref);
            return ref;
        },
        [&](CallSequence& cs) {
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of opening target server");
            StorageServerImpl* target =
                new (std::nothrow) StorageServerImpl(m_vobjPOA, m_plog, m_sm, &m_sd, m_gate);
            if (target == nullptr) {
                errno = ENOMEM;
                m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "new StorageSvrImpl failed");
                // Not recorded: a retry of this number gets "unknown exception".
                throw API::STSError(STS_ENOMEM_OBJ, "fail to new one instance of StorageServerImpl on server side");
            }
            PortableServer::ServantBase_var owner = target;
            API::StorageServer_var ref = target->_this();
            if (CORBA::is_nil(ref)) {
                m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "StorageSvr object is nil");
                failRecorded(cs, STS_ESEQUENCE, "fail to get reference to StorageServer object on server side");
            }
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to get reference of StorageServer object");
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "storage server name pass in is %s", name);

            sts_cred_t c = {};
            const sts_cred_t* pCred = nullptr;
            if (cred.len != 0) {
                logCredential(szWho, "cert length %d, cert type %d", cred);
                int nConv = 0;
                {
                    ACE_Guard<ACE_Thread_Mutex> guard(gs_rsaMutex);
                    nConv = CORBA2ZVS(cred, &c);
                }
                m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "nErr = %d", nConv);
                m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "cr_len is %d, cr_type is %d, cr_cert %s",
                               static_cast<int>(c.cr_len), static_cast<int>(c.cr_type), maskedCredential(c).c_str());
                pCred = &c;
            }
            sts_server_handle_t target_svh = nullptr;
            const int nErr = STS_CALL(stsa_open_target_server, m_svh, name, pCred, inf, &target_svh);
            if (nErr != 0) {
                m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_open_target_server failed, sts return %d", nErr);
                failRecorded(cs, nErr, "fail to open the STS server");
            }
            m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to open sts server");
            target->setHandle(target_svh);
            target->setIsTargetServer(true);
            target->registerOpen();
            cs.setStorageServerPtr(ref);
            cs.recordCompletion(0, "ok");
            return ref._retn();
        });
}
