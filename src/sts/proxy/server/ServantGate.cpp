#include "ServantGate.h"

#include <algorithm>

namespace {

// The gates this thread holds a pass on, so that its own waits never wait
// for itself.  Passes nest a few deep at most: a call on a server that
// closes an image of a target server.
thread_local std::vector<const ServantGate*> t_held;

void forgetHeld(const ServantGate* gate)
{
    auto it = std::find(t_held.rbegin(), t_held.rend(), gate);
    if (it != t_held.rend()) t_held.erase(std::next(it).base());
}

} // namespace

const char* const ServantGate::kSeveredText = "the storage server of this object has been closed";
const char* const ServantGate::kClosingText = "the object is being closed";

ServantGate::ServantGate(std::shared_ptr<ServantGate> parent)
    : m_parent(std::move(parent)), m_lastEntered(std::chrono::steady_clock::now().time_since_epoch().count())
{
}

ServantGate::~ServantGate() = default;

const char* ServantGate::enter()
{
    if (m_parent != nullptr) {
        if (const char* refusal = m_parent->enter()) return refusal;
    }
    const char* refusal = nullptr;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_severed) {
            refusal = kSeveredText;
        } else if (m_closing) {
            refusal = kClosingText;
        } else {
            ++m_inside;
            t_held.push_back(this);
        }
    }
    if (refusal == nullptr && m_parent == nullptr) {
        m_lastEntered.store(std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    if (refusal != nullptr && m_parent != nullptr) m_parent->leave();
    return refusal;
}

void ServantGate::leave()
{
    std::shared_ptr<void> released;   // let go of last: it may end this gate
    {
        std::lock_guard<std::mutex> guard(m_lock);
        --m_inside;
        forgetHeld(this);
        // Only a close waits for calls to leave, and it shuts the gate first.
        if (m_closing) m_left.notify_all();
        abandonIfEmpty(released);
    }
    if (m_parent != nullptr) m_parent->leave();
}

int ServantGate::othersInside() const
{
    return m_inside - static_cast<int>(std::count(t_held.begin(), t_held.end(), this));
}

// The children's handles are closed before the parent's.
void ServantGate::abandonIfEmpty(std::shared_ptr<void>& released)
{
    if (!m_severed || m_closing || m_inside > 0) return;
    for (const std::shared_ptr<ServantGate>& child : takeLiveChildren()) child->sever();
    if (m_abandon) {
        std::function<void()> abandon = std::move(m_abandon);
        m_abandon = nullptr;
        abandon();
    }
    released = std::move(m_hold);
}

ServantGate::Pass::Pass(ServantGate* gate)
{
    if (gate == nullptr) return;
    m_refusal = gate->enter();
    if (m_refusal == nullptr) m_gate = gate;
}

ServantGate::Pass::~Pass()
{
    if (m_gate != nullptr) m_gate->leave();
}

ServantGate::Closing::Closing(ServantGate& gate)
    : m_gate(gate), m_parentPass(gate.m_parent.get()), m_refusal(m_parentPass.refusal())
{
    // The parent stays open while this handle is closed.
    if (m_refusal != nullptr) return;
    std::unique_lock<std::mutex> lock(m_gate.m_lock);
    if (m_gate.m_severed || m_gate.m_closing) {
        m_refusal = m_gate.m_severed ? kSeveredText : kClosingText;
        return;
    }
    m_gate.m_closing = true;
    m_gate.m_left.wait(lock, [this] { return m_gate.othersInside() == 0; });
}

// The close ran: the servant holds no handle any more.  A sever that came
// meanwhile still reaches the children.
ServantGate::Closing::~Closing()
{
    if (m_refusal != nullptr) return;
    std::shared_ptr<void> released, none;   // let go of after the lock
    std::lock_guard<std::mutex> guard(m_gate.m_lock);
    m_gate.m_closing = false;
    m_gate.m_abandon = nullptr;
    released = std::move(m_gate.m_hold);
    m_gate.abandonIfEmpty(none);
}

void ServantGate::adopt(const std::shared_ptr<ServantGate>& child)
{
    std::lock_guard<std::mutex> guard(m_lock);
    // Children closed and gone leave their entries behind: dropped here,
    // so a server that makes images for months keeps a short list.
    if (m_children.size() >= 16 && m_children.size() == m_children.capacity()) {
        m_children.erase(std::remove_if(m_children.begin(), m_children.end(),
                                        [](const std::weak_ptr<ServantGate>& c) { return c.expired(); }),
                         m_children.end());
    }
    m_children.push_back(child);
}

void ServantGate::keepOpen(std::shared_ptr<void> hold, std::function<void()> abandon)
{
    std::shared_ptr<void> previous;
    std::lock_guard<std::mutex> guard(m_lock);
    previous = std::move(m_hold);
    m_hold = std::move(hold);
    m_abandon = std::move(abandon);
}

void ServantGate::sever()
{
    std::shared_ptr<void> released;   // let go of last: it may end this gate
    std::lock_guard<std::mutex> guard(m_lock);
    m_severed = true;
    abandonIfEmpty(released);
}

std::vector<std::shared_ptr<ServantGate>> ServantGate::takeLiveChildren()
{
    std::vector<std::shared_ptr<ServantGate>> live;
    for (const std::weak_ptr<ServantGate>& child : m_children) {
        if (std::shared_ptr<ServantGate> c = child.lock()) live.push_back(std::move(c));
    }
    m_children.clear();
    return live;
}

void ServantGate::severChildren()
{
    std::vector<std::shared_ptr<ServantGate>> children;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        children = takeLiveChildren();
    }
    for (const std::shared_ptr<ServantGate>& child : children) child->sever();
}

bool ServantGate::severed()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_severed;
}

std::chrono::steady_clock::time_point ServantGate::lastEntered() const
{
    using Clock = std::chrono::steady_clock;
    return Clock::time_point(Clock::duration(m_lastEntered.load(std::memory_order_relaxed)));
}

bool ServantGate::idle()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_inside == 0;
}
