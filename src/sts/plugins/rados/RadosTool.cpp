// keldv-rados: the operator's tool for the LSUs of RADOS servers, which the
// storage API cannot create.
//   keldv-rados lsu create Rados:NAME LSU [--quota BYTES]
//   keldv-rados lsu delete Rados:NAME LSU      (only an LSU without images)
//   keldv-rados lsu list Rados:NAME            one line per LSU: name, label, quota
// The server's configuration is read from $KELDV_ROOT (or /usr/keldv).
#include "RadosStore.h"
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
    case EBUSY: return "it still holds images";
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
    create->add_option("--quota", quota, "the LSU's capacity in bytes (default: the pool's)");
    int status = 0;
    if (!parseToolCommandLine(app, argc, argv, status)) return status;
    if (!create->parsed() && !remove->parsed() && !list->parsed()) return status;
    if (!list->parsed() && !validName(name)) return failed("\"" + name + "\" is not an LSU name");

    ServerConfig config;
    std::string error;
    if (readServerConfig(installRoot(), nameOf(server), config, error) != 0) return failed(server + ": " + error);
    std::shared_ptr<Cluster> cluster;
    if (connect(config, cluster, error) != 0) return failed(error);
    if (list->parsed()) return listLsus(*cluster, config.name);
    const int rc = create->parsed() ? createLsu(*cluster, config.name, name, quota)
                                    : deleteLsu(*cluster, config.name, name);
    if (rc != 0) return failed(std::string(create->parsed() ? "creating" : "deleting") + " LSU " + name + " of " + server + " failed: " + reason(rc));
    std::printf("LSU %s %s\n", name.c_str(), create->parsed() ? "created" : "deleted");
    return 0;
}
