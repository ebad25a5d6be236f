// Lets a servant's calls reach the plug-in handle it owns, and keeps them
// out while that handle is closed, so that no call ever hands the plug-in a
// handle it has freed, however a client interleaves its calls.
//
// A call holds a Pass for as long as it may use the handle.  A child's gate
// (an LSU, list or image made by a server, or a server's target server)
// passes through its parent's gate first, so a parent that is closed keeps
// every call of its children out as well.
//
//   - A servant's own close (closeImageV12, closeServerV12, a server's close
//     of one of its children) holds a Closing: new calls are refused while
//     it waits for the calls inside to leave; then the handle is closed and
//     the gate opens again on an object without a handle.
//   - Severing is for good: the server is closed, its session was cleaned
//     up, or the service stops.  Calls are refused from then on with "the
//     storage server of this object has been closed", and once no call is
//     inside (at once, or when the last call leaves) the children are
//     severed and then the abandon runs: the servant's way to close the
//     handle it still holds.
//   - While a servant holds an open handle the gate keeps the servant
//     alive, so that the handle is closed even when the servant's POA went
//     first (a stop through shutdownV12); the hold goes with the handle.
//
// Waits discount the passes the waiting thread holds itself: a server's
// call that closes one of that server's children does not wait for itself.
#ifndef KELD_PROXY_SERVANTGATE_H
#define KELD_PROXY_SERVANTGATE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class ServantGate {
public:
    explicit ServantGate(std::shared_ptr<ServantGate> parent = nullptr);
    ~ServantGate();
    ServantGate(const ServantGate&) = delete;
    ServantGate& operator=(const ServantGate&) = delete;

    // One call inside the gate and every gate above it; refused when one of
    // them is closing or severed.  A null gate lets every call through.
    class Pass {
    public:
        explicit Pass(ServantGate* gate);
        ~Pass();
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        explicit operator bool() const { return m_refusal == nullptr; }
        // Why the call was refused, for the client.
        const char* refusal() const { return m_refusal; }

    private:
        ServantGate* m_gate = nullptr;   // entered, to be left
        const char* m_refusal = nullptr;
    };

    // The servant's own close: shuts the gate and waits until no call of
    // another thread is inside, with a pass on the parent so that the
    // parent's handle outlives this close.  Refused when another close or a
    // sever holds the gate, or the parent refuses.
    class Closing {
    public:
        explicit Closing(ServantGate& gate);
        ~Closing();
        Closing(const Closing&) = delete;
        Closing& operator=(const Closing&) = delete;

        explicit operator bool() const { return m_refusal == nullptr; }
        const char* refusal() const { return m_refusal; }

    private:
        ServantGate& m_gate;
        Pass m_parentPass;
        const char* m_refusal;
    };

    // Registers a child made under this gate, severed with it.
    void adopt(const std::shared_ptr<ServantGate>& child);
    // The servant has opened its handle: hold keeps the servant alive and
    // abandon closes the handle if the servant is severed.  Both go once
    // the servant's own close ran (a Closing ends), or the abandon did.
    // The abandon runs under the gate's lock: it must not enter this gate.
    // The hold is released outside it, as the gate's last act: its release
    // may destroy the servant, and with it this gate.
    void keepOpen(std::shared_ptr<void> hold, std::function<void()> abandon);

    // For good; see the top of this file.  Never waits.
    void sever();
    // Severs every child still registered (the server's own close).
    void severChildren();
    bool severed();
    // No call is inside right now.
    bool idle();
    // When a call last entered; kept by a gate without a parent (a
    // server's), which every call of its children enters as well.
    std::chrono::steady_clock::time_point lastEntered() const;

    // The texts a refused call answers with.
    static const char* const kSeveredText;
    static const char* const kClosingText;

private:
    const char* enter();   // null when admitted
    void leave();
    // Callers inside that are not this thread's own passes.
    int othersInside() const;
    // Runs the abandon once severed and empty, with m_lock held; the hold
    // goes to released, for the caller to let go of after the lock.
    void abandonIfEmpty(std::shared_ptr<void>& released);
    // With m_lock held.
    std::vector<std::shared_ptr<ServantGate>> takeLiveChildren();

    std::shared_ptr<ServantGate> m_parent;
    std::mutex m_lock;
    std::condition_variable m_left;
    bool m_severed = false;
    bool m_closing = false;
    int m_inside = 0;
    std::atomic<std::chrono::steady_clock::rep> m_lastEntered;
    std::function<void()> m_abandon;
    std::shared_ptr<void> m_hold;
    std::vector<std::weak_ptr<ServantGate>> m_children;
};

#endif
