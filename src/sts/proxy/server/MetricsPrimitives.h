// The counting pieces of the service's metrics.  The call paths move them
// with relaxed atomic steps only: no lock, no allocation, no wait, so a
// transfer costs the same whether anyone scrapes or not.  The scrape reads
// them without stopping anybody; a sample may be a step behind another,
// never torn.
#ifndef KELD_PROXY_METRICSPRIMITIVES_H
#define KELD_PROXY_METRICSPRIMITIVES_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

// Each on a cache line of its own, so that two counters moved by different
// threads do not slow each other down.
class alignas(64) MetricCounter {
public:
    void add(std::uint64_t n = 1) { m_value.fetch_add(n, std::memory_order_relaxed); }
    std::uint64_t value() const { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> m_value{0};
};

class alignas(64) MetricGauge {
public:
    void add(std::int64_t n) { m_value.fetch_add(n, std::memory_order_relaxed); }
    std::int64_t value() const { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<std::int64_t> m_value{0};
};

// Durations in fixed buckets, from half a millisecond (a small transfer to
// memory) to ten seconds (a large one to a slow disk).
class DurationHistogram {
public:
    static constexpr std::size_t kBounds = 14;
    // Upper bounds of the buckets, in seconds; one more bucket takes the rest.
    static const std::array<double, kBounds> kBoundSeconds;

    void observe(std::chrono::steady_clock::duration elapsed);

    struct Snapshot {
        std::array<std::uint64_t, kBounds + 1> cumulative{};   // the last one is the count
        double sumSeconds = 0;
    };
    Snapshot snapshot() const;

private:
    alignas(64) std::array<std::atomic<std::uint64_t>, kBounds + 1> m_buckets{};
    std::atomic<std::uint64_t> m_sumNanos{0};
};

// Calls by operation and outcome.  An operation is known by its name as the
// servant logs it (a string of static storage); the first call of an
// operation claims a slot of a fixed table with one compare-and-swap, and
// later calls find it again by the name's address, so counting neither
// locks nor allocates.  The scrape merges slots of the same text.
class CallTally {
public:
    enum Outcome { kOk, kError, kException, kOutcomes };
    static const char* outcomeName(Outcome outcome);

    void count(const char* operation, Outcome outcome);

    using Counts = std::array<std::uint64_t, kOutcomes>;
    std::map<std::string, Counts> snapshot() const;

private:
    // Far more than the operations of the contract; an operation that
    // finds no free slot is counted under "other".
    static constexpr std::size_t kSlots = 512;
    static constexpr std::size_t kNameBytes = 96;
    struct alignas(64) Slot {
        std::atomic<const char*> key{nullptr};
        std::atomic<bool> named{false};   // text below is complete
        char text[kNameBytes] = {};
        std::array<std::atomic<std::uint64_t>, kOutcomes> calls{};
    };
    Slot& slotOf(const char* operation);

    std::array<Slot, kSlots> m_slots;
    Slot m_other;
};

#endif
