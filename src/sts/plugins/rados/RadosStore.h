// The RADOS storage plug-in's store: what its slots and its operator's tool
// (keldv-rados) share.  A server "Rados:NAME" is the file
// <root>/keldrive/rados/NAME.conf; its storage is one pool of a Ceph
// cluster, reached through librados' C interface.
//
// Layout in the server's pool:
//
//   keld.server.NAME            (default namespace) the server's index; omap
//                               "lsu.<LSU>" -> "" for each LSU,
//                               "label.<LSU>" -> its label,
//                               "quota.<LSU>" -> its quota in bytes
//   namespace "NAME/<LSU>"      one LSU; in it:
//     keld.images               the LSU's index; omap "<image>" -> "<state> <size>"
//     img.<image>               the image's header; xattrs keld.def (the
//                               definition as given), keld.state, keld.size,
//                               keld.objects (data objects it may hold);
//                               while a writer has it open, the exclusive
//                               lock "keld.write" (RadosImageLock.h)
//     data.<image>.<16 hex>     bytes [i * object_size, (i + 1) * object_size)
//     meta.<image>              the metadata stream
//
// <image> is the base name, the date and the full date joined by '@'.  No
// call lists the pool: every list comes from an index's omap.  An image's
// state is "writing" from its create or open for writing until a close
// that made every write durable sets "complete"; a writer that went away
// leaves "writing" or "incomplete", both reported as incomplete, and its
// lock runs out after the server's lock_seconds.  A delete sets the
// header's state "deleting" before it removes anything.  Before a
// write reaches a data object past keld.objects, keld.objects is raised,
// so that a delete after any crash finds every object.
// Snapshots of an LSU are the cluster's own (RadosSnapshots.h).
#ifndef KELD_RADOS_STORE_H
#define KELD_RADOS_STORE_H

#include "sts_api.h"

#include <rados/librados.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

/* The plug-in's own numbers. */
#define RADOS_ENOENT 2064001     /* no such server, LSU, image or snapshot */
#define RADOS_EEXIST 2064002     /* it exists already */
#define RADOS_EBUSY 2064003      /* in use: an LSU that still holds images or snapshots, an image another writer holds */
#define RADOS_ENOSPC 2064004     /* the cluster, the pool or its quota is full */
#define RADOS_ECONFIG 2064005    /* the server's configuration file is malformed */
#define RADOS_EINVAL 2064006     /* bad argument: names, offsets, modes */
#define RADOS_EIO 2064007        /* the cluster refused; the reason goes to the session log */
#define RADOS_EREADONLY 2064008  /* a write to an image opened for reading */
#define RADOS_ECONNECT 2064009   /* the cluster cannot be reached */
#define RADOS_ENOPOOL 2064010    /* the configured pool is not in the cluster */

/* Modes of stsa_open_image. */
#define RADOS_OPEN_READ 1
#define RADOS_OPEN_WRITE 2

/* The largest offset + length of a transfer. */
#define RADOS_MAX_EXTENT (1ULL << 50)

namespace radosstore {

const char* const SERVER_PREFIX = "Rados:";

// ---- configuration ----

struct ServerConfig {
    std::string name;       // NAME of Rados:NAME
    std::string file;       // the file it was read from
    std::string cephConf;
    std::string pool;
    std::string client = "admin";
    std::string keyring;
    std::uint64_t objectSize = 64ull << 20;
    unsigned lockSeconds = 30;
};

// The install root: $KELDV_ROOT, else /usr/keldv.
std::string installRoot();
std::string configDirectory(const std::string& root);
// A name usable as NAME, an LSU or an image's base name: no '/', not "."
// or "..", no control characters, at most limit bytes.
bool validName(const std::string& name, size_t limit = 255);
// NAME of a server name "Rados:NAME", or "" when it is none.
std::string nameOf(const std::string& serverName);
// The servers configured under an install root, "Rados:NAME" in name order.
std::vector<std::string> listServers(const std::string& root);

// Reads NAME.conf under root.  0, or RADOS_ENOENT (no such file) or
// RADOS_ECONFIG with error saying which file and line and why.
int readServerConfig(const std::string& root, const std::string& name, ServerConfig& config, std::string& error);
// The same checks on a text, for the file named file.
int parseServerConfig(const std::string& text, const std::string& file, ServerConfig& config, std::string& error);

// ---- the cluster ----

// One connection to a cluster and its pool, shared by every open of the
// servers configured alike; it goes with its last user.
class WriteLocks;

// Two clients of one cluster: one for the data and one for the small
// operations a stream of data must not hold up.  Each client has its own
// connection to an OSD, and an OSD answers a connection in order: a
// header read on the data's connection waits behind the extents read
// ahead of it.
class Cluster {
public:
    enum class Route { DATA, CONTROL };

    Cluster(rados_t cluster, rados_t control, rados_ioctx_t pool);
    ~Cluster();
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;

    rados_t handle() const { return m_cluster; }
    // The pool's default namespace (the server indexes); shared, never
    // switched to another namespace.
    rados_ioctx_t pool() const { return m_pool; }
    // A context of its own on one namespace of the pool, or null.
    rados_ioctx_t openNamespace(const std::string& ns, Route route = Route::DATA) const;
    // The image write locks taken through this connection
    // (RadosImageLock.h).
    WriteLocks& writeLocks() const { return *m_locks; }

private:
    rados_t m_cluster;
    rados_t m_control;
    rados_ioctx_t m_pool;
    std::unique_ptr<WriteLocks> m_locks;
};

// The connection for config, made when there is none.  0, or
// RADOS_ECONNECT / RADOS_ENOPOOL / RADOS_ECONFIG with error naming the
// server and the cause.
int connect(const ServerConfig& config, std::shared_ptr<Cluster>& out, std::string& error);

// ---- objects ----

// A librados result (negative errno) as one of the plug-in's numbers.
int numberOf(int radosResult);

// Omap of one object: set and remove keys in one atomic operation; read
// those with a prefix (all of them, in key order) or one key.
int omapUpdate(rados_ioctx_t io, const std::string& oid, const std::map<std::string, std::string>& set,
               const std::vector<std::string>& remove = {});
int omapWithPrefix(rados_ioctx_t io, const std::string& oid, const std::string& prefix,
                   std::map<std::string, std::string>& out);
int omapValue(rados_ioctx_t io, const std::string& oid, const std::string& key, std::string& value);

// ---- LSUs ----

std::string serverIndex(const std::string& name);
std::string lsuNamespace(const std::string& server, const std::string& lsu);
const char* const LSU_INDEX = "keld.images";

struct LsuRecord {
    std::string label;
    std::uint64_t quota = 0;   // 0: none of its own
};

int listLsus(const Cluster& c, const std::string& server, std::vector<std::string>& names);
int readLsu(const Cluster& c, const std::string& server, const std::string& lsu, LsuRecord& out);
int createLsu(const Cluster& c, const std::string& server, const std::string& lsu, std::uint64_t quota);
// Only an LSU without images or snapshots goes (RADOS_EBUSY).
int deleteLsu(const Cluster& c, const std::string& server, const std::string& lsu);
int setLsuLabel(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& label);

struct LsuUsage {
    std::uint64_t images = 0;
    std::uint64_t bytes = 0;
};
int lsuUsage(const Cluster& c, const std::string& server, const std::string& lsu, LsuUsage& out);
// The pool's quota in bytes when one is set, else the cluster's free space.
std::uint64_t capacity(const Cluster& c, const std::string& pool);

// ---- images ----

std::string headerObject(const std::string& image);
std::string metaObject(const std::string& image);
std::string dataObject(const std::string& image, std::uint64_t index);

const char* const STATE_WRITING = "writing";
const char* const STATE_COMPLETE = "complete";
const char* const STATE_INCOMPLETE = "incomplete";
// Set by a delete before it removes a byte: a reader that still finds the
// header after its bytes arrived knows they were the image's.
const char* const STATE_DELETING = "deleting";

struct ImageHeader {
    sts_image_def_t def = {};
    std::string state;
    std::uint64_t size = 0;
    std::uint64_t objects = 0;
};

// The header of an image; RADOS_ENOENT when there is none.
int readHeader(rados_ioctx_t io, const std::string& image, ImageHeader& out);
// One extended attribute of a header object into out (others are ignored).
void takeHeaderXattr(ImageHeader& out, const char* name, const char* value, std::size_t length);
// A new image: header (refused with RADOS_EEXIST when there is one, changing
// nothing) and index entry, both "writing".
int createHeader(rados_ioctx_t io, const std::string& image, const sts_image_def_t& def);
// Sets state, size and objects of an existing header, then the index entry.
int writeState(rados_ioctx_t io, const std::string& image, const std::string& state, std::uint64_t size,
               std::uint64_t objects);
// Raises keld.objects of an existing header.
int raiseObjects(rados_ioctx_t io, const std::string& image, std::uint64_t objects);
// Marks the header "deleting", removes every object of the image, then
// its index entry.  An interrupted delete can be repeated.
int removeImage(rados_ioctx_t io, const std::string& image);
// The images of an LSU's index with a prefix, with their index values.
int listImages(rados_ioctx_t io, const std::string& prefix, std::map<std::string, std::string>& out);

// Calls each(objectIndex, offsetInObject, length, offsetInBuffer) for every
// piece of [off, off + len).
template <typename Each>
void forEachPiece(std::uint64_t objectSize, std::uint64_t len, std::uint64_t off, Each each)
{
    for (std::uint64_t done = 0; done < len;) {
        const std::uint64_t at = off + done;
        const std::uint64_t inObject = at % objectSize;
        const std::uint64_t n = std::min(len - done, objectSize - inObject);
        each(at / objectSize, inObject, n, done);
        done += n;
    }
}

// Completions of the pieces of one or more operations, all waited for by
// waitAll() or at the latest by the destructor.
class Pieces {
public:
    Pieces() = default;
    ~Pieces() { waitAll(); }
    Pieces(const Pieces&) = delete;
    Pieces& operator=(const Pieces&) = delete;

    // Starts one piece with start(completion); a piece that did not start
    // is not waited for and counts as failed.  A read piece names where its
    // bytes go, so that what it does not find becomes zeros.
    template <typename Start>
    void add(Start start, char* readInto = nullptr, std::uint64_t length = 0)
    {
        rados_completion_t c = nullptr;
        if (rados_aio_create_completion2(nullptr, nullptr, &c) != 0) {
            m_notStarted = -ENOMEM;
            return;
        }
        const int rc = start(c);
        if (rc != 0) {
            rados_aio_release(c);
            m_notStarted = rc;
            return;
        }
        m_pieces.push_back({c, readInto, length});
    }
    // The first failure of all pieces (librados' negative errno), else 0.
    // A read piece that found no object or fewer bytes gets zeros.
    int waitAll();

private:
    struct Piece {
        rados_completion_t completion;
        char* readInto;
        std::uint64_t length;
    };
    std::vector<Piece> m_pieces;
    int m_notStarted = 0;
};

// Starts the pieces of a transfer at any offset, split over the image's
// objects, all in flight at once.  librados copies a write's bytes as it
// starts it, so buf is free again on return; a read's buf must stay until
// the pieces are waited for.
void startWrite(Pieces& pieces, rados_ioctx_t io, const std::string& image, std::uint64_t objectSize,
                const char* buf, std::uint64_t len, std::uint64_t off);
void startRead(Pieces& pieces, rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf,
               std::uint64_t len, std::uint64_t off);

// The same, waited for: 0 or librados' negative errno.
int writeData(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, const char* buf,
              std::uint64_t len, std::uint64_t off);
int readData(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, char* buf, std::uint64_t len,
             std::uint64_t off);

} // namespace radosstore

#endif
