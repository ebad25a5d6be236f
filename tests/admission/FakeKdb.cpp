// A stand-in client database that counts what is asked of it in
// fake_kdb_counts: records made, queries, records freed.  The known names
// are set through fake_kdb_set_clients ("a,b.example,c").
#include "kdb_client.h"

#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> gs_clients;

} // namespace

extern "C" {

int fake_kdb_counts[3] = {0, 0, 0};

void fake_kdb_set_clients(const char* names)
{
    gs_clients.clear();
    std::istringstream in(names);
    for (std::string name; std::getline(in, name, ',');) gs_clients.insert(name);
}

int db_initCLIENT_REC(client_rec* rec, int qtype)
{
    ++fake_kdb_counts[0];
    std::memset(rec, 0, sizeof(*rec));
    rec->qtype = qtype;
    return 0;
}

int db_getCLIENT(client_rec* rec, const char* name)
{
    ++fake_kdb_counts[1];
    if (gs_clients.count(name) == 0) return KDB_ENOT_FOUND;
    std::free(rec->client_name);
    rec->client_name = strdup(name);
    return 0;
}

void db_CLIENTfree(client_rec* rec)
{
    ++fake_kdb_counts[2];
    std::free(rec->client_name);
    rec->client_name = nullptr;
}

}
