// The data path of the service against what it is built from, measured side
// by side in one run: single-stream write and read of an image through the
// service, the disk plug-in called directly through the storage API on the
// same storage, and a bare ORB server that only receives or sends the same
// sequences over the same loopback.  A single stream that paid the plug-in
// and the ORB in turn would reach the serial model
//   1 / (1/direct + 1/bare-ORB);
// one that overlaps the client's send with the plug-in's write can reach up
// to the pipelined limit min(direct, bare-ORB).  Both are printed.  Beside
// runs the floor, the least a server that keeps what it moves can do: the
// bare ORB server writing or reading a file with one pwrite or pread per
// transfer; and that floor doing also the work each service must do for
// every transfer (four log lines, the copy a read keeps): the most any
// service with those duties could reach.  Then four clients writing four
// images at once against one
// client, and trivial calls (getString) from 1 and 30 client threads
// against the bare ORB's.
//
// Every figure comes from alternating rounds and is printed as its median
// with the lowest and highest round; a spread over 20 % gets a WARNING
// line.  Each storage runs twice over: on tmpfs, where the disk is out of
// the picture and what is left is the cost of the path, and on the disk of
// /tmp.  Each measurement sets two services side by side: one as installed
// (log directory present, VERBOSE = 0) and one whose root has no log
// directory.  The targets close the run, each marked holds or misses.
//   data_path [MiB per image, default 128] [rounds, default 5] [parts, default image,clients,calls,both]
// Parts: "image", "clients", "calls"; "versus" for only the comparison with
// a baseline (below); "shm" or "disk" for one storage only
// ("both" for both); sizes ("64K", "1M") to measure only those transfers;
// "unplaced" to leave the single stream's threads to the scheduler;
// "metrics" to serve the logged service's metrics and scrape them during the
// run, against a run without.
// DATA_PATH_BASELINE=<an older build's keldpxy> puts that build in place of
// the service without a log directory, with a log directory of its own, and
// first sets this build against it, the two taking turns in slices of one
// image each: "no worse than an earlier build" is measured side by side,
// not against figures of another day.
#include "DataPathRounds.h"
#include "MetricsScrape.h"
#include "OrbArguments.h"
#include "TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using bench::API::StorageServerManager;

namespace {

const size_t KiB = 1024;
const size_t MiB = 1024 * KiB;

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

// A storage directory that both services' roots lead to, on tmpfs or on
// the disk, so that the two services, the plug-in and the floor all write
// to the same file system.
class SharedStorage {
public:
    explicit SharedStorage(const std::string& parent)
    {
        std::string templ = parent + "/keldv-bench-XXXXXX";
        if (mkdtemp(&templ[0]) == nullptr) throw std::runtime_error("cannot make a directory in " + parent);
        m_dir = templ;
    }
    ~SharedStorage() { (void)std::system(("rm -rf '" + m_dir + "'").c_str()); }
    SharedStorage(const SharedStorage&) = delete;
    SharedStorage& operator=(const SharedStorage&) = delete;

    const std::string& dir() const { return m_dir; }
    void linkFrom(const keldtest::TempRoot& root) const
    {
        const std::string storage = root.path() + "/keldrive/storage";
        if (rmdir(storage.c_str()) != 0 || symlink(m_dir.c_str(), storage.c_str()) != 0)
            throw std::runtime_error("cannot put the storage of " + root.path() + " in " + m_dir);
    }

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

// A service on a root of its own, reached through its manager.
class Service {
public:
    Service(const keldtest::TempRoot& root, const std::string& program)
        : m_port(keldtest::freePort()),
          m_child(program, {"-start", "-ORBListenEndPoints", keldtest::endpointArg(m_port)},
                  {"KELDV_ROOT=" + root.path()})
    {
    }
    pid_t pid() const { return m_child.pid(); }
    StorageServerManager::_ptr_type manager()
    {
        if (CORBA::is_nil(m_manager))
            m_manager = resolve<StorageServerManager>(keldtest::corbaloc(m_port, "Proxy.StorageServerManager"));
        return m_manager.in();
    }

private:
    int m_port;
    keldtest::Child m_child;   // stopped by its destructor
    StorageServerManager::_var_type m_manager;
};

// Everything one storage's measurements need: the shared storage, a root
// with a log directory and one without (the plug-in in this process uses
// the latter), a service on each, and the bare ORB servers.  With metrics,
// the logged service serves its metrics and is scraped during the run.
// With a baseline, the second service is the baseline's, on a root with a
// log directory of its own.
class Stage {
public:
    Stage(const std::string& parent, bool metrics)
        : m_storage(parent),
          m_logged(true),
          m_baselineRoot(bench::baselineService() != nullptr ? std::make_unique<keldtest::TempRoot>(true) : nullptr),
          m_unlogged(false),
          m_scrape(m_logged, metrics),
          m_services{linked(m_logged, keldtest::keldpxyPath()),
                     m_baselineRoot ? linked(*m_baselineRoot, bench::baselineService())
                                    : linked(m_unlogged, keldtest::keldpxyPath())},
          m_bare(m_logged.path() + "/bare_orb.ior"),
          m_floor(m_logged.path() + "/floor.ior")
    {
        // The plug-in in this process stores through the root without a log
        // directory, whether a service runs on it or not.
        if (m_baselineRoot) m_storage.linkFrom(m_unlogged);
        if (::mkdir(m_requiredLogDirectory.c_str(), 0755) != 0)
            throw std::runtime_error("cannot make " + m_requiredLogDirectory);
    }
    Service& service(int variant) { return *m_services[variant]; }
    BareServer& bare() { return m_bare; }
    BareServer& floor() { return m_floor; }
    // Where the required work of a variant logs: a directory beside the
    // logged service's, or, for the service without one, one that is not
    // there (a baseline has a log directory).
    std::string requiredLogDirectory(int variant) const
    {
        if (variant == bench::kUnlogged && !m_baselineRoot) return m_unlogged.path() + "/keldrive/logs/keldpxy";
        return m_requiredLogDirectory;
    }
    const std::string& storageDir() const { return m_storage.dir(); }
    std::string libDir() const { return m_unlogged.path() + "/lib"; }
    std::string scrapeSummary() const { return m_scrape.summary(); }

private:
    std::unique_ptr<Service> linked(const keldtest::TempRoot& root, const std::string& program)
    {
        m_storage.linkFrom(root);
        return std::make_unique<Service>(root, program);
    }

    SharedStorage m_storage;
    keldtest::TempRoot m_logged;
    std::unique_ptr<keldtest::TempRoot> m_baselineRoot;
    keldtest::TempRoot m_unlogged;   // KELDV_ROOT of this process: the last made
    bench::MetricsScrape m_scrape;              // before the services: it writes their configuration
    std::unique_ptr<Service> m_services[bench::kLogVariants];
    BareServer m_bare, m_floor;
    const std::string m_requiredLogDirectory = m_logged.path() + "/keldrive/logs/required";
};

struct Options {
    size_t imageBytes;
    int rounds;
    std::string parts;
};

void measureStorage(const char* name, const std::string& parent, const Options& o, bool withCalls,
                    bench::Report& report)
{
    Stage stage(parent, wants(o.parts, "metrics"));
    std::printf("\n==== storage on %s (%s); bare ORB servers with the service's code set and message limit\n", name,
                stage.storageDir().c_str());
    StorageServerManager::_ptr_type managers[bench::kLogVariants] = {stage.service(bench::kLogged).manager(),
                                                                      stage.service(bench::kUnlogged).manager()};
    BareOrb::Sink_var sink = stage.bare().sink();
    bench::DirectSide direct(stage.libDir());
    const bench::RunContext run{name, o.rounds, report};
    if ((wants(o.parts, "image") || wants(o.parts, "versus")) && bench::baselineService() != nullptr) {
        bench::ProxiedSide current(managers[bench::kLogged], "versus");
        bench::ProxiedSide baseline(managers[bench::kUnlogged], "versus");
        bench::againstBaseline(current, baseline, transferSizes(o.parts), o.imageBytes, run,
                               {stage.service(bench::kLogged).pid(), stage.service(bench::kUnlogged).pid()},
                               !wants(o.parts, "unplaced"));
    }
    if (wants(o.parts, "image")) {
        BareOrb::Sink_var floorSink = stage.floor().sink();
        bench::ProxiedSide logged(managers[bench::kLogged], "bench");
        bench::ProxiedSide unlogged(managers[bench::kUnlogged], "bench");
        bench::BareSide bareSide(sink);
        bench::FloorSide floor(floorSink, stage.storageDir());
        bench::FloorSide requiredLogged(floorSink, stage.storageDir(), stage.requiredLogDirectory(bench::kLogged));
        bench::FloorSide requiredUnlogged(floorSink, stage.storageDir(), stage.requiredLogDirectory(bench::kUnlogged));
        const pid_t floorPid = stage.floor().pid();
        const bench::StreamSetup setup{{&logged, &unlogged, &direct, &bareSide, &floor, &requiredLogged, &requiredUnlogged},
                                       {stage.service(bench::kLogged).pid(), stage.service(bench::kUnlogged).pid(), 0,
                                        stage.bare().pid(), floorPid, floorPid, floorPid},
                                       &direct,
                                       &floor,
                                       !wants(o.parts, "unplaced")};
        bench::singleStream(setup, transferSizes(o.parts), o.imageBytes, run);
    }
    if (wants(o.parts, "clients")) bench::clientsAtOnce(managers, direct, o.imageBytes, run);
    if (withCalls) {
        const pid_t servers[] = {stage.service(bench::kLogged).pid(), stage.service(bench::kUnlogged).pid(),
                                 stage.bare().pid()};
        bench::trivialCalls(managers, sink, servers, o.rounds, report);
    }
    std::printf("logged service: %s\n", stage.scrapeSummary().c_str());
}

} // namespace

int main(int argc, char** argv)
{
    const Options o{(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 128) * MiB, argc > 2 ? std::atoi(argv[2]) : 5,
                    argc > 3 ? argv[3] : "image,clients,calls,both"};
    if (o.imageBytes == 0 || o.imageBytes % (4 * MiB) != 0 || o.rounds < 1) {
        std::fprintf(stderr, "usage: data_path [MiB per image, a multiple of 4] [rounds > 0] "
                             "[image,clients,calls,versus,shm|disk|both,SIZES,unplaced,metrics]\n");
        return 2;
    }
    const bool onlyOne = !wants(o.parts, "both") && (wants(o.parts, "shm") != wants(o.parts, "disk"));
    const bool shm = !onlyOne || wants(o.parts, "shm");
    const bool disk = !onlyOne || wants(o.parts, "disk");
    if (o.rounds < 5) std::printf("fewer than 5 rounds: the spreads say little\n");
    bench::Report report;
    int rc = 0;
    try {
        if (shm) measureStorage("tmpfs", "/dev/shm", o, wants(o.parts, "calls"), report);
        if (disk) measureStorage("disk", "/tmp", o, wants(o.parts, "calls") && !shm, report);
        report.printSummary();
    } catch (const CORBA::Exception& e) {
        std::fprintf(stderr, "data_path: %s\n", e._name());
        rc = 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "data_path: %s\n", e.what());
        rc = 1;
    }
    return rc;
}
