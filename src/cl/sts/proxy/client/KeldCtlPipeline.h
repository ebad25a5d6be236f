// Moving data in large transfers on two threads, so that the storage call
// of one buffer overlaps the file work (reading or writing, and hashing) of
// the next; a progress bar for a terminal; the interruption flag.
#ifndef KELD_CLIENT_KELDCTLPIPELINE_H
#define KELD_CLIENT_KELDCTLPIPELINE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace keldctl {

// Set by SIGINT and SIGTERM (installed by watchInterrupts); a transfer
// stops at its next buffer.  SIGPIPE is ignored, so a closed output is an
// error to report, not a silent death.
void watchInterrupts();
bool interrupted();
void throwIfInterrupted();

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
    void finish();   // clears the line
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
