// The numbering of the calls on one remote object (or, for the manager, on
// one session id at one hop).  The service keeps one record per object and
// answers a repeated number from it, so calls on one object go one at a
// time, each with a number above the last, and a resent call keeps its
// number.
#ifndef KELD_CLIENT_CALLNUMBERS_H
#define KELD_CLIENT_CALLNUMBERS_H

#include "ContractNames.h"

#include <chrono>
#include <mutex>

class CallNumbers {
public:
    // A manager's record moves to the clock when the service tosses a number
    // as out of order (another process used the session id before).
    explicit CallNumbers(bool movesToClockOnToss = false) : m_movesToClock(movesToClockOnToss) {}
    CallNumbers(const CallNumbers&) = delete;
    CallNumbers& operator=(const CallNumbers&) = delete;

    // Holds the object's calls: one call, with its resends, at a time.
    std::unique_lock<std::mutex> hold() { return std::unique_lock<std::mutex>(m_lock); }

    // The number of the next call; under hold().
    API::UInt64 next() { return ++m_last; }

    bool movesToClockOnToss() const { return m_movesToClock; }
    // Continues above the clock's microseconds, which every earlier process
    // counting from 1 or from an earlier clock stays below; under hold().
    void moveToClock()
    {
        const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        const API::UInt64 clock = static_cast<API::UInt64>(now.count());
        if (clock > m_last) m_last = clock;
    }

private:
    std::mutex m_lock;
    API::UInt64 m_last = 0;
    const bool m_movesToClock;
};

#endif
