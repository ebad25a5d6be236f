#include "EventChannelImpl.h"

#include "CallSequence.h"
#include "ProxyLogger.h"
#include "RemoteLoggerImpl.h"
#include "ServantSite.h"
#include "StsLibrary.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_unistd.h>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

EVC_MAP gs_EvcObjMap;
ACE_Thread_Mutex gs_evchMutex;
int gs_evcCount = 1;

void evHandler(sts_handle_t, sts_event_t*)
{
}

namespace {

// A duplicate of a C text field that may lack its terminator.
char* dupField(const char* field, size_t size)
{
    return CORBA::string_dup(std::string(field, strnlen(field, size - 1)).c_str());
}

API::Event* newEvent()
{
    try {
        return new API::Event();   // value-initialised: an empty event has type and flags 0
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        throw CORBA::NO_MEMORY();
    }
}

} // namespace

EventChannelImpl::EventChannelImpl(const PortableServer::POA_ptr& poa,
                                   const API::EventChannelManager_ptr& evcMgr, ProxyLogger* plog)
    : m_vobjPOA(PortableServer::POA::_duplicate(poa)),
      m_vobjEvcMgr(API::EventChannelManager::_duplicate(evcMgr)),
      m_plog(plog),
      m_sd()
{
    m_plog->logMsg(nullptr, "EventChannelImpl::EventChannelImpl", STS_ESDEBUG,
                   "new EventChannelImpl instance, create event queue");
    m_mq = new EventQueue;
}

// Blocks still queued are not freed: they belong to whoever queued them.
EventChannelImpl::~EventChannelImpl()
{
    static const char* szWho = "EventChannelImpl::~EventChannelImpl";
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "sleep 1 second to wait for plugin to get last one event.");
    ACE_OS::sleep(1);
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "object of EventChannelImpl is destroyed here, delete queue");
    delete m_mq;
}

PortableServer::POA_ptr EventChannelImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

void EventChannelImpl::openEvchannelV12()
{
}

int EventChannelImpl::enQueue(sts_event_t*, int)
{
    return 0;
}

CORBA::Long EventChannelImpl::getEvcIdV12(API::UInt64)
{
    return static_cast<CORBA::Long>(m_evcId);
}

// Polled: never blocks.  Nothing is recorded, so an answer lost on the way
// loses its event; the pop comes last, so a failed allocation loses none.
CORBA::Long EventChannelImpl::getPushEventV12(API::UInt64, API::Event_out event)
{
    static const char* szWho = "EventChannelImpl::getPushEvent";
    const UnsequencedCall call;
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of getting pushed event");
    if (m_mq->empty()) {
        event = newEvent();
        return STS_ENO_EVENT;
    }
    const proxy_event_block_t* block = m_mq->front();
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG,
                   "(ch %d)get one pushed event:\n\ttype - %s%s\n\tserver- %s\n\tflags - %llu\n\tpayload - %s",
                   static_cast<int>(m_evcId), block->ev_type == 0 ? "Normal" : "",
                   block->ev_type == 1 ? "Shutdown" : "", block->ev_svn,
                   static_cast<unsigned long long>(block->ev_flags), block->ev_pl);
    API::Event* out = newEvent();
    event = out;
    out->type = static_cast<API::UInt32>(block->ev_type);
    out->server = dupField(block->ev_svn, sizeof(block->ev_svn));
    out->flags = block->ev_flags;
    out->payload = dupField(block->ev_pl, sizeof(block->ev_pl));
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "(ch %d)delete event after get it", static_cast<int>(m_evcId));
    m_mq->pop();
    return 0;
}

// Ends the channel from the inside out: the channel handle, the channel's
// place in the map and count, the session, the library use, and last the
// object, deactivated at once since no retry record keeps it.
void EventChannelImpl::closeEvchannelV12(API::UInt64)
{
    static const char* szWho = "EventChannelImpl::closeEvchannel";
    const UnsequencedCall call;
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "got one request of closing event channel");
    if (m_evch == nullptr) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "EventChannel is NULL");
        throw API::STSError(STS_ENOT_OPEN, "event channel has not been opened");
    }
    if (bServerRmtLog) m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "proxyserver remote log shutdown");
    const int nErr = STS_CALL(stsa_close_handle, m_evch, 0);
    if (nErr != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_close_handle(evchannel) failed, sts return %d", nErr);
        throw API::STSError(nErr, "fail to close event channel handle");
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESINFO, "succeed to close STS event channel handle.");
    m_evch = nullptr;
    {
        // Held over the call on the manager as well.
        ACE_Guard<ACE_Thread_Mutex> guard(gs_evchMutex);
        if (!CORBA::is_nil(m_vobjEvcMgr)) m_vobjEvcMgr->decreaseCounterV12(0);
        gs_EvcObjMap.unbind(static_cast<int>(m_evcId));
        --gs_evcCount;
    }
    closeSession(szWho);
    terminateLibrary(szWho);
    PortableServer::ObjectId_var id = m_vobjPOA->servant_to_id(this);
    m_vobjPOA->deactivate_object(id.in());
}

void EventChannelImpl::closeSession(const char* szWho)
{
    if (m_ssn == nullptr) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts session is NULL");
        throw API::STSError(STS_ENOT_OPEN, "sts session has not been opened");
    }
    const int nErr = STS_CALL(stsa_close_handle, m_ssn, 0);
    if (nErr != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_close_session failed, sts return %d", nErr);
        throw API::STSError(nErr, "fail to close the STS session");
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to close sts session");
    m_ssn = nullptr;
}

void EventChannelImpl::terminateLibrary(const char* szWho)
{
    if (!m_bInited) return;
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "sts_terminate will be called");
    const int nErr = terminateStorageLibrary(m_plog, &m_sd, szWho, "SUPER8!WRONG");
    if (nErr != 0) {
        m_plog->logMsg(&m_sd, szWho, STS_ESERROR, "sts_terminate failed, sts return %d", nErr);
        throw API::STSError(nErr, "fail to terminate sts module");
    }
    m_plog->logMsg(&m_sd, szWho, STS_ESDEBUG, "succeed to terminate sts module");
    m_bInited = false;
}

CORBA::Long EventChannelImpl::deleteEventV11(const API::Event& ev)
{
    return deleteEventV12(0, ev);
}
