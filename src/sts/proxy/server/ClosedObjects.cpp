#include "ClosedObjects.h"

#include <iterator>

namespace {

// Never raises: an object already gone (its POA destroyed, or deactivated
// by an earlier close) needs nothing more.
void deactivate(CORBA::Object_ptr obj, PortableServer::POA_ptr poa)
{
    try {
        PortableServer::ObjectId_var id = poa->reference_to_id(obj);
        poa->deactivate_object(id);
    } catch (const CORBA::Exception&) {
    }
}

} // namespace

ClosedObjects::ClosedObjects(Clock::duration grace) : m_grace(grace) {}

void ClosedObjects::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

ClosedObjects& ClosedObjects::process()
{
    static ClosedObjects* objects = new ClosedObjects;
    return *objects;
}

void ClosedObjects::setGrace(Clock::duration grace)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_grace = grace;
}

void ClosedObjects::add(CORBA::Object_ptr obj, PortableServer::POA_ptr poa)
{
    Entry entry{CORBA::Object::_duplicate(obj), PortableServer::POA::_duplicate(poa), {}};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        entry.due = Clock::now() + m_grace;
        // At the end, unless the grace was shortened since the last ones.
        auto at = m_queue.end();
        while (at != m_queue.begin() && std::prev(at)->due > entry.due) --at;
        m_queue.insert(at, entry);
        if (!m_thread.joinable() && !m_stop) m_thread = std::thread(&ClosedObjects::run, this);
    }
    m_wake.notify_one();
}

void ClosedObjects::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        if (m_queue.empty()) {
            m_wake.wait(lock);
            continue;
        }
        const Clock::time_point due = m_queue.front().due;
        if (Clock::now() < due) {
            m_wake.wait_until(lock, due);
            continue;
        }
        // Out of the lock: a deactivation may wait for a call still running
        // on the object, and closes keep coming meanwhile.
        const Entry entry = m_queue.front();
        m_queue.pop_front();
        lock.unlock();
        deactivate(entry.obj.in(), entry.poa.in());
        lock.lock();
    }
}
