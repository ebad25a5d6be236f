// A service under many short sessions, as backup jobs use it for months: N
// keldctl clients, each looping put / get / compare / rm of its own image
// through one keldpxy on a temporary root, for T seconds.  The service's
// resident size and open descriptors are sampled as it goes; what counts is
// that both level off once the service is warm, so the summary gives the
// growth after the warm-up next to the cycles done.
//   soak [clients, default 8] [seconds, default 600] [warm-up seconds, default 120]
//        [MiB per image, default 4] [seconds between samples, default 5]
#include "ProcessStats.h"
#include "TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

struct Settings {
    int clients = 8;
    long seconds = 600;
    long warmUp = 120;
    size_t mib = 4;
    long every = 5;
};

long number(const char* text)
{
    char* end = nullptr;
    const long n = std::strtol(text, &end, 10);
    return *end == '\0' && n > 0 ? n : -1;
}

bool parse(int argc, char** argv, Settings& s)
{
    if (argc > 6) return false;
    long given[5] = {s.clients, s.seconds, s.warmUp, static_cast<long>(s.mib), s.every};
    for (int i = 1; i < argc; ++i) {
        given[i - 1] = number(argv[i]);
        if (given[i - 1] < 0) return false;
    }
    if (given[0] > 256 || given[3] > 1024 || given[2] >= given[1]) return false;
    s = {static_cast<int>(given[0]), given[1], given[2], static_cast<size_t>(given[3]), given[4]};
    return true;
}

// One keldctl command to its end; its output goes to `log`, which keeps the
// last command's lines for a failure report.  True when it succeeded.
bool keldctl(const std::vector<std::string>& args, const std::string& log)
{
    std::vector<char*> argv{const_cast<char*>(KELDCTL_PATH)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t io;
    posix_spawn_file_actions_init(&io);
    posix_spawn_file_actions_addopen(&io, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&io, 1, 2);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, KELDCTL_PATH, &io, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&io);
    if (rc != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void makeFile(const std::string& path, size_t mib, unsigned seed)
{
    std::vector<std::uint64_t> block((1 << 20) / sizeof(std::uint64_t));
    std::mt19937_64 gen(seed);
    std::ofstream out(path, std::ios::binary);
    for (size_t i = 0; i < mib; ++i) {
        for (auto& word : block) word = gen();
        out.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
    }
}

// One backup job after another: each cycle backs its file up under a new
// name, restores it, compares it byte for byte and removes the image.
class Client {
public:
    Client(const std::string& dir, int index, const std::string& proxy, const std::string& server, size_t mib)
        : m_source(dir + "/source" + std::to_string(index)),
          m_restored(dir + "/restored" + std::to_string(index)),
          m_log(dir + "/keldctl" + std::to_string(index) + ".log"),
          m_prefix("soak" + std::to_string(index) + "-"),
          m_proxy(proxy),
          m_server(server)
    {
        makeFile(m_source, mib, static_cast<unsigned>(index) + 1);
        m_bytes = fileText(m_source);
    }

    void run(const std::atomic<bool>& stop, std::atomic<long>& cycles, std::atomic<long>& failures)
    {
        for (long n = 0; !stop; ++n) {
            if (cycle(m_prefix + std::to_string(n))) {
                ++cycles;
            } else {
                if (++failures == 1) std::fprintf(stderr, "soak: first failure:\n%s", fileText(m_log).c_str());
            }
        }
    }

private:
    bool cycle(const std::string& image)
    {
        const bool put = command({"put", m_source, m_server, "lsu0", image});
        const bool same = put && command({"get", m_server, "lsu0", image, m_restored}) && fileText(m_restored) == m_bytes;
        std::remove(m_restored.c_str());
        // Removed even after a failed get, so that no image is left behind.
        const bool removed = put && command({"rm", m_server, "lsu0", image});
        return put && same && removed;
    }

    bool command(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"-q", "--proxy", m_proxy});
        return keldctl(args, m_log);
    }

    std::string m_source, m_restored, m_log, m_prefix, m_proxy, m_server, m_bytes;
};

struct Sample {
    long second;
    long rssKiB;
    int fds;
    long cycles;
};

void print(const Sample& s, long failures)
{
    std::printf("%6ld %10.1f %5d %8ld %8ld\n", s.second, s.rssKiB / 1024.0, s.fds, s.cycles, failures);
    std::fflush(stdout);
}

// The median resident size of the samples taken from `from` to `to`: one
// sample alone swings by a few MiB with the transfers in flight.
double medianMiB(const std::vector<Sample>& samples, long from, long to)
{
    std::vector<long> kib;
    for (const Sample& s : samples) {
        if (s.second >= from && s.second <= to) kib.push_back(s.rssKiB);
    }
    if (kib.empty()) return 0;
    std::sort(kib.begin(), kib.end());
    return kib[kib.size() / 2] / 1024.0;
}

long cyclesAt(const std::vector<Sample>& samples, long second)
{
    for (const Sample& s : samples) {
        if (s.second >= second) return s.cycles;
    }
    return samples.back().cycles;
}

void summarise(const std::vector<Sample>& samples, const Settings& set, long failures, bool leftOver)
{
    const Sample& last = samples.back();
    // Medians over a minute (less in a short run) at each end of the span.
    const long window = std::max(set.every, std::min(60L, (set.seconds - set.warmUp) / 4));
    const double warm = medianMiB(samples, set.warmUp, set.warmUp + window);
    const double end = medianMiB(samples, set.seconds - window, set.seconds);
    long peakKiB = 0;
    int peakFds = 0;
    for (const Sample& s : samples) {
        if (s.second >= set.warmUp) peakKiB = std::max(peakKiB, s.rssKiB);
        peakFds = std::max(peakFds, s.fds);
    }
    const long cycles = cyclesAt(samples, set.seconds - window / 2) - cyclesAt(samples, set.warmUp + window / 2);
    std::printf("\nRSS %.1f MiB at start; median %.1f MiB at %ld-%ld s and %.1f MiB at %ld-%ld s: %+.1f MiB after the "
                "warm-up",
                samples.front().rssKiB / 1024.0, warm, set.warmUp, set.warmUp + window, end, set.seconds - window,
                set.seconds, end - warm);
    if (cycles > 0) std::printf(" (%.2f KiB per cycle)", (end - warm) * 1024.0 / double(cycles));
    std::printf("; peak %.1f MiB after the warm-up\n", peakKiB / 1024.0);
    std::printf("cycles %ld (%.1f/s), failed %ld, images left %s; descriptors %d at start, %d at the end, %d at most\n",
                last.cycles, last.second > 0 ? double(last.cycles) / double(last.second) : 0.0, failures,
                leftOver ? "yes" : "none", samples.front().fds, last.fds, peakFds);
}

} // namespace

int main(int argc, char** argv)
{
    Settings set;
    if (!parse(argc, argv, set)) {
        std::fprintf(stderr,
                     "usage: soak [clients 1..256] [seconds] [warm-up seconds, fewer] [MiB per image] [seconds between samples]\n");
        return 2;
    }
    keldtest::TempRoot root;   // KELDV_ROOT for this process and every keldctl
    const int port = keldtest::freePort();
    keldtest::Child service(keldtest::keldpxyPath(), {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)},
                            {}, root.path() + "/keldpxy.stderr");
    if (!keldtest::waitFor([&] { return root.readLog().find("succeed to advertise object EventChannelManager") != std::string::npos; },
                           30s)) {
        std::fprintf(stderr, "soak: the service did not start\n");
        return 1;
    }
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    const std::string server = std::string("Disk:") + host;
    const std::string proxy = "127.0.0.1:" + std::to_string(port);

    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < set.clients; ++i) clients.push_back(std::make_unique<Client>(root.path(), i, proxy, server, set.mib));
    std::printf("soak: %d keldctl clients, put/get/compare/rm of %zu MiB images, %ld s, samples every %ld s\n",
                set.clients, set.mib, set.seconds, set.every);
    std::printf("%6s %10s %5s %8s %8s\n", "second", "RSS MiB", "fds", "cycles", "failed");

    std::atomic<bool> stop{false};
    std::atomic<long> cycles{0}, failures{0};
    std::vector<Sample> samples;
    const pid_t pid = service.pid();
    const auto start = Clock::now();
    auto sample = [&] {
        const long second = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count();
        samples.push_back({second, residentKiB(pid), openDescriptors(pid), cycles.load()});
        print(samples.back(), failures);
    };
    sample();
    std::vector<std::thread> threads;
    for (auto& c : clients) threads.emplace_back([&, client = c.get()] { client->run(stop, cycles, failures); });
    bool serviceEnded = false;
    for (long t = set.every; t <= set.seconds && !serviceEnded; t += set.every) {
        std::this_thread::sleep_until(start + std::chrono::seconds(t));
        // Stopped or crashed: what follows would measure nothing.
        serviceEnded = !service.running();
        if (!serviceEnded) sample();
    }
    stop = true;
    for (std::thread& t : threads) t.join();
    if (serviceEnded || !service.running()) {
        std::fprintf(stderr, "soak: the service ended during the run (status %d)\n", service.wait(0s));
        return 1;
    }
    sample();

    const bool leftOver = !keldctl({"-q", "--proxy", proxy, "images", server, "lsu0"}, root.path() + "/images.txt") ||
                          fileText(root.path() + "/images.txt").find("soak") != std::string::npos;
    summarise(samples, set, failures, leftOver);
    service.signal(SIGTERM);
    return service.wait(60s) == 0 && failures == 0 && !leftOver ? 0 : 1;
}
