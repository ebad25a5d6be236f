// keldctl: storage servers, their LSUs and images from a shell, through our
// storage framework: on the local plug-ins, or with --proxy through the
// proxy service (the chain goes into sd_proxy of the session, and the
// remote plug-in takes every call there).  The exit statuses are those of
// KeldCtlExit.h: 0 done, 1 failed, 2 usage, 3 not found, 4 unreachable,
// 128 + the signal's number when interrupted (130 for Ctrl-C).
#include "KeldCtlCommands.h"
#include "KeldCtlExit.h"
#include "KeldCtlHelp.h"
#include "KeldCtlPipeline.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>

using namespace keldctl;

namespace {

const char* const DESCRIPTION =
    "Storage servers, LSUs and images from a shell, locally or through the proxy service.\n"
    "IMAGE is a base name (the newest image of that name; for get the newest complete one) or\n"
    "base@date@fulldate as `images` prints it.\n"
    "A server made with a credential is opened with the one in $KELDCTL_CREDENTIAL.\n"
    "Exit status: 0 done, 1 failed, 2 usage, 3 not found, 4 unreachable, 130 interrupted.";

// What the chosen command runs once the line is read.
using Action = std::function<int()>;

// The command's arguments; each command reads those it declares.
struct Args {
    std::string server, lsu, image, file, snapshot, base, diff, metrics;
    std::vector<std::string> names, patterns;
    double seconds = 0;
    bool allowIncomplete = false, incomplete = false;
};

void addListing(CLI::App& app, const Context& ctx, Args& a, Action& action)
{
    CLI::App* servers = app.add_subcommand(
        "servers", "the servers the storage plug-ins serve in the install root (through a proxy also "
                   "named after the last hop's host), or only the NAMEs given");
    servers->add_option("NAME", a.names, "server names to look up");
    servers->callback([&] { action = [&] { return listServers(ctx, a.names); }; });

    CLI::App* lsus = app.add_subcommand("lsus", "the LSUs of a server");
    lsus->add_option("SERVER", a.server)->required();
    lsus->callback([&] { action = [&] { return listLsus(ctx, a.server); }; });

    CLI::App* images = app.add_subcommand("images", "the images of an LSU");
    images->add_option("SERVER", a.server)->required();
    images->add_option("LSU", a.lsu)->required();
    images->callback([&] { action = [&] { return listImages(ctx, a.server, a.lsu); }; });

    CLI::App* info = app.add_subcommand("info", "properties of a server, an LSU or an image");
    info->add_option("SERVER", a.server)->required();
    info->add_option("LSU", a.lsu);
    info->add_option("IMAGE", a.image);
    info->callback([&] { action = [&] { return showInfo(ctx, a.server, a.lsu, a.image); }; });
}

void addData(CLI::App& app, const Context& ctx, Args& a, Action& action)
{
    CLI::App* put = app.add_subcommand("put", "back up FILE (- for standard input) into a new image");
    put->add_option("FILE", a.file)->required();
    put->add_option("SERVER", a.server)->required();
    put->add_option("LSU", a.lsu)->required();
    put->add_option("IMAGE", a.image, "base name, by default FILE's (required for -); date and full date are now's");
    put->callback([&] { action = [&] { return putFile(ctx, a.file, a.server, a.lsu, a.image); }; });

    CLI::App* get = app.add_subcommand("get", "restore an image into FILE (- for standard output)");
    get->add_option("SERVER", a.server)->required();
    get->add_option("LSU", a.lsu)->required();
    get->add_option("IMAGE", a.image)->required();
    get->add_option("FILE", a.file)->required();
    get->add_flag("--allow-incomplete", a.allowIncomplete,
                  "restore an image its server reports incomplete (named as base@date@fulldate)");
    get->callback([&] { action = [&] { return getFile(ctx, a.server, a.lsu, a.image, a.file, a.allowIncomplete); }; });

    CLI::App* rm = app.add_subcommand("rm", "delete an image (its name must match one image only), or with "
                                            "--incomplete every image its server reports incomplete");
    rm->add_option("SERVER", a.server)->required();
    rm->add_option("LSU", a.lsu)->required();
    rm->add_option("IMAGE", a.image);
    rm->add_flag("--incomplete", a.incomplete, "the leftovers of puts that did not finish (and any being written now)");
    rm->callback([&] {
        if (a.incomplete == !a.image.empty()) throw CLI::ValidationError("rm", "give either IMAGE or --incomplete");
        action = [&] {
            return a.incomplete ? removeIncomplete(ctx, a.server, a.lsu) : removeImage(ctx, a.server, a.lsu, a.image);
        };
    });
}

void addSnapshots(CLI::App& app, const Context& ctx, Args& a, Action& action)
{
    CLI::App* snapshot = app.add_subcommand(
        "snapshot", "snapshot properties and change lists (taking and deleting them is the storage "
                    "server operator's, with the tool of the server's plug-in)");
    snapshot->require_subcommand(1);
    CLI::App* info = snapshot->add_subcommand("info", "properties of a snapshot");
    info->add_option("SERVER", a.server)->required();
    info->add_option("LSU", a.lsu)->required();
    info->add_option("SNAPSHOT", a.snapshot)->required();
    info->callback([&] { action = [&] { return snapshotInfo(ctx, a.server, a.lsu, a.snapshot); }; });

    CLI::App* diffCmd = snapshot->add_subcommand("diff", "the images added, deleted or modified from BASE to DIFF");
    diffCmd->add_option("SERVER", a.server)->required();
    diffCmd->add_option("LSU", a.lsu)->required();
    diffCmd->add_option("BASE", a.base, "the earlier snapshot; - for none (everything in DIFF is added)")->required();
    diffCmd->add_option("DIFF", a.diff, "the later snapshot")->required();
    diffCmd->add_option("PATTERN", a.patterns, "only names matching one of these shell patterns");
    diffCmd->callback([&] { action = [&] { return snapshotDiff(ctx, a.server, a.lsu, a.base, a.diff, a.patterns); }; });
}

void addLog(CLI::App& app, const Context& ctx, Args& a, Action& action)
{
    CLI::App* log = app.add_subcommand(
        "log", "follow the service's own log (with --proxy) until interrupted: the lines it writes from now on");
    log->add_option("SERVER", a.server, "a server to open at the service; the log is the service's, not the server's")
        ->required();
    log->add_option("--for", a.seconds, "stop after this many seconds");
    log->callback([&] { action = [&] { return followLog(ctx, a.server, a.seconds); }; });
}

void addStatus(CLI::App& app, const Context& ctx, Args& a, Action& action)
{
    CLI::App* status = app.add_subcommand(
        "status", "whether the proxy service (the first hop of --proxy) is up, its contract level, and with "
                  "--metrics what its /healthz says");
    status->add_option("--metrics", a.metrics, "the service's metrics endpoint")
        ->type_name("HOST:PORT")
        ->envname("KELDCTL_METRICS");
    status->callback([&] { action = [&] { return showStatus(ctx, a.metrics); }; });
}

void addGlobalOptions(CLI::App& app, Context& ctx)
{
    app.set_version_flag("--version", "keldctl " KELDCTL_VERSION);
    app.add_option("--proxy", ctx.proxy, "reach the servers through the proxy service")
        ->type_name("HOST[:PORT][#HOST[:PORT]...]")
        ->envname("KELDCTL_PROXY");
    app.add_flag("--json", ctx.json, "JSON for scripts instead of tables, failures too (on standard error)");
    app.add_flag("-v,--verbose", ctx.verbose, "the storage plug-ins' log lines on standard error");
    app.add_flag("-q,--quiet", ctx.quiet, "no progress bar (even on a terminal) and no summary line of put and get");
    app.add_option("--transfer-size", ctx.transferBytes, "bytes per read or write of put and get (4 KiB .. 1 GiB)")
        ->type_name("BYTES")
        // Without their own texts, which the help would append to BYTES.
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(CLI::Range(std::uint64_t(4096), std::uint64_t(1) << 30).description(""));
}

// Help and --version end at once with 0; a command line that cannot be used
// is said in CLI11's words (a JSON object in JSON mode) with 2.
int parseFailure(const CLI::App& app, const CLI::ParseError& e, bool json)
{
    if (e.get_exit_code() == 0) return app.exit(e);
    if (json) return reportFailure(EXIT_USAGE, e.what(), true);
    app.exit(e);
    return EXIT_USAGE;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{DESCRIPTION, "keldctl"};
    app.require_subcommand(1);
    app.fallthrough();   // the global options may also follow the command
    Context ctx;
    Args args;
    Action action;
    addGlobalOptions(app, ctx);
    addListing(app, ctx, args, action);
    addData(app, ctx, args, action);
    addSnapshots(app, ctx, args, action);
    addLog(app, ctx, args, action);
    addStatus(app, ctx, args, action);
    addHelpFooters(app);

    // A line that does not parse has not set ctx.json: the word decides.
    const std::vector<std::string> words(argv + 1, argv + argc);
    const bool jsonWanted = std::find(words.begin(), words.end(), "--json") != words.end();
    const std::string typo = unknownCommand(app, words);
    if (!typo.empty()) return reportFailure(EXIT_USAGE, typo, jsonWanted);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return parseFailure(app, e, jsonWanted);
    }

    watchInterrupts();
    try {
        return action();
    } catch (...) {
        return reportFailure(std::current_exception(), ctx.json, ctx.proxy);
    }
}
