// One remote logger's mailbox on its own: what an unread mailbox keeps
// within its bounds, where the notice of dropped lines goes, and the idle
// close.  The service's side of it is pinned over IIOP in tests/entry.
#include "LogMailbox.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using Clock = LogMailbox::Clock;
const Clock::duration kIdle = std::chrono::minutes(10);

LogMailbox::Line line(const std::string& text)
{
    return std::make_shared<const std::string>(text);
}

std::string take(LogMailbox& box, Clock::time_point at = Clock::time_point())
{
    std::string out;
    const LogMailbox::Taken taken = box.take(out, at, kIdle);
    return taken == LogMailbox::Taken::Line ? out : taken == LogMailbox::Taken::Empty ? "(empty)" : "(closed)";
}

// A line of 1000 bytes that begins with its number.
std::string numbered(size_t i)
{
    char head[16];
    std::snprintf(head, sizeof(head), "%06zu:", i);
    return head + std::string(993, 'x');
}

TEST(LogMailbox, KeepsTheNewestWithinItsBytesAndPutsTheNoticeWhereTheDroppedLinesWere)
{
    const Clock::time_point t0;
    LogMailbox box(t0);
    // Lines of 1000 bytes: the byte bound holds before the line bound.
    const size_t kept = LogMailbox::kMaxBytes / 1000;
    for (size_t i = 0; i < kept + 50; ++i) ASSERT_TRUE(box.post(line(numbered(i)), t0, kIdle));
    EXPECT_EQ("50 lines dropped: the mailbox was not read\n", take(box));
    EXPECT_EQ(numbered(50), take(box));

    // Read partly, then overrun again: the new notice counts only the new
    // drop and stands before what is kept.
    box.post(line(numbered(kept + 50)), t0, kIdle);
    box.post(line(numbered(kept + 51)), t0, kIdle);
    EXPECT_EQ("1 line dropped: the mailbox was not read\n", take(box));
    EXPECT_EQ(numbered(52), take(box));
}

TEST(LogMailbox, ClosesWhenNotPolledForItsIdleLimitAndTakesNothingMore)
{
    const Clock::time_point t0;
    LogMailbox polled(t0);
    LogMailbox unread(t0);
    unread.post(line("never read"), t0, kIdle);
    EXPECT_EQ("(empty)", take(polled, t0 + kIdle / 2));   // an empty poll is a read too
    EXPECT_TRUE(polled.post(line("a"), t0 + kIdle, kIdle));
    EXPECT_FALSE(unread.post(line("late"), t0 + kIdle, kIdle));
    EXPECT_TRUE(unread.closed());
    EXPECT_EQ("(closed)", take(unread, t0 + kIdle));
    EXPECT_EQ("a", take(polled, t0 + kIdle));
    EXPECT_EQ("(closed)", take(polled, t0 + 3 * kIdle)) << "a poll long after the last one finds it closed";
    EXPECT_FALSE(polled.post(line("b"), t0 + 3 * kIdle, kIdle));
}

} // namespace
