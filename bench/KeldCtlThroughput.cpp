// keldctl put and get of one file on the disk plug-in directly and through
// one proxy (a keldpxy on the same temporary root, reached by the remote
// plug-in), measured side by side in one run: rounds alternate which side
// goes first, each put makes a new image and each get a new file, and the
// medians are printed with their ratios.
//   keldctl_throughput [MiB, default 1024] [rounds, default 3]
#include "TestSupport.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

namespace {

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Seconds of one keldctl command, which must succeed.
double timed(const std::string& args)
{
    const std::string cmd = std::string(KELDCTL_PATH) + " -q " + args + " >/dev/null";
    sync();   // the previous command's write-back is not charged to this one
    const auto start = std::chrono::steady_clock::now();
    if (std::system(cmd.c_str()) != 0) {
        std::fprintf(stderr, "keldctl_throughput: failed: %s\n", cmd.c_str());
        std::exit(1);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void makeFile(const std::string& path, size_t mib)
{
    std::vector<std::uint64_t> block((1 << 20) / sizeof(std::uint64_t));
    std::mt19937_64 gen(11);
    std::ofstream out(path, std::ios::binary);
    for (size_t i = 0; i < mib; ++i) {
        for (auto& word : block) word = gen();
        out.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
    }
}

struct Side {
    std::string name, options;
    std::vector<double> put, get;
};

} // namespace

int main(int argc, char** argv)
{
    const size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
    if (mib == 0 || rounds < 1) {
        std::fprintf(stderr, "usage: keldctl_throughput [MiB > 0] [rounds > 0]\n");
        return 2;
    }
    keldtest::TempRoot root;   // KELDV_ROOT for this process and keldctl
    const int port = keldtest::freePort();
    keldtest::Child service(keldtest::keldpxyPath(), {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)});
    if (!keldtest::waitFor([&] { return root.readLog().find("succeed to advertise object EventChannelManager") != std::string::npos; },
                           20s)) {
        std::fprintf(stderr, "keldctl_throughput: the service did not start\n");
        return 1;
    }
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    const std::string server = std::string("Disk:") + host;
    const std::string source = root.path() + "/source.bin", restored = root.path() + "/restored.bin";
    makeFile(source, mib);

    Side direct{"direct", "", {}, {}};
    Side proxied{"proxy", "--proxy 127.0.0.1:" + std::to_string(port) + " ", {}, {}};
    for (int round = 0; round < rounds; ++round) {
        Side* order[2] = {&direct, &proxied};
        if (round % 2 == 1) std::swap(order[0], order[1]);
        for (Side* side : order) {
            const std::string image = "bench-" + side->name + "-" + std::to_string(round);
            side->put.push_back(timed(side->options + "put " + source + " " + server + " lsu0 " + image));
            side->get.push_back(timed(side->options + "get " + server + " lsu0 " + image + " " + restored));
            timed(side->options + "rm " + server + " lsu0 " + image);
            std::remove(restored.c_str());
        }
    }
    service.signal(SIGTERM);
    service.wait(20s);

    auto rate = [&](const std::vector<double>& secs) { return mib / median(secs); };
    std::printf("keldctl, %zu MiB file, median of %d rounds in alternating order\n", mib, rounds);
    std::printf("put: direct %.0f MiB/s, through one proxy %.0f MiB/s, ratio %.2f (target >= 0.85)\n",
                rate(direct.put), rate(proxied.put), rate(proxied.put) / rate(direct.put));
    std::printf("get: direct %.0f MiB/s, through one proxy %.0f MiB/s, ratio %.2f (target >= 0.75)\n",
                rate(direct.get), rate(proxied.get), rate(proxied.get) / rate(direct.get));
    return 0;
}
