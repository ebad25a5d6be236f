#include "Metrics.h"

#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <unistd.h>

namespace {

const char* const kPrefix = "keldpxy_";

const char* const kTransferLabels[] = {
    "direction=\"write\",part=\"data\"", "direction=\"read\",part=\"data\"",
    "direction=\"write\",part=\"meta\"", "direction=\"read\",part=\"meta\""};

const char* const kObjectKindNames[] = {"server", "lsu", "lsu_list", "image", "image_list", "file_list"};

// A label value as the text format wants it: backslash, quote and newline escaped.
std::string escaped(const std::string& value)
{
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

// The text under construction, one family after another.
class Exposition {
public:
    void family(const char* name, const char* type, const char* help)
    {
        m_text += std::string("# HELP ") + kPrefix + name + " " + help + "\n";
        m_text += std::string("# TYPE ") + kPrefix + name + " " + type + "\n";
    }
    // labels: the text between the braces, empty for none.
    void sample(const std::string& name, const std::string& labels, const std::string& value)
    {
        m_text += kPrefix + name;
        if (!labels.empty()) m_text += "{" + labels + "}";
        m_text += " " + value + "\n";
    }
    void sample(const std::string& name, const std::string& labels, std::int64_t value)
    {
        sample(name, labels, std::to_string(value));
    }
    void sample(const std::string& name, const std::string& labels, std::uint64_t value)
    {
        sample(name, labels, std::to_string(value));
    }
    void histogram(const std::string& name, const std::string& labels, const DurationHistogram::Snapshot& s)
    {
        const std::string comma = labels.empty() ? "" : labels + ",";
        for (std::size_t i = 0; i < DurationHistogram::kBounds; ++i) {
            sample(name + "_bucket", comma + "le=\"" + number(DurationHistogram::kBoundSeconds[i]) + "\"",
                   s.cumulative[i]);
        }
        sample(name + "_bucket", comma + "le=\"+Inf\"", s.cumulative[DurationHistogram::kBounds]);
        sample(name + "_sum", labels, number(s.sumSeconds));
        sample(name + "_count", labels, s.cumulative[DurationHistogram::kBounds]);
    }
    const std::string& text() const { return m_text; }

private:
    std::string m_text;
};

void exposeCalls(Exposition& out, const ServiceMetrics& m)
{
    out.family("calls_total", "counter",
               "Numbered calls answered, by operation and outcome (ok; error: a storage error; "
               "exception: any other failure).");
    for (const auto& [operation, counts] : m.calls.snapshot()) {
        for (int o = 0; o < CallTally::kOutcomes; ++o) {
            out.sample("calls_total",
                       "operation=\"" + escaped(operation) + "\",outcome=\"" +
                           CallTally::outcomeName(static_cast<CallTally::Outcome>(o)) + "\"",
                       counts[o]);
        }
    }
    out.family("calls_replayed_total", "counter",
               "Calls sent again after a lost reply and answered from the record of their first run.");
    out.sample("calls_replayed_total", "", m.replayed.value());
    out.family("calls_out_of_order_total", "counter",
               "Calls refused because their number was lower than the object's last one.");
    out.sample("calls_out_of_order_total", "", m.outOfOrder.value());
}

void exposeTransfers(Exposition& out, const ServiceMetrics& m)
{
    const TransferMetric writes[] = {TransferMetric::kDataWrite, TransferMetric::kMetaWrite};
    const TransferMetric reads[] = {TransferMetric::kDataRead, TransferMetric::kMetaRead};
    const auto partOf = [](TransferMetric kind) {
        return std::string("part=\"") +
               (kind == TransferMetric::kDataWrite || kind == TransferMetric::kDataRead ? "data" : "meta") + "\"";
    };
    out.family("written_bytes_total", "counter", "Bytes written to images, image data and metadata.");
    for (const TransferMetric kind : writes) out.sample("written_bytes_total", partOf(kind), m.transfer(kind).bytes.value());
    out.family("read_bytes_total", "counter", "Bytes read from images, image data and metadata.");
    for (const TransferMetric kind : reads) out.sample("read_bytes_total", partOf(kind), m.transfer(kind).bytes.value());
    out.family("transfer_duration_seconds", "histogram",
               "Time the storage plug-in took for one transfer of a client, by direction and part.");
    for (int k = 0; k < static_cast<int>(TransferMetric::kCount); ++k) {
        out.histogram("transfer_duration_seconds", kTransferLabels[k],
                      m.transfer(static_cast<TransferMetric>(k)).duration.snapshot());
    }
}

void exposeHoldings(Exposition& out, const ServiceMetrics& m, const ScrapeReadings& r)
{
    out.family("open_objects", "gauge", "Objects clients hold open with a storage handle behind them, by kind.");
    for (int k = 0; k < static_cast<int>(ObjectKind::kCount); ++k) {
        out.sample("open_objects", std::string("kind=\"") + kObjectKindNames[k] + "\"",
                   m.openObjects(static_cast<ObjectKind>(k)).value());
    }
    out.family("open_sessions", "gauge", "Storage sessions open for clients.");
    out.sample("open_sessions", "", r.openSessions);
    out.family("jobs_running", "gauge", "Jobs clients announced and have not ended.");
    out.sample("jobs_running", "", r.jobsRunning);
    out.family("copies_running", "gauge", "Server-side copies of image extents under way.");
    out.sample("copies_running", "", r.copiesRunning);
}

void exposeAdmission(Exposition& out, const ScrapeReadings& r)
{
    out.family("calls_waiting", "gauge", "Calls waiting for a request thread now.");
    out.sample("calls_waiting", "", r.callsWaiting);
    out.family("calls_waited_total", "counter", "Calls that found every request thread busy and waited.");
    out.sample("calls_waited_total", "", r.callsWaited);
    out.family("peers_refused_total", "counter", "Connections closed by peer admission.");
    out.sample("peers_refused_total", "", r.peersRefused);
}

void exposeProcess(Exposition& out, const ScrapeReadings& r)
{
    out.family("process_resident_memory_bytes", "gauge", "Resident size of the service.");
    out.sample("process_resident_memory_bytes", "", r.residentBytes);
    out.family("process_open_fds", "gauge", "Open file descriptors of the service.");
    out.sample("process_open_fds", "", r.openDescriptors);
}

} // namespace

ServiceMetrics& ServiceMetrics::process()
{
    static ServiceMetrics* const metrics = new ServiceMetrics;
    return *metrics;
}

void readProcessUsage(ScrapeReadings& readings)
{
    std::ifstream statm("/proc/self/statm");
    long long pages = 0;
    long long resident = 0;
    if (statm >> pages >> resident) readings.residentBytes = resident * sysconf(_SC_PAGESIZE);
    if (DIR* fds = opendir("/proc/self/fd")) {
        std::int64_t count = 0;
        while (const dirent* entry = readdir(fds)) count += entry->d_name[0] != '.';
        closedir(fds);
        readings.openDescriptors = count - 1;   // not the one reading the directory
    }
}

std::string exposeMetrics(const ServiceMetrics& metrics, const ScrapeReadings& readings)
{
    Exposition out;
    exposeCalls(out, metrics);
    exposeTransfers(out, metrics);
    exposeHoldings(out, metrics, readings);
    exposeAdmission(out, readings);
    exposeProcess(out, readings);
    return out.text();
}
