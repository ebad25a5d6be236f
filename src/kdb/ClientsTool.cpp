// keldv-clients: the operator's view of the client database.
//   keldv-clients list          one client a line, in name order
//   keldv-clients add HOST      make HOST a client (the database is made when missing)
//   keldv-clients remove HOST   HOST is a client no more
// A running service admits an added client at its next connection; a
// removed one that it has already admitted stays admitted until it restarts.
#include "ClientDb.h"
#include "ToolCommandLine.h"

#include <cstdio>
#include <functional>
#include <string>
#include <sys/stat.h>

namespace {

int list()
{
    const std::string path = kdb::clientDatabasePath();
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return 0;   // no database yet: no clients
    kdb::ClientDb db(path, kdb::ClientDb::Mode::Read);
    for (const kdb::ClientEntry& entry : db.list()) std::printf("%s\n", entry.name.c_str());
    return 0;
}

int change(const std::string& command, const std::string& host)
{
    if (!kdb::validClientName(host)) {
        std::fprintf(stderr, "keldv-clients: '%s' is not a host name or address\n", host.c_str());
        return 2;
    }
    kdb::ClientDb db(kdb::clientDatabasePath(), kdb::ClientDb::Mode::Write);
    if (command == "add") {
        if (!db.add(host)) std::fprintf(stderr, "keldv-clients: %s is already a client\n", host.c_str());
        return 0;
    }
    if (!db.remove(host)) {
        std::fprintf(stderr, "keldv-clients: %s is not a client\n", host.c_str());
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"The operator's view of the client database.", "keldv-clients"};
    app.require_subcommand(1);
    std::function<int()> action;
    std::string host;
    app.add_subcommand("list", "one client a line, in name order")->callback([&] { action = list; });
    for (const char* command : {"add", "remove"}) {
        CLI::App* sub = app.add_subcommand(command, std::string(command) == "add"
                                                        ? "make HOST a client (the database is made when missing)"
                                                        : "HOST is a client no more");
        sub->add_option("HOST", host, "a host name or address")->required();
        sub->callback([&action, &host, command] { action = [&host, command] { return change(command, host); }; });
    }
    int status = 0;
    if (!parseToolCommandLine(app, argc, argv, status)) return status;
    try {
        return action();
    } catch (const kdb::ClientDbError& e) {
        std::fprintf(stderr, "keldv-clients: %s\n", e.what());
        return 1;
    }
}
