// The jobs each client session has announced, kept beside the process-wide
// count that the idle timer and a stop look at (nActiveJobCounter), so that
// the jobs of a client that went away end with it instead of holding a stop
// for an hour: when its session is cleaned up (endSession), or when it has
// made no call for a while (endIdle, which IdleJobSweep runs on a timer).
// A job ended that way which its client reports ended after all is not
// taken off the count a second time.
//
// A session which goes on calling keeps its jobs however long they last:
// its calls are seen through the servers it has open (lastCallOf, which the
// session registry answers from their gates), and increase and decrease
// count as calls themselves.  The counts of the sessions and the
// process-wide count change together under that count's mutex: the
// process-wide count is the sum of what the sessions hold.  Like it, a
// session's count has no floor at 0.  All members may be called from any
// thread; an id may be null (the session without an id).
#ifndef KELD_PROXY_SESSIONJOBS_H
#define KELD_PROXY_SESSIONJOBS_H

#include "sts_types.h"

#include <ace/Event_Handler.h>
#include <ace/Thread_Mutex.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

class ACE_Reactor;
class ProxyLogger;

class SessionJobs {
public:
    typedef std::chrono::steady_clock Clock;
    // Jobs ended on behalf of a session, and the process-wide count after.
    struct Ended {
        std::string id;
        sts_int64_t jobs;
        sts_int64_t total;
    };

    // total and its mutex outlive this object; nothing else writes total.
    SessionJobs(std::atomic<sts_int64_t>& total, ACE_Thread_Mutex& totalMutex);
    SessionJobs(const SessionJobs&) = delete;
    SessionJobs& operator=(const SessionJobs&) = delete;

    // A job of the session begins or ends; the process-wide count after it.
    sts_int64_t increase(const char* id);
    sts_int64_t decrease(const char* id);
    // Ends the jobs the session holds; jobs 0 when it holds none.
    Ended endSession(const char* id);
    // When the session's servers last saw a call.
    using LastCall = std::function<Clock::time_point(const std::string& id)>;
    // Ends the jobs of every session that has made no call for idleBound.
    std::vector<Ended> endIdle(Clock::duration idleBound, const LastCall& lastCallOf);

private:
    struct Session {
        sts_int64_t jobs = 0;     // announced and not ended
        sts_int64_t ended = 0;    // ended on its behalf, not yet reported ended
        Clock::time_point lastCall;
    };
    typedef std::map<std::string, Session, std::less<>> Sessions;

    sts_int64_t endJobs(Session& session);

    std::atomic<sts_int64_t>& m_total;
    ACE_Thread_Mutex& m_mutex;
    Sessions m_sessions;
};

// Ends the jobs of idle sessions on the reactor's timer, with a warning
// line for each session.
class IdleJobSweep : public ACE_Event_Handler {
public:
    IdleJobSweep(SessionJobs& jobs, ProxyLogger* plog, SessionJobs::LastCall lastCallOf);
    // Looks every so often, for sessions idle for idleBound; 0 never looks.
    // The reactor drops the timer when it is closed.
    void schedule(ACE_Reactor* reactor, std::chrono::seconds idleBound);
    int handle_timeout(const ACE_Time_Value& now, const void* act) override;

private:
    SessionJobs& m_jobs;
    ProxyLogger* m_plog;
    SessionJobs::LastCall m_lastCallOf;
    std::chrono::seconds m_idleBound{0};
};

#endif
