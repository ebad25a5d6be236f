// The commands of keldctl, one function each; KeldCtlMain.cpp reads the
// command line and calls them.  Each opens its own storage session, returns
// the exit status, and throws for a failure (StorageError with the storage
// API's number, Interrupted, Failure with its exit status, or
// std::runtime_error), which main reports as one line (KeldCtlExit.h).
#ifndef KELD_CLIENT_KELDCTLCOMMANDS_H
#define KELD_CLIENT_KELDCTLCOMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace keldctl {

struct Context {
    std::string proxy;                       // "host[:port]#...", or "" for the local plug-ins
    bool json = false;                       // JSON for scripts instead of tables
    bool verbose = false;                    // plug-in log lines to standard error
    bool quiet = false;                      // no progress bar even on a terminal
    // Bytes per read or write: under the 2 MiB that a service accepts in one
    // message by default, so that no transfer has to be split on the way.
    std::uint64_t transferBytes = 1u << 20;
};

// Listing (KeldCtlListing.cpp).
int listServers(const Context& ctx, const std::vector<std::string>& names);
int listLsus(const Context& ctx, const std::string& server);
int listImages(const Context& ctx, const std::string& server, const std::string& lsu);
int showInfo(const Context& ctx, const std::string& server, const std::string& lsu, const std::string& image);

// Data (KeldCtlTransfer.cpp).  "-" is standard input or output.
int putFile(const Context& ctx, const std::string& file, const std::string& server, const std::string& lsu,
            const std::string& image);
int getFile(const Context& ctx, const std::string& server, const std::string& lsu, const std::string& image,
            const std::string& file, bool allowIncomplete);
int removeImage(const Context& ctx, const std::string& server, const std::string& lsu, const std::string& image);
// Every image of the LSU its storage server reports incomplete.
int removeIncomplete(const Context& ctx, const std::string& server, const std::string& lsu);

// Snapshots (KeldCtlSnapshot.cpp) and the service's log (KeldCtlLog.cpp).
int snapshotInfo(const Context& ctx, const std::string& server, const std::string& lsu, const std::string& name);
int snapshotDiff(const Context& ctx, const std::string& server, const std::string& lsu, const std::string& base,
                 const std::string& diff, const std::vector<std::string>& patterns);
int followLog(const Context& ctx, const std::string& server, double seconds);

// The service at the first hop of ctx.proxy, and the /healthz of its
// metrics endpoint "HOST:PORT" when one is given (KeldCtlStatus.cpp).
int showStatus(const Context& ctx, const std::string& metricsEndpoint);

} // namespace keldctl

#endif
