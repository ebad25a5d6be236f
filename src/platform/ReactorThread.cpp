#include "ReactorThread.h"

#include <ace/Reactor.h>
#include <ace/TP_Reactor.h>
#include <ace/Thread.h>

ReactorThread::ReactorThread()
    // The thread-pool reactor lets any thread run the loop, so the loop
    // thread need not be the one that built it.
    : m_reactor(new ACE_Reactor(new ACE_TP_Reactor, true))
{
}

ReactorThread::~ReactorThread()
{
    stop();
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

void ReactorThread::stop()
{
    if (!m_thread.joinable()) return;
    m_reactor->end_reactor_event_loop();
    m_thread.join();
}
