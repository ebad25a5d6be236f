#include "SessionJobs.h"

#include "ProxyLogger.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>
#include <algorithm>

namespace {

const char* nonNull(const char* id)
{
    return id != nullptr ? id : "";
}

} // namespace

SessionJobs::SessionJobs(std::atomic<sts_int64_t>& total, ACE_Thread_Mutex& totalMutex)
    : m_total(total), m_mutex(totalMutex)
{
}

sts_int64_t SessionJobs::increase(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    Session& session = m_sessions[nonNull(id)];
    session.lastCall = Clock::now();
    ++session.jobs;
    return ++m_total;
}

sts_int64_t SessionJobs::decrease(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    auto it = m_sessions.find(nonNull(id));
    if (it == m_sessions.end()) it = m_sessions.emplace(nonNull(id), Session()).first;
    Session& session = it->second;
    session.lastCall = Clock::now();
    if (session.ended > 0) {
        --session.ended;   // already off the count
    } else {
        --session.jobs;
        --m_total;
    }
    if (session.jobs == 0 && session.ended == 0) m_sessions.erase(it);
    return m_total;
}

sts_int64_t SessionJobs::endJobs(Session& session)
{
    const sts_int64_t jobs = std::max<sts_int64_t>(session.jobs, 0);
    session.jobs -= jobs;
    session.ended += jobs;
    m_total -= jobs;
    return jobs;
}

SessionJobs::Ended SessionJobs::endSession(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    auto it = m_sessions.find(nonNull(id));
    const sts_int64_t jobs = it != m_sessions.end() ? endJobs(it->second) : 0;
    return {nonNull(id), jobs, m_total};
}

// An idle session's jobs end; its record stays one more idle bound, for a
// late report of their end, and then goes.
std::vector<SessionJobs::Ended> SessionJobs::endIdle(Clock::duration idleBound, const LastCall& lastCallOf)
{
    std::vector<Ended> ended;
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    const Clock::time_point now = Clock::now();
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        Session& session = it->second;
        if (lastCallOf) session.lastCall = std::max(session.lastCall, lastCallOf(it->first));
        if (now - session.lastCall < idleBound) {
            ++it;
        } else if (session.jobs > 0) {
            session.lastCall = now;
            const sts_int64_t jobs = endJobs(session);
            ended.push_back({it->first, jobs, m_total});
            ++it;
        } else {
            it = m_sessions.erase(it);
        }
    }
    return ended;
}

IdleJobSweep::IdleJobSweep(SessionJobs& jobs, ProxyLogger* plog, SessionJobs::LastCall lastCallOf)
    : m_jobs(jobs), m_plog(plog), m_lastCallOf(std::move(lastCallOf))
{
}

void IdleJobSweep::schedule(ACE_Reactor* reactor, std::chrono::seconds idleBound)
{
    m_idleBound = idleBound;
    if (idleBound.count() <= 0) return;
    // A tenth of the bound, between 1 s and a minute: a session's jobs end
    // at most that much after the bound.
    const long every = std::clamp<long>(static_cast<long>(idleBound.count() / 10), 1, 60);
    reactor->schedule_timer(this, nullptr, ACE_Time_Value(every), ACE_Time_Value(every));
}

int IdleJobSweep::handle_timeout(const ACE_Time_Value&, const void*)
{
    for (const SessionJobs::Ended& e : m_jobs.endIdle(m_idleBound, m_lastCallOf)) {
        m_plog->logMsg(nullptr, "SessionJobs::endIdle", STS_ESWARN,
                       "session %s has made no call for %lld seconds: its %lld active job(s) end, %lld remain",
                       e.id.c_str(), static_cast<long long>(m_idleBound.count()), static_cast<long long>(e.jobs),
                       static_cast<long long>(e.total));
    }
    return 0;
}
