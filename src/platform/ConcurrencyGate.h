// Bounds how many requests run at once.  The ORB underneath hands every
// incoming call a thread of its own; the gate, wrapped around each upcall,
// lets only `limit` of them into servant code and queues the rest, so the
// configured thread count is what really runs concurrently.  The limit can
// change while requests wait.
#ifndef KELD_PLATFORM_CONCURRENCYGATE_H
#define KELD_PLATFORM_CONCURRENCYGATE_H

#include <condition_variable>
#include <mutex>

class ConcurrencyGate {
public:
    explicit ConcurrencyGate(int limit);
    ConcurrencyGate(const ConcurrencyGate&) = delete;
    ConcurrencyGate& operator=(const ConcurrencyGate&) = delete;

    void setLimit(int limit);      // values below 1 count as 1
    int limit() const;
    int active() const;

    void enter();
    void leave();

    // The gate in front of every servant upcall of this process; the first
    // call registers it with the ORB's call interceptors.
    static ConcurrencyGate& upcalls();

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_freed;
    int m_limit;
    int m_active = 0;
};

#endif
