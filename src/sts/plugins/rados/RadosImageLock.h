// The write lock of an image: every service that serves the same pool may
// open the same image, so a writer holds an exclusive RADOS lock on the
// image's header object for as long as the image is open.  The lock has a
// lease (the server's lock_seconds) that its holder renews while it lives,
// so the lock of a service that died runs out by itself and the image can
// be opened for writing again.  Readers neither take nor look at it.
//
// A lock's cookie is unique to the process and the open ("HOST:PID:N"), so
// a second open for writing is refused even within one service.
#ifndef KELD_RADOS_IMAGE_LOCK_H
#define KELD_RADOS_IMAGE_LOCK_H

#include <rados/librados.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace radosstore {

class Cluster;

// One lock held by this process.  Its context is its own, so that the
// renewals do not depend on the image handle that took it.
class HeldLock {
public:
    HeldLock(rados_ioctx_t io, const std::string& image, const std::string& cookie, unsigned seconds);
    ~HeldLock();
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

    // True once a renewal found the lease gone (it ran out while renewals
    // could not reach the cluster, and maybe another writer has the image
    // now): nothing may be written under it any more.
    bool lost() const { return m_lost; }
    const std::string& cookie() const { return m_cookie; }

private:
    friend class WriteLocks;
    int renew();     // the caller holds m_mutex
    void unlock();   // the caller holds m_mutex

    rados_ioctx_t m_io;
    std::string m_oid;
    std::string m_cookie;
    unsigned m_seconds;
    std::mutex m_mutex;      // a renewal and the release, one at a time
    bool m_released = false;  // guarded by m_mutex
    std::atomic<bool> m_lost{false};
    std::chrono::steady_clock::time_point m_due;   // guarded by WriteLocks::m_mutex
};

// The write locks this process holds through one cluster connection, and
// the one thread that renews them, at a third of each lease.  The thread
// starts with the first lock; it ends with this object.
class WriteLocks {
public:
    explicit WriteLocks(const Cluster& cluster);
    ~WriteLocks();   // locks still held are left to run out
    WriteLocks(const WriteLocks&) = delete;
    WriteLocks& operator=(const WriteLocks&) = delete;

    // Takes the write lock of image in namespace ns for a lease of seconds.
    // 0 and the lock; -EBUSY, with holder describing who has it, when it is
    // held; or another negative errno.
    int take(const std::string& ns, const std::string& image, unsigned seconds, std::shared_ptr<HeldLock>& out,
             std::string& holder);
    // Releases a lock (no renewal takes it again afterwards); a lock lost
    // or released already is passed over.
    void release(const std::shared_ptr<HeldLock>& lock);

    // Ends the renewals (and the thread) at once.
    void stop();

private:
    void renewLoop();
    std::vector<std::shared_ptr<HeldLock>> dueLocks(std::chrono::steady_clock::time_point now);
    void renewOne(HeldLock& lock);

    const Cluster& m_cluster;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<std::shared_ptr<HeldLock>> m_held;   // guarded by m_mutex
    bool m_stopping = false;                        // guarded by m_mutex
    std::thread m_renewer;                          // started under m_mutex
};

// Who holds the write lock of an image now, as "HOST pid PID (client.N at
// ADDRESS)"; "" when nobody does (a lease that ran out counts as none).
std::string lockHolder(rados_ioctx_t io, const std::string& image);

} // namespace radosstore

#endif
