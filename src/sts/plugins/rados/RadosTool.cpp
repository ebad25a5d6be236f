// keldv-rados: the operator's tool for the LSUs of RADOS servers and their
// snapshots, which the storage API cannot make.
//   keldv-rados lsu create Rados:NAME LSU [--quota BYTES]
//   keldv-rados lsu delete Rados:NAME LSU      (only an LSU without images or snapshots)
//   keldv-rados lsu list Rados:NAME            one line per LSU: name, label, quota
//   keldv-rados snapshot create|delete Rados:NAME LSU SNAPSHOT
//   keldv-rados snapshot list Rados:NAME LSU   name, time (UTC), images, bytes
// The server's configuration is read from $KELDV_ROOT (or /usr/keldv).
#include "RadosSnapshots.h"
#include "RadosStore.h"
#include "TimeText.h"
#include "ToolCommandLine.h"

#include <cstdio>
#include <cstring>

using namespace radosstore;

namespace {

const char* const TOOL = "keldv-rados";

int failed(const std::string& what)
{
    std::fprintf(stderr, "%s: %s\n", TOOL, what.c_str());
    return 1;
}

std::string reason(int radosResult)
{
    switch (-radosResult) {
    case EEXIST: return "it exists already";
    case ENOENT: return "no such LSU";
    case EBUSY: return "it still holds images or snapshots";
    default: return std::strerror(-radosResult);
    }
}

int listLsus(const Cluster& c, const std::string& server)
{
    std::vector<std::string> names;
    const int rc = radosstore::listLsus(c, server, names);
    if (rc != 0) return failed("listing the LSUs failed: " + reason(rc));
    for (const std::string& name : names) {
        LsuRecord record;
        readLsu(c, server, name, record);
        std::printf("%s\t%s\t%llu\n", name.c_str(), record.label.c_str(), static_cast<unsigned long long>(record.quota));
    }
    return 0;
}

int listSnapshots(const Cluster& c, const ServerConfig& config, const std::string& lsu)
{
    std::vector<std::string> names;
    int rc = radosstore::listSnapshots(c, config.name, lsu, names);
    if (rc != 0) return failed("listing the snapshots failed: " + reason(rc));
    for (const std::string& name : names) {
        SnapshotRecord record;
        std::map<std::string, SnapshotImage> images;
        rc = readSnapshot(c, config.name, lsu, name, record);
        if (rc == 0) rc = snapshotImages(c, config.name, lsu, record.id, config.objectSize, images);
        if (rc != 0) return failed("reading snapshot " + name + " failed: " + reason(rc));
        unsigned long long bytes = 0;
        for (const auto& image : images) bytes += image.second.size;
        std::printf("%s\t%s\t%zu\t%llu\n", name.c_str(), pluginsupport::utcText(record.time).c_str(), images.size(), bytes);
    }
    return 0;
}

int snapshotCommand(const Cluster& c, const ServerConfig& config, const std::string& command, const std::string& lsu,
                    const std::string& name)
{
    LsuRecord record;
    if (readLsu(c, config.name, lsu, record) != 0) return failed("no LSU " + lsu + " on Rados:" + config.name);
    if (command == "list") return listSnapshots(c, config, lsu);
    const int rc = command == "create" ? takeSnapshot(c, config.name, lsu, name) : dropSnapshot(c, config.name, lsu, name);
    if (rc == -ENOENT) return failed(command + " " + name + ": no such snapshot");
    if (rc != 0) return failed(command + " " + name + " failed: " + reason(rc));
    std::printf("%s snapshot %s of %s on Rados:%s\n", command == "create" ? "took" : "deleted", name.c_str(),
                lsu.c_str(), config.name.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Creates, deletes and lists the LSUs of a RADOS storage server (Rados:NAME, configured in\n"
                 "$KELDV_ROOT/keldrive/rados/NAME.conf).",
                 TOOL};
    app.require_subcommand(1);
    CLI::App* lsu = app.add_subcommand("lsu", "manage LSUs");
    lsu->require_subcommand(1);
    std::string server, name;
    std::uint64_t quota = 0;
    const CLI::Validator radosServer(
        [](std::string& s) { return nameOf(s).empty() ? std::string("not a RADOS server (Rados:NAME)") : ""; },
        "Rados:NAME");
    CLI::App* create = lsu->add_subcommand("create", "make an LSU");
    CLI::App* remove = lsu->add_subcommand("delete", "delete an LSU without images");
    CLI::App* list = lsu->add_subcommand("list", "list the LSUs: name, label, quota (0: none)");
    for (CLI::App* sub : {create, remove, list}) sub->add_option("SERVER", server, "the server")->required()->check(radosServer);
    for (CLI::App* sub : {create, remove}) sub->add_option("LSU", name, "the LSU")->required();
    create->add_option("--quota", quota, "the LSU's capacity in bytes (default: the pool's)")
        ->check(CLI::NonNegativeNumber);   // "-1" would otherwise wrap to the largest quota

    CLI::App* snapshot = app.add_subcommand("snapshot", "take, delete and list snapshots of an LSU");
    snapshot->require_subcommand(1);
    std::string snapshotName;
    CLI::App* take = snapshot->add_subcommand("create", "take a snapshot of an LSU");
    CLI::App* drop = snapshot->add_subcommand("delete", "delete a snapshot of an LSU");
    CLI::App* snapshots = snapshot->add_subcommand("list", "the snapshots of an LSU: name, time (UTC), images, bytes");
    for (CLI::App* sub : {take, drop, snapshots}) {
        sub->add_option("SERVER", server, "the server")->required()->check(radosServer);
        sub->add_option("LSU", name, "the LSU")->required();
    }
    for (CLI::App* sub : {take, drop}) sub->add_option("SNAPSHOT", snapshotName, "the snapshot")->required();
    int status = 0;
    if (!parseToolCommandLine(app, argc, argv, status)) return status;
    const bool onSnapshots = take->parsed() || drop->parsed() || snapshots->parsed();
    if (!create->parsed() && !remove->parsed() && !list->parsed() && !onSnapshots) return status;
    if (!list->parsed() && !validName(name)) return failed("\"" + name + "\" is not an LSU name");
    if ((take->parsed() || drop->parsed()) && !validSnapshotName(snapshotName)) {
        return failed("\"" + snapshotName + "\" is not a snapshot name");
    }

    ServerConfig config;
    std::string error;
    if (readServerConfig(installRoot(), nameOf(server), config, error) != 0) return failed(server + ": " + error);
    std::shared_ptr<Cluster> cluster;
    if (connect(config, cluster, error) != 0) return failed(error);
    if (onSnapshots) {
        return snapshotCommand(*cluster, config, take->parsed() ? "create" : drop->parsed() ? "delete" : "list", name,
                               snapshotName);
    }
    if (list->parsed()) return listLsus(*cluster, config.name);
    const int rc = create->parsed() ? createLsu(*cluster, config.name, name, quota)
                                    : deleteLsu(*cluster, config.name, name);
    if (rc != 0) return failed(std::string(create->parsed() ? "creating" : "deleting") + " LSU " + name + " of " + server + " failed: " + reason(rc));
    std::printf("LSU %s %s\n", name.c_str(), create->parsed() ? "created" : "deleted");
    return 0;
}
