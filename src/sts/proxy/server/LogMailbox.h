// The lines one remote logger holds for its client: what the service's log
// wrote since the logger opened, oldest first, until the client polls them.
//
// A client that opens a logger and stops reading must not make the service
// grow: the mailbox keeps at most kMaxLines lines and kMaxBytes bytes of
// text, dropping the oldest first, and the next poll gets one notice line in
// their place saying how many went.  A mailbox not polled for its idle limit
// closes: its lines are freed, it takes no more, and a poll is refused.
//
// The caller passes the time, so that the idle rule needs no clock here.
// Every operation is thread-safe: writers of log lines post while the
// client's ORB thread takes.
#ifndef KELD_PROXY_LOGMAILBOX_H
#define KELD_PROXY_LOGMAILBOX_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

class LogMailbox {
public:
    using Clock = std::chrono::steady_clock;
    // One written line, shared by every mailbox it was posted to.
    using Line = std::shared_ptr<const std::string>;

    // A day of a busy service's log at VERBOSE 6 far outgrows any mailbox;
    // these keep an unread one to a few MiB (lines are at most 1 KiB), and a
    // reader that polls in a loop never comes near them.
    static constexpr size_t kMaxLines = 10000;
    static constexpr size_t kMaxBytes = 4 * 1024 * 1024;

    // The idle time counts from now, as if the mailbox had just been read.
    explicit LogMailbox(Clock::time_point now);
    LogMailbox(const LogMailbox&) = delete;
    LogMailbox& operator=(const LogMailbox&) = delete;

    // Keeps the line, dropping the oldest beyond the bounds.  False, and the
    // line is not kept, once the mailbox is closed; a mailbox idle for
    // idleLimit closes here.
    bool post(const Line& line, Clock::time_point now, Clock::duration idleLimit);

    enum class Taken {
        Line,     // out holds the next line, or the notice of dropped ones
        Empty,    // nothing to deliver
        Closed,   // closed for idleness, now or before
    };
    // A poll: counts as reading even when empty.
    Taken take(std::string& out, Clock::time_point now, Clock::duration idleLimit);

    bool closed();

private:
    bool closeIfIdle(Clock::time_point now, Clock::duration idleLimit);
    void dropFront();
    void dropOldest();   // and counts it for the notice

    std::mutex m_lock;
    std::deque<Line> m_lines;
    size_t m_bytes = 0;
    // Oldest lines dropped since the last poll; they were all in front of
    // what is kept, so their notice goes out first.
    size_t m_dropped = 0;
    Clock::time_point m_lastRead;
    bool m_closed = false;
};

#endif
