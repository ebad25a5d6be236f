// The three entry points of libKdbMT.so over the SQLite table of clients.
// Nothing may leave them as a C++ exception: callers are C.
#include "ClientDb.h"
#include "kdb_client.h"

#include <cstdlib>
#include <cstring>
#include <new>

#define KDB_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

char* copyOf(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

int fill(client_rec* rec, const kdb::ClientEntry& entry, const char* asked)
{
    rec->client_name = copyOf(entry.name);
    rec->current_hostname = copyOf(asked);
    if (rec->client_name == nullptr || rec->current_hostname == nullptr) {
        db_CLIENTfree(rec);
        return KDB_ENOMEM;
    }
    rec->offline = 0;
    rec->online_at = static_cast<int>(entry.added);
    return KDB_OK;
}

} // namespace

KDB_EXPORT int db_initCLIENT_REC(client_rec* rec, int qtype)
{
    if (rec == nullptr) return KDB_EINVAL;
    std::memset(rec, 0, sizeof(*rec));
    rec->qtype = qtype;
    rec->version = KDB_CLIENT_REC_VERSION;
    return KDB_OK;
}

KDB_EXPORT int db_getCLIENT(client_rec* rec, const char* name)
{
    if (rec == nullptr || name == nullptr) return KDB_EINVAL;
    db_CLIENTfree(rec);
    if (!kdb::validClientName(name)) return KDB_EINVAL;
    try {
        kdb::ClientDb db(kdb::clientDatabasePath(), kdb::ClientDb::Mode::Read);
        kdb::ClientEntry entry;
        if (!db.find(name, entry)) return KDB_ENOT_FOUND;
        return fill(rec, entry, name);
    } catch (const std::bad_alloc&) {
        return KDB_ENOMEM;
    } catch (...) {
        return KDB_EDATABASE;
    }
}

KDB_EXPORT void db_CLIENTfree(client_rec* rec)
{
    if (rec == nullptr) return;
    std::free(rec->client_name);
    std::free(rec->current_hostname);
    rec->client_name = nullptr;
    rec->current_hostname = nullptr;
    rec->offline = 0;
    rec->online_at = 0;
    rec->offline_at = 0;
}
