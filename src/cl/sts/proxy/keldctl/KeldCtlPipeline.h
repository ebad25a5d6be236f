// Moving data in large transfers on two threads, so that the storage call
// of one buffer overlaps the file work (reading or writing, and hashing) of
// the next; a progress bar for a terminal; the interruption flag.
#ifndef KELD_CLIENT_KELDCTLPIPELINE_H
#define KELD_CLIENT_KELDCTLPIPELINE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <sys/types.h>

namespace keldctl {

// SIGINT and SIGTERM.  watchInterrupts, called before any thread starts,
// blocks them in every thread, so that a signal stays pending for whichever
// thread decides next instead of landing on one that is busy elsewhere: a
// transfer stops at its next buffer, a read of the input wakes at once, and
// a put that saw the end of its input checks for one before it commits
// (Ctrl-C stops the program feeding a pipe as well).  SIGPIPE is ignored, so
// a closed output is an error to report, not a silent death.
void watchInterrupts();
// The signal that interrupted keldctl, or 0.
int interruption();
inline bool interrupted() { return interruption() != 0; }
void throwIfInterrupted();

// Thrown for an interruption; keldctl exits with 128 + the signal's number.
class Interrupted : public std::runtime_error {
public:
    explicit Interrupted(int signal) : std::runtime_error("interrupted"), m_signal(signal) {}
    int signal() const { return m_signal; }

private:
    int m_signal;
};

// Reads what is there from fd (a pipe, a terminal, a file) into buf, waking
// for an interruption while it waits: the count, 0 at the end.  Sets errno
// for -1 like read(2).
ssize_t readInterruptibly(int fd, char* buf, std::size_t len);

// produce fills a buffer of at most bufferBytes and says how much it put
// there (0: the end), on a thread of its own; consume takes the buffers in
// order on the caller's thread.  run returns when everything produced was
// consumed; the first failure of either side is thrown from run once both
// have stopped.
void runPipeline(std::size_t bufferBytes, const std::function<std::size_t(char*, std::size_t)>& produce,
                 const std::function<void(const char*, std::size_t)>& consume);

// Bytes, rate and time left on one line of standard error, redrawn at most
// ten times a second; silent unless shown.  total 0: not known.
class Progress {
public:
    Progress(std::uint64_t total, bool shown);
    void add(std::uint64_t bytes);
    ~Progress() { finish(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void finish();   // clears the line (at the latest when it goes, so a failure's line starts clean)
    double seconds() const;
    std::uint64_t done() const { return m_done; }

private:
    void draw();
    std::uint64_t m_total;
    bool m_shown;
    std::uint64_t m_done = 0;
    std::chrono::steady_clock::time_point m_start, m_lastDraw;
};

} // namespace keldctl

#endif
