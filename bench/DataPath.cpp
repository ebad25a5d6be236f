// The data path of the service against what it is built from, measured side
// by side in one run: single-stream write and read of an image through the
// service, the disk plug-in called directly through the storage API on the
// same file system, and a bare ORB server that only receives or sends the
// same sequences over the same loopback.  A single stream pays the plug-in
// and the ORB in turn, so the efficiency of the service is
//   proxied / (1 / (1/direct + 1/bare-ORB)).
// Beside them runs the floor, the least a server that keeps what it moves
// can do: the bare ORB server writing or reading a file with one pwrite or
// pread per transfer; "of floor" is the service's speed against it.  It
// tells what the service adds to that least work (its log, above all, at
// small transfers), where the efficiency also carries what a server pays
// beyond the two costs measured apart, such as caches the page-cache copy
// evicts.  Both vary with the disk's write-back from run to run.
// Then four clients writing four images at once against one client, and
// trivial calls (getString) from 1 and 30 client threads against the bare
// ORB's.  The sides take turns in short slices, so that the load of other
// programs on the machine weighs on each alike.
//   data_path [MiB per image, default 512] [images per side, default 2] [parts, default image,clients,calls]
// Add "nolog" to the parts to run the service with its log off, "shm" to
// keep the storage in memory, "unplaced" to leave the single stream's
// threads to the scheduler, and sizes ("256K", "1M") to measure only those
// transfers; "metrics" serves the service's metrics and scrapes them
// during the run.
#include "DataPathSides.h"
#include "MetricsScrape.h"
#include "OrbArguments.h"
#include "TestSupport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <sched.h>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using bench::API::StorageServerManager;

namespace {

const size_t KiB = 1024;
const size_t MiB = 1024 * KiB;

double median(std::vector<double> v)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double megabytesPerSecond(size_t bytes, double seconds)
{
    return seconds > 0 ? bytes / 1e6 / seconds : 0;
}

std::string sizeText(size_t bytes)
{
    return bytes >= MiB ? std::to_string(bytes / MiB) + " MiB" : std::to_string(bytes / KiB) + " KiB";
}

CORBA::ORB_ptr clientOrb()
{
    // Room for the largest transfer, and a connection for each calling thread.
    static const char* options[][2] = {
        {"giopMaxMsgSize", "134217728"}, {"maxGIOPConnectionPerServer", "64"}, {nullptr, nullptr}};
    static CORBA::ORB_ptr orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr, "omniORB4", options);
    }();
    return orb;
}

template <typename T>
typename T::_ptr_type resolve(const std::string& address)
{
    CORBA::Object_var obj = clientOrb()->string_to_object(address.c_str());
    typename T::_var_type ref;
    const bool up = keldtest::waitFor([&] {
        try {
            ref = T::_narrow(obj);
            return !CORBA::is_nil(ref) && !ref->_non_existent();
        } catch (const CORBA::Exception&) {
            return false;
        }
    }, 30s);
    if (!up) throw std::runtime_error("nothing answers at " + address);
    return ref._retn();
}

// ---- CPU time -------------------------------------------------------------------
// Wall time measures what a client gets, but on a machine that other
// programs keep busy it also measures how the scheduler shares the cores
// out, and a path of two processes gets more shares than one.  The CPU time
// every side spends (the client thread, and the serving process) tells the
// cost of each path whatever the load, so it is printed beside.

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Calls visit with the id of every thread of a process.
template <typename Visit>
void forEachThread(pid_t pid, Visit visit)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    if (DIR* dir = opendir(tasks.c_str())) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') visit(entry->d_name);
        }
        closedir(dir);
    }
}

// Time on a CPU of all threads of a process so far, in seconds.
double processCpuSeconds(pid_t pid)
{
    if (pid <= 0) return 0;
    double sum = 0;
    forEachThread(pid, [&](const char* thread) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/task/" + thread + "/schedstat");
        unsigned long long ns = 0;
        if (stat >> ns) sum += ns / 1e9;
    });
    return sum;
}

// ---- core placement ------------------------------------------------------------
// A single stream is two threads taking turns, a client and a server.  Left
// to the scheduler on two cores, they share a core in some runs and not in
// others, and the figures of one run differ from the next by a quarter.
// While the single stream runs, every client sits on the first core and
// every serving process on the second, alike for all sides.

void placeThreads(pid_t pid, const cpu_set_t& cores)
{
    forEachThread(pid, [&](const char* thread) { sched_setaffinity(std::atoi(thread), sizeof(cores), &cores); });
}

class CorePlacement {
public:
    CorePlacement(const std::vector<pid_t>& servers, bool wanted) : m_servers(servers)
    {
        sched_getaffinity(0, sizeof(m_all), &m_all);
        m_placed = wanted && CPU_ISSET(0, &m_all) && CPU_ISSET(1, &m_all);
        if (!m_placed) return;
        cpu_set_t client, server;
        CPU_ZERO(&client);
        CPU_ZERO(&server);
        CPU_SET(0, &client);
        CPU_SET(1, &server);
        sched_setaffinity(0, sizeof(client), &client);
        for (pid_t pid : m_servers) placeThreads(pid, server);
    }
    ~CorePlacement()
    {
        if (!m_placed) return;
        sched_setaffinity(0, sizeof(m_all), &m_all);
        for (pid_t pid : m_servers) placeThreads(pid, m_all);
    }
    CorePlacement(const CorePlacement&) = delete;
    CorePlacement& operator=(const CorePlacement&) = delete;
    const char* text() const
    {
        return m_placed ? "clients on core 0, servers on core 1" : "threads placed by the scheduler";
    }

private:
    std::vector<pid_t> m_servers;
    cpu_set_t m_all;
    bool m_placed = false;
};

// ---- single stream ------------------------------------------------------------

// The sides take turns in slices of this many bytes (the order rotating
// from slice to slice), each on its own image, so that whatever else runs
// on the machine weighs on all of them alike.
const size_t kSlice = 32 * MiB;

double efficiency(double proxied, double direct, double bare)
{
    // Seconds: the single stream pays the plug-in and the ORB in turn.
    return (direct + bare) / proxied;
}

// The sides of a single stream, in the order of their columns.
enum { kProxied, kDirect, kBare, kFloor, kSides };

struct PassSeconds {
    double side[kSides] = {0, 0, 0, 0};
    double cpu[kSides] = {0, 0, 0, 0};   // the same in CPU seconds, client and server
};

void printStreamRow(const char* what, size_t transfer, size_t bytes, const PassSeconds& t,
                    const std::vector<double>& perRound)
{
    auto rate = [&](int side) { return megabytesPerSecond(bytes, t.side[side]); };
    std::printf("%-6s %9s %12.0f %12.0f %13.0f %11.2f   (%.2f..%.2f) %13.2f %11.0f %9.2f\n", what,
                sizeText(transfer).c_str(), rate(kProxied), rate(kDirect), rate(kBare),
                efficiency(t.side[kProxied], t.side[kDirect], t.side[kBare]),
                *std::min_element(perRound.begin(), perRound.end()),
                *std::max_element(perRound.begin(), perRound.end()),
                efficiency(t.cpu[kProxied], t.cpu[kDirect], t.cpu[kBare]), rate(kFloor),
                t.side[kFloor] / t.side[kProxied]);
}

void singleStream(bench::Side* (&sides)[kSides], bench::DirectSide& direct, bench::FloorSide& floor,
                  const pid_t (&servers)[kSides], const std::vector<size_t>& transfers, size_t total, int rounds)
{
    std::printf("single stream: %zu MiB per image, %d image(s) per side and size, the sides taking turns every "
                "%zu MiB;\nonly the transfers are timed (not the create, open or durable close); MB/s = 10^6 "
                "bytes/s;\nfloor: the bare ORB server keeping the bytes in a file with one pwrite or pread per "
                "transfer\n",
                total / MiB, rounds, kSlice / MiB);
    std::printf("%-6s %9s %12s %12s %13s %11s   %-14s %s %11s %9s\n", "", "transfer", "proxied MB/s", "direct MB/s",
                "bare-ORB MB/s", "efficiency", "(each image)", "CPU efficiency", "floor MB/s", "of floor");
    for (size_t transfer : transfers) {
        PassSeconds sum[2];
        std::vector<double> perRound[2];
        for (int round = 0; round < rounds; ++round) {
            const std::string r = std::to_string(round);
            const std::string names[kSides] = {"proxied" + r, "direct" + r, "", "floor" + r};
            for (int pass = 0; pass < 2; ++pass) {
                PassSeconds t;
                double serverCpu[kSides];
                for (int side = 0; side < kSides; ++side) {
                    sides[side]->open(names[side], pass == 0, transfer);
                    serverCpu[side] = processCpuSeconds(servers[side]);
                }
                for (size_t slice = 0; slice < total / kSlice; ++slice) {
                    for (size_t k = 0; k < kSides; ++k) {
                        const size_t side = (k + slice) % kSides;
                        const double cpu = threadCpuSeconds();
                        const auto start = std::chrono::steady_clock::now();
                        sides[side]->move(slice * kSlice, kSlice / transfer);
                        t.side[side] += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                        t.cpu[side] += threadCpuSeconds() - cpu;
                    }
                }
                for (int side = 0; side < kSides; ++side) {
                    t.cpu[side] += processCpuSeconds(servers[side]) - serverCpu[side];
                    sides[side]->close();
                    sum[pass].side[side] += t.side[side];
                    sum[pass].cpu[side] += t.cpu[side];
                }
                perRound[pass].push_back(efficiency(t.side[kProxied], t.side[kDirect], t.side[kBare]));
            }
            direct.remove(names[kProxied]);
            direct.remove(names[kDirect]);
            floor.remove(names[kFloor]);
        }
        printStreamRow("write", transfer, total * rounds, sum[0], perRound[0]);
        printStreamRow("read", transfer, total * rounds, sum[1], perRound[1]);
        std::fflush(stdout);
    }
}

// ---- clients at once ------------------------------------------------------------

// One client, then four clients each with its own session and image, in
// turns of one slice (the four moving a quarter of it each, at once).
void clientsAtOnce(StorageServerManager::_ptr_type manager, bench::DirectSide& direct, size_t total, int rounds)
{
    const size_t transfer = 1 * MiB;
    const int kClients = 4;
    bench::ProxiedSide one(manager, "bench-one");
    std::vector<std::unique_ptr<bench::ProxiedSide>> four;
    for (int c = 0; c < kClients; ++c)
        four.push_back(std::make_unique<bench::ProxiedSide>(manager, "bench-client" + std::to_string(c)));
    double seconds[2] = {0, 0};
    for (int round = 0; round < rounds; ++round) {
        auto name = [&](int c) { return "client" + std::to_string(c) + "-" + std::to_string(round); };
        one.open(name(kClients), true, transfer);
        for (int c = 0; c < kClients; ++c) four[c]->open(name(c), true, transfer);
        for (size_t slice = 0; slice < total / kSlice; ++slice) {
            for (size_t k = 0; k < 2; ++k) {
                const size_t side = (k + slice) % 2;
                const auto start = std::chrono::steady_clock::now();
                if (side == 0) {
                    one.move(slice * kSlice, kSlice / transfer);
                } else {
                    std::vector<std::thread> threads;
                    for (int c = 0; c < kClients; ++c) {
                        threads.emplace_back([&, c] {
                            four[c]->move(slice * kSlice / kClients, kSlice / kClients / transfer);
                        });
                    }
                    for (std::thread& t : threads) t.join();
                }
                seconds[side] += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            }
        }
        one.close();
        for (int c = 0; c < kClients; ++c) four[c]->close();
        for (int c = 0; c <= kClients; ++c) direct.remove(name(c));
    }
    const double a = megabytesPerSecond(total * rounds, seconds[0]);
    const double b = megabytesPerSecond(total * rounds, seconds[1]);
    std::printf("4 clients writing 4 images of %zu MiB at once (1 MiB transfers): %.0f MB/s in total; "
                "1 client writing %zu MiB: %.0f MB/s; ratio %.2f\n",
                total / kClients / MiB, b, total / MiB, a, b / a);
}

// ---- trivial calls ----------------------------------------------------------------

// Calls per second of two kinds of call made by the same client threads in
// alternating slices of 100 ms (ABBA), so that whatever else runs on the
// machine weighs on both alike.  One block is ten pairs of slices.
struct CallRates {
    double rate[2] = {0, 0};
    std::vector<double> blockRatios;   // rate[0] / rate[1] of each block
    double serverCpuPerCall[2] = {0, 0};   // seconds of the serving process
};

CallRates interleavedCallRates(int threads, int blocks, const std::function<void()> (&calls)[2],
                               const pid_t (&servers)[2])
{
    struct alignas(64) Counts {
        long n[2] = {0, 0};
    };
    std::vector<Counts> counts(threads);
    std::atomic<int> current{-1};
    std::atomic<bool> stop{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            while (!stop) {
                const int side = current.load();
                if (side < 0) {
                    std::this_thread::yield();
                    continue;
                }
                calls[side]();
                ++counts[t].n[side];
            }
        });
    }
    auto total = [&](int side) {
        long sum = 0;
        for (const Counts& c : counts) sum += c.n[side];
        return sum;
    };
    // Connections are made before anything is timed.
    for (int side : {0, 1}) {
        current = side;
        std::this_thread::sleep_for(200ms);
    }
    CallRates rates;
    double seconds[2] = {0, 0};
    const long before[2] = {total(0), total(1)};
    const double cpuBefore[2] = {processCpuSeconds(servers[0]), processCpuSeconds(servers[1])};
    for (int block = 0; block < blocks; ++block) {
        double blockSeconds[2] = {0, 0};
        long blockStart[2] = {total(0), total(1)};
        for (int pair = 0; pair < 10; ++pair) {
            for (int k = 0; k < 2; ++k) {
                const int side = (pair + k) % 2;
                const auto start = std::chrono::steady_clock::now();
                current = side;
                std::this_thread::sleep_for(100ms);
                current = 1 - side;
                blockSeconds[side] += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            }
        }
        const double r0 = (total(0) - blockStart[0]) / blockSeconds[0];
        const double r1 = (total(1) - blockStart[1]) / blockSeconds[1];
        rates.blockRatios.push_back(r0 / r1);
        seconds[0] += blockSeconds[0];
        seconds[1] += blockSeconds[1];
    }
    current = -1;
    stop = true;
    for (std::thread& t : pool) t.join();
    for (int side : {0, 1}) {
        const long done = total(side) - before[side];
        rates.rate[side] = done / seconds[side];
        rates.serverCpuPerCall[side] = (processCpuSeconds(servers[side]) - cpuBefore[side]) / done;
    }
    return rates;
}

void trivialCalls(StorageServerManager::_ptr_type manager, BareOrb::Sink_ptr sink, const pid_t (&servers)[2],
                  int blocks)
{
    const std::function<void()> calls[2] = {[&] { CORBA::String_var s = manager->getString(); },
                                            [&] { CORBA::String_var s = sink->getString(); }};
    std::printf("trivial calls (getString), %d blocks of 10 x 100 ms on each side, interleaved\n", blocks);
    std::printf("%8s %18s %19s %7s   %-34s %s\n", "threads", "service calls/s", "bare-ORB calls/s", "ratio",
                "(each block: lowest..median..highest)", "server CPU us/call: service, bare-ORB");
    for (int threads : {1, 30}) {
        const CallRates r = interleavedCallRates(threads, blocks, calls, servers);
        std::printf("%8d %18.0f %19.0f %7.3f   (%.3f..%.3f..%.3f)%14s %.1f, %.1f\n", threads, r.rate[0],
                    r.rate[1], r.rate[0] / r.rate[1], *std::min_element(r.blockRatios.begin(), r.blockRatios.end()),
                    median(r.blockRatios), *std::max_element(r.blockRatios.begin(), r.blockRatios.end()), "",
                    r.serverCpuPerCall[0] * 1e6, r.serverCpuPerCall[1] * 1e6);
        std::fflush(stdout);
    }
}

bool wants(const std::string& parts, const char* part)
{
    return parts.find(part) != std::string::npos;
}

// The transfer sizes among the parts ("256K", "4M"), or all four.
std::vector<size_t> transferSizes(const std::string& parts)
{
    std::vector<size_t> sizes;
    std::stringstream list(parts);
    for (std::string part; std::getline(list, part, ',');) {
        char* end = nullptr;
        const size_t n = std::strtoul(part.c_str(), &end, 10);
        const std::string unit = end;
        if (n > 0 && (unit == "K" || unit == "M")) sizes.push_back(n * (unit == "K" ? KiB : MiB));
    }
    if (sizes.empty()) sizes = {64 * KiB, 256 * KiB, 1 * MiB, 4 * MiB};
    return sizes;
}

// With "shm" the storage of the root lies in memory, so that neither the
// disk's pace nor the write-back of other programs' data takes part: what
// is left is the cost of the path itself.
class MemoryStorage {
public:
    MemoryStorage(const keldtest::TempRoot& root, bool wanted)
    {
        if (!wanted) return;
        char templ[] = "/dev/shm/keldv-bench-XXXXXX";
        if (mkdtemp(templ) == nullptr) throw std::runtime_error("cannot make a directory in /dev/shm");
        m_dir = templ;
        const std::string storage = root.path() + "/keldrive/storage";
        if (rmdir(storage.c_str()) != 0 || symlink(m_dir.c_str(), storage.c_str()) != 0)
            throw std::runtime_error("cannot put the storage in " + m_dir);
    }
    ~MemoryStorage()
    {
        if (!m_dir.empty()) std::system(("rm -rf '" + m_dir + "'").c_str());
    }
    MemoryStorage(const MemoryStorage&) = delete;
    MemoryStorage& operator=(const MemoryStorage&) = delete;

private:
    std::string m_dir;
};

// A bare ORB server with the service's ORB settings: its code set and its
// message limit.  It writes its reference to a file: a client that reached it
// by a corbaloc address would speak GIOP 1.0 without code set negotiation,
// while the service's clients get full references.
class BareServer {
public:
    explicit BareServer(const std::string& referenceFile)
        : m_reference(referenceFile),
          m_child(BARE_ORB_SERVER, {referenceFile, "-ORBendPoint", "giop:tcp:127.0.0.1:", "-ORBnativeCharCodeSet",
                                    "UTF-8", "-ORBgiopMaxMsgSize", std::to_string(kDefaultMaxMessageBytes)})
    {
    }
    pid_t pid() const { return m_child.pid(); }
    BareOrb::Sink_ptr sink()
    {
        if (!keldtest::waitFor([&] { return access(m_reference.c_str(), R_OK) == 0; }, 30s))
            throw std::runtime_error("the bare ORB server did not start");
        std::ifstream file(m_reference);
        std::string reference;
        file >> reference;
        return resolve<BareOrb::Sink>(reference);
    }

private:
    std::string m_reference;
    keldtest::Child m_child;   // stopped by its destructor
};

} // namespace

int main(int argc, char** argv)
{
    const size_t total = (argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 512) * MiB;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 2;
    const std::string parts = argc > 3 ? argv[3] : "image,clients,calls";
    if (total < kSlice || total % kSlice != 0 || rounds < 1) {
        std::fprintf(stderr, "usage: data_path [MiB per image, a multiple of 32] [rounds > 0] [image,clients,calls]\n");
        return 2;
    }
    // The log is on, as installed; "nolog" among the parts measures without.
    keldtest::TempRoot root(!wants(parts, "nolog"));
    const MemoryStorage memory(root, wants(parts, "shm"));
    const bench::MetricsScrape scrape(root, wants(parts, "metrics"));
    const int servicePort = keldtest::freePort();
    keldtest::Child service(keldtest::keldpxyPath(),
                            {"-start", "-ORBListenEndPoints", keldtest::endpointArg(servicePort)});
    // Two bare servers, one for the bare ORB and one for the floor, so that
    // the CPU time of each process is that of one side.
    BareServer bare(root.path() + "/bare_orb.ior");
    BareServer floorServer(root.path() + "/floor.ior");
    std::printf("service log %s; storage on %s; bare ORB server with the service's code set and message limit\n",
                wants(parts, "nolog") ? "off" : "on, as installed",
                wants(parts, "shm") ? "/dev/shm (memory)" : "the file system of /tmp");
    int rc = 0;
    try {
        StorageServerManager::_var_type manager =
            resolve<StorageServerManager>(keldtest::corbaloc(servicePort, "Proxy.StorageServerManager"));
        BareOrb::Sink_var sink = bare.sink();
        bench::DirectSide direct(root.path() + "/lib");
        if (wants(parts, "image")) {
            BareOrb::Sink_var floorSink = floorServer.sink();
            bench::ProxiedSide proxied(manager, "bench");
            bench::BareSide bareSide(sink);
            bench::FloorSide floor(floorSink, root.path() + "/keldrive/storage");
            bench::Side* sides[kSides] = {&proxied, &direct, &bareSide, &floor};
            const pid_t servers[kSides] = {service.pid(), 0, bare.pid(), floorServer.pid()};
            const CorePlacement placement({service.pid(), bare.pid(), floorServer.pid()}, !wants(parts, "unplaced"));
            std::printf("%s\n", placement.text());
            singleStream(sides, direct, floor, servers, transferSizes(parts), total, rounds);
        }
        if (wants(parts, "clients")) clientsAtOnce(manager, direct, total, rounds);
        if (wants(parts, "calls")) trivialCalls(manager, sink, {service.pid(), bare.pid()}, 5 * rounds);
    } catch (const CORBA::Exception& e) {
        std::fprintf(stderr, "data_path: %s\n", e._name());
        rc = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "data_path: %s\n", e.what());
        rc = 1;
    }
    std::printf("%s\n", scrape.summary().c_str());
    service.signal(SIGTERM);
    service.wait(60s);
    return rc;
}
