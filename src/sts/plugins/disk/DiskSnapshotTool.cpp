// keldv-disk-snapshot: takes, deletes and lists snapshots of a disk LSU
// (the storage API only reads them).
//   keldv-disk-snapshot create [Disk:HOST] LSU NAME
//   keldv-disk-snapshot delete [Disk:HOST] LSU NAME
//   keldv-disk-snapshot list [Disk:HOST] LSU     NAME, time (UTC), images, bytes
// SERVER defaults to Disk:<this host>; the storage directory is under
// $KELDV_ROOT (or /usr/keldv).  Exit status 0, 1 on failure, 2 on misuse.
#include "DiskStore.h"
#include "DiskToolArguments.h"
#include "TimeText.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const TOOL = "keldv-disk-snapshot";

int failed(const std::string& what, int err)
{
    std::fprintf(stderr, "%s: %s: %s\n", TOOL, what.c_str(), std::strerror(err));
    return 1;
}

int listSnapshots(const std::string& lsuDir)
{
    for (const std::string& name : diskstore::listSnapshots(lsuDir)) {
        diskstore::SnapshotSummary s;
        if (diskstore::describeSnapshot(lsuDir, name, s) != 0) continue;
        std::printf("%s\t%s\t%u\t%llu\n", name.c_str(), pluginsupport::utcText(s.time).c_str(), s.images, s.bytes);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Takes, deletes and lists snapshots of a disk LSU.", TOOL};
    app.require_subcommand(1);
    app.validate_positionals();   // see addServerArgument
    std::string server;
    std::string lsu, name;
    CLI::App* create = app.add_subcommand("create", "take a snapshot NAME of LSU");
    CLI::App* remove = app.add_subcommand("delete", "delete the snapshot NAME of LSU");
    CLI::App* list = app.add_subcommand("list", "NAME, time (UTC), images and bytes of each snapshot of LSU");
    for (CLI::App* sub : {create, remove, list}) {
        diskstore::addServerArgument(*sub, server);
        sub->add_option("LSU", lsu, "the LSU")->required();
    }
    for (CLI::App* sub : {create, remove}) sub->add_option("NAME", name, "the snapshot")->required();
    int status = 0;
    if (!parseToolCommandLine(app, argc, argv, status)) return status;

    const std::string serverDir = diskstore::serverDirectory(server);
    if (serverDir.empty() || !diskstore::validComponent(lsu, 1024)) {
        std::fprintf(stderr, "%s: bad server or LSU name\n", TOOL);
        return 2;
    }
    const std::string lsuDir = serverDir + "/lsus/" + lsu;
    if (!diskstore::exists(lsuDir)) return failed(lsu + " on " + server, ENOENT);
    if (list->parsed()) return listSnapshots(lsuDir);

    const std::string command = create->parsed() ? "create" : "delete";
    const int rc = create->parsed() ? diskstore::createSnapshot(lsuDir, name) : diskstore::deleteSnapshot(lsuDir, name);
    if (rc != 0) return failed(command + " " + name, rc);
    std::printf("%s snapshot %s of %s on %s\n", create->parsed() ? "took" : "deleted", name.c_str(), lsu.c_str(),
                server.c_str());
    return 0;
}
