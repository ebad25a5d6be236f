// How the service ends: the wait for work in flight, a bounded grace for
// the calls still running, the cleanup of what clients left open, and the
// end of the jobs of clients that went away.
#include "ProxyV9SVC.h"

#include "ClosedObjects.h"
#include "ConcurrencyGate.h"
#include "MasterConfig.h"
#include "MetricsEndpoint.h"
#include "ProxyLogger.h"
#include "ServiceNotify.h"
#include "SessionManager.h"
#include "StsBinding.h"

#include <ace/OS_NS_unistd.h>
#include <algorithm>
#include <string>

namespace {

const int STOP_WAIT_ROUNDS = 720;
const int STOP_WAIT_SECONDS = 5;

} // namespace

SessionJobs& sessionJobs()
{
    // Never destroyed: a call still running while the process ends may count.
    static SessionJobs* jobs = new SessionJobs(nActiveJobCounter, gs_jobCounterMutex);
    return *jobs;
}

void ProxyV9SVC::readStopSettings(const char* szWho)
{
    const MasterConfig* cfg = get_master_config_ptr();
    // Even with no call running, the ORB takes a moment to say so.
    m_stopGrace = std::chrono::seconds(std::max(cfg->STOP_GRACE_SECONDS, 1));
    m_jobIdleBound = std::chrono::seconds(cfg->JOB_IDLE_SECONDS);
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                   "calls still running at a stop get %lld seconds; a session's jobs end after %d seconds without a call",
                   static_cast<long long>(m_stopGrace.count()), cfg->JOB_IDLE_SECONDS);
}

void ProxyV9SVC::scheduleJobSweep()
{
    m_jobSweep.schedule(getOrb()->getReactor(), m_jobIdleBound);
}

void ProxyV9SVC::waitForWorkInFlight(const char* szWho)
{
    m_plog->logMsg(nullptr, szWho, STS_ESWARN, "doStop called abnormally");
    for (int retry = 0; retry < STOP_WAIT_ROUNDS; ++retry) {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "copy extent count is %lld, active job is %lld",
                       static_cast<long long>(copy_extent_count),
                       static_cast<long long>(nActiveJobCounter));
        if (copy_extent_count < 1 && nActiveJobCounter < 1) {
            m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "it is safe to stop proxy server now");
            return;
        }
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                       "there are ongoing sts_copy_extent operation or backup job running, don't stop proxy server, sleep %d seconds and retry %d of %d",
                       STOP_WAIT_SECONDS, retry, STOP_WAIT_ROUNDS);
        ServiceNotify::status("stopping: waiting for " + std::to_string(nActiveJobCounter.load()) + " job(s) and " +
                              std::to_string(copy_extent_count.load()) + " copy operation(s), check " +
                              std::to_string(retry + 1) + " of " + std::to_string(STOP_WAIT_ROUNDS));
        ACE_OS::sleep(STOP_WAIT_SECONDS);
    }
}

void ProxyV9SVC::closeRegisteredSessions(const char* szWho)
{
    if (m_sm == nullptr) return;
    // Servers a client left open go first, each with its children and its
    // session, as soon as no call is inside it.
    for (const std::shared_ptr<ServantGate>& server : m_sm->Servers()) server->sever();
    for (sts_handle_t h = m_sm->Pop(); h != nullptr; h = m_sm->Pop()) {
        // Still owned by a server a call runs in: its server closes it.
        if (m_sm->ServerOf(h) != nullptr) continue;
        if (STS_CALL(stsa_close_handle, h, 8) == 0) {
            m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to close one session handle");
        }
    }
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "there is no sts session handle opened, break");
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to cleanup session manager");
}

void ProxyV9SVC::cleanupAtEnd(const char* szWho, sts_severity_t failSeverity, const char* failFormat)
{
    ClosedObjects::process().stop();
    closeRegisteredSessions(szWho);
    const int nErr = cleanupSharedMemory();
    if (nErr != 0) {
        m_plog->logMsg(nullptr, szWho, failSeverity, failFormat, nErr);
    } else {
        m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "succeed to cleanup shared memory");
    }
}

// Calls that outlived the grace (a plug-in stuck on a hung mount or a pipe)
// keep their sessions and handles: closing those, or unloading the library,
// would pull them from under the calls.  The next start removes leftover
// shared-memory LSUs.
void ProxyV9SVC::endWithCallsRunning(const char* szWho)
{
    m_plog->logMsg(nullptr, szWho, STS_ESWARN,
                   "%d call(s) still running %lld seconds after the stop began to wait for them; the service ends without them and leaves their sessions open",
                   ConcurrencyGate::upcalls().active(), static_cast<long long>(m_stopGrace.count()));
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "end of doStop");
    endProcessNow(0);
}

void ProxyV9SVC::doStop()
{
    static const char* szWho = "ProxyV9SVC::doStop";
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "pid id %d", static_cast<int>(ACE_OS::getpid()));
    metricsStopping();
    if (!bTimeout) waitForWorkInFlight(szWho);
    bTimeout = false;
    // Nothing is sent: clients learn of the stop from their broken connection.
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG,
                   "prepare to stop proxy service, send out SHUTDOWN event");
    cancelTimer(szWho);
    ServiceNotify::status("stopping: giving " + std::to_string(ConcurrencyGate::upcalls().active()) +
                          " running call(s) up to " + std::to_string(m_stopGrace.count()) + " s to end");
    // Calls still running get the grace to finish: no session is closed and
    // no library unloaded under one, and none is left running while the
    // process ends.
    if (!getOrb()->drainRequests(m_stopGrace)) endWithCallsRunning(szWho);
    cleanupAtEnd(szWho, STS_ESWARN, "clean shared memory failed, return %d, continue to stop service");
    m_metrics.reset();   // its threads must not outlive what the exit destroys
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "end of doStop");
    exitProcess(0);
}

// The operator asked twice: what the stop still waits for (jobs, calls, a
// plug-in's cleanup) is given up.
void ProxyV9SVC::doStopAgain()
{
    m_plog->logMsg(nullptr, "ProxyV9SVC::doStopAgain", STS_ESWARN,
                   "stop signal received again while stopping: the service ends at once, %d call(s) running",
                   ConcurrencyGate::upcalls().active());
    endProcessNow(0);
}

void ProxyV9SVC::doExit()
{
    static const char* szWho = "ProxyV9SVC::doExit";
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "doExit() enter");
    metricsStopping();
    cleanupAtEnd(szWho, STS_ESWARN, "clean shared memory failed, return %d, continue to stop service");
    m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, "doExit ends");
}
