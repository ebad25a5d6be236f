// The gate in front of the upcalls takes a place with an atomic step and
// only waits when it is full: what it must never do is let more in than the
// limit, or leave a call asleep while a place is free.
#include "ConcurrencyGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

// Many threads entering and leaving as fast as they can: the count inside
// never passes the limit, and every thread gets through (a lost wake-up
// would leave one waiting for ever, and the test would hit its time-out).
TEST(ConcurrencyGate, NeverLetsMoreInThanTheLimitAndWakesEveryWaiter)
{
    ConcurrencyGate gate(3);
    std::atomic<int> inside{0};
    std::atomic<int> peak{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 12; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                gate.enter();
                const int now = ++inside;
                for (int seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) {
                }
                if (i % 64 == 0) std::this_thread::yield();
                --inside;
                gate.leave();
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_LE(peak.load(), 3);
    EXPECT_EQ(0, gate.active());
}

// A raised limit lets the calls already waiting in at once.
TEST(ConcurrencyGate, RaisedLimitReachesCallsAlreadyWaiting)
{
    ConcurrencyGate gate(1);
    gate.enter();
    std::vector<std::thread> waiters;
    for (int t = 0; t < 3; ++t) waiters.emplace_back([&] { gate.enter(); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(1, gate.active()) << "the others wait";
    gate.setLimit(4);
    for (std::thread& t : waiters) t.join();
    EXPECT_EQ(4, gate.active());
}

} // namespace
