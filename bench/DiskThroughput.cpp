// Raw throughput of the disk plug-in for 1 MiB writes and reads through the
// storage table, beside plain pwrite/pread of the same sizes on a file in
// the same directory, measured in one run.  Rounds alternate which side
// goes first and every write pass makes a new file, so neither side gains
// from the order or from reusing allocated blocks; the medians are printed.
//   disk_throughput [MiB per pass, default 256] [rounds, default 5]
#include "sts_plugin.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const size_t BLOCK = 1 << 20;

double seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double plainPass(const std::string& path, size_t blocks, bool writing, std::vector<char>& buf)
{
    const int fd = open(path.c_str(), writing ? (O_RDWR | O_CREAT | O_TRUNC) : O_RDONLY, 0600);
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < blocks; ++i) {
        const ssize_t n = writing ? pwrite(fd, buf.data(), BLOCK, static_cast<off_t>(i * BLOCK))
                                  : pread(fd, buf.data(), BLOCK, static_cast<off_t>(i * BLOCK));
        if (n != static_cast<ssize_t>(BLOCK)) std::abort();
    }
    if (writing) fsync(fd);
    const double t = seconds(start);
    close(fd);
    return t;
}

sts_image_def_t benchImage(int round)
{
    sts_image_def_t def;
    std::memset(&def, 0, sizeof(def));
    std::snprintf(def.img_basename, sizeof(def.img_basename), "bench%d", round);
    std::strcpy(def.img_date, "d");
    std::strcpy(def.img_fulldate, "f");
    return def;
}

double pluginPass(sts_api_t* api, sts_lsu_t* lsu, int round, size_t blocks, bool writing, std::vector<char>& buf)
{
    const sts_image_def_t def = benchImage(round);
    sts_handle_t h = nullptr;
    const int rc = writing ? api->stsa_create_image(lsu, &def, 0, &h) : api->stsa_open_image(lsu, &def, 1, &h);
    if (rc != 0) std::abort();
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < blocks; ++i) {
        sts_uint64_t done = 0;
        const int r = writing ? api->stsa_write_image(h, nullptr, buf.data(), BLOCK, i * BLOCK, &done)
                              : api->stsa_read_image(h, buf.data(), BLOCK, i * BLOCK, &done);
        if (r != 0 || done != BLOCK) std::abort();
    }
    if (api->stsa_close_handle(h, 0) != 0) std::abort();   // durable: fsync at close
    return seconds(start);
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Seconds of each kind of pass, one entry per round.
struct Timings {
    std::vector<double> plainWrite, pluginWrite, plainRead, pluginRead;
};

} // namespace

int main(int argc, char** argv)
{
    const size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 256;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    if (mib == 0 || rounds < 1) {
        std::fprintf(stderr, "usage: disk_throughput [MiB per pass > 0] [rounds > 0]\n");
        return 2;
    }
    char templ[] = "/tmp/keldv-bench-XXXXXX";
    const std::string root = mkdtemp(templ);
    setenv("KELDV_ROOT", root.c_str(), 1);
    const std::string libDir = root + "/lib";
    std::system(("mkdir -p " + libDir + "/stsplugins && ln -s " KELD_DISK_PLUGIN " " + libDir + "/stsplugins/").c_str());

    sts_api_t* api = nullptr;
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_session_def_t sd = {};
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    if (stsm_init(11, libDir.c_str(), &api) != 0 || api->stsa_open_session(&sd, &ssn) != 0 ||
        api->stsa_open_server(ssn, (std::string("Disk:") + host).c_str(), nullptr, "", &svh) != 0) {
        std::fprintf(stderr, "disk_throughput: cannot open the disk server\n");
        return 1;
    }
    sts_lsu_t lsu = {};
    lsu.stl_server_handle = svh;
    std::strcpy(lsu.stl_lsu_name.sln_name, "lsu0");
    std::vector<char> buf(BLOCK, 'k');
    const std::string lsuDir = root + "/keldrive/storage/" + host + "/lsus/lsu0";

    Timings t;
    for (int round = 0; round < rounds; ++round) {
        const std::string plainFile = lsuDir + "/plain" + std::to_string(round) + ".bin";
        const bool plainFirst = round % 2 == 0;
        for (int side = 0; side < 2; ++side) {
            if ((side == 0) == plainFirst) {
                t.plainWrite.push_back(plainPass(plainFile, mib, true, buf));
            } else {
                t.pluginWrite.push_back(pluginPass(api, &lsu, round, mib, true, buf));
            }
        }
        for (int side = 0; side < 2; ++side) {
            if ((side == 0) == plainFirst) {
                t.plainRead.push_back(plainPass(plainFile, mib, false, buf));
            } else {
                t.pluginRead.push_back(pluginPass(api, &lsu, round, mib, false, buf));
            }
        }
        unlink(plainFile.c_str());
        const sts_image_def_t def = benchImage(round);
        api->stsa_delete_image(&lsu, &def, 0);
    }

    const double plainWrite = median(t.plainWrite), pluginWrite = median(t.pluginWrite);
    const double plainRead = median(t.plainRead), pluginRead = median(t.pluginRead);
    std::printf("1 MiB blocks, %zu MiB per pass, median of %d rounds in alternating order\n", mib, rounds);
    std::printf("write: plugin %.0f MiB/s, plain pwrite %.0f MiB/s, ratio %.2f\n", mib / pluginWrite,
                mib / plainWrite, plainWrite / pluginWrite);
    std::printf("read:  plugin %.0f MiB/s, plain pread  %.0f MiB/s, ratio %.2f\n", mib / pluginRead,
                mib / plainRead, plainRead / pluginRead);
    api->stsa_close_handle(svh, 0);
    api->stsa_close_handle(ssn, 0);
    stsm_terminate();
    std::system(("rm -rf " + root).c_str());
    return 0;
}
