// A mailbox of the service's own log lines: postRmtLog copies each line the
// log writes into every open mailbox, and a client drains its mailbox by
// polling getRemoteLogV12, one line a call.  Nothing is pushed.  A mailbox
// holds a bounded number of lines and closes when its client stops polling
// (LogMailbox.h), so that a client that goes away costs nothing for long.
#ifndef KELD_PROXY_REMOTELOGGERIMPL_H
#define KELD_PROXY_REMOTELOGGERIMPL_H

#include "LogMailbox.h"
#include "ServantSupport.h"

#include "Proxy.hh"

#include <ace/Map_Manager.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <chrono>

class CallSequence;
class ProxyLogger;
class RemoteLoggerImpl;

using LoggerMap = ACE_Map_Manager<int, RemoteLoggerImpl*, ACE_Thread_Mutex>;

// Every open mailbox by id; made at the first open and never deleted.
extern LoggerMap* gs_loggerObjMap;
// Guards the ids and the making of the map.
extern ACE_Thread_Mutex gs_logger_mutex;
// The next id: only rises, so ids are never reused.
extern int gs_loggerCount;
// Set at the first open and never cleared: from then on each line of the
// service's log goes to every open mailbox through postRmtLog.
extern std::atomic<bool> bServerRmtLog;
// Kept beside it with no behaviour of its own.
extern std::atomic<bool> bPluginRmtLog;
// Copies one written line into every open mailbox, and takes those that
// closed for idleness out of the map; raises STSError 2060058 for a null line.
void postRmtLog(const char* log);

class RemoteLoggerImpl : public virtual POA_API::RemoteLogger {
public:
    using Clock = LogMailbox::Clock;

    // How long a mailbox may go unpolled before it closes: far longer than
    // any reader that polls in a loop pauses, and short enough that a client
    // gone without closing gives its memory back soon.  main sets the limit
    // from the master configuration.
    static constexpr std::chrono::seconds kDefaultIdleLimit{600};
    static void setIdleLimit(Clock::duration limit);
    static Clock::duration idleLimit();

    explicit RemoteLoggerImpl(ProxyLogger* plog);
    ~RemoteLoggerImpl() override;

    // A mailbox closed for idleness raises STSError 2060014.
    CORBA::Long getRemoteLogV12(API::UInt64 callsequence, API::SessionDefinition_out sdOut, API::LogMessage_out logOut) override;
    void closeRmtLoggerV12(API::UInt64 callsequence) override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    CORBA::Long getRemoteLog(API::SessionDefinition_out sd, API::LogMessage_out log) override;
    void closeRmtLogger() override;

    void openRmtLogger();                    // the channel manager's open
    void openRmtLoggerX(CallSequence& cs);   // the server manager's open
    // A close of a mailbox already closed for idleness succeeds.
    void closeRmtLoggerX(CallSequence& cs);
    // False once the mailbox has closed for idleness.
    bool enQueue(const LogMailbox::Line& line, Clock::time_point now);

private:
    friend void postRmtLog(const char* log);
    static void retireIdle(int id);

    void bindInMap(CallSequence* cs);
    void unbindFromMap(CallSequence* cs);
    bool leaveMap();
    static void logIdleClose(ProxyLogger* plog, int id);

    int m_loggerId = 0;
    bool m_bound = false;   // in the map; changed only under the map's walk lock
    LogMailbox m_mailbox;
    ProxyLogger* m_plog;
};

#endif
