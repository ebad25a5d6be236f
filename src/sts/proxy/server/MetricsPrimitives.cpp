#include "MetricsPrimitives.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::array<std::uint64_t, DurationHistogram::kBounds> kBoundNanos = {
    500000,    1000000,   2500000,    5000000,    10000000,   25000000,   50000000,
    100000000, 250000000, 500000000, 1000000000, 2500000000, 5000000000, 10000000000};

const char* const kOutcomeNames[CallTally::kOutcomes] = {"ok", "error", "exception"};

// Static strings sit 8 bytes apart at the least; the multiplier spreads
// neighbours over the table.
std::size_t hashOf(const char* name)
{
    const auto bits = reinterpret_cast<std::uintptr_t>(name) >> 3;
    return static_cast<std::size_t>(bits * 0x9E3779B97F4A7C15ull >> 32);
}

} // namespace

const std::array<double, DurationHistogram::kBounds> DurationHistogram::kBoundSeconds = {
    0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10};

void DurationHistogram::observe(std::chrono::steady_clock::duration elapsed)
{
    const auto nanos = static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
    std::size_t bucket = 0;
    while (bucket < kBounds && nanos > kBoundNanos[bucket]) ++bucket;
    m_buckets[bucket].fetch_add(1, std::memory_order_relaxed);
    m_sumNanos.fetch_add(nanos, std::memory_order_relaxed);
}

DurationHistogram::Snapshot DurationHistogram::snapshot() const
{
    Snapshot s;
    std::uint64_t running = 0;
    for (std::size_t i = 0; i <= kBounds; ++i) {
        running += m_buckets[i].load(std::memory_order_relaxed);
        s.cumulative[i] = running;
    }
    s.sumSeconds = static_cast<double>(m_sumNanos.load(std::memory_order_relaxed)) / 1e9;
    return s;
}

const char* CallTally::outcomeName(Outcome outcome)
{
    return kOutcomeNames[outcome];
}

CallTally::Slot& CallTally::slotOf(const char* operation)
{
    const std::size_t start = hashOf(operation);
    for (std::size_t probe = 0; probe < kSlots; ++probe) {
        Slot& slot = m_slots[(start + probe) % kSlots];
        const char* key = slot.key.load(std::memory_order_relaxed);
        if (key == nullptr && slot.key.compare_exchange_strong(key, operation, std::memory_order_relaxed)) {
            std::strncpy(slot.text, operation, kNameBytes - 1);
            slot.named.store(true, std::memory_order_release);
            return slot;
        }
        if (key == operation) return slot;   // also when another thread just claimed it for us
    }
    return m_other;
}

void CallTally::count(const char* operation, Outcome outcome)
{
    slotOf(operation != nullptr ? operation : "unknown").calls[outcome].fetch_add(1, std::memory_order_relaxed);
}

std::map<std::string, CallTally::Counts> CallTally::snapshot() const
{
    std::map<std::string, Counts> merged;
    const auto addSlot = [&merged](const std::string& name, const Slot& slot) {
        Counts& counts = merged[name];
        for (int o = 0; o < kOutcomes; ++o) counts[o] += slot.calls[o].load(std::memory_order_relaxed);
    };
    for (const Slot& slot : m_slots) {
        if (slot.named.load(std::memory_order_acquire)) addSlot(slot.text, slot);
    }
    bool otherSeen = false;
    for (const auto& calls : m_other.calls) otherSeen = otherSeen || calls.load(std::memory_order_relaxed) != 0;
    if (otherSeen) addSlot("other", m_other);
    return merged;
}
