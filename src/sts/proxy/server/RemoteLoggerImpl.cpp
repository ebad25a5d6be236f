#include "RemoteLoggerImpl.h"

#include "CallSequence.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_unistd.h>
#include <cerrno>
#include <cstdio>
#include <new>
#include <shared_mutex>

LoggerMap* gs_loggerObjMap = nullptr;
ACE_Thread_Mutex gs_logger_mutex;
int gs_loggerCount = 1;
bool bServerRmtLog = false;
bool bPluginRmtLog = false;

namespace {

// Lets many threads walk the map while a bind or unbind waits for them, so
// that a mailbox is never destroyed under a walk.  It is not gs_logger_mutex:
// opening a mailbox logs while it holds that lock, and logging walks.
std::shared_mutex gs_loggerWalk;

} // namespace

// Posts one written line to every open mailbox, on the thread of whatever
// logged.
void postRmtLog(const char* log)
{
    if (log == nullptr) throw API::STSError(STS_ESEQUENCE, "log message is NULL, invalid.");
    std::shared_lock<std::shared_mutex> walk(gs_loggerWalk);
    if (gs_loggerObjMap == nullptr) return;
    for (LoggerMap::iterator it = gs_loggerObjMap->begin(); it != gs_loggerObjMap->end(); ++it) {
        if ((*it).int_id_->enQueue(log) != 0) throw API::STSError(STS_ESEQUENCE, "enQueue logger failed.");
    }
}

RemoteLoggerImpl::RemoteLoggerImpl(ProxyLogger* plog) : m_plog(plog)
{
    m_plog->logMsg(nullptr, "RemoteLoggerImpl::RemoteLoggerImpl", STS_ESDEBUG,
                   "new RemoteLogger instance %p, create message queue.", static_cast<void*>(this));
    m_mq = new std::queue<std::string, std::deque<std::string>>;
}

// A mailbox still open when it goes (its POA was destroyed) leaves the map
// first: the map holds a plain pointer.
RemoteLoggerImpl::~RemoteLoggerImpl()
{
    if (m_bound) {
        try {
            unbindFromMap(nullptr);
        } catch (const API::STSError&) {
            // Not in the map after all: nothing points at this object.
        }
    }
    m_plog->logMsg(nullptr, "RemoteLoggerImpl::~RemoteLoggerImpl", STS_ESDEBUG,
                   "object of RemoteLoggerImpl is destoryed here %p, delete queue",
                   static_cast<void*>(this));
    delete m_mq;
}

int RemoteLoggerImpl::enQueue(const char* log)
{
    if (log == nullptr) return STS_EINVAL_ARG;
    std::string line(log);
    std::lock_guard<std::mutex> lock(m_mqLock);
    m_mq->push(std::move(line));
    return 0;
}

// The two opens differ only in recording their failure in the caller's
// record before raising.
void RemoteLoggerImpl::bindInMap(CallSequence* cs)
{
    static const char* szWho = "RemoteLoggerImpl::openRmtLogger";
    ACE_Guard<ACE_Thread_Mutex> guard(gs_logger_mutex);
    if (!guard.locked()) return;
    m_loggerId = gs_loggerCount++;
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "The RemoteLogger Id is %d", m_loggerId);
    if (gs_loggerObjMap == nullptr) {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "Logger Object is NULL, new one.");
        gs_loggerObjMap = new LoggerMap;
    }
    int rc = 0;
    {
        std::unique_lock<std::shared_mutex> walk(gs_loggerWalk);
        rc = gs_loggerObjMap->bind(m_loggerId, this);
    }
    if (rc == 0) {
        m_bound = true;
        bServerRmtLog = true;
        setRemoteLogPoster(postRmtLog);
        return;
    }
    const char* text = rc == 1 ? "Remote Logger has already in map." : "cannot bind to logger map.";
    if (cs != nullptr) failRecorded(*cs, STS_ESEQUENCE, text);
    throw API::STSError(STS_ESEQUENCE, text);
}

void RemoteLoggerImpl::unbindFromMap(CallSequence* cs)
{
    ACE_Guard<ACE_Thread_Mutex> guard(gs_logger_mutex);
    int rc = -1;
    {
        std::unique_lock<std::shared_mutex> walk(gs_loggerWalk);
        if (gs_loggerObjMap != nullptr) rc = gs_loggerObjMap->unbind(m_loggerId);
    }
    if (rc == 0) {
        m_bound = false;
        return;
    }
    if (cs != nullptr) failRecorded(*cs, STS_ESEQUENCE, "fail to unbind the logger map.");
    throw API::STSError(STS_ESEQUENCE, "fail to unbind the logger map.");
}

void RemoteLoggerImpl::openRmtLogger()
{
    bindInMap(nullptr);
}

void RemoteLoggerImpl::openRmtLoggerX(CallSequence& cs)
{
    bindInMap(&cs);
}

void RemoteLoggerImpl::closeRmtLoggerX(CallSequence& cs)
{
    unbindFromMap(&cs);
}

// The object stays active: the caller deactivates it, and a directly closed
// mailbox can still be drained.
void RemoteLoggerImpl::closeRmtLoggerV12(API::UInt64)
{
    unbindFromMap(nullptr);
}

// Non-blocking; a poll does not count as a request for the idle timer, so
// polling alone does not keep the service alive.
CORBA::Long RemoteLoggerImpl::getRemoteLogV12(API::UInt64, API::SessionDefinition_out sdOut,
                                              API::LogMessage_out logOut)
{
    char host[512] = {0};
    ACE_OS::hostname(host, sizeof(host));
    sts_session_def_t sd = {};
    std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "%s%s", "remote log from storage server:", host);
    sd.sd_id = "";

    API::SessionDefinition* def = newOutRecord<API::SessionDefinition>();
    sdOut = def;
    std::lock_guard<std::mutex> lock(m_mqLock);
    if (m_mq->empty()) {
        logOut = CORBA::string_dup("");
        return STS_ENO_EVENT;
    }
    ZVS2CORBA(sd, def);
    logOut = CORBA::string_dup(m_mq->front().c_str());
    m_mq->pop();
    return 0;
}

CORBA::Long RemoteLoggerImpl::getRemoteLog(API::SessionDefinition_out, API::LogMessage_out)
{
    refuseOperation();
}

void RemoteLoggerImpl::closeRmtLogger()
{
    refuseOperation();
}
