// What the disk tools' command lines share: an optional first argument
// naming the server, this host's disk server when it is left out.
#ifndef KELD_DISK_DISKTOOLARGUMENTS_H
#define KELD_DISK_DISKTOOLARGUMENTS_H

#include "DiskStore.h"
#include "ToolCommandLine.h"

#include <string>

namespace diskstore {

// Adds the optional SERVER argument to sub; server starts as this host's
// disk server.  The tool's App validates positionals, so that an argument
// not naming a disk server ("Disk:HOST") goes on to the next one.
inline void addServerArgument(CLI::App& sub, std::string& server)
{
    server = std::string(SERVER_PREFIX) + hostName();
    const CLI::Validator diskServer(
        [](std::string& name) { return name.rfind(SERVER_PREFIX, 0) == 0 ? "" : std::string("not a disk server"); },
        "Disk:HOST");
    sub.add_option("SERVER", server, "the server (default: this host's)")->check(diskServer);
}

} // namespace diskstore

#endif
