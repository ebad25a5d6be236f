#include "ConcurrencyGate.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/callDescriptor.h>

namespace {

const int kDefaultUpcallLimit = 30;

// Holds one place in the gate for the lifetime of a scope, also when the
// servant throws.
class GatePass {
public:
    explicit GatePass(ConcurrencyGate& gate) : m_gate(gate) { m_gate.enter(); }
    ~GatePass() { m_gate.leave(); }
    GatePass(const GatePass&) = delete;
    GatePass& operator=(const GatePass&) = delete;

private:
    ConcurrencyGate& m_gate;
};

// A servant that calls another object of this process on the same thread
// already holds a place; taking a second one could deadlock with a limit of 1.
thread_local int t_upcallDepth = 0;

class DepthScope {
public:
    DepthScope() { ++t_upcallDepth; }
    ~DepthScope() { --t_upcallDepth; }
    DepthScope(const DepthScope&) = delete;
    DepthScope& operator=(const DepthScope&) = delete;
};

void gatedUpcall(omniCallDescriptor* call, omniServant* servant)
{
    if (t_upcallDepth > 0) {
        call->interceptedCall(servant);
        return;
    }
    GatePass pass(ConcurrencyGate::upcalls());
    DepthScope depth;
    call->interceptedCall(servant);
}

} // namespace

ConcurrencyGate::ConcurrencyGate(int limit) : m_limit(limit < 1 ? 1 : limit) {}

void ConcurrencyGate::setLimit(int limit)
{
    m_limit.store(limit < 1 ? 1 : limit);
    // A higher limit may let waiting calls in; taking the mutex orders the
    // store before their next look, so none sleeps through it.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_freed.notify_all();
}

int ConcurrencyGate::limit() const
{
    return m_limit.load();
}

int ConcurrencyGate::active() const
{
    return m_active.load();
}

bool ConcurrencyGate::tryEnter()
{
    int taken = m_active.load();
    while (taken < m_limit.load()) {
        if (m_active.compare_exchange_weak(taken, taken + 1)) return true;
    }
    return false;
}

void ConcurrencyGate::enter()
{
    if (tryEnter()) return;
    m_waited.fetch_add(1, std::memory_order_relaxed);
    std::unique_lock<std::mutex> lock(m_mutex);
    // Counted before the second look at the places: a leave that comes
    // after that look sees the count and wakes us (all sequentially
    // consistent, so either the look sees the freed place or the leave sees
    // the waiter).
    m_waiting.fetch_add(1);
    m_freed.wait(lock, [this] { return tryEnter(); });
    m_waiting.fetch_sub(1);
}

void ConcurrencyGate::leave()
{
    m_active.fetch_sub(1);
    if (m_waiting.load() == 0) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_freed.notify_one();
}

ConcurrencyGate& ConcurrencyGate::upcalls()
{
    static ConcurrencyGate* gate = [] {
        auto* g = new ConcurrencyGate(kDefaultUpcallLimit);
        omniCallDescriptor::addInterceptor(gatedUpcall);
        return g;
    }();
    return *gate;
}
