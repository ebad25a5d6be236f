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
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_limit = limit < 1 ? 1 : limit;
    }
    m_freed.notify_all();
}

int ConcurrencyGate::limit() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_limit;
}

int ConcurrencyGate::active() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_active;
}

void ConcurrencyGate::enter()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_freed.wait(lock, [this] { return m_active < m_limit; });
    ++m_active;
}

void ConcurrencyGate::leave()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        --m_active;
    }
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
