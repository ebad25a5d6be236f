#include "SessionManager.h"

#include "ProxyLogger.h"

#include <ace/Guard_T.h>

ACE_Thread_Mutex smMutex;

SessionManager::SessionManager(ProxyLogger* plog) : m_plog(plog)
{
    m_plog->logMsg(nullptr, "SessionManager::SessionManager", STS_ESDEBUG,
                   "new instance of object SessionManager");
}

void SessionManager::Push(const char* id, sts_handle_t h)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    m_sessions.emplace(std::string(id), h);
}

sts_handle_t SessionManager::Pop(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    auto it = m_sessions.find(std::string(id));
    if (it == m_sessions.end()) return nullptr;
    sts_handle_t h = it->second;
    m_sessions.erase(it);
    return h;
}

sts_handle_t SessionManager::Pop()
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    if (m_sessions.empty()) return nullptr;
    auto it = m_sessions.begin();
    sts_handle_t h = it->second;
    m_sessions.erase(it);
    return h;
}

void SessionManager::Erase(const char* id, sts_handle_t h)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    auto range = m_sessions.equal_range(std::string(id));
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second == h) {
            m_sessions.erase(it);
            return;
        }
    }
}

int SessionManager::AddCounter(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    return ++m_session_counter[std::string(id)];
}

int SessionManager::DeleteCounter(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    auto it = m_session_counter.find(std::string(id));
    if (it == m_session_counter.end()) return -1;
    const int count = --it->second;
    if (count == 0) m_session_counter.erase(it);
    return count;
}

int SessionManager::CheckCounter(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    auto it = m_session_counter.find(std::string(id));
    return it == m_session_counter.end() ? 0 : it->second;
}

bool SessionManager::HasSession(const char* id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    return m_sessions.count(std::string(id)) > 0;
}

size_t SessionManager::OpenSessions()
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    return m_sessions.size();
}

void SessionManager::AddServer(sts_handle_t session, std::shared_ptr<ServantGate> server)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    m_servers[session] = std::move(server);
}

void SessionManager::RemoveServer(sts_handle_t session)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    m_servers.erase(session);
}

std::shared_ptr<ServantGate> SessionManager::ServerOf(sts_handle_t session)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    auto it = m_servers.find(session);
    return it != m_servers.end() ? it->second : nullptr;
}

std::chrono::steady_clock::time_point SessionManager::LastCall(const std::string& id)
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    std::chrono::steady_clock::time_point last;
    auto range = m_sessions.equal_range(id);
    for (auto it = range.first; it != range.second; ++it) {
        auto server = m_servers.find(it->second);
        if (server != m_servers.end()) last = std::max(last, server->second->lastEntered());
    }
    return last;
}

std::vector<std::shared_ptr<ServantGate>> SessionManager::Servers()
{
    ACE_Guard<ACE_Thread_Mutex> guard(smMutex);
    std::vector<std::shared_ptr<ServantGate>> servers;
    for (const auto& entry : m_servers) servers.push_back(entry.second);
    return servers;
}
