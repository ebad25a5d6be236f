// The measurements of the data path benchmark, each in alternating rounds
// against the same storage: a single stream through the service beside
// what it is built from, four clients at once against one, and trivial
// calls from many threads against a bare ORB.  Every one is taken with
// both services the benchmark runs: one as installed (log directory
// present, VERBOSE = 0) and one whose root has no log directory.
#ifndef KELD_BENCH_DATAPATHROUNDS_H
#define KELD_BENCH_DATAPATHROUNDS_H

#include "DataPathFigures.h"
#include "DataPathSides.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace bench {

enum LogVariant { kLogged, kUnlogged, kLogVariants };
const char* logVariantText(int variant);

// The keldpxy of an older build (DATA_PATH_BASELINE), which then runs in
// place of the service without a log directory; null when none is given.
const char* baselineService();

// The sides of a single stream, in the order they are printed.  The
// required sides are the floor doing the work each service must (with its
// log directory, and without one).
enum StreamSide { kProxiedLogged, kProxiedUnlogged, kDirect, kBare, kFloor, kRequiredLogged, kRequiredUnlogged,
                  kStreamSides };

struct StreamSetup {
    Side* sides[kStreamSides];
    pid_t servers[kStreamSides];   // 0 for the side that runs in this process
    DirectSide* direct;            // deletes what the service and the plug-in wrote
    FloorSide* floor;              // deletes what the floor and the required sides wrote
    bool placeThreads;             // clients on core 0, serving processes on core 1
};

// What a run is called in its lines and targets ("tmpfs", "disk").
struct RunContext {
    std::string storage;
    int rounds;
    Report& report;
};

void singleStream(const StreamSetup& setup, const std::vector<size_t>& transfers, size_t imageBytes,
                  const RunContext& run);

// This build's service against the baseline's (baselineService()), image
// by image in turns of slices; servers: both services' process ids, placed
// as the single stream's when placeThreads.
void againstBaseline(ProxiedSide& current, ProxiedSide& baseline, const std::vector<size_t>& transfers,
                     size_t imageBytes, const RunContext& run, const std::vector<pid_t>& servers, bool placeThreads);

void clientsAtOnce(API::StorageServerManager_ptr const (&managers)[kLogVariants], DirectSide& direct,
                   size_t bytes, const RunContext& run);

// servers: the two services' and the bare ORB server's process ids.
void trivialCalls(API::StorageServerManager_ptr const (&managers)[kLogVariants], BareOrb::Sink_ptr sink,
                  const pid_t (&servers)[kLogVariants + 1], int blocks, Report& report);

} // namespace bench

#endif
