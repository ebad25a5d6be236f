// What the service counts about itself, for the operator's monitoring: the
// calls it answers, the bytes it moves and how long the plug-ins take, the
// objects and sessions its clients hold, and what it refuses.  The call
// paths move the counters of ServiceMetrics::process() where they already
// pass once per call (runSequenced, a transfer's plug-in call, a servant's
// open handle); what other parts keep anyway (jobs, copies, sessions,
// waiting calls, refused peers) and the process's own size are read when a
// scrape asks, into ScrapeReadings.  exposeMetrics writes both in the
// Prometheus text format; MetricsEndpoint serves it.
#ifndef KELD_PROXY_METRICS_H
#define KELD_PROXY_METRICS_H

#include "MetricsPrimitives.h"

#include <chrono>
#include <cstdint>
#include <string>

// The kinds of transfer between a client and an image.
enum class TransferMetric { kDataWrite, kDataRead, kMetaWrite, kMetaRead, kCount };

// The kinds of object a client holds open (a plug-in handle behind it).
enum class ObjectKind { kServer, kLsu, kLsuList, kImage, kImageList, kFileList, kCount };

struct TransferMeter {
    MetricCounter bytes;
    DurationHistogram duration;

    // One plug-in call of a transfer, however it ended: done bytes moved.
    void record(std::uint64_t done, std::chrono::steady_clock::duration elapsed)
    {
        bytes.add(done);
        duration.observe(elapsed);
    }
};

class ServiceMetrics {
public:
    // The service's one registry; never destroyed, so that a call still
    // running while the process ends may count.
    static ServiceMetrics& process();

    CallTally calls;            // every numbered call, by operation and outcome
    MetricCounter replayed;     // answered from the record of an earlier run
    MetricCounter outOfOrder;   // refused: a lower number than the last

    TransferMeter& transfer(TransferMetric kind) { return m_transfers[static_cast<int>(kind)]; }
    const TransferMeter& transfer(TransferMetric kind) const { return m_transfers[static_cast<int>(kind)]; }
    MetricGauge& openObjects(ObjectKind kind) { return m_open[static_cast<int>(kind)]; }
    const MetricGauge& openObjects(ObjectKind kind) const { return m_open[static_cast<int>(kind)]; }

private:
    TransferMeter m_transfers[static_cast<int>(TransferMetric::kCount)];
    MetricGauge m_open[static_cast<int>(ObjectKind::kCount)];
};

// Counted at the moment of the scrape.
struct ScrapeReadings {
    std::int64_t openSessions = 0;
    std::int64_t jobsRunning = 0;
    std::int64_t copiesRunning = 0;
    std::int64_t callsWaiting = 0;        // for a request thread, now
    std::uint64_t callsWaited = 0;        // ever had to wait for one
    std::uint64_t peersRefused = 0;
    std::int64_t residentBytes = -1;      // -1: /proc could not tell
    std::int64_t openDescriptors = -1;
};

// This process's resident size and open descriptors, from /proc/self.
void readProcessUsage(ScrapeReadings& readings);

// The whole exposition: every family with its HELP and TYPE lines.
std::string exposeMetrics(const ServiceMetrics& metrics, const ScrapeReadings& readings);

#endif
