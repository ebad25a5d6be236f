#include "ProxyV9SVC.h"

#include "BoundedCopy.h"
#include "ClosedObjects.h"
#include "CommandLine.h"
#include "KeldvPaths.h"
#include "MasterConfig.h"
#include "MetricsEndpoint.h"
#include "ProxyLogger.h"
#include "SessionManager.h"
#include "StsBinding.h"
#include "EventChannelManagerImpl.h"
#include "StorageServerManagerImpl.h"
#include <cerrno>
#include <new>

#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>
#include <cstdio>
#include <cstdlib>
#include <string>

std::atomic<bool> bReceivedRequest{false};
std::atomic<sts_int64_t> copy_extent_count{0};
std::atomic<sts_int64_t> nActiveJobCounter{0};
int alive_retry_limit = 20;
int alive_retry_attempt = 0;
bool bTimeout = false;
ACE_Thread_Mutex gs_cecMutex;
ACE_Thread_Mutex gs_jobCounterMutex;
int VERBOSE = 0;

namespace {

const int DEFAULT_THREAD_NUMBER = 30;
// More request threads than this is a typing mistake, not a plan.
const long MAX_THREAD_NUMBER = 1024;

std::string touchFileDirectory()
{
    return keldvPath("keldrive/logs");
}

// Reads the first line of a touch file as a number, the way "%d" would,
// but without overflow: a value beyond the range of a long is held at its
// end.  Returns false when the file is missing (*missing set) or the line
// does not parse.
bool readTouchFileNumber(const char* name, long& value, bool& missing)
{
    char buffer[1024] = {0};
    const std::string dir = touchFileDirectory();
    missing = read_AD_HOC_config_entry(dir.c_str(), name, 0, buffer, sizeof(buffer), 0,
                                       __FILE__, __LINE__) != 0;
    if (missing) return false;
    char* end = nullptr;
    value = std::strtol(buffer, &end, 10);
    return end != buffer;
}

// The private session of the leftover cleanup: opened and closed exactly as
// a client would, and unrelated to any client's session.
class CleanupSession {
public:
    CleanupSession(ProxyLogger* plog, const char* szWho) : m_plog(plog), m_szWho(szWho)
    {
        m_sd.sd_proxy[0] = '\0';
        m_sd.sd_connectFailedPTR = nullptr;
        m_sd.sd_id = "cleanup";
        m_sd.sd_log = logm;
        m_sd.sd_flags = 15;
    }

    template <typename... Args>
    void log(sts_severity_t sev, const char* fmt, Args... args)
    {
        if constexpr (sizeof...(Args) == 0)
            m_plog->logMsg(&m_sd, m_szWho, sev, "%s", fmt);   // a line with no arguments is text
        else
            m_plog->logMsg(&m_sd, m_szWho, sev, fmt, args...);
    }

    // Init, session and server; stops at the first failure and keeps what
    // it has, so close() still undoes exactly that.
    void open()
    {
        int nErr = initCounted();
        if (nErr != 0) {
            log(STS_ESERROR, "sts_init failed, return %d", nErr);
            nRetVal = nErr;
            return;
        }
        bInited = true;
        log(STS_ESDEBUG, "succeed to init sts");

        nErr = STS_CALL(stsa_open_session, &m_sd, &ssn);
        if (nErr != 0) {
            ssn = nullptr;
            log(STS_ESERROR, "sts_open_session failed, return %d", nErr);
            nRetVal = nErr;
            return;
        }
        log(STS_ESDEBUG, "succeed to open sts session");

        char host[512] = {0};
        char svn[512] = {0};
        ACE_OS::hostname(host, sizeof(host));
        std::snprintf(svn, sizeof(svn), "ShMem:%s", host);
        nErr = STS_CALL(stsa_open_server, ssn, svn, nullptr, "", &svh);
        if (nErr != 0) {
            svh = nullptr;
            log(STS_ESERROR, "sts_open_server %s failed, return %d", svn, nErr);
            nRetVal = nErr;
            return;
        }
        log(STS_ESDEBUG, "succeed to open sts server %s", svn);
    }

    void closeHandle(sts_handle_t& h, const char* failText, const char* okText)
    {
        if (h == nullptr) return;
        const int nErr = STS_CALL(stsa_close_handle, h, 0);
        if (nErr != 0) {
            log(STS_ESERROR, failText, nErr);
            nRetVal = nErr;
        } else {
            log(STS_ESDEBUG, "%s", okText);
        }
        h = nullptr;
    }

    // Server, session, then the library.  A failed terminate clears the
    // result: the routine then reports success.
    void close()
    {
        closeHandle(svh, "sts_close_server failed, return %d", "succeed to close sts server");
        closeHandle(ssn, "sts_close_session failed, return %d", "succeed to close sts session");
        if (!bInited) return;
        log(STS_ESDEBUG, "sts_termiante will be called");
        int nErr = 0;
        {
            ACE_Guard<ACE_Thread_Mutex> guard(gs_stsMutex);
            nErr = sts_terminate();
            if (--nInitCount < 0) log(STS_ESERROR, "SUPER6!WRONG");
        }
        if (nErr != 0) {
            log(STS_ESWARN, "sts_terminate failed, return %d", nErr);
            nRetVal = 0;
        } else {
            log(STS_ESDEBUG, "succeed to terminate sts");
            bInited = false;
        }
    }

    sts_session_def_t m_sd = {};
    sts_session_t ssn = nullptr;
    sts_server_handle_t svh = nullptr;
    bool bInited = false;
    int nRetVal = 0;

private:
    static int initCounted()
    {
        const std::string dir = keldvPath("lib");
        ACE_Guard<ACE_Thread_Mutex> guard(gs_stsMutex);
        const int nErr = sts_init(STS_VERSION, dir.c_str());
        if (nErr == 0) ++nInitCount;
        return nErr;
    }

    ProxyLogger* m_plog;
    const char* m_szWho;
};

} // namespace

ProxyV9SVC::ProxyV9SVC(int argc, ACE_TCHAR** argv, ProxyLogger* plog, bool bUseDefaultPOA,
                       bool bTimer, int interval, const char* serviceName, bool consoleMode)
    : ACE_Event_Handler(nullptr),
      OrbService(serviceName, 450, nullptr, consoleMode, "STS Proxy Server", false, 1024, nullptr),
      m_bUseDefaultPOA(bUseDefaultPOA),
      m_nArgc(argc),
      m_ppstrArgv(argv),
      m_plog(plog),
      m_doTimer(bTimer),
      m_interval(interval),
      m_jobSweep(sessionJobs(), plog, [this](const std::string& id) {
          return m_sm != nullptr ? m_sm->LastCall(id) : std::chrono::steady_clock::time_point();
      })
{
    static const char* szWho = "ProxyV9SVC::ProxyV9SVC";
    // The ORB options (-ORB...) that main left in the argument vector.
    setOrbArguments(m_nArgc, m_ppstrArgv);
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "bTimer is %s", bTimer ? "true" : "false");
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to initialize %s, interval is %d.",
                   serviceName, interval);
    setLogmLogger(m_plog);
}

// The session registry goes with the service object: by then the ORB, and
// every servant that used it, is gone.  (A stop through doStop ends the
// process before this runs.)
ProxyV9SVC::~ProxyV9SVC() = default;

// What one touch file is called and what its reader logs.
struct ProxyV9SVC::TouchFile {
    const char* szWho;
    const char* name;
    int fallback;
    const char* missingText;      // %s%s%s: directory, "/", name
    const char* unparsableText;   // may show the fallback
    const char* invalidText;      // may show the fallback
    const char* valueText;
    long maximum;                 // a larger value is an operator's mistake
    int beyondValue;              // taken instead of it
    const char* beyondText;       // %ld, %ld, %d: value, maximum, taken
};

int ProxyV9SVC::readTouchFile(const TouchFile& file)
{
    long value = 0;
    bool missing = false;
    if (!readTouchFileNumber(file.name, value, missing)) {
        if (missing) {
            m_plog->logMsg(nullptr, file.szWho, STS_ESDEBUG, file.missingText,
                           touchFileDirectory().c_str(), "/", file.name);
        } else {
            m_plog->logMsg(nullptr, file.szWho, STS_ESDEBUG, file.unparsableText, file.fallback);
        }
        return file.fallback;
    }
    if (value <= 0) {
        m_plog->logMsg(nullptr, file.szWho, STS_ESERROR, file.invalidText, file.fallback);
        return file.fallback;
    }
    if (value > file.maximum) {
        m_plog->logMsg(nullptr, file.szWho, STS_ESWARN, file.beyondText, value, file.maximum,
                       file.beyondValue);
        return file.beyondValue;
    }
    m_plog->logMsg(nullptr, file.szWho, STS_ESDEBUG, file.valueText, static_cast<int>(value));
    return static_cast<int>(value);
}

int ProxyV9SVC::getThreadNumberFromTouchFile()
{
    static const TouchFile file = {
        "getThreadNumberFromTouchFile", "PROXY_SERVER_THREAD_NUMBER", DEFAULT_THREAD_NUMBER,
        "don't find touch file %s%s%s",
        "cannot read line in touch file, use default thread_number %d",
        "thread_number in touch file is invalid, use default %d", "thread_number is %d",
        MAX_THREAD_NUMBER, DEFAULT_THREAD_NUMBER,
        "thread_number %ld in touch file is beyond the maximum of %ld, use default %d"};
    return readTouchFile(file);
}

int ProxyV9SVC::getTimeoutValueFromTouchFile()
{
    static const TouchFile file = {
        "getTimeoutValue", "KELDPXY_TIMEOUT", 0, "didn't find touch file %s%s%s",
        "cannot read line in touch file, return 0",
        "timeout value in touch file is invalid, return 0", "timeout is %d (minutes)",
        kMaxIdleMinutes, static_cast<int>(kMaxIdleMinutes),
        "timeout %ld (minutes) in touch file is beyond the maximum of %ld, use %d"};
    return readTouchFile(file);
}

// Activates one entry object implicitly in the root POA.  The local owner
// drops the creation reference on return: the POA alone keeps the manager.
template <typename Servant>
CORBA::Object_ptr ProxyV9SVC::activateEntryObject(const char* szWho, Servant* servant,
                                                  const EntryTexts& texts)
{
    if (servant == nullptr) {
        errno = ENOMEM;
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "%s", texts.allocationFailed);
        throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
    }
    PortableServer::ServantBase_var owner = servant;
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "%s", texts.made);
    CORBA::Object_var obj = servant->_this();  // activates in the root POA
    if (CORBA::is_nil(obj)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "%s", texts.nil);
        throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
    }
    m_plog->logMsg(nullptr, szWho, STS_ESINFO, "%s", texts.active);
    return obj._retn();
}

// A transfer larger than the ORB takes never reaches a servant: the ORB
// drops the connection, and this line is all the operator gets to see.
void ProxyV9SVC::reportOversizedMessages(const char* szWho)
{
    const unsigned long limit = Orb::maxMessageBytes();
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "largest message taken is %lu bytes", limit);
    ProxyLogger* plog = m_plog;
    getOrb()->reportOversizedMessages([plog, limit](const std::string& peer) {
        plog->logMsg(nullptr, "ProxyV9SVC::reportOversizedMessages", STS_ESERROR,
                     "refused a message to or from %s larger than %lu bytes and closed its connection; "
                     "-ORBgiopMaxMsgSize raises the limit",
                     peer.c_str(), limit);
    });
}

void ProxyV9SVC::doInit()
{
    static const char* szWho = "ProxyV9SVC::doInit";
    Orb* orb = getOrb();
    for (const std::string& option : orb->passedOverOptions()) {
        m_plog->logMsg(nullptr, szWho, STS_ESWARN, "ORB option %s is not known to this ORB, passed over",
                       option.c_str());
    }
    CORBA::Object_var obj = orb->getOrb()->resolve_initial_references("RootPOA");

    installPeerAdmission(szWho);
    orb->setThreadCount(getThreadNumberFromTouchFile());
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "set thread number to %d", orb->getThreadCount());
    reportOversizedMessages(szWho);

    if (CORBA::is_nil(obj)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "RawRootPOA object is nil");
        throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
    }
    m_vobjRootPOA = PortableServer::POA::_narrow(obj);
    if (CORBA::is_nil(m_vobjRootPOA)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "RootPOA object is nil");
        throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
    }
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to get the root POA object.");

    m_vobjRootPOAManager = m_vobjRootPOA->the_POAManager();
    if (CORBA::is_nil(m_vobjRootPOAManager)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "RootPOAManager object is nil");
        throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
    }
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to get the POA Manager object.");

    const int closeRetrySeconds = get_master_config_ptr()->CLOSE_RETRY_SECONDS;
    ClosedObjects::process().setGrace(std::chrono::seconds(closeRetrySeconds));
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "an object closed by its own call stays %d seconds for a resent close",
                   closeRetrySeconds);

    m_sm.reset(new SessionManager(m_plog));
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to new instance of SessionManager");

    // The managers get the running ORB, so that a client's shutdownV12
    // really ends the service.
    m_vobjORB = CORBA::ORB::_duplicate(orb->getOrb());
    CORBA::Object_var storageManager = activateEntryObject(
        szWho, new (std::nothrow) StorageServerManagerImpl(m_vobjORB, m_vobjRootPOA, m_plog, m_sm.get()),
        {"fail to new StorageServerManagerImpl", "succeed to initialize StorageServerManager",
         "StorageSrvMgr object is nil", "succeed to get the StorageServerManager object."});
    CORBA::Object_var channelManager = activateEntryObject(
        szWho, new (std::nothrow) EventChannelManagerImpl(m_vobjORB, m_vobjRootPOA, m_plog),
        {"fail to new EventChannelManagerImpl", "succeed to initialize the EventChannelManager",
         "EvchannelMgr object is nil", "succeed to get the EventChannelManager object."});
    orb->advertiseObject("Proxy.StorageServerManager", storageManager);
    m_plog->logMsg(nullptr, szWho, STS_ESINFO, "succeed to advertise object StorageServerManager");
    orb->advertiseObject("Proxy.EventChannelManager", channelManager);
    m_plog->logMsg(nullptr, szWho, STS_ESINFO, "succeed to advertise object EventChannelManager");

    const int nErr = cleanupSharedMemory();
    if (nErr != 0) {
        m_plog->logMsg(nullptr, szWho, STS_ESWARN,
                       "cleanup shared memory failed, return %d, continue to start proxy service",
                       nErr);
    } else {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to cleanup shared memory");
    }

    bReceivedRequest = false;
    readStopSettings(szWho);
    scheduleJobSweep();

    if (m_doTimer) {
        const int timeout = getTimeoutValueFromTouchFile();
        if (timeout != 0) m_interval = timeout * 60;
        const ACE_Time_Value every(m_interval);
        m_timerId = orb->getReactor()->schedule_timer(this, nullptr, every, every);
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                       "proxy service's timer id is %d, interval %d seconds",
                       static_cast<int>(m_timerId), m_interval);
    }
}

int ProxyV9SVC::doRun()
{
    if (m_metrics != nullptr) m_metrics->serve();
    return 0;
}

int ProxyV9SVC::fini()
{
    return 0;
}

bool ProxyV9SVC::waitForFullStop(const ACE_Time_Value&)
{
    m_plog->logMsg(nullptr, "ProxyV9SVC::waitForFullStop", STS_ESDEBUG, "enter");
    return false;
}

int ProxyV9SVC::handle_timeout(const ACE_Time_Value&, const void*)
{
    static const char* szWho = "ProxyV9SVC::handle_timeout";
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "copy extent counter is %lld, active job is %lld",
                   static_cast<long long>(copy_extent_count),
                   static_cast<long long>(nActiveJobCounter));
    if (bReceivedRequest.exchange(false) || copy_extent_count >= 1) {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                       "received coming-in request or copy extent operations ongoing, continue proxy service");
        alive_retry_attempt = 0;
        return 0;
    }
    if (nActiveJobCounter > 0 && alive_retry_attempt < alive_retry_limit) {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                       "there are still [%lld] active job running, retry %d of %d, continue proxy service",
                       static_cast<long long>(nActiveJobCounter), alive_retry_attempt,
                       alive_retry_limit);
        ++alive_retry_attempt;
        return 0;
    }
    // The text claims no job even when the retries ran out with one counted.
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                   "there is no request, no active job running and no ongoging copy extent operation, stop proxy service");
    bTimeout = true;
    stopByEvent(false);
    cancelTimer(szWho);
    return 0;
}

void ProxyV9SVC::cancelTimer(const char* szWho)
{
    if (!m_doTimer.exchange(false)) return;
    // A timer of interval 0 fires once and is gone by then: nothing to cancel.
    if (m_interval == 0) return;
    if (getOrb()->getReactor()->cancel_timer(m_timerId, nullptr, 1) == 1) {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "canceled the timer");
    } else {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "timer %d was not found",
                       static_cast<int>(m_timerId));
    }
}

int ProxyV9SVC::cleanupSharedMemory()
{
    static const char* szWho = "ProxyV9SVC::cleanupSharedMemory";
    CleanupSession s(m_plog, szWho);
    s.open();

    sts_lsu_list_handle_t llh = nullptr;
    sts_lsu_t lsu = {};
    if (s.svh != nullptr) {
        lsu.stl_server_handle = s.svh;
        sts_lsu_def_t lsudef = {};
        const int nErr = STS_CALL(stsa_open_lsu_list, s.svh, &lsudef, &llh);
        if (nErr != 0) {
            llh = nullptr;
            s.log(STS_ESERROR, "open lsu list failed, retrun %d", nErr);
            s.nRetVal = nErr;
        } else {
            s.log(STS_ESDEBUG, "succeed to open lsu list");
        }
    }
    if (llh != nullptr) {
        sts_lsu_name_t name = {};
        int nErr = 0;
        while ((nErr = STS_CALL(stsa_list_lsu, llh, &name)) == 0) {
            s.log(STS_ESDEBUG, "get one lsu %s", name.sln_name);
            boundedCopy(lsu.stl_lsu_name.sln_name, name.sln_name, sizeof(lsu.stl_lsu_name.sln_name));
            const int rc = STS_CALL(stsa_delete_lsu, &lsu);
            if (rc == 0) {
                s.log(STS_ESDEBUG, "succeed to delete lsu %s", name.sln_name);
            } else if (rc == STS_EBUSY_AGAIN) {
                s.log(STS_ESDEBUG, "sts_delete_lsu %s failed is busy, return %d", name.sln_name, rc);
            } else {
                s.log(STS_ESERROR, "sts_delete_lsu %s failed, return %d", name.sln_name, rc);
            }
        }
        if (nErr == STS_ENO_MORE) {
            s.log(STS_ESDEBUG, "reach the end of lsu");
        } else {
            s.log(STS_ESERROR, "sts_list_lsu failed, return %d", nErr);
            s.nRetVal = nErr;
        }
        s.closeHandle(llh, "sts_close_lsu_list failed, return %d", "succeed to close lsu list");
    }
    s.close();
    return s.nRetVal;
}

int ProxyV9SVC::cleanupOneSharedMemory(char* lsuname)
{
    static const char* szWho = "ProxyV9SVC::cleanupOneSharedMemory";
    CleanupSession s(m_plog, szWho);
    s.open();
    if (s.svh != nullptr) {
        sts_lsu_t lsu = {};
        lsu.stl_server_handle = s.svh;
        boundedCopy(lsu.stl_lsu_name.sln_name, lsuname, sizeof(lsu.stl_lsu_name.sln_name));
        const int rc = STS_CALL(stsa_delete_lsu, &lsu);
        if (rc != 0) {
            s.log(STS_ESERROR, "sts_delete_lsu %s failed, return %d", lsuname, rc);
            s.nRetVal = rc;
        }
        // Logged after a failure too, following the error line.
        s.log(STS_ESDEBUG, "succeed to delete lsu %s", lsuname);
    }
    s.close();
    return s.nRetVal;
}
