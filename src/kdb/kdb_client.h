/* The client database, libKdbMT.so: which hosts are clients of this site.
 *
 * The service loads the library at run time from <root>/lib/libKdbMT.so and
 * asks it one question, "is this host a client?", through three C entry
 * points.  A caller keeps one client_rec on its stack:
 *
 *     client_rec rec;
 *     db_initCLIENT_REC(&rec, KDB_QUERY_BY_NAME);
 *     int known = db_getCLIENT(&rec, "host.example.com") == 0;
 *     ...                         (db_getCLIENT may be called again on rec)
 *     db_CLIENTfree(&rec);        (once, whatever the results were)
 *
 * The clients live in an SQLite database, <root>/keldrive/clients.db, table
 * "clients" (name, added); names compare without regard to case.  The
 * operator edits it with keldv-clients; the library only reads.  Every call
 * opens its own connection, so any number of threads and processes may ask
 * at once while the operator changes the table (write-ahead log, and a
 * reader waits up to KDB_BUSY_TIMEOUT_MS for a writer's lock).
 */
#ifndef KELD_KDB_CLIENT_H
#define KELD_KDB_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Kept opaque: nothing of this database describes them. */
typedef struct HOST_INFO_REC HOST_INFO_REC;
typedef struct SEC_INFO_REC SEC_INFO_REC;
typedef struct EXDB_INFO_REC EXDB_INFO_REC;

/* The record of one client.  The layout is fixed: callers built against
 * another copy of this header share it with the library. */
typedef struct client_rec {
    int qtype;                  /* what the record was prepared for */
    int options;
    unsigned long ul_unused1;
    int version;                /* KDB_CLIENT_REC_VERSION */
    char* client_name;          /* the name as the database keeps it */
    char* current_hostname;     /* the name that was asked for */
    HOST_INFO_REC* host_info;   /* always null here */
    SEC_INFO_REC* sec_info;     /* always null here */
    void* p_unused1;
    char* c_recieve_free;
    char* granular_proxy;
    EXDB_INFO_REC* exdb_info;   /* always null here */
    int offline;                /* 0: the client is in service */
    int online_at;              /* seconds since 1970 when it was added */
    int offline_at;
} client_rec, CLIENT_REC;

#define KDB_QUERY_BY_NAME 1
#define KDB_CLIENT_REC_VERSION 1
#define KDB_BUSY_TIMEOUT_MS 5000

/* Results of db_getCLIENT. */
#define KDB_OK 0
#define KDB_ENOT_FOUND 1        /* the database does not know the name */
#define KDB_EINVAL 2            /* null record or name, or a name too long */
#define KDB_EDATABASE 3         /* no database, or it cannot be read */
#define KDB_ENOMEM 4

/* Clears rec and marks it for queries of kind qtype.  Returns 0, or
 * KDB_EINVAL for a null record. */
int db_initCLIENT_REC(client_rec* rec, int qtype);

/* Looks name up.  On KDB_OK rec holds the client; on any other result its
 * strings are null.  Strings of an earlier call on rec are released first. */
int db_getCLIENT(client_rec* rec, const char* name);

/* Releases what db_getCLIENT put into rec; rec stays usable. */
void db_CLIENTfree(client_rec* rec);

#ifdef __cplusplus
}
#endif

#endif
