#include "KeldCtlPipeline.h"

#include "KeldCtlOutput.h"

#include <atomic>
#include <condition_variable>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace keldctl {

namespace {

std::atomic<int> g_signal{0};
// Readable while SIGINT or SIGTERM is pending; never read, so the signal
// stays pending for every later check.
int g_signalFd = -1;

sigset_t interruptSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

// Three buffers: one being filled, one being drained, one waiting, which
// is all that two threads can keep busy.
const std::size_t BUFFERS = 3;

struct Filled {
    std::size_t index;
    std::size_t length;   // 0 marks the end
};

class Channel {
public:
    explicit Channel(std::size_t buffers)
    {
        for (std::size_t i = 0; i < buffers; ++i) m_free.push_back(i);
    }
    // Both return false once the other side failed.
    bool takeFree(std::size_t& index)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return !m_free.empty() || m_failed; });
        if (m_failed) return false;
        index = m_free.front();
        m_free.pop_front();
        return true;
    }
    bool takeFilled(Filled& f)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return !m_filled.empty() || m_failed; });
        if (m_failed) return false;
        f = m_filled.front();
        m_filled.pop_front();
        return true;
    }
    void putFilled(Filled f) { push([&] { m_filled.push_back(f); }); }
    void putFree(std::size_t index) { push([&] { m_free.push_back(index); }); }
    void fail(std::exception_ptr e)
    {
        push([&] {
            if (!m_error) m_error = e;
            m_failed = true;
        });
    }
    std::exception_ptr error()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_error;
    }

private:
    template <typename F>
    void push(F change)
    {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            change();
        }
        m_changed.notify_all();
    }
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<std::size_t> m_free;
    std::deque<Filled> m_filled;
    bool m_failed = false;
    std::exception_ptr m_error;
};

} // namespace

void watchInterrupts()
{
    const sigset_t set = interruptSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    g_signalFd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);
}

int interruption()
{
    if (const int seen = g_signal.load()) return seen;
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    const int now = sigismember(&pending, SIGINT) ? SIGINT : sigismember(&pending, SIGTERM) ? SIGTERM : 0;
    int none = 0;
    if (now != 0) g_signal.compare_exchange_strong(none, now);
    return g_signal.load();
}

void throwIfInterrupted()
{
    if (const int sig = interruption()) throw Interrupted(sig);
}

ssize_t readInterruptibly(int fd, char* buf, std::size_t len)
{
    for (;;) {
        throwIfInterrupted();
        pollfd waits[2] = {{fd, POLLIN, 0}, {g_signalFd, POLLIN, 0}};
        const int ready = poll(waits, g_signalFd >= 0 ? 2 : 1, -1);
        if (ready < 0 && errno != EINTR) return -1;
        // The input's end or error shows as POLLHUP or POLLERR: read says which.
        if (ready > 0 && waits[0].revents != 0) {
            throwIfInterrupted();
            const ssize_t n = read(fd, buf, len);
            if (n >= 0 || errno != EINTR) return n;
        }
    }
}

void runPipeline(std::size_t bufferBytes, const std::function<std::size_t(char*, std::size_t)>& produce,
                 const std::function<void(const char*, std::size_t)>& consume)
{
    std::vector<std::unique_ptr<char[]>> buffers;
    for (std::size_t i = 0; i < BUFFERS; ++i) buffers.emplace_back(new char[bufferBytes]);
    Channel channel(BUFFERS);

    std::thread producer([&] {
        try {
            std::size_t index = 0;
            while (channel.takeFree(index)) {
                throwIfInterrupted();
                const std::size_t n = produce(buffers[index].get(), bufferBytes);
                channel.putFilled(Filled{index, n});
                if (n == 0) break;
            }
        } catch (...) {
            channel.fail(std::current_exception());
        }
    });
    try {
        Filled f{};
        while (channel.takeFilled(f) && f.length > 0) {
            throwIfInterrupted();
            consume(buffers[f.index].get(), f.length);
            channel.putFree(f.index);
        }
    } catch (...) {
        channel.fail(std::current_exception());
    }
    producer.join();
    if (std::exception_ptr e = channel.error()) std::rethrow_exception(e);
}

Progress::Progress(std::uint64_t total, bool shown)
    : m_total(total), m_shown(shown), m_start(std::chrono::steady_clock::now()), m_lastDraw(m_start)
{
}

double Progress::seconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
}

void Progress::add(std::uint64_t bytes)
{
    m_done += bytes;
    const auto now = std::chrono::steady_clock::now();
    if (m_shown && now - m_lastDraw >= std::chrono::milliseconds(100)) {
        m_lastDraw = now;
        draw();
    }
}

void Progress::draw()
{
    const double elapsed = seconds();
    const double rate = elapsed > 0 ? m_done / elapsed : 0;
    std::string line = "\r" + humanBytes(m_done);
    if (m_total > 0) {
        const int percent = static_cast<int>(100.0 * m_done / m_total);
        line += " / " + humanBytes(m_total) + "  " + std::to_string(percent > 100 ? 100 : percent) + "%";
    }
    line += "  " + humanBytes(static_cast<std::uint64_t>(rate)) + "/s";
    if (m_total > m_done && rate > 0) line += "  " + humanDuration((m_total - m_done) / rate) + " left";
    line += "   ";
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
}

void Progress::finish()
{
    if (!m_shown) return;
    m_shown = false;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

} // namespace keldctl
