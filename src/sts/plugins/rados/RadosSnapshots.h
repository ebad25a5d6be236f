// Snapshots of a RADOS LSU, made inside the cluster with the pool's
// self-managed snapshots: taking one costs no data copy.  Every write into
// an LSU's namespace (data, metadata, headers, its image index) carries the
// LSU's snapshot context, kept as the xattr keld.snapc of its index object
// ("<seq> <id> <id> ...", newest first), so the cluster keeps a clone of an
// object as a snapshot saw it before the first write after it.  A snapshot
// is then the whole namespace read at its id: its image index, the headers
// and the data as they were.  A write that runs while a snapshot is taken
// lands on either side of it.
//
// The server's index keeps each snapshot: omap "snap/<LSU>/<name>" ->
// "<id> <seconds since 1970>".  An LSU that has snapshots cannot be deleted.
#ifndef KELD_RADOS_SNAPSHOTS_H
#define KELD_RADOS_SNAPSHOTS_H

#include "RadosStore.h"

namespace radosstore {

// Makes io's writes carry the LSU's current snapshot context; called before
// every write into an LSU's namespace, so a handle opened before a
// snapshot still preserves it.
int applySnapContext(rados_ioctx_t io);

// A snapshot name: a valid name that does not start with '.'.
bool validSnapshotName(const std::string& name);

struct SnapshotRecord {
    std::uint64_t id = 0;
    long long time = 0;   // seconds since 1970
};

// Results are 0 or librados' negative errno: -ENOENT (no such LSU or
// snapshot), -EEXIST, -EINVAL (a bad name).
int takeSnapshot(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& name);
int dropSnapshot(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& name);
int listSnapshots(const Cluster& c, const std::string& server, const std::string& lsu, std::vector<std::string>& names);
int readSnapshot(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& name,
                 SnapshotRecord& out);

// A context reading the LSU's namespace as the snapshot id saw it, or null.
rados_ioctx_t snapshotContext(const Cluster& c, const std::string& server, const std::string& lsu, std::uint64_t id);

// An image as a snapshot holds it.  The fingerprint tells one version of
// its data and metadata from another without reading them: each object's
// size and modification time.
struct SnapshotImage {
    std::string state;
    std::uint64_t size = 0;        // of an image being written: how far its objects reach
    long long modified = 0;        // its header's, in seconds
    std::string fingerprint;
};

// The images of a snapshot of the LSU (none for id 0), by name.
int snapshotImages(const Cluster& c, const std::string& server, const std::string& lsu, std::uint64_t id,
                   std::uint64_t objectSize, std::map<std::string, SnapshotImage>& out);

} // namespace radosstore

#endif
