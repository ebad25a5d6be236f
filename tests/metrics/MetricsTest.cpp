// The service's metrics and health endpoint, scraped over HTTP while a
// client backs up and restores an image through the service: the text is
// a well-formed exposition, its counters move with what the client did
// (and with nothing else), /healthz follows the service's life, and an
// endpoint the service cannot serve stops its start.
#include "DiskClient.h"
#include "MetricsPrimitives.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <csignal>
#include <map>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

const size_t kPiece = 64 * 1024;

// One scrape, parsed: the families announced and every sample by its
// series ("name{labels}" exactly as written).
struct Scrape {
    std::set<std::string> helped, typed;
    std::map<std::string, std::string> typeOf;
    std::map<std::string, double> series;
    std::vector<std::string> problems;

    double at(const std::string& key) const
    {
        const auto it = series.find(key);
        if (it == series.end()) ADD_FAILURE() << "no series " << key;
        return it == series.end() ? -1 : it->second;
    }
};

// The family a sample belongs to: a histogram's parts name theirs.
std::string familyOf(const std::string& name, const std::map<std::string, std::string>& typeOf)
{
    for (const char* suffix : {"_bucket", "_sum", "_count"}) {
        const std::string s = suffix;
        if (name.size() > s.size() && name.compare(name.size() - s.size(), s.size(), s) == 0) {
            const std::string base = name.substr(0, name.size() - s.size());
            const auto it = typeOf.find(base);
            if (it != typeOf.end() && it->second == "histogram") return base;
        }
    }
    return name;
}

Scrape parse(const std::string& text)
{
    Scrape s;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first, name, rest;
        words >> first;
        if (first == "#") {
            words >> rest >> name;
            if (rest == "HELP") s.helped.insert(name);
            if (rest == "TYPE") {
                words >> s.typeOf[name];
                s.typed.insert(name);
            }
            continue;
        }
        const size_t space = line.rfind(' ');
        const std::string key = line.substr(0, space);
        if (s.series.count(key) != 0) s.problems.push_back("series twice: " + key);
        s.series[key] = std::stod(line.substr(space + 1));
        const std::string family = familyOf(key.substr(0, key.find('{')), s.typeOf);
        if (s.helped.count(family) == 0 || s.typed.count(family) == 0) {
            s.problems.push_back("sample before its HELP and TYPE: " + key);
        }
        if (family.rfind("keldpxy_", 0) != 0) s.problems.push_back("not ours: " + family);
        if (s.typeOf[family] == "counter" && family.size() < 6) s.problems.push_back("short counter " + family);
        if (s.typeOf[family] == "counter" && family.compare(family.size() - 6, 6, "_total") != 0) {
            s.problems.push_back("counter without _total: " + family);
        }
    }
    for (const std::string& name : s.helped) {
        if (s.typed.count(name) == 0) s.problems.push_back("HELP without TYPE: " + name);
    }
    return s;
}

class Metrics : public ServiceFixture {
protected:
    void SetUp() override
    {
        root.writeFile("keldrive/keldrive.conf", "METRICS_ENDPOINT = 127.0.0.1:" + std::to_string(metricsPort) + "\n");
        start();
    }
    httplib::Result get(const char* path)
    {
        httplib::Client client("127.0.0.1", metricsPort);
        client.set_read_timeout(5, 0);
        return client.Get(path);
    }
    Scrape scrape()
    {
        const httplib::Result answer = get("/metrics");
        EXPECT_TRUE(answer && answer->status == 200);
        Scrape s = parse(answer ? answer->body : "");
        EXPECT_EQ(std::vector<std::string>(), s.problems);
        return s;
    }
    int health()
    {
        const httplib::Result answer = get("/healthz");
        return answer ? answer->status : -1;
    }

    int metricsPort = freePort();
};

const std::string kWrites = "keldpxy_calls_total{operation=\"ImageImpl::writeImage\",outcome=\"ok\"}";
const std::string kWriteErrors = "keldpxy_calls_total{operation=\"ImageImpl::writeImage\",outcome=\"error\"}";
const std::string kDataWritten = "keldpxy_written_bytes_total{part=\"data\"}";
const std::string kDataRead = "keldpxy_read_bytes_total{part=\"data\"}";
const std::string kWriteTimes = "keldpxy_transfer_duration_seconds_count{direction=\"write\",part=\"data\"}";
const std::string kOpenImages = "keldpxy_open_objects{kind=\"image\"}";

TEST_F(Metrics, ScrapesFollowABackupAndRestore)
{
    const httplib::Result ok = get("/healthz");
    ASSERT_TRUE(ok);
    EXPECT_EQ(200, ok->status);
    EXPECT_EQ("ok\n", ok->body);
    EXPECT_EQ(404, get("/elsewhere")->status);

    const Scrape idle = scrape();
    EXPECT_EQ(0, idle.at(kDataWritten));
    EXPECT_EQ(0, idle.at(kOpenImages));
    EXPECT_EQ(0, idle.at("keldpxy_open_sessions"));
    EXPECT_GT(idle.at("keldpxy_process_resident_memory_bytes"), 1e6);
    EXPECT_GT(idle.at("keldpxy_process_open_fds"), 3);

    // Three pieces written, the last one resent as after a lost reply, and
    // an older number sent again too late.
    API::StorageServer_var server = openDisk(1, "metrics");
    API::Image_var image = server->createImageV13(2, "lsu0", imageDefinition("backup"), 0);
    API::UInt64 written = 0;
    for (API::UInt64 seq = 1; seq <= 3; ++seq) image->writeImageV12(seq, positioned(kPiece), kPiece, (seq - 1) * kPiece, written);
    image->writeImageV12(3, positioned(kPiece), kPiece, 2 * kPiece, written);
    EXPECT_TRUE(raises(STS_ESEQUENCE, [&] { image->writeImageV12(2, positioned(kPiece), kPiece, kPiece, written); }));
    server->increaseJobCounterV12(3);

    const Scrape busy = scrape();
    EXPECT_EQ(3 * kPiece, busy.at(kDataWritten));
    EXPECT_EQ(4, busy.at(kWrites));         // the resend is answered, from the record
    EXPECT_EQ(1, busy.at(kWriteErrors));
    EXPECT_EQ(3, busy.at(kWriteTimes));     // the plug-in wrote three times only
    EXPECT_EQ(busy.at(kWriteTimes),
              busy.at("keldpxy_transfer_duration_seconds_bucket{direction=\"write\",part=\"data\",le=\"+Inf\"}"));
    EXPECT_EQ(1, busy.at("keldpxy_calls_replayed_total"));
    EXPECT_EQ(1, busy.at("keldpxy_calls_out_of_order_total"));
    EXPECT_EQ(1, busy.at("keldpxy_calls_total{operation=\"StorageServerImpl::createImage\",outcome=\"ok\"}"));
    EXPECT_EQ(1, busy.at(kOpenImages));
    EXPECT_EQ(1, busy.at("keldpxy_open_objects{kind=\"server\"}"));
    EXPECT_EQ(1, busy.at("keldpxy_open_sessions"));
    EXPECT_EQ(1, busy.at("keldpxy_jobs_running"));
    EXPECT_EQ(0, busy.at(kDataRead));

    server->closeImageV12(4, image, 0, 0);
    API::Image_var reader = server->openImageV13(5, "lsu0", imageDefinition("backup"), kOpenRead);
    API::Bytes_var back;
    API::UInt64 got = 0;
    reader->readImageV12(1, back, 3 * kPiece, 0, got);
    EXPECT_EQ(3 * kPiece, got);
    server->closeImageV12(6, reader, 0, 0);
    const Scrape restored = scrape();
    EXPECT_EQ(3 * kPiece, restored.at(kDataRead));
    EXPECT_EQ(3 * kPiece, restored.at(kDataWritten));
    EXPECT_EQ(0, restored.at(kOpenImages));

    // A stop waits for the announced job: meanwhile the service says so.
    service->signal(SIGTERM);
    EXPECT_TRUE(waitFor([&] { return health() == 503; }, 10s));
    EXPECT_EQ(1, scrape().at("keldpxy_jobs_running"));
    server->decreaseJobCounterV12(7);
    EXPECT_EQ(0, service->wait(30s));
}

// A port some other program listens on, for as long as it lives.
class TakenPort {
public:
    TakenPort() : m_fd(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        EXPECT_EQ(0, ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
        EXPECT_EQ(0, ::listen(m_fd, 1));
    }
    ~TakenPort() { ::close(m_fd); }
    TakenPort(const TakenPort&) = delete;
    TakenPort& operator=(const TakenPort&) = delete;

    const int port = freePort();

private:
    int m_fd;
};

TEST(MetricsEndpoint, AnAddressThatCannotBeServedStopsTheStart)
{
    TempRoot root;
    const TakenPort taken;
    const std::string busy = "127.0.0.1:" + std::to_string(taken.port);
    const struct {
        std::string value;
        std::string logged;
    } cases[] = {
        {"127.0.0.1", "METRICS_ENDPOINT '127.0.0.1' has no port (HOST:PORT)"},
        {"127.0.0.1:http", "METRICS_ENDPOINT '127.0.0.1:http' has no port from 1 to 65535"},
        {"127.0.0.1:65536", "METRICS_ENDPOINT '127.0.0.1:65536' has no port from 1 to 65535"},
        {":9810", "METRICS_ENDPOINT ':9810' has no host name or address"},
        {"::1:9810", "METRICS_ENDPOINT '::1:9810' has an IPv6 address without brackets"},
        {busy, "cannot serve metrics on " + busy + ": Address already in use"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        root.writeFile("keldrive/keldrive.conf", "METRICS_ENDPOINT = " + c.value + "\n");
        const int port = freePort();
        EXPECT_NE(0, runKeldpxy({"-start", "-ORBListenEndPoints", endpointArg(port)}, 20s));
        EXPECT_NE(std::string::npos, root.readLog().find(c.logged));
    }
}

// What the scrape is made of, at its edges.
TEST(MetricsPrimitives, BucketsIncludeTheirBoundAndOperationsMergeByName)
{
    DurationHistogram h;
    h.observe(std::chrono::microseconds(500));    // on the first bound: in it
    h.observe(std::chrono::microseconds(501));
    h.observe(std::chrono::seconds(11));          // beyond every bound
    const DurationHistogram::Snapshot s = h.snapshot();
    EXPECT_EQ(1u, s.cumulative[0]);
    EXPECT_EQ(2u, s.cumulative[1]);
    EXPECT_EQ(2u, s.cumulative[DurationHistogram::kBounds - 1]);
    EXPECT_EQ(3u, s.cumulative[DurationHistogram::kBounds]);
    EXPECT_NEAR(11.001001, s.sumSeconds, 1e-9);

    // The same name at two addresses is one operation; a table full of
    // operations counts the rest as "other", and loses none.
    CallTally tally;
    const std::string copy = "Image::write";
    tally.count("Image::write", CallTally::kOk);
    tally.count(copy.c_str(), CallTally::kError);
    std::vector<std::string> names;
    for (int i = 0; i < 600; ++i) names.push_back("op" + std::to_string(i));
    for (const std::string& name : names) tally.count(name.c_str(), CallTally::kOk);
    const auto counts = tally.snapshot();
    EXPECT_EQ((CallTally::Counts{1, 1, 0}), counts.at("Image::write"));
    std::uint64_t all = 0;
    for (const auto& [name, c] : counts) all += c[CallTally::kOk];
    EXPECT_EQ(601u, all);
    EXPECT_GT(counts.at("other")[CallTally::kOk], 0u);
}

} // namespace
