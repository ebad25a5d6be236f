#include "DataPathRounds.h"

#include "ProcessStats.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <memory>
#include <sched.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace bench {

namespace {

const size_t KiB = 1024;
const size_t MiB = 1024 * KiB;

double megabytesPerSecond(size_t bytes, double seconds)
{
    return seconds > 0 ? bytes / 1e6 / seconds : 0;
}

std::string sizeText(size_t bytes)
{
    return bytes >= MiB ? std::to_string(bytes / MiB) + " MiB" : std::to_string(bytes / KiB) + " KiB";
}

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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
// A round moves one whole image on every side in turn, the first side
// rotating from round to round.  On a disk, what a write costs depends on
// how much dirty data the kernel holds when it starts: a side that follows
// another inherits its write-back.  So before each side's image everything
// is synced, and a side's time runs to the end of its durable close (the
// plug-in's close and the floor's fsync alike): every side starts clean and
// pays for exactly its own bytes reaching the disk.  The images of a round
// are deleted before the next, so no round finds the pages of another.

struct RoundSeconds {
    double wall[kStreamSides] = {};
    double cpu[kStreamSides] = {};   // client thread and serving process
};

struct StreamFigures {
    Figure rate[kStreamSides];   // MB/s
    Figure serial[kLogVariants];      // proxied against 1 / (1/direct + 1/bare ORB)
    Figure pipelined[kLogVariants];   // proxied against min(direct, bare ORB)
    Figure cpu[kLogVariants];         // the serial model in CPU seconds
    Figure ofFloor[kLogVariants];     // proxied against the floor
    Figure ofRequired[kLogVariants];  // proxied against the required work alone
    Figure requiredSerial[kLogVariants];   // the required work alone against the serial model
    Figure ofSecond;                  // the logged service against the other one
};

RoundSeconds streamRound(const StreamSetup& setup, const std::string (&images)[kStreamSides], bool writing,
                         size_t transfer, size_t imageBytes, int firstSide)
{
    RoundSeconds t;
    for (int k = 0; k < kStreamSides; ++k) {
        const int side = (firstSide + k) % kStreamSides;
        sync();
        setup.sides[side]->open(images[side], writing, transfer);
        const double serverCpu = processCpuSeconds(setup.servers[side]);
        const double clientCpu = threadCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        setup.sides[side]->move(0, imageBytes / transfer);
        setup.sides[side]->close();
        t.wall[side] = secondsSince(start);
        t.cpu[side] = threadCpuSeconds() - clientCpu + processCpuSeconds(setup.servers[side]) - serverCpu;
    }
    return t;
}

void addRound(StreamFigures& f, const RoundSeconds& t, size_t imageBytes)
{
    for (int side = 0; side < kStreamSides; ++side) f.rate[side].add(megabytesPerSecond(imageBytes, t.wall[side]));
    for (int v = 0; v < kLogVariants; ++v) {
        const double proxied = t.wall[kProxiedLogged + v];
        f.serial[v].add((t.wall[kDirect] + t.wall[kBare]) / proxied);
        f.pipelined[v].add(std::max(t.wall[kDirect], t.wall[kBare]) / proxied);
        f.cpu[v].add((t.cpu[kDirect] + t.cpu[kBare]) / t.cpu[kProxiedLogged + v]);
        f.ofFloor[v].add(t.wall[kFloor] / proxied);
        f.ofRequired[v].add(t.wall[kRequiredLogged + v] / proxied);
        f.requiredSerial[v].add((t.wall[kDirect] + t.wall[kBare]) / t.wall[kRequiredLogged + v]);
    }
    f.ofSecond.add(t.wall[kProxiedUnlogged] / t.wall[kProxiedLogged]);
}

// The serial model's targets for small transfers.  From 1 MiB up the
// target is to be no worse than an earlier build, which only a run with a
// baseline can tell.
const size_t kLargeTransfer = 1 * MiB;

double serialTarget(bool writing, size_t transfer)
{
    if (transfer <= 64 * KiB) return 0.85;
    return writing ? 0.95 : 0.90;
}

// Two equal builds set against each other in turns of slices (below) came
// within this of each other in their medians from 1 MiB up, on tmpfs and on
// disk: a smaller loss cannot be told from the machine's noise.
const double kBaselineNoise = 0.05;

void printStream(const char* pass, size_t transfer, const StreamFigures& f, const RunContext& run)
{
    const std::string row = run.storage + ", " + pass + " " + sizeText(transfer);
    std::printf("%-5s %7s   direct %-16s bare ORB %-18s floor %-16s\n", pass, sizeText(transfer).c_str(),
                f.rate[kDirect].text(0).c_str(), f.rate[kBare].text(0).c_str(), f.rate[kFloor].text(0).c_str());
    const char* const names[kStreamSides] = {"", "", "direct", "bare ORB", "floor"};
    for (int side : {kDirect, kBare, kFloor}) run.report.watch(row + ", " + names[side] + " MB/s", f.rate[side]);
    for (int v = 0; v < kLogVariants; ++v) {
        std::printf("  %-20s proxied %-16s serial %-16s pipelined %-16s CPU %-16s floor %-16s required %-16s\n",
                    logVariantText(v), f.rate[kProxiedLogged + v].text(0).c_str(), f.serial[v].text(2).c_str(),
                    f.pipelined[v].text(2).c_str(), f.cpu[v].text(2).c_str(), f.ofFloor[v].text(2).c_str(),
                    f.ofRequired[v].text(2).c_str());
        const std::string what = row + ", " + logVariantText(v);
        run.report.watch(what + ", proxied MB/s", f.rate[kProxiedLogged + v]);
        run.report.watch(what + ", of the serial model", f.serial[v]);
        run.report.watch(what + ", of the pipelined limit", f.pipelined[v]);
        if (transfer < kLargeTransfer)
            run.report.target(what + ", of the serial model", f.serial[v].median(),
                              f.serial[v].text(2) + ", the required work alone " + f.requiredSerial[v].text(2),
                              serialTarget(*pass == 'w', transfer));
    }
    // With a baseline, both services have a log directory, and so have
    // both required sides.
    const char* const second = baselineService() != nullptr ? "log dir" : "no log dir";
    std::printf("  %-20s log dir %-16s serial %-16s %s %-16s serial %-16s\n", "required work alone",
                f.rate[kRequiredLogged].text(0).c_str(), f.requiredSerial[kLogged].text(2).c_str(), second,
                f.rate[kRequiredUnlogged].text(0).c_str(), f.requiredSerial[kUnlogged].text(2).c_str());
    const std::string against = baselineService() != nullptr ? "against the baseline" : "against no log dir";
    std::printf("  %-20s %s\n", ("log dir, " + against).c_str(), f.ofSecond.text(2).c_str());
    std::fflush(stdout);
}

} // namespace

const char* baselineService()
{
    const char* path = std::getenv("DATA_PATH_BASELINE");
    return path != nullptr && *path != '\0' ? path : nullptr;
}

const char* logVariantText(int variant)
{
    if (variant == kLogged) return "log dir, VERBOSE 0";
    return baselineService() != nullptr ? "baseline, log dir" : "no log dir";
}

void singleStream(const StreamSetup& setup, const std::vector<size_t>& transfers, size_t imageBytes,
                  const RunContext& run)
{
    const CorePlacement placement({setup.servers[kProxiedLogged], setup.servers[kProxiedUnlogged],
                                   setup.servers[kBare], setup.servers[kFloor]},
                                  setup.placeThreads);
    std::printf("single stream, %s: one %zu MiB image per side and round, %d rounds, the first side rotating; "
                "%s;\nsynced before each image, timed from the first transfer to the end of the (durable) close; "
                "MB/s = 10^6 bytes/s;\nfigures: median [lowest-highest] of the rounds; proxied against the serial "
                "model 1/(1/direct + 1/bare ORB),\nthe pipelined limit min(direct, bare ORB), the same serial model "
                "in CPU seconds, the floor\n(the bare ORB server keeping the bytes with one pwrite or pread per "
                "transfer), and the required work alone\n(the floor with the four log lines of a call, and the "
                "copy a read keeps, as each service must)\n",
                run.storage.c_str(), imageBytes / MiB, run.rounds, placement.text());
    for (size_t transfer : transfers) {
        StreamFigures written, read;
        for (int round = 0; round < run.rounds; ++round) {
            const std::string r = std::to_string(round);
            const std::string images[kStreamSides] = {"logged" + r, "unlogged" + r, "direct" + r, "", "floor" + r,
                                                      "required-logged" + r, "required-unlogged" + r};
            addRound(written, streamRound(setup, images, true, transfer, imageBytes, round), imageBytes);
            addRound(read, streamRound(setup, images, false, transfer, imageBytes, round), imageBytes);
            for (int side : {kProxiedLogged, kProxiedUnlogged, kDirect}) setup.direct->remove(images[side]);
            for (int side : {kFloor, kRequiredLogged, kRequiredUnlogged}) setup.floor->remove(images[side]);
        }
        printStream("write", transfer, written, run);
        printStream("read", transfer, read, run);
    }
}

// ---- against a baseline ---------------------------------------------------------
// Two builds of the service differ by a few per cent, less than this
// machine drifts from one image to the next: set against each other image
// by image, two equal builds came out up to a tenth apart.  So here the two
// take turns in slices of one image each, and meet the same moments of the
// machine; which goes first alternates from slice to slice, and which
// closes first from round to round.  A side's time is the sum of its slices
// and its close; the figure is the baseline's time over this build's.

namespace {

const size_t kSliceBytes = 16 * MiB;

double pairedRound(ProxiedSide* const (&pair)[2], const std::string (&images)[2], bool writing, size_t transfer,
                   size_t imageBytes, int round)
{
    double seconds[2] = {};
    const auto timed = [&](int side, const auto& work) {
        const auto start = std::chrono::steady_clock::now();
        work();
        seconds[side] += secondsSince(start);
    };
    sync();
    for (int k = 0; k < 2; ++k) pair[k]->open(images[k], writing, transfer);
    const size_t total = imageBytes / transfer;
    const size_t perSlice = std::max<size_t>(1, kSliceBytes / transfer);
    for (size_t done = 0, slice = 0; done < total; done += perSlice, ++slice) {
        const size_t count = std::min(perSlice, total - done);
        for (int k = 0; k < 2; ++k) {
            const int side = static_cast<int>((slice + k) % 2);
            timed(side, [&] { pair[side]->move(done * transfer, count); });
        }
    }
    // Both images' bytes reach the disk through the same plug-in alike;
    // left to the closes, that write-back would land on whichever closes
    // first, and swing the figure by a factor of ten.
    if (writing) sync();
    for (int k = 0; k < 2; ++k) {
        const int side = (round + k) % 2;
        timed(side, [&] { pair[side]->close(); });
    }
    return seconds[1] / seconds[0];
}

} // namespace

void againstBaseline(ProxiedSide& current, ProxiedSide& baseline, const std::vector<size_t>& transfers,
                     size_t imageBytes, const RunContext& run, const std::vector<pid_t>& servers, bool placeThreads)
{
    const CorePlacement placement(servers, placeThreads);
    std::printf("this build against the baseline, %s: one %zu MiB image each per round, %d rounds, taking turns "
                "in %zu MiB slices;\n%s; figure: the baseline's time over this build's, median [lowest-highest]\n",
                run.storage.c_str(), imageBytes / MiB, run.rounds, kSliceBytes / MiB, placement.text());
    ProxiedSide* const pair[2] = {&current, &baseline};
    for (size_t transfer : transfers) {
        Figure written, read;
        for (int round = 0; round < run.rounds; ++round) {
            const std::string r = std::to_string(round);
            const std::string images[2] = {"current" + r, "baseline" + r};
            written.add(pairedRound(pair, images, true, transfer, imageBytes, round));
            read.add(pairedRound(pair, images, false, transfer, imageBytes, round));
            current.remove(images[0]);
            baseline.remove(images[1]);
        }
        for (const auto& [pass, figure] : {std::make_pair("write", &written), std::make_pair("read", &read)}) {
            const std::string what = run.storage + ", " + pass + " " + sizeText(transfer) + ", against the baseline";
            std::printf("%-5s %7s   %s\n", pass, sizeText(transfer).c_str(), figure->text(2).c_str());
            run.report.watch(what, *figure);
            if (transfer >= kLargeTransfer) run.report.target(what, *figure, 1.0 - kBaselineNoise);
        }
        std::fflush(stdout);
    }
}

// ---- clients at once ------------------------------------------------------------
// One client writing an image, and four clients each writing a quarter as
// much at once (a session and an image each), in rounds that alternate
// which goes first.  Synced before each, timed to the end of the durable
// closes, as the single stream.  The figure is the ratio of the totals.
// The plug-in in this process, one writer against four, is measured the
// same way first: what the storage itself gives four writers bounds what
// four clients of the service can reach.

namespace {

const int kClients = 4;

using Writers = std::vector<std::unique_ptr<Side>>;

struct ClientsRound {
    double seconds;
    double busyCores;   // of the whole machine, while the clients wrote
};

ClientsRound clientsRound(Writers& clients, const std::string& prefix, size_t bytes)
{
    const size_t each = bytes / clients.size();
    sync();
    for (size_t c = 0; c < clients.size(); ++c) clients[c]->open(prefix + std::to_string(c), true, MiB);
    const MachineBusy busy;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (auto& client : clients) {
        threads.emplace_back([&client, each] {
            client->move(0, each / MiB);
            client->close();
        });
    }
    for (std::thread& t : threads) t.join();
    return {secondsSince(start), busy.cores()};
}

struct ClientsFigures {
    Figure oneRate, fourRate, ratio, busy[2];
    double ofTotals = 0;
};

ClientsFigures oneAgainstFour(Writers& one, Writers& four, DirectSide& direct, size_t bytes, const RunContext& run)
{
    ClientsFigures f;
    double totals[2] = {0, 0};
    for (int round = 0; round < run.rounds; ++round) {
        double seconds[2] = {0, 0};
        for (int k = 0; k < 2; ++k) {
            const int which = (round + k) % 2;
            const std::string prefix = (which == 0 ? "one" : "four") + std::to_string(round) + "-";
            const ClientsRound r = clientsRound(which == 0 ? one : four, prefix, bytes);
            seconds[which] = r.seconds;
            f.busy[which].add(r.busyCores);
            for (int c = 0; c < (which == 0 ? 1 : kClients); ++c) direct.remove(prefix + std::to_string(c));
            totals[which] += seconds[which];
        }
        f.oneRate.add(megabytesPerSecond(bytes, seconds[0]));
        f.fourRate.add(megabytesPerSecond(bytes, seconds[1]));
        f.ratio.add(seconds[0] / seconds[1]);
    }
    f.ofTotals = totals[0] / totals[1];
    return f;
}

void printClients(const char* who, const ClientsFigures& f)
{
    std::printf("  %-20s 1 client %-16s 4 clients %-16s MB/s; ratio of totals %.2f, of each round %s\n", who,
                f.oneRate.text(0).c_str(), f.fourRate.text(0).c_str(), f.ofTotals, f.ratio.text(2).c_str());
    // Clients and service share the machine's cores: what one client
    // left of them bounds what three more can add.
    const double cores = double(sysconf(_SC_NPROCESSORS_ONLN));
    const double oneBusy = f.busy[0].median();
    std::printf("  %-20s machine busy: 1 client %s, 4 clients %s of %.0f cores; at most %.2f x one with the "
                "cores one left\n",
                "", f.busy[0].text(2).c_str(), f.busy[1].text(2).c_str(), cores, oneBusy > 0 ? cores / oneBusy : 0.0);
}

} // namespace

void clientsAtOnce(API::StorageServerManager_ptr const (&managers)[kLogVariants], DirectSide& direct,
                   size_t bytes, const RunContext& run)
{
    std::printf("1 client writing %zu MiB, and 4 clients writing %zu MiB each at once, 1 MiB transfers, %s, "
                "%d alternating rounds\n",
                bytes / MiB, bytes / kClients / MiB, run.storage.c_str(), run.rounds);
    Writers one, four;
    one.push_back(direct.another());
    for (int c = 0; c < kClients; ++c) four.push_back(direct.another());
    const ClientsFigures storage = oneAgainstFour(one, four, direct, bytes, run);
    printClients("plug-in directly", storage);
    for (int v = 0; v < kLogVariants; ++v) {
        one.clear();
        four.clear();
        one.push_back(std::make_unique<ProxiedSide>(managers[v], "bench-one"));
        for (int c = 0; c < kClients; ++c)
            four.push_back(std::make_unique<ProxiedSide>(managers[v], "bench-client" + std::to_string(c)));
        const ClientsFigures f = oneAgainstFour(one, four, direct, bytes, run);
        printClients(logVariantText(v), f);
        const std::string what = run.storage + ", 4 clients against 1, " + logVariantText(v);
        run.report.watch(what, f.ratio);
        run.report.target(what + ", ratio of totals", f.ofTotals,
                          decimal(f.ofTotals, 2) + " (rounds " + f.ratio.text(2) + "; the plug-in directly " +
                              decimal(storage.ofTotals, 2) + ")",
                          1.7);
        std::fflush(stdout);
    }
}

// ---- trivial calls ----------------------------------------------------------------
// Calls per second of several kinds of call made by the same client
// threads in turns of 100 ms, the first kind rotating, so that whatever
// else runs on the machine weighs on all alike.  One block is ten turns of
// every kind; a block gives one figure of each.

namespace {

const int kCallKinds = kLogVariants + 1;   // the two services and the bare ORB
const int kBareKind = kLogVariants;

struct CallFigures {
    Figure rate[kCallKinds];
    Figure ofBare[kLogVariants];
    double serverCpuPerCall[kCallKinds] = {};   // microseconds
};

CallFigures interleavedCalls(int threads, int blocks, const std::function<void()> (&calls)[kCallKinds],
                             const pid_t (&servers)[kCallKinds])
{
    struct alignas(64) Counts {
        long n[kCallKinds] = {};
    };
    std::vector<Counts> counts(threads);
    std::atomic<int> current{-1};
    std::atomic<bool> stop{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            while (!stop) {
                const int kind = current.load();
                if (kind < 0) {
                    std::this_thread::yield();
                    continue;
                }
                calls[kind]();
                ++counts[t].n[kind];
            }
        });
    }
    auto total = [&](int kind) {
        long sum = 0;
        for (const Counts& c : counts) sum += c.n[kind];
        return sum;
    };
    // Connections are made before anything is timed.
    for (int kind = 0; kind < kCallKinds; ++kind) {
        current = kind;
        std::this_thread::sleep_for(200ms);
    }
    CallFigures f;
    long done[kCallKinds] = {};
    double cpu[kCallKinds];
    for (int kind = 0; kind < kCallKinds; ++kind) cpu[kind] = processCpuSeconds(servers[kind]);
    for (int block = 0; block < blocks; ++block) {
        double seconds[kCallKinds] = {};
        long start[kCallKinds];
        for (int kind = 0; kind < kCallKinds; ++kind) start[kind] = total(kind);
        for (int turn = 0; turn < 10; ++turn) {
            for (int k = 0; k < kCallKinds; ++k) {
                const int kind = (turn + k) % kCallKinds;
                const auto begin = std::chrono::steady_clock::now();
                current = kind;
                std::this_thread::sleep_for(100ms);
                current = (kind + 1) % kCallKinds;
                seconds[kind] += secondsSince(begin);
            }
        }
        double rate[kCallKinds];
        for (int kind = 0; kind < kCallKinds; ++kind) {
            done[kind] += total(kind) - start[kind];
            rate[kind] = (total(kind) - start[kind]) / seconds[kind];
            f.rate[kind].add(rate[kind]);
        }
        for (int v = 0; v < kLogVariants; ++v) f.ofBare[v].add(rate[v] / rate[kBareKind]);
    }
    current = -1;
    stop = true;
    for (std::thread& t : pool) t.join();
    for (int kind = 0; kind < kCallKinds; ++kind)
        f.serverCpuPerCall[kind] = (processCpuSeconds(servers[kind]) - cpu[kind]) / std::max(done[kind], 1L) * 1e6;
    return f;
}

} // namespace

void trivialCalls(API::StorageServerManager_ptr const (&managers)[kLogVariants], BareOrb::Sink_ptr sink,
                  const pid_t (&servers)[kLogVariants + 1], int blocks, Report& report)
{
    const std::function<void()> calls[kCallKinds] = {[&] { CORBA::String_var s = managers[kLogged]->getString(); },
                                                     [&] { CORBA::String_var s = managers[kUnlogged]->getString(); },
                                                     [&] { CORBA::String_var s = sink->getString(); }};
    std::printf("trivial calls (getString), %d blocks of 10 turns of 100 ms for each of the two services and the "
                "bare ORB;\nfigures: median [lowest-highest] of the blocks\n",
                blocks);
    for (int threads : {1, 30}) {
        const CallFigures f = interleavedCalls(threads, blocks, calls, servers);
        std::printf("%2d thread(s): bare ORB %s calls/s, server CPU %.1f us/call\n", threads,
                    f.rate[kBareKind].text(0).c_str(), f.serverCpuPerCall[kBareKind]);
        for (int v = 0; v < kLogVariants; ++v) {
            std::printf("  %-20s %-22s calls/s, of bare ORB %-18s server CPU %.1f us/call\n", logVariantText(v),
                        f.rate[v].text(0).c_str(), f.ofBare[v].text(3).c_str(), f.serverCpuPerCall[v]);
            const std::string what = "trivial calls, " + std::to_string(threads) + " thread(s), " + logVariantText(v) + ", of bare ORB";
            report.watch(what, f.ofBare[v]);
            if (threads == 30) report.target(what, f.ofBare[v], 0.99, 3);
        }
        std::fflush(stdout);
    }
}

} // namespace bench
