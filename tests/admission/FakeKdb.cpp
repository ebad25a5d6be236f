// A stand-in client database that counts what is asked of it.  The known
// names are set through fake_kdb_set_clients ("a,b.example,c").
#include "kdb_client.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::mutex gs_mutex;
std::set<std::string> gs_clients;
std::atomic<int> gs_inits{0}, gs_queries{0}, gs_frees{0};

} // namespace

extern "C" {

void fake_kdb_set_clients(const char* names)
{
    std::lock_guard<std::mutex> lock(gs_mutex);
    gs_clients.clear();
    std::istringstream in(names);
    std::string name;
    while (std::getline(in, name, ',')) gs_clients.insert(name);
}

void fake_kdb_counts(int* inits, int* queries, int* frees)
{
    *inits = gs_inits;
    *queries = gs_queries;
    *frees = gs_frees;
}

int db_initCLIENT_REC(client_rec* rec, int qtype)
{
    ++gs_inits;
    std::memset(rec, 0, sizeof(*rec));
    rec->qtype = qtype;
    return 0;
}

int db_getCLIENT(client_rec* rec, const char* name)
{
    ++gs_queries;
    std::lock_guard<std::mutex> lock(gs_mutex);
    if (gs_clients.count(name) == 0) return KDB_ENOT_FOUND;
    std::free(rec->client_name);
    rec->client_name = strdup(name);
    return 0;
}

void db_CLIENTfree(client_rec* rec)
{
    ++gs_frees;
    std::free(rec->client_name);
    rec->client_name = nullptr;
}

}
