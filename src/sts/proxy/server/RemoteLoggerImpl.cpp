#include "RemoteLoggerImpl.h"

#include "CallSequence.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantSite.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_unistd.h>
#include <cstdio>
#include <malloc.h>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

LoggerMap* gs_loggerObjMap = nullptr;
ACE_Thread_Mutex gs_logger_mutex;
int gs_loggerCount = 1;
std::atomic<bool> bServerRmtLog{false};
std::atomic<bool> bPluginRmtLog{false};

namespace {

// Guards what the map holds: many threads walk it while a bind or unbind
// waits for them, so that a mailbox is never destroyed under a walk.  It is
// not gs_logger_mutex: opening a mailbox logs while it holds that lock, and
// logging walks, and may unbind mailboxes that closed for idleness.
std::shared_mutex gs_loggerWalk;

std::atomic<RemoteLoggerImpl::Clock::rep> gs_idleLimitTicks{
    std::chrono::duration_cast<RemoteLoggerImpl::Clock::duration>(RemoteLoggerImpl::kDefaultIdleLimit).count()};

long long idleSeconds()
{
    return static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(RemoteLoggerImpl::idleLimit()).count());
}

} // namespace

void RemoteLoggerImpl::setIdleLimit(Clock::duration limit)
{
    gs_idleLimitTicks = limit.count();
}

RemoteLoggerImpl::Clock::duration RemoteLoggerImpl::idleLimit()
{
    return Clock::duration(gs_idleLimitTicks.load());
}

namespace {

// Posts one written line to every open mailbox, on the thread of whatever
// logged: one copy of the text, shared by them all.  The ids of those that
// have closed for idleness come back.
std::vector<int> postToEveryMailbox(const char* log)
{
    std::vector<int> idle;
    std::shared_lock<std::shared_mutex> walk(gs_loggerWalk);
    if (gs_loggerObjMap == nullptr || gs_loggerObjMap->current_size() == 0) return idle;
    const LogMailbox::Line line = std::make_shared<const std::string>(log);
    const RemoteLoggerImpl::Clock::time_point now = RemoteLoggerImpl::Clock::now();
    for (LoggerMap::iterator it = gs_loggerObjMap->begin(); it != gs_loggerObjMap->end(); ++it) {
        if (!(*it).int_id_->enQueue(line, now)) idle.push_back((*it).ext_id_);
    }
    return idle;
}

// Set while this thread retires mailboxes.
thread_local bool tl_retiring = false;

struct Retiring {
    Retiring() { tl_retiring = true; }
    ~Retiring() { tl_retiring = false; }
    Retiring(const Retiring&) = delete;
    Retiring& operator=(const Retiring&) = delete;
};

// The lines of a closed mailbox go back to the allocator, which keeps freed
// memory for itself unless asked: an unread mailbox of a few MiB should not
// stay in the service's size after its client has gone.
void giveFreedMemoryBack()
{
    malloc_trim(0);
}

} // namespace

// Retiring a mailbox writes a line, which comes back here: that line only
// posts, so that many mailboxes closing at once never nest one retirement
// in the next.
void postRmtLog(const char* log)
{
    if (log == nullptr) throw API::STSError(STS_ESEQUENCE, "log message is NULL, invalid.");
    const std::vector<int> idle = postToEveryMailbox(log);
    if (idle.empty() || tl_retiring) return;
    {
        Retiring retiring;
        for (int id : idle) RemoteLoggerImpl::retireIdle(id);
    }
    giveFreedMemoryBack();
}

// The mailbox may be going meanwhile: it is looked up again under the lock
// its destructor takes too, and not touched after it.  The log outlives it.
void RemoteLoggerImpl::retireIdle(int id)
{
    ProxyLogger* plog = nullptr;
    {
        std::unique_lock<std::shared_mutex> walk(gs_loggerWalk);
        RemoteLoggerImpl* logger = nullptr;
        if (gs_loggerObjMap->find(id, logger) != 0) return;
        gs_loggerObjMap->unbind(id);
        logger->m_bound = false;
        plog = logger->m_plog;
    }
    logIdleClose(plog, id);
}

void RemoteLoggerImpl::logIdleClose(ProxyLogger* plog, int id)
{
    plog->logMsg(nullptr, "RemoteLoggerImpl::closeIdle", STS_ESINFO,
                 "remote logger %d closed: not read for %lld seconds", id, idleSeconds());
}

RemoteLoggerImpl::RemoteLoggerImpl(ProxyLogger* plog) : m_mailbox(Clock::now()), m_plog(plog)
{
    m_plog->logMsg(nullptr, "RemoteLoggerImpl::RemoteLoggerImpl", STS_ESDEBUG,
                   "new RemoteLogger instance %p, create message queue.", static_cast<void*>(this));
}

// A mailbox still open when it goes (its POA was destroyed) leaves the map
// first: the map holds a plain pointer.
RemoteLoggerImpl::~RemoteLoggerImpl()
{
    leaveMap();
    m_plog->logMsg(nullptr, "RemoteLoggerImpl::~RemoteLoggerImpl", STS_ESDEBUG,
                   "object of RemoteLoggerImpl is destoryed here %p, delete queue",
                   static_cast<void*>(this));
}

bool RemoteLoggerImpl::enQueue(const LogMailbox::Line& line, Clock::time_point now)
{
    return m_mailbox.post(line, now, idleLimit());
}

// Out of the map, if it still was; true when this call took it out.
bool RemoteLoggerImpl::leaveMap()
{
    std::unique_lock<std::shared_mutex> walk(gs_loggerWalk);
    if (!m_bound) return false;
    if (gs_loggerObjMap != nullptr) gs_loggerObjMap->unbind(m_loggerId);
    m_bound = false;
    return true;
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
        m_bound = rc == 0;
    }
    if (rc == 0) {
        bServerRmtLog = true;
        setRemoteLogPoster(postRmtLog);
        return;
    }
    const char* text = rc == 1 ? "Remote Logger has already in map." : "cannot bind to logger map.";
    if (cs != nullptr) failRecorded(*cs, STS_ESEQUENCE, text);
    throw API::STSError(STS_ESEQUENCE, text);
}

// A mailbox that closed for idleness has left the map already: closing it
// again is what its client should do, and succeeds.
void RemoteLoggerImpl::unbindFromMap(CallSequence* cs)
{
    ACE_Guard<ACE_Thread_Mutex> guard(gs_logger_mutex);
    if (leaveMap() || m_mailbox.closed()) return;
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
    const UnsequencedCall call;
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
    std::string line;
    switch (m_mailbox.take(line, Clock::now(), idleLimit())) {
    case LogMailbox::Taken::Closed: {
        if (leaveMap()) {
            logIdleClose(m_plog, m_loggerId);
            giveFreedMemoryBack();
        }
        const std::string text = "remote logger closed: not read for " + std::to_string(idleSeconds()) + " seconds";
        throw API::STSError(STS_ENOT_OPEN, text.c_str());
    }
    case LogMailbox::Taken::Empty:
        logOut = CORBA::string_dup("");
        return STS_ENO_EVENT;
    case LogMailbox::Taken::Line:
        break;
    }
    ZVS2CORBA(sd, def);
    logOut = CORBA::string_dup(line.c_str());
    return 0;
}
