// The thread that waits for the request to stop: signal 15 from outside, or
// an event from inside the process.  It runs the stop action once, on its own
// thread, so the action may take its time while requests go on being served.
#ifndef KELD_PLATFORM_STOPWAITER_H
#define KELD_PLATFORM_STOPWAITER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class StopWaiter {
public:
    // Blocks signal 15 in the calling thread and so in every thread started
    // from it afterwards: only the waiter may receive it.
    static void blockStopSignal();

    StopWaiter();
    ~StopWaiter();
    StopWaiter(const StopWaiter&) = delete;
    StopWaiter& operator=(const StopWaiter&) = delete;

    // Starts the waiting thread; a request made earlier is acted on at once.
    void start(std::function<void()> onStop);
    // Asks for the stop; may be called from any thread, also before start.
    void request();
    // Ends the waiting thread without acting; waits while the action runs.
    void finish();
    // True once the stop action has returned; false after the timeout.
    bool waitDone(std::chrono::milliseconds timeout);
    bool onWaiterThread() const;

private:
    void loop(const std::function<void()>& onStop);
    bool waitForTrigger();   // true: stop requested, false: finish

    int m_signalFd = -1;
    int m_eventFd = -1;
    std::atomic<bool> m_finishing{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_doneChanged;
    bool m_done = false;
};

#endif
