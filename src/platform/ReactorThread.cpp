#include "ReactorThread.h"

#include <ace/Reactor.h>
#include <ace/TP_Reactor.h>
#include <ace/Thread.h>

namespace {

ACE_Reactor* makeReactor()
{
    // The thread-pool reactor lets any thread run the loop, so the loop
    // thread need not be the one that built it.
    return new ACE_Reactor(new ACE_TP_Reactor, true);
}

} // namespace

ReactorThread::ReactorThread() : m_reactor(makeReactor()) {}

ReactorThread::~ReactorThread()
{
    endLoop();
    delete m_reactor;
}

void ReactorThread::start()
{
    if (m_thread.joinable()) return;
    m_reactor->reset_reactor_event_loop();
    m_thread = std::thread([this] { loop(); });
}

void ReactorThread::loop()
{
    m_reactor->owner(ACE_Thread::self());
    m_reactor->run_reactor_event_loop();
}

void ReactorThread::endLoop()
{
    if (!m_thread.joinable()) return;
    m_reactor->end_reactor_event_loop();
    m_thread.join();
}

void ReactorThread::stop()
{
    endLoop();
    // Timers still pending are dropped now, while their handlers (usually
    // the service itself) are alive to hear of it, not later from a
    // destructor.  A fresh reactor takes the old one's place.
    m_reactor->close();
    delete m_reactor;
    m_reactor = makeReactor();
}
