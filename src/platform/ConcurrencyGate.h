// Bounds how many requests run at once.  The ORB underneath hands every
// incoming call a thread of its own; the gate, wrapped around each upcall,
// lets only `limit` of them into servant code and queues the rest, so the
// configured thread count is what really runs concurrently.  The limit can
// change while requests wait.
//
// A call that finds a free place takes it with one atomic step and gives it
// back with another; only a call that finds the gate full, and the call that
// frees a place while others wait, touch the mutex.  The counter of places
// is shared by every ORB thread, so the gate costs two atomic operations on
// one cache line per call and nothing more.
#ifndef KELD_PLATFORM_CONCURRENCYGATE_H
#define KELD_PLATFORM_CONCURRENCYGATE_H

#include <atomic>
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
    // Calls waiting for a place now, and calls that ever had to wait.
    int waiting() const { return m_waiting.load(std::memory_order_relaxed); }
    unsigned long long waited() const { return m_waited.load(std::memory_order_relaxed); }

    void enter();
    void leave();

    // The gate in front of every servant upcall of this process; the first
    // call registers it with the ORB's call interceptors.
    static ConcurrencyGate& upcalls();

private:
    bool tryEnter();

    std::atomic<int> m_limit;
    std::atomic<int> m_active{0};
    std::atomic<int> m_waiting{0};   // calls that found the gate full
    std::atomic<unsigned long long> m_waited{0};
    std::mutex m_mutex;              // only for the waiting calls
    std::condition_variable m_freed;
};

#endif
