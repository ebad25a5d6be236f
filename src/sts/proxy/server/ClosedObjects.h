// Objects that closed themselves (a server, an image, an LSU or a list
// closed by a call on its own record), taken out of their POA once a client
// can no longer be resending the close.
//
// A close keeps its object alive for a client that lost the reply and sends
// the close again: the resend must reach the object and get the recorded
// answer.  An object closed through its parent goes at the parent record's
// next call.  An object that closed itself gets no further call on its own
// record, so without this it would stay in the POA, servant and record,
// for the life of the process: one per session of every backup job.  Here
// it waits out a grace period, far longer than a client's resends (seconds),
// and then goes, on a thread of its own, whether or not more calls come.
#ifndef KELD_PROXY_CLOSEDOBJECTS_H
#define KELD_PROXY_CLOSEDOBJECTS_H

#include <omniORB4/CORBA.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

class ClosedObjects {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kDefaultGrace{60};

    explicit ClosedObjects(Clock::duration grace = kDefaultGrace);
    ~ClosedObjects() { stop(); }
    ClosedObjects(const ClosedObjects&) = delete;
    ClosedObjects& operator=(const ClosedObjects&) = delete;

    // Deactivates obj in poa once the grace period has passed.
    void add(CORBA::Object_ptr obj, PortableServer::POA_ptr poa);
    // For objects added from now on.
    void setGrace(Clock::duration grace);
    // Ends the thread for good, at the end of the service: objects still
    // waiting stay active, for the ORB's shutdown to take.
    void stop();

    // The one every self-closing servant of the process uses; never
    // destroyed, so that no reference is released after the ORB is gone.
    static ClosedObjects& process();

private:
    struct Entry {
        CORBA::Object_var obj;
        PortableServer::POA_var poa;
        Clock::time_point due;
    };
    void run();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Entry> m_queue;   // in order of due time: the grace rarely changes
    Clock::duration m_grace;
    bool m_stop = false;
    std::thread m_thread;        // started with the first object
};

#endif
