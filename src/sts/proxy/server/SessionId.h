// The session id that a session definition points at (sd_id).  Every
// object that keeps a session definition holds a SessionId for it; holders
// of the same text share one copy, which goes with its last holder, so a
// service that opens and closes servers for months keeps only the ids in
// use.  The text never moves while held: sd_id may point at it.
#ifndef KELD_PROXY_SESSIONID_H
#define KELD_PROXY_SESSIONID_H

#include <cstddef>

class SessionId {
public:
    SessionId() = default;                        // no id: c_str() is null
    explicit SessionId(const char* text);         // null text: no id
    SessionId(const char* text, size_t length);   // at most length characters
    SessionId(const SessionId& other);
    SessionId& operator=(const SessionId& other);
    ~SessionId();

    const char* c_str() const { return m_text; }

    // How many different ids are held in the process, for the tests.
    static size_t heldIds();

private:
    void release();

    const char* m_text = nullptr;
};

#endif
