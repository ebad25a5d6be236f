#include "StopWaiter.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

const int kStopSignal = SIGTERM;

sigset_t stopSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, kStopSignal);
    return set;
}

void drain(int fd, size_t size)
{
    char buf[sizeof(signalfd_siginfo)];
    while (::read(fd, buf, size) < 0 && errno == EINTR) {
    }
}

} // namespace

void StopWaiter::blockStopSignal()
{
    sigset_t set = stopSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

StopWaiter::StopWaiter()
{
    sigset_t set = stopSignalSet();
    m_signalFd = ::signalfd(-1, &set, SFD_CLOEXEC);
    m_eventFd = ::eventfd(0, EFD_CLOEXEC);
}

StopWaiter::~StopWaiter()
{
    finish();
    if (m_signalFd >= 0) ::close(m_signalFd);
    if (m_eventFd >= 0) ::close(m_eventFd);
}

void StopWaiter::start(std::function<void()> onStop)
{
    if (m_thread.joinable()) return;
    m_finishing = false;
    m_thread = std::thread([this, onStop] { loop(onStop); });
}

void StopWaiter::request()
{
    uint64_t one = 1;
    while (::write(m_eventFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void StopWaiter::finish()
{
    if (!m_thread.joinable()) return;
    if (onWaiterThread()) {
        m_thread.detach();
        return;
    }
    m_finishing = true;
    request();
    m_thread.join();
}

bool StopWaiter::onWaiterThread() const
{
    return m_thread.joinable() && m_thread.get_id() == std::this_thread::get_id();
}

bool StopWaiter::waitDone(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_doneChanged.wait_for(lock, timeout, [this] { return m_done; });
}

bool StopWaiter::waitForTrigger()
{
    pollfd fds[2] = {{m_signalFd, POLLIN, 0}, {m_eventFd, POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (fds[0].revents & POLLIN) {
            drain(m_signalFd, sizeof(signalfd_siginfo));
            return true;
        }
        if (fds[1].revents & POLLIN) {
            drain(m_eventFd, sizeof(uint64_t));
            return !m_finishing;
        }
    }
}

void StopWaiter::loop(const std::function<void()>& onStop)
{
    if (!waitForTrigger()) return;
    onStop();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_doneChanged.notify_all();
}
