// A reactor with an event loop on a thread of its own, for timers.  Timers
// may be scheduled before the loop starts; they fire once it runs.
#ifndef KELD_PLATFORM_REACTORTHREAD_H
#define KELD_PLATFORM_REACTORTHREAD_H

#include <thread>

class ACE_Reactor;

class ReactorThread {
public:
    ReactorThread();
    ~ReactorThread();
    ReactorThread(const ReactorThread&) = delete;
    ReactorThread& operator=(const ReactorThread&) = delete;

    ACE_Reactor* reactor() const { return m_reactor; }
    void start();   // no effect when already running
    // Ends the loop, joins the thread and drops pending timers; reactor()
    // then returns a new, empty reactor.
    void stop();

private:
    void loop();
    void endLoop();

    ACE_Reactor* m_reactor;
    std::thread m_thread;
};

#endif
