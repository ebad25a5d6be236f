// The service's metrics and health endpoint: where it listens, and what a
// scrape reads besides the counters the call paths move.
#include "ProxyV9SVC.h"

#include "ConcurrencyGate.h"
#include "MasterConfig.h"
#include "Metrics.h"
#include "MetricsEndpoint.h"
#include "PeerGate.h"
#include "ProxyLogger.h"

void ProxyV9SVC::prepareMetrics(const char* szWho)
{
    const std::string& text = get_master_config_ptr()->METRICS_ENDPOINT;
    if (text.empty()) return;
    MetricsEndpoint::Address address;
    std::string why;
    if (!MetricsEndpoint::parseAddress(text, address, why)) {
        refuseStart(szWho, "METRICS_ENDPOINT '" + text + "' " + why);
    }
    m_metrics = std::make_unique<MetricsEndpoint>([this] { return scrapeMetrics(); });
    why = m_metrics->bind(address);
    if (!why.empty()) {
        m_metrics.reset();
        refuseStart(szWho, "cannot serve metrics on " + text + ": " + why);
    }
    m_plog->logMsg(nullptr, szWho, STS_ESINFO, "metrics served at http://%s/metrics, health at /healthz",
                   text.c_str());
}

// On an HTTP thread: the session registry exists by then, as the endpoint
// answers only once the service serves.
std::string ProxyV9SVC::scrapeMetrics()
{
    ScrapeReadings readings;
    readings.openSessions = m_sm != nullptr ? static_cast<std::int64_t>(m_sm->OpenSessions()) : 0;
    readings.jobsRunning = nActiveJobCounter.load();
    readings.copiesRunning = copy_extent_count.load();
    readings.callsWaiting = ConcurrencyGate::upcalls().waiting();
    readings.callsWaited = ConcurrencyGate::upcalls().waited();
    readings.peersRefused = PeerGate::refusedConnections();
    readProcessUsage(readings);
    return exposeMetrics(ServiceMetrics::process(), readings);
}

void ProxyV9SVC::metricsStopping()
{
    if (m_metrics != nullptr) m_metrics->stopping();
}
