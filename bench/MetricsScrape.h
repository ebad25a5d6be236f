// For a benchmark that runs the service: with on, the service of root gets
// a metrics endpoint (written into its master configuration, so make this
// before the service starts) and a thread scrapes it every 100 ms while
// this lives, ten times as often as a monitoring system would, so that the
// cost of serving scrapes shows in the figures beside a run without.
#ifndef KELD_BENCH_METRICSSCRAPE_H
#define KELD_BENCH_METRICSSCRAPE_H

#include "TestSupport.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace bench {

class MetricsScrape {
public:
    MetricsScrape(const keldtest::TempRoot& root, bool on) : m_port(on ? keldtest::freePort() : 0)
    {
        if (!on) return;
        root.writeFile("keldrive/keldrive.conf", "METRICS_ENDPOINT = 127.0.0.1:" + std::to_string(m_port) + "\n");
        m_thread = std::thread([this] { scrapeUntilStopped(); });
    }
    ~MetricsScrape()
    {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }
    MetricsScrape(const MetricsScrape&) = delete;
    MetricsScrape& operator=(const MetricsScrape&) = delete;

    std::string summary() const
    {
        if (m_port == 0) return "metrics endpoint off";
        return "metrics endpoint on, " + std::to_string(m_scrapes.load()) + " scrapes of " +
               std::to_string(m_bytes.load() / std::max(1L, m_scrapes.load())) + " bytes answered";
    }

private:
    void scrapeUntilStopped()
    {
        while (!m_stop) {
            httplib::Client client("127.0.0.1", m_port);
            const httplib::Result answer = client.Get("/metrics");
            if (answer && answer->status == 200) {
                ++m_scrapes;
                m_bytes += static_cast<long>(answer->body.size());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    const int m_port;
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_scrapes{0};
    std::atomic<long> m_bytes{0};
    std::thread m_thread;
};

} // namespace bench

#endif
