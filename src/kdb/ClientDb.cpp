#include "ClientDb.h"

#include "KeldvPaths.h"
#include "PrivateFile.h"
#include "kdb_client.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kdb {

namespace {

const size_t kMaxNameLength = 253;

const char* const kCreateTable =
    "CREATE TABLE IF NOT EXISTS clients ("
    " name TEXT PRIMARY KEY NOT NULL COLLATE NOCASE,"
    " added INTEGER NOT NULL)";

// A prepared statement that is finalised on every way out.
class Statement {
public:
    Statement(sqlite3* db, const char* sql)
    {
        m_rc = sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr);
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool prepared() const { return m_rc == SQLITE_OK; }
    void bind(int index, const std::string& text)
    {
        sqlite3_bind_text(m_stmt, index, text.c_str(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    }
    void bind(int index, long long value) { sqlite3_bind_int64(m_stmt, index, value); }
    // SQLITE_ROW, SQLITE_DONE or an error code.
    int step() { return sqlite3_step(m_stmt); }
    std::string text(int column) const
    {
        const unsigned char* value = sqlite3_column_text(m_stmt, column);
        return value != nullptr ? reinterpret_cast<const char*>(value) : "";
    }
    long long integer(int column) const { return sqlite3_column_int64(m_stmt, column); }

private:
    sqlite3_stmt* m_stmt = nullptr;
    int m_rc;
};

// SQLite would make a new database readable by all; made here first, its
// journal files then take the same mode.
void createOwnerOnly(const std::string& path)
{
    const int fd = openPrivateFile(path.c_str(), O_RDWR, kOwnerOnlyFileMode);
    if (fd < 0) throw ClientDbError(path + ": cannot create: " + std::strerror(errno));
    ::close(fd);
}

ClientEntry entryOf(const Statement& row)
{
    ClientEntry entry;
    entry.name = row.text(0);
    entry.added = row.integer(1);
    return entry;
}

} // namespace

std::string clientDatabasePath()
{
    return keldvPath("keldrive/clients.db");
}

bool validClientName(const std::string& name)
{
    if (name.empty() || name.size() > kMaxNameLength) return false;
    for (unsigned char c : name) {
        if (!std::isalnum(c) && c != '.' && c != '-' && c != '_' && c != ':') return false;
    }
    return true;
}

ClientDb::ClientDb(const std::string& path, Mode mode) : m_path(path)
{
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    if (mode == Mode::Write) flags |= SQLITE_OPEN_CREATE;
    // Without this check a reader would see "unable to open" for a missing
    // file and a writer would fail deep inside SQLite; both want the plain fact.
    struct stat st;
    if (mode == Mode::Read && ::stat(path.c_str(), &st) != 0)
        throw ClientDbError(path + ": no client database");
    if (mode == Mode::Write) createOwnerOnly(path);
    if (sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr) != SQLITE_OK) fail("cannot open");
    sqlite3_busy_timeout(m_db, KDB_BUSY_TIMEOUT_MS);
    if (mode == Mode::Write) {
        // Readers keep reading from their snapshot while a writer commits.
        exec("PRAGMA journal_mode=WAL");
        exec(kCreateTable);
    }
}

ClientDb::~ClientDb()
{
    sqlite3_close_v2(m_db);
}

void ClientDb::fail(const std::string& what)
{
    std::string text = m_path + ": " + what;
    if (m_db != nullptr) text += ": " + std::string(sqlite3_errmsg(m_db));
    throw ClientDbError(text);
}

void ClientDb::exec(const char* sql)
{
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(sql);
}

bool ClientDb::find(const std::string& name, ClientEntry& out)
{
    Statement query(m_db, "SELECT name, added FROM clients WHERE name = ?1");
    if (!query.prepared()) fail("cannot read the clients");
    query.bind(1, name);
    const int rc = query.step();
    if (rc == SQLITE_DONE) return false;
    if (rc != SQLITE_ROW) fail("cannot read the clients");
    out = entryOf(query);
    return true;
}

bool ClientDb::add(const std::string& name)
{
    Statement insert(m_db, "INSERT OR IGNORE INTO clients (name, added) VALUES (?1, ?2)");
    if (!insert.prepared()) fail("cannot add " + name);
    insert.bind(1, name);
    insert.bind(2, static_cast<long long>(std::time(nullptr)));
    if (insert.step() != SQLITE_DONE) fail("cannot add " + name);
    return sqlite3_changes(m_db) == 1;
}

bool ClientDb::remove(const std::string& name)
{
    Statement erase(m_db, "DELETE FROM clients WHERE name = ?1");
    if (!erase.prepared()) fail("cannot remove " + name);
    erase.bind(1, name);
    if (erase.step() != SQLITE_DONE) fail("cannot remove " + name);
    return sqlite3_changes(m_db) == 1;
}

std::vector<ClientEntry> ClientDb::list()
{
    Statement query(m_db, "SELECT name, added FROM clients ORDER BY name");
    if (!query.prepared()) fail("cannot read the clients");
    std::vector<ClientEntry> entries;
    int rc;
    while ((rc = query.step()) == SQLITE_ROW) entries.push_back(entryOf(query));
    if (rc != SQLITE_DONE) fail("cannot read the clients");
    return entries;
}

} // namespace kdb
