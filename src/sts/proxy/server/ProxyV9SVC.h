// The service object: fills the framework's hooks.  It decides how many ORB
// threads run, which two objects are published under which names, and when
// an idle service ends itself; at stop it closes every storage session still
// open and removes shared-memory LSUs left behind.
#ifndef KELD_PROXY_PROXYV9SVC_H
#define KELD_PROXY_PROXYV9SVC_H

#include "OrbService.h"
#include "SessionJobs.h"
#include "SessionManager.h"
#include "sts_types.h"

#include <ace/Event_Handler.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <chrono>
#include <memory>
#include <omniORB4/CORBA.h>
#include <string>

class InsecureProxyServerEvaluator;
class MetricsEndpoint;
class ProxyLogger;
class SessionManager;
class StorageServerManagerImpl;
class EventChannelManagerImpl;

// Work in flight and the idle timer's memory, shared with the servants.
// Every served call sets the flag; the idle timer reads and clears it.
extern std::atomic<bool> bReceivedRequest;
extern std::atomic<sts_int64_t> copy_extent_count;   // written under gs_cecMutex, read by the timer
extern std::atomic<sts_int64_t> nActiveJobCounter;   // written under gs_jobCounterMutex
extern int alive_retry_limit;
extern int alive_retry_attempt;
extern bool bTimeout;
extern ACE_Thread_Mutex gs_cecMutex;
extern ACE_Thread_Mutex gs_jobCounterMutex;
// The jobs of each session beside nActiveJobCounter: its only writer.
SessionJobs& sessionJobs();
// Debug level from the master configuration, written once by main.
extern int VERBOSE;

class ProxyV9SVC : public virtual ACE_Event_Handler, public OrbService {
public:
    ProxyV9SVC(int argc, ACE_TCHAR** argv, ProxyLogger* plog, bool bUseDefaultPOA, bool bTimer,
               int interval, const char* serviceName, bool consoleMode);
    ~ProxyV9SVC() override;

    int handle_timeout(const ACE_Time_Value& current_time, const void* act) override;

    int cleanupSharedMemory();
    int cleanupOneSharedMemory(char* lsuname);

    int getThreadNumberFromTouchFile();
    int getTimeoutValueFromTouchFile();

    // Read-only views for the operator and the tests.
    bool timerRunning() const { return m_doTimer; }
    int intervalSeconds() const { return m_interval; }

protected:
    // Puts the TLS transport in place when the master configuration names
    // its files: it must exist before the ORB starts.
    bool doShouldStart() override;
    void doInit() override;
    int doRun() override;
    void doStop() override;
    void doStopAgain() override;
    void doExit() override;
    int fini() override;
    bool waitForFullStop(const ACE_Time_Value& timeout) override;

private:
    struct TouchFile;
    struct EntryTexts {
        const char* allocationFailed;
        const char* made;
        const char* nil;
        const char* active;
    };
    template <typename Servant>
    CORBA::Object_ptr activateEntryObject(const char* szWho, Servant* servant,
                                          const EntryTexts& texts);
    int readTouchFile(const TouchFile& file);
    void cancelTimer(const char* szWho);
    void closeRegisteredSessions(const char* szWho);
    void cleanupAtEnd(const char* szWho, sts_severity_t failSeverity, const char* failFormat);
    void waitForWorkInFlight(const char* szWho);
    [[noreturn]] void endWithCallsRunning(const char* szWho);
    void readStopSettings(const char* szWho);
    void scheduleJobSweep();
    void prepareTls(const char* szWho);
    void installPeerAdmission(const char* szWho);
    void reportOversizedMessages(const char* szWho);
    // Binds METRICS_ENDPOINT when it is set; a malformed or taken address
    // stops the start.  It answers once the service serves.
    void prepareMetrics(const char* szWho);
    std::string scrapeMetrics();
    void metricsStopping();
    [[noreturn]] void refuseStart(const char* szWho, const std::string& text);

    CORBA::ORB_var m_vobjORB;
    PortableServer::POA_var m_vobjRootPOA;
    PortableServer::POAManager_var m_vobjRootPOAManager;
    StorageServerManagerImpl* m_StorageSvrMgrServant = nullptr;
    EventChannelManagerImpl* m_EvchannelMgrServant = nullptr;
    bool m_bUseDefaultPOA;
    int m_nArgc;
    ACE_TCHAR** m_ppstrArgv;
    ProxyLogger* m_plog;
    std::unique_ptr<SessionManager> m_sm;
    // Timer wanted, then running; whoever clears it cancels the timer, so
    // the idle tick and a stop never both do.
    std::atomic<bool> m_doTimer;
    int m_interval;
    long m_timerId = -1;
    std::shared_ptr<InsecureProxyServerEvaluator> m_evaluator;   // null while admission is off
    std::chrono::seconds m_stopGrace{30};     // for the calls still running at a stop
    std::chrono::seconds m_jobIdleBound{600};
    IdleJobSweep m_jobSweep;
    // Last, so that it stops answering before what it reads goes.
    std::unique_ptr<MetricsEndpoint> m_metrics;
};

#endif
