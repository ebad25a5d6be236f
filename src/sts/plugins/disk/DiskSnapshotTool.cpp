// keldv-disk-snapshot: takes, deletes and lists snapshots of a disk LSU
// (the storage API only reads them).
//   keldv-disk-snapshot create [Disk:HOST] LSU NAME
//   keldv-disk-snapshot delete [Disk:HOST] LSU NAME
//   keldv-disk-snapshot list [Disk:HOST] LSU     NAME, time (UTC), images, bytes
// SERVER defaults to Disk:<this host>; the storage directory is under
// $KELDV_ROOT (or /usr/keldv).  Exit status 0, 1 on failure, 2 on misuse.
#include "DiskStore.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

const char* const TOOL = "keldv-disk-snapshot";

int usage()
{
    std::fprintf(stderr, "usage: %s create|delete [Disk:HOST] LSU NAME | list [Disk:HOST] LSU\n", TOOL);
    return 2;
}

int failed(const std::string& what, int err)
{
    std::fprintf(stderr, "%s: %s: %s\n", TOOL, what.c_str(), std::strerror(err));
    return 1;
}

std::string utc(long long seconds)
{
    const std::time_t t = static_cast<std::time_t>(seconds);
    struct tm parts;
    char text[32] = "?";
    if (gmtime_r(&t, &parts) != nullptr) std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

int list(const std::string& lsuDir)
{
    for (const std::string& name : diskstore::listSnapshots(lsuDir)) {
        diskstore::SnapshotSummary s;
        if (diskstore::describeSnapshot(lsuDir, name, s) != 0) continue;
        std::printf("%s\t%s\t%u\t%llu\n", name.c_str(), utc(s.time).c_str(), s.images, s.bytes);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return usage();
    const std::string command = args[0];
    args.erase(args.begin());
    std::string server = std::string(diskstore::SERVER_PREFIX) + diskstore::hostName();
    if (!args.empty() && args[0].compare(0, std::strlen(diskstore::SERVER_PREFIX), diskstore::SERVER_PREFIX) == 0) {
        server = args[0];
        args.erase(args.begin());
    }
    const bool named = command == "create" || command == "delete";
    if ((!named && command != "list") || args.size() != (named ? 2u : 1u)) return usage();

    const std::string serverDir = diskstore::serverDirectory(server);
    if (serverDir.empty() || !diskstore::validComponent(args[0], 1024)) {
        std::fprintf(stderr, "%s: bad server or LSU name\n", TOOL);
        return 2;
    }
    const std::string lsuDir = serverDir + "/lsus/" + args[0];
    if (!diskstore::exists(lsuDir)) return failed(args[0] + " on " + server, ENOENT);
    if (command == "list") return list(lsuDir);

    const std::string& name = args[1];
    const int rc = command == "create" ? diskstore::createSnapshot(lsuDir, name)
                                       : diskstore::deleteSnapshot(lsuDir, name);
    if (rc != 0) return failed(command + " " + name, rc);
    std::printf("%s snapshot %s of %s on %s\n", command == "create" ? "took" : "deleted", name.c_str(),
                args[0].c_str(), server.c_str());
    return 0;
}
