#include "LogMailbox.h"

#include <utility>

LogMailbox::LogMailbox(Clock::time_point now) : m_lastRead(now) {}

bool LogMailbox::post(const Line& line, Clock::time_point now, Clock::duration idleLimit)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (closeIfIdle(now, idleLimit)) return false;
    m_lines.push_back(line);
    m_bytes += line->size();
    while (m_lines.size() > kMaxLines || m_bytes > kMaxBytes) dropOldest();
    return true;
}

LogMailbox::Taken LogMailbox::take(std::string& out, Clock::time_point now, Clock::duration idleLimit)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (closeIfIdle(now, idleLimit)) return Taken::Closed;
    m_lastRead = now;
    if (m_dropped > 0) {
        out = std::to_string(m_dropped) + (m_dropped == 1 ? " line" : " lines") +
              " dropped: the mailbox was not read\n";
        m_dropped = 0;
        return Taken::Line;
    }
    if (m_lines.empty()) return Taken::Empty;
    out = *m_lines.front();
    dropFront();
    return Taken::Line;
}

bool LogMailbox::closed()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_closed;
}

bool LogMailbox::closeIfIdle(Clock::time_point now, Clock::duration idleLimit)
{
    if (m_closed) return true;
    if (now - m_lastRead < idleLimit) return false;
    m_closed = true;
    std::deque<Line>().swap(m_lines);   // gives the deque's blocks back too
    m_bytes = 0;
    m_dropped = 0;
    return true;
}

void LogMailbox::dropFront()
{
    m_bytes -= m_lines.front()->size();
    m_lines.pop_front();
}

void LogMailbox::dropOldest()
{
    dropFront();
    ++m_dropped;
}
