// A mailbox of the service's own log lines: postRmtLog copies each line the
// log writes into every open mailbox, and a client drains its mailbox by
// polling getRemoteLogV12, one line a call.  Nothing is pushed.
#ifndef KELD_PROXY_REMOTELOGGERIMPL_H
#define KELD_PROXY_REMOTELOGGERIMPL_H

#include "ServantSupport.h"

#include "Proxy.hh"

#include <ace/Map_Manager.h>
#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <deque>
#include <mutex>
#include <queue>
#include <string>

class CallSequence;
class ProxyLogger;
class RemoteLoggerImpl;

using LoggerMap = ACE_Map_Manager<int, RemoteLoggerImpl*, ACE_Thread_Mutex>;

// Every open mailbox by id; made at the first open and never deleted.
extern LoggerMap* gs_loggerObjMap;
// Guards the ids, the making of the map, bind and unbind.
extern ACE_Thread_Mutex gs_logger_mutex;
// The next id: only rises, so ids are never reused.
extern int gs_loggerCount;
// Set at the first open and never cleared: from then on each line of the
// service's log goes to every open mailbox through postRmtLog.
extern bool bServerRmtLog;
// Kept beside it with no behaviour of its own.
extern bool bPluginRmtLog;
// Copies one written line into every open mailbox; raises STSError 2060058
// for a null line or a mailbox that refuses it.
void postRmtLog(const char* log);

class RemoteLoggerImpl : public virtual POA_API::RemoteLogger {
public:
    explicit RemoteLoggerImpl(ProxyLogger* plog);
    ~RemoteLoggerImpl() override;

    CORBA::Long getRemoteLog(API::SessionDefinition_out sd, API::LogMessage_out log) override;
    CORBA::Long getRemoteLogV12(API::UInt64 callsequence, API::SessionDefinition_out sdOut, API::LogMessage_out logOut) override;
    void closeRmtLogger() override;
    void closeRmtLoggerV12(API::UInt64 callsequence) override;

    void openRmtLogger();                    // the channel manager's open
    void openRmtLoggerX(CallSequence& cs);   // the server manager's open
    void closeRmtLoggerX(CallSequence& cs);
    int enQueue(const char* log);            // 0, or 2060001 for a null line
    std::queue<std::string, std::deque<std::string>>* getQueue() { return m_mq; }

private:
    void bindInMap(CallSequence* cs);
    void unbindFromMap(CallSequence* cs);

    int m_loggerId = 0;
    bool m_bound = false;
    // Writers of log lines push and the polling ORB thread pops, so the
    // queue has a lock of its own, held for one push or pop and never while
    // logging.  It is unbounded: a mailbox nobody polls grows with every line.
    std::mutex m_mqLock;
    std::queue<std::string, std::deque<std::string>>* m_mq;
    ProxyLogger* m_plog;
};

#endif
