// The write locks of images and their renewal (see RadosImageLock.h).
#include "RadosImageLock.h"

#include "RadosStore.h"

#include <algorithm>
#include <cerrno>
#include <sys/time.h>
#include <unistd.h>

namespace radosstore {

namespace {

using Clock = std::chrono::steady_clock;

const char* const LOCK_NAME = "keld.write";
// A renewal that could not reach the cluster goes again this soon.
const std::chrono::seconds RETRY_AFTER(1);

std::string thisHost()
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    return host;
}

// HOST:PID:N, a new N for every lock this process takes.
std::string newCookie()
{
    static std::atomic<unsigned long> next{0};
    return thisHost() + ":" + std::to_string(getpid()) + ":" + std::to_string(++next);
}

Clock::duration renewEvery(unsigned seconds)
{
    return std::chrono::milliseconds(seconds * 1000ull / 3);
}

int lockFor(rados_ioctx_t io, const std::string& oid, const std::string& cookie, unsigned seconds, uint8_t flags)
{
    timeval lease = {static_cast<time_t>(seconds), 0};
    const std::string description = "writer on " + thisHost() + " pid " + std::to_string(getpid());
    return rados_lock_exclusive(io, oid.c_str(), LOCK_NAME, cookie.c_str(), description.c_str(), &lease, flags);
}

// "HOST pid PID" from a cookie of ours, else the cookie as it is.
std::string describeCookie(const std::string& cookie)
{
    const size_t last = cookie.rfind(':');
    const size_t middle = last == std::string::npos || last == 0 ? std::string::npos : cookie.rfind(':', last - 1);
    if (middle == std::string::npos) return "cookie " + cookie;
    return cookie.substr(0, middle) + " pid " + cookie.substr(middle + 1, last - middle - 1);
}

// The connections whose renewals run.  A handle never closed keeps its
// connection, and the plug-in may be unloaded all the same (the framework
// drops such handles with it): the threads end before their code goes.
class Renewing {
public:
    ~Renewing()
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        for (WriteLocks* locks : m_all) locks->stop();
    }
    void add(WriteLocks* locks)
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_all.push_back(locks);
    }
    void remove(WriteLocks* locks)
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_all.erase(std::remove(m_all.begin(), m_all.end(), locks), m_all.end());
    }

private:
    std::mutex m_mutex;
    std::vector<WriteLocks*> m_all;
};

Renewing g_renewing;

} // namespace

HeldLock::HeldLock(rados_ioctx_t io, const std::string& image, const std::string& cookie, unsigned seconds)
    : m_io(io), m_oid(headerObject(image)), m_cookie(cookie), m_seconds(seconds)
{
}

HeldLock::~HeldLock()
{
    rados_ioctx_destroy(m_io);
}

// Only a lock still ours is renewed: one whose lease ran out is not taken
// afresh, since another writer may have had the image in between.
int HeldLock::renew()
{
    return lockFor(m_io, m_oid, m_cookie, m_seconds, LIBRADOS_LOCK_FLAG_MUST_RENEW);
}

void HeldLock::unlock()
{
    m_released = true;
    rados_unlock(m_io, m_oid.c_str(), LOCK_NAME, m_cookie.c_str());
}

WriteLocks::WriteLocks(const Cluster& cluster) : m_cluster(cluster) {}

WriteLocks::~WriteLocks()
{
    g_renewing.remove(this);
    stop();
}

void WriteLocks::stop()
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_renewer.joinable()) m_renewer.join();
}

int WriteLocks::take(const std::string& ns, const std::string& image, unsigned seconds,
                     std::shared_ptr<HeldLock>& out, std::string& holder)
{
    rados_ioctx_t io = m_cluster.openNamespace(ns);
    if (io == nullptr) return -ENOMEM;
    const std::string cookie = newCookie();
    const int rc = lockFor(io, headerObject(image), cookie, seconds, 0);
    if (rc != 0) {
        if (rc == -EBUSY) holder = lockHolder(io, image);
        rados_ioctx_destroy(io);
        return rc;
    }
    out = std::make_shared<HeldLock>(io, image, cookie, seconds);
    std::lock_guard<std::mutex> hold(m_mutex);
    out->m_due = Clock::now() + renewEvery(seconds);
    m_held.push_back(out);
    if (!m_renewer.joinable() && !m_stopping) {
        m_renewer = std::thread([this] { renewLoop(); });
        g_renewing.add(this);
    }
    m_wake.notify_all();
    return 0;
}

void WriteLocks::release(const std::shared_ptr<HeldLock>& lock)
{
    if (!lock) return;
    {
        std::lock_guard<std::mutex> hold(lock->m_mutex);
        if (!lock->m_released && !lock->m_lost) lock->unlock();
        lock->m_released = true;
    }
    std::lock_guard<std::mutex> hold(m_mutex);
    for (auto it = m_held.begin(); it != m_held.end(); ++it) {
        if (*it == lock) {
            m_held.erase(it);
            break;
        }
    }
}

// The locks whose renewal is due, each given its next time already so that
// a slow renewal does not make it due twice.
std::vector<std::shared_ptr<HeldLock>> WriteLocks::dueLocks(Clock::time_point now)
{
    std::vector<std::shared_ptr<HeldLock>> due;
    for (const auto& lock : m_held) {
        if (lock->m_due > now || lock->m_lost) continue;
        lock->m_due = now + renewEvery(lock->m_seconds);
        due.push_back(lock);
    }
    return due;
}

void WriteLocks::renewLoop()
{
    std::unique_lock<std::mutex> hold(m_mutex);
    while (!m_stopping) {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = now + std::chrono::hours(1);
        for (const auto& lock : m_held) next = std::min(next, lock->m_due);
        if (next > now) {
            m_wake.wait_until(hold, next);
            continue;
        }
        const std::vector<std::shared_ptr<HeldLock>> due = dueLocks(now);
        // The cluster is called without the list held: opens and closes of
        // other images go on meanwhile.
        hold.unlock();
        for (const auto& lock : due) renewOne(*lock);
        hold.lock();
    }
}

void WriteLocks::renewOne(HeldLock& lock)
{
    int rc = 0;
    {
        std::lock_guard<std::mutex> hold(lock.m_mutex);
        if (lock.m_released || lock.m_lost) return;
        rc = lock.renew();
    }
    if (rc == 0) return;
    if (rc == -ENOENT || rc == -EBUSY) {
        // The lease ran out (and maybe another writer holds the image):
        // this lock is no more; the image's close tells its session.
        lock.m_lost = true;
        return;
    }
    std::lock_guard<std::mutex> hold(m_mutex);
    lock.m_due = Clock::now() + RETRY_AFTER;
}

std::string lockHolder(rados_ioctx_t io, const std::string& image)
{
    const std::string oid = headerObject(image);
    std::string tag(64, '\0'), clients(256, '\0'), cookies(256, '\0'), addresses(256, '\0');
    for (int attempt = 0; attempt < 3; ++attempt) {
        int exclusive = 0;
        size_t tagLength = tag.size(), clientsLength = clients.size(), cookiesLength = cookies.size(),
               addressesLength = addresses.size();
        const ssize_t n = rados_list_lockers(io, oid.c_str(), LOCK_NAME, &exclusive, &tag[0], &tagLength, &clients[0],
                                             &clientsLength, &cookies[0], &cookiesLength, &addresses[0],
                                             &addressesLength);
        if (n == -ERANGE) {   // the sizes it needs are filled in
            tag.resize(tagLength + 1);
            clients.resize(clientsLength + 1);
            cookies.resize(cookiesLength + 1);
            addresses.resize(addressesLength + 1);
            continue;
        }
        if (n <= 0) return "";
        // The first locker; an exclusive lock has only one.
        return describeCookie(cookies.c_str()) + " (" + clients.c_str() + " at " + addresses.c_str() + ")";
    }
    return "";
}

} // namespace radosstore
