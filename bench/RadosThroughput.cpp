// The RADOS plug-in through the service against a client of the cluster
// itself, measured side by side in one run on a development cluster: an
// image written and read in 4 MiB and 1 MiB transfers through a keldpxy
// serving a Rados: server (the data-path client: one call at a time, as a
// backup stream sends them) and the same bytes written and read by this
// process with libradosstriper, laid out as the plug-in lays them (one
// stripe per object of the server's object size).  Then two services, each
// with its own install root and client, writing two images at once against
// one service writing one.
//
// Each side's time runs from the create or open of its image to the end of
// its close, so that whatever a side leaves to its close is paid.  Rounds
// alternate which side goes first, and every image is deleted once read,
// since the development cluster keeps its objects in memory.
//
//   rados_throughput [MiB per image, default 1024] [rounds, default 3] [object size in MiB, default 64]
//
// The cluster is one of its own, made by scripts/ceph-dev.sh in a scratch
// directory and stopped at the end, or the one whose ceph.conf
// KELD_CEPH_CONF names (pool "keld", with room for two images at once).
#include "DataPathSides.h"
#include "ProcessStats.h"
#include "TestSupport.h"

#include <radosstriper/libradosstriper.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using bench::API::StorageServerManager;

namespace {

const size_t MiB = 1024 * 1024;
const char* const kPool = "keld";
const char* const kServer = "Rados:bench";

// ---- figures -----------------------------------------------------------------

struct Spread {
    double median, lowest, highest;
};

Spread spreadOf(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return {v[v.size() / 2], v.front(), v.back()};
}

std::string rateText(const std::vector<double>& mbPerSecond)
{
    const Spread s = spreadOf(mbPerSecond);
    char text[64];
    std::snprintf(text, sizeof(text), "%5.0f (%4.0f-%4.0f)", s.median, s.lowest, s.highest);
    return text;
}

template <typename Work>
double secondsOf(Work work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---- the cluster -----------------------------------------------------------------

// The cluster of KELD_CEPH_CONF, or a development cluster of our own in a
// scratch directory, with memory for two images and some to spare.
class Cluster {
public:
    explicit Cluster(size_t imageBytes)
    {
        if (const char* conf = std::getenv("KELD_CEPH_CONF")) {
            m_conf = conf;
            return;
        }
        char templ[] = "/tmp/keld-rados-bench-XXXXXX";
        if (mkdtemp(templ) == nullptr) throw std::runtime_error("cannot make a scratch directory in /tmp");
        m_dir = templ;
        const std::string device = std::to_string(2 * imageBytes + 1024 * MiB);
        const std::string start = "KELD_CEPH_DEVICE_BYTES=" + device + " " KELD_CEPH_DEV " start " + m_dir;
        std::printf("starting a development cluster in %s\n", m_dir.c_str());
        std::fflush(stdout);
        if (FILE* out = popen(start.c_str(), "r")) {
            char line[4096];
            while (std::fgets(line, sizeof(line), out) != nullptr) m_conf = line;
            if (pclose(out) != 0) m_conf.clear();
        }
        if (!m_conf.empty() && m_conf.back() == '\n') m_conf.pop_back();
        if (m_conf.empty()) {
            stop();
            throw std::runtime_error("the development cluster did not start; see " + m_dir + "/log");
        }
    }
    ~Cluster() { stop(); }
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;
    const std::string& conf() const { return m_conf; }

private:
    // ceph-dev.sh ends the daemons by their pid files.
    void stop()
    {
        if (m_dir.empty()) return;
        std::system((KELD_CEPH_DEV " stop " + m_dir + " >/dev/null; rm -rf '" + m_dir + "'").c_str());
        m_dir.clear();
    }
    std::string m_dir;
    std::string m_conf;
};

// ---- the direct side: libradosstriper in this process --------------------------

class StriperSide : public bench::Side {
public:
    StriperSide(const std::string& conf, std::uint64_t objectSize)
    {
        if (rados_create(&m_cluster, "admin") != 0 || rados_conf_read_file(m_cluster, conf.c_str()) != 0 ||
            rados_connect(m_cluster) != 0 || rados_ioctx_create(m_cluster, kPool, &m_io) != 0) {
            throw std::runtime_error("cannot reach pool " + std::string(kPool) + " of " + conf);
        }
        rados_ioctx_set_namespace(m_io, "bench-direct");
        // One stripe per object, as the plug-in's layout: bytes
        // [i * objectSize, (i + 1) * objectSize) in object i.
        if (rados_striper_create(m_io, &m_striper) != 0 ||
            rados_striper_set_object_layout_object_size(m_striper, static_cast<unsigned>(objectSize)) != 0 ||
            rados_striper_set_object_layout_stripe_unit(m_striper, static_cast<unsigned>(objectSize)) != 0 ||
            rados_striper_set_object_layout_stripe_count(m_striper, 1) != 0) {
            throw std::runtime_error("cannot set up the striper");
        }
    }
    ~StriperSide() override
    {
        if (m_striper != nullptr) rados_striper_destroy(m_striper);
        if (m_io != nullptr) rados_ioctx_destroy(m_io);
        rados_shutdown(m_cluster);
    }
    void open(const std::string& image, bool writing, size_t transfer) override
    {
        m_image = image;
        m_writing = writing;
        m_transfer = transfer;
        m_data.assign(transfer, 'k');
    }
    void move(size_t offset, size_t count) override
    {
        for (size_t i = 0; i < count; ++i, offset += m_transfer) {
            const int rc = m_writing
                               ? rados_striper_write(m_striper, m_image.c_str(), m_data.data(), m_transfer, offset)
                               : rados_striper_read(m_striper, m_image.c_str(), m_data.data(), m_transfer, offset);
            if (rc < 0 || (!m_writing && static_cast<size_t>(rc) != m_transfer))
                throw std::runtime_error("libradosstriper: " + std::to_string(rc));
        }
    }
    // Every write returned once it was on the cluster.
    void close() override {}
    void remove(const std::string& image) { rados_striper_remove(m_striper, image.c_str()); }

private:
    rados_t m_cluster = nullptr;
    rados_ioctx_t m_io = nullptr;
    rados_striper_t m_striper = nullptr;
    std::string m_image;
    std::vector<char> m_data;
};

// ---- services --------------------------------------------------------------------

CORBA::ORB_ptr clientOrb()
{
    static const char* options[][2] = {{"giopMaxMsgSize", "134217728"}, {nullptr, nullptr}};
    static CORBA::ORB_ptr orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr, "omniORB4", options);
    }();
    return orb;
}

// A keldpxy on an install root of its own that serves Rados:bench, with a
// data-path client of its own.
class Service {
public:
    Service(const std::string& root, const std::string& sessionId)
        : m_port(keldtest::freePort()),
          m_child(keldtest::keldpxyPath(), {"-start", "-ORBListenEndPoints", keldtest::endpointArg(m_port)},
                  {"KELDV_ROOT=" + root})
    {
        CORBA::Object_var obj =
            clientOrb()->string_to_object(keldtest::corbaloc(m_port, "Proxy.StorageServerManager").c_str());
        StorageServerManager::_var_type manager;
        const bool up = keldtest::waitFor([&] {
            try {
                manager = StorageServerManager::_narrow(obj);
                return !CORBA::is_nil(manager) && !manager->_non_existent();
            } catch (const CORBA::Exception&) {
                return false;
            }
        }, 30s);
        if (!up) throw std::runtime_error("the service on " + root + " did not start");
        m_client = std::make_unique<bench::ProxiedSide>(manager, sessionId, kServer);
    }
    ~Service()
    {
        m_client.reset();   // closes its server first
        m_child.signal(SIGTERM);
        m_child.wait(60s);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    bench::ProxiedSide& client() { return *m_client; }

private:
    int m_port;
    keldtest::Child m_child;
    std::unique_ptr<bench::ProxiedSide> m_client;
};

// Writes Rados:bench's configuration into root.
void configure(const keldtest::TempRoot& root, const std::string& cephConf, std::uint64_t objectSize)
{
    mkdir((root.path() + "/keldrive/rados").c_str(), 0755);
    root.writeFile("keldrive/rados/bench.conf", "ceph_conf = " + cephConf + "\npool = " + kPool +
                                                   "\nobject_size = " + std::to_string(objectSize) + "\n");
}

// ---- the measurements ------------------------------------------------------------

struct Rates {
    std::vector<double> write, read;   // MB/s of each round
};

double megabytesPerSecond(size_t bytes, double seconds)
{
    return bytes / 1e6 / seconds;
}

// Create, write, close; open, read, close: the MB/s of each.
void writeAndRead(bench::Side& side, const std::string& image, size_t bytes, size_t transfer, Rates& rates)
{
    for (const bool writing : {true, false}) {
        const double seconds = secondsOf([&] {
            side.open(image, writing, transfer);
            side.move(0, bytes / transfer);
            side.close();
        });
        (writing ? rates.write : rates.read).push_back(megabytesPerSecond(bytes, seconds));
    }
}

const char* verdict(double ratio, double target)
{
    return ratio >= target ? "holds" : "MISSED";
}

void printRow(const char* what, size_t transfer, const std::vector<double>& direct,
              const std::vector<double>& proxied, double target)
{
    const double ratio = spreadOf(proxied).median / spreadOf(direct).median;
    std::printf("%-6s %4zu MiB   %-20s %-20s %6.2f", what, transfer / MiB, rateText(direct).c_str(),
                rateText(proxied).c_str(), ratio);
    if (target > 0) std::printf("   >= %.2f %s", target, verdict(ratio, target));
    std::printf("\n");
}

void serviceAgainstDirect(Service& service, StriperSide& direct, size_t bytes, int rounds)
{
    std::printf("%-6s %8s   %-20s %-20s %6s   %s\n", "", "transfer", "direct MB/s", "service MB/s", "ratio",
                "target");
    for (const size_t transfer : {4 * MiB, 1 * MiB}) {
        Rates viaService, viaStriper;
        for (int round = 0; round < rounds; ++round) {
            const std::string suffix = std::to_string(transfer / MiB) + "m-" + std::to_string(round);
            const std::function<void()> sides[2] = {
                [&] {
                    writeAndRead(direct, "direct-" + suffix, bytes, transfer, viaStriper);
                    direct.remove("direct-" + suffix);
                },
                [&] {
                    writeAndRead(service.client(), "service-" + suffix, bytes, transfer, viaService);
                    service.client().remove("service-" + suffix);
                }};
            sides[round % 2]();
            sides[1 - round % 2]();
        }
        const bool targeted = transfer == 4 * MiB;
        printRow("write", transfer, viaStriper.write, viaService.write, targeted ? 0.90 : 0);
        printRow("read", transfer, viaStriper.read, viaService.read, targeted ? 0.85 : 0);
        std::fflush(stdout);
    }
}

// MB/s of the services given writing an image each, all at once.
double writeAtOnce(const std::vector<Service*>& services, const std::string& name, size_t bytes)
{
    const size_t transfer = 4 * MiB;
    const double seconds = secondsOf([&] {
        std::vector<std::thread> writers;
        for (size_t i = 0; i < services.size(); ++i) {
            writers.emplace_back([&, i] {
                bench::ProxiedSide& client = services[i]->client();
                client.open(name + "-" + std::to_string(i), true, transfer);
                client.move(0, bytes / transfer);
                client.close();
            });
        }
        for (std::thread& t : writers) t.join();
    });
    for (size_t i = 0; i < services.size(); ++i) services[i]->client().remove(name + "-" + std::to_string(i));
    return megabytesPerSecond(bytes * services.size(), seconds);
}

void twoServicesAgainstOne(Service& first, Service& second, size_t bytes, int rounds)
{
    std::vector<double> one, two, oneBusy, twoBusy;
    for (int round = 0; round < rounds; ++round) {
        const std::string r = std::to_string(round);
        const std::function<void()> sides[2] = {
            [&] {
                const MachineBusy busy;
                one.push_back(writeAtOnce({&first}, "one-" + r, bytes));
                oneBusy.push_back(busy.cores());
            },
            [&] {
                const MachineBusy busy;
                two.push_back(writeAtOnce({&first, &second}, "two-" + r, bytes));
                twoBusy.push_back(busy.cores());
            }};
        sides[round % 2]();
        sides[1 - round % 2]();
    }
    const double ratio = spreadOf(two).median / spreadOf(one).median;
    std::printf("writes in 4 MiB transfers: one service %s MB/s, two services at once %s MB/s in total, "
                "ratio %.2f   >= 1.50 %s\n",
                rateText(one).c_str(), rateText(two).c_str(), ratio, verdict(ratio, 1.5));
    // Clients, services and the cluster share this machine's cores: what one
    // service left of them bounds what a second can add.
    const double ncores = double(sysconf(_SC_NPROCESSORS_ONLN));
    const double oneCores = spreadOf(oneBusy).median;
    std::printf("machine busy: one service %.2f, two services %.2f of %.0f cores; at most %.2f x one with the "
                "cores one left\n",
                oneCores, spreadOf(twoBusy).median, ncores, oneCores > 0 ? ncores / oneCores : 0.0);
}

} // namespace

int main(int argc, char** argv)
{
    const size_t bytes = (argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024) * MiB;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
    const std::uint64_t objectSize = (argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 64) * MiB;
    if (bytes == 0 || bytes % (4 * MiB) != 0 || rounds < 1 || objectSize == 0 || objectSize > 64 * MiB) {
        std::fprintf(stderr, "usage: rados_throughput [MiB per image, a multiple of 4] [rounds > 0] "
                             "[object size in MiB, 1 to 64]\n");
        return 2;
    }
    try {
        const Cluster cluster(bytes);
        const keldtest::TempRoot secondRoot;
        const keldtest::TempRoot root;   // KELDV_ROOT of this process: keldv-rados makes the LSU there
        for (const keldtest::TempRoot* r : {&root, &secondRoot}) configure(*r, cluster.conf(), objectSize);
        if (std::system(KELD_RADOS_TOOL " lsu create Rados:bench lsu0 >/dev/null") != 0)
            throw std::runtime_error("keldv-rados could not make LSU lsu0 of Rados:bench");
        StriperSide direct(cluster.conf(), objectSize);
        Service first(root.path(), "bench-first");
        Service second(secondRoot.path(), "bench-second");
        std::printf("RADOS, %zu MiB image, object size %llu MiB, %d rounds in alternating order; MB/s = 10^6 "
                    "bytes/s, median (lowest-highest),\nfrom the create or open to the end of the close; "
                    "direct: libradosstriper in this process; service: keldpxy serving %s\n",
                    bytes / MiB, static_cast<unsigned long long>(objectSize / MiB), rounds, kServer);
        serviceAgainstDirect(first, direct, bytes, rounds);
        twoServicesAgainstOne(first, second, bytes, rounds);
        std::system(KELD_RADOS_TOOL " lsu delete Rados:bench lsu0 >/dev/null");
    } catch (const CORBA::Exception& e) {
        std::fprintf(stderr, "rados_throughput: %s\n", e._name());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "rados_throughput: %s\n", e.what());
        return 1;
    }
    return 0;
}
