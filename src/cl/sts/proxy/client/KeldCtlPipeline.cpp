#include "KeldCtlPipeline.h"

#include "KeldCtlOutput.h"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace keldctl {

namespace {

std::atomic<bool> g_interrupted{false};

void onSignal(int)
{
    g_interrupted = true;
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
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;   // no restart: a blocked read of the input returns EINTR
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool interrupted()
{
    return g_interrupted;
}

void throwIfInterrupted()
{
    if (g_interrupted) throw std::runtime_error("interrupted");
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
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

} // namespace keldctl
