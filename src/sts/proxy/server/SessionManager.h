// Which storage session handles are open for which client session id, and
// how many threads are inside a long storage call for an id.  It lets a
// session be closed from outside its server object (at stop, or by a
// client's cleanup request) without pulling a handle from a running call.
// The registry never opens, closes or looks inside a handle.
#ifndef KELD_PROXY_SESSIONMANAGER_H
#define KELD_PROXY_SESSIONMANAGER_H

#include "ServantGate.h"
#include "sts_types.h"

#include <ace/Thread_Mutex.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

class ProxyLogger;

// One lock for both maps of every instance.  Callers test ids for null.
extern ACE_Thread_Mutex smMutex;

class SessionManager {
public:
    explicit SessionManager(ProxyLogger* plog);

    void Push(const char* id, sts_handle_t h);        // duplicates are kept
    sts_handle_t Pop(const char* id);                 // first of id, or null
    sts_handle_t Pop();                               // first of all in key order, or null
    void Erase(const char* id, sts_handle_t h);       // first match only
    int AddCounter(const char* id);                   // the new count
    int DeleteCounter(const char* id);                // -1 when id has none
    int CheckCounter(const char* id);                 // 0 when id has none
    bool HasSession(const char* id);                  // a handle of id is registered
    size_t OpenSessions();                            // handles registered, of every id

    // The open servers by the session handle each owns, so that a cleanup
    // of the session or the end of the process closes what a client left
    // open, through the server's gate: children, server, then session.
    void AddServer(sts_handle_t session, std::shared_ptr<ServantGate> server);
    void RemoveServer(sts_handle_t session);
    std::shared_ptr<ServantGate> ServerOf(sts_handle_t session);   // or null
    std::vector<std::shared_ptr<ServantGate>> Servers();
    // When a call last entered a server of the session id (or one of its
    // children); the clock's epoch when none is open.
    std::chrono::steady_clock::time_point LastCall(const std::string& id);

private:
    std::multimap<std::string, sts_handle_t> m_sessions;
    std::map<std::string, int> m_session_counter;
    std::map<sts_handle_t, std::shared_ptr<ServantGate>> m_servers;
    ProxyLogger* m_plog;
};

#endif
