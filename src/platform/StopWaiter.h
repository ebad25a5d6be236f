// The thread that waits for the request to stop: signal 15 from outside, or
// an event from inside the process.  It runs the stop action once, on a
// thread of its own, so the action may take its time while requests go on
// being served; signal 15 again while the action runs calls the urgent
// action, meant to end the process at once.
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
    // onRepeat runs on the waiting thread for each signal that comes while
    // onStop runs; an event does not count.
    void start(std::function<void()> onStop, std::function<void()> onRepeat = {});
    // Asks for the stop; may be called from any thread, also before start.
    void request();
    // Ends the waiting thread without acting; waits while the action runs.
    void finish();
    // True once the stop action has returned; false after the timeout.
    bool waitDone(std::chrono::milliseconds timeout);
    // True on the waiting thread and on the thread of the stop action.
    bool onWaiterThread() const;

private:
    void loop(const std::function<void()>& onStop, const std::function<void()>& onRepeat);
    bool waitForTrigger();   // true: stop requested, false: finish
    void watchForRepeats(const std::function<void()>& onRepeat);

    int m_signalFd = -1;
    int m_eventFd = -1;
    int m_actionDoneFd = -1;
    std::atomic<bool> m_finishing{false};
    std::thread m_thread;
    std::atomic<std::thread::id> m_actionThread{};
    std::mutex m_mutex;
    std::condition_variable m_doneChanged;
    bool m_done = false;
};

#endif
