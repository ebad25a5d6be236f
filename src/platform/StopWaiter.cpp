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

void post(int fd)
{
    uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
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
    m_actionDoneFd = ::eventfd(0, EFD_CLOEXEC);
}

StopWaiter::~StopWaiter()
{
    finish();
    if (m_signalFd >= 0) ::close(m_signalFd);
    if (m_eventFd >= 0) ::close(m_eventFd);
    if (m_actionDoneFd >= 0) ::close(m_actionDoneFd);
}

void StopWaiter::start(std::function<void()> onStop, std::function<void()> onRepeat)
{
    if (m_thread.joinable()) return;
    m_finishing = false;
    m_thread = std::thread([this, onStop, onRepeat] { loop(onStop, onRepeat); });
}

void StopWaiter::request()
{
    post(m_eventFd);
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
    const std::thread::id self = std::this_thread::get_id();
    return (m_thread.joinable() && m_thread.get_id() == self) || m_actionThread.load() == self;
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

// While the action runs, every signal is a repeat; the action's end is
// told by its own event.
void StopWaiter::watchForRepeats(const std::function<void()>& onRepeat)
{
    pollfd fds[2] = {{m_signalFd, POLLIN, 0}, {m_actionDoneFd, POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents & POLLIN) {
            drain(m_signalFd, sizeof(signalfd_siginfo));
            if (onRepeat) onRepeat();
        }
        if (fds[1].revents & POLLIN) return;
    }
}

void StopWaiter::loop(const std::function<void()>& onStop, const std::function<void()>& onRepeat)
{
    if (!waitForTrigger()) return;
    std::thread action([this, &onStop] {
        m_actionThread = std::this_thread::get_id();
        onStop();
        post(m_actionDoneFd);
    });
    watchForRepeats(onRepeat);
    action.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_doneChanged.notify_all();
}
