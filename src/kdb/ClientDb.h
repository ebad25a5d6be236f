// The table of clients in SQLite, shared by the database library and the
// operator command.  One object is one connection; use it on one thread.
#ifndef KELD_KDB_CLIENTDB_H
#define KELD_KDB_CLIENTDB_H

#include <stdexcept>
#include <string>
#include <vector>

struct sqlite3;

namespace kdb {

// <root>/keldrive/clients.db
std::string clientDatabasePath();

// Host names and numeric addresses: letters, digits, '.', '-', '_' and ':',
// at most 253 characters.
bool validClientName(const std::string& name);

struct ClientEntry {
    std::string name;
    long long added = 0;   // seconds since 1970
};

class ClientDbError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ClientDb {
public:
    enum class Mode {
        Read,    // the database must exist; nothing is created
        Write,   // made with its table when missing
    };
    // Throws ClientDbError with a text naming the file.
    ClientDb(const std::string& path, Mode mode);
    ~ClientDb();
    ClientDb(const ClientDb&) = delete;
    ClientDb& operator=(const ClientDb&) = delete;

    // Names compare without regard to case.  Each throws ClientDbError.
    bool find(const std::string& name, ClientEntry& out);
    bool add(const std::string& name);      // false: already there
    bool remove(const std::string& name);   // false: not there
    std::vector<ClientEntry> list();        // in name order

private:
    void exec(const char* sql);
    [[noreturn]] void fail(const std::string& what);

    std::string m_path;
    sqlite3* m_db = nullptr;
};

} // namespace kdb

#endif
