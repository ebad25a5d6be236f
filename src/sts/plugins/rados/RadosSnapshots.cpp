// Snapshots of a RADOS LSU (see RadosSnapshots.h): the snapshot context
// every write carries, taking and dropping snapshots, and reading what one
// holds.
#include "RadosSnapshots.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <sstream>

namespace radosstore {

namespace {

const char* const XATTR_SNAPC = "keld.snapc";

struct SnapContext {
    std::uint64_t seq = 0;
    std::vector<rados_snap_t> snaps;   // newest first
};

struct ContextCloser {
    void operator()(void* io) const { rados_ioctx_destroy(static_cast<rados_ioctx_t>(io)); }
};
using Context = std::unique_ptr<void, ContextCloser>;

Context lsuContext(const Cluster& c, const std::string& server, const std::string& lsu)
{
    return Context(c.openNamespace(lsuNamespace(server, lsu)));
}

std::string recordKey(const std::string& lsu, const std::string& name)
{
    return "snap/" + lsu + "/" + name;
}

// The LSU's context as its index object keeps it; none when it keeps none.
int readSnapContext(rados_ioctx_t io, SnapContext& out)
{
    std::vector<char> buf(1 << 16);
    const int rc = rados_getxattr(io, LSU_INDEX, XATTR_SNAPC, buf.data(), buf.size());
    if (rc == -ENOENT || rc == -ENODATA) return 0;
    if (rc < 0) return rc;
    std::istringstream in(std::string(buf.data(), static_cast<size_t>(rc)));
    in >> out.seq;
    for (rados_snap_t id = 0; in >> id;) out.snaps.push_back(id);
    return 0;
}

int setWriteContext(rados_ioctx_t io, SnapContext& ctx)
{
    return rados_ioctx_selfmanaged_snap_set_write_ctx(io, ctx.seq, ctx.snaps.data(), static_cast<int>(ctx.snaps.size()));
}

// Keeps ctx as the LSU's context; the write itself carries it, so the index
// object is cloned for a snapshot just added.
int writeSnapContext(rados_ioctx_t io, SnapContext& ctx)
{
    std::sort(ctx.snaps.rbegin(), ctx.snaps.rend());
    std::string text = std::to_string(ctx.seq);
    for (rados_snap_t id : ctx.snaps) text += " " + std::to_string(id);
    const int rc = setWriteContext(io, ctx);
    return rc != 0 ? rc : rados_setxattr(io, LSU_INDEX, XATTR_SNAPC, text.data(), text.size());
}

// An object's size, time and version as the context reads it; the version
// tells two writes within one second apart.
std::string stamp(rados_ioctx_t io, const std::string& oid)
{
    std::uint64_t size = 0;
    time_t mtime = 0;
    if (rados_stat(io, oid.c_str(), &size, &mtime) != 0) return "-;";
    return std::to_string(size) + ":" + std::to_string(mtime) + ":" + std::to_string(rados_get_last_version(io)) + ";";
}

// How far the data objects of an image reach: the last one there ends it.
std::uint64_t extentOf(rados_ioctx_t io, const std::string& image, std::uint64_t objects, std::uint64_t objectSize)
{
    for (std::uint64_t i = objects; i > 0; --i) {
        std::uint64_t size = 0;
        time_t mtime = 0;
        if (rados_stat(io, dataObject(image, i - 1).c_str(), &size, &mtime) == 0) return (i - 1) * objectSize + size;
    }
    return 0;
}

int describeImage(rados_ioctx_t io, const std::string& image, std::uint64_t objectSize, SnapshotImage& out)
{
    ImageHeader header;
    const int rc = readHeader(io, image, header);
    if (rc != 0) return rc;
    out.state = header.state;
    out.size = header.state == STATE_COMPLETE ? header.size
                                              : std::max(header.size, extentOf(io, image, header.objects, objectSize));
    std::uint64_t size = 0;
    time_t mtime = 0;
    if (rados_stat(io, headerObject(image).c_str(), &size, &mtime) == 0) out.modified = mtime;
    out.fingerprint = stamp(io, metaObject(image));
    for (std::uint64_t i = 0; i < header.objects; ++i) out.fingerprint += stamp(io, dataObject(image, i));
    return 0;
}

} // namespace

int applySnapContext(rados_ioctx_t io)
{
    SnapContext ctx;
    const int rc = readSnapContext(io, ctx);
    return rc != 0 ? rc : setWriteContext(io, ctx);
}

bool validSnapshotName(const std::string& name)
{
    return !name.empty() && name[0] != '.' && validName(name);
}

int readSnapshot(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& name,
                 SnapshotRecord& out)
{
    if (!validName(lsu) || !validSnapshotName(name)) return -EINVAL;
    std::string value;
    const int rc = omapValue(c.pool(), serverIndex(server), recordKey(lsu, name), value);
    if (rc != 0) return rc;
    std::istringstream in(value);
    in >> out.id >> out.time;
    return 0;
}

int listSnapshots(const Cluster& c, const std::string& server, const std::string& lsu, std::vector<std::string>& names)
{
    std::map<std::string, std::string> records;
    const std::string prefix = recordKey(lsu, "");
    const int rc = omapWithPrefix(c.pool(), serverIndex(server), prefix, records);
    for (const auto& record : records) names.push_back(record.first.substr(prefix.size()));
    return rc;
}

// The record goes last: a crash before it leaves an id in the context that
// no snapshot names, which costs nothing but a clone on the next write.
int takeSnapshot(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& name)
{
    SnapshotRecord existing;
    int rc = readSnapshot(c, server, lsu, name, existing);
    if (rc != -ENOENT) return rc == 0 ? -EEXIST : rc;
    LsuRecord record;
    rc = readLsu(c, server, lsu, record);
    if (rc != 0) return rc;
    const Context io = lsuContext(c, server, lsu);
    if (io == nullptr) return -ENOMEM;
    SnapContext ctx;
    rados_snap_t id = 0;
    rc = readSnapContext(io.get(), ctx);
    if (rc == 0) rc = rados_ioctx_selfmanaged_snap_create(io.get(), &id);
    if (rc != 0) return rc;
    ctx.snaps.push_back(id);
    ctx.seq = std::max<std::uint64_t>(ctx.seq, id);
    rc = writeSnapContext(io.get(), ctx);
    if (rc != 0) return rc;
    const std::string value = std::to_string(id) + " " + std::to_string(static_cast<long long>(std::time(nullptr)));
    return omapUpdate(c.pool(), serverIndex(server), {{recordKey(lsu, name), value}});
}

// Out of the context first, so that no write keeps clones for it any more;
// the cluster then trims the clones only it needed.
int dropSnapshot(const Cluster& c, const std::string& server, const std::string& lsu, const std::string& name)
{
    SnapshotRecord record;
    int rc = readSnapshot(c, server, lsu, name, record);
    if (rc != 0) return rc;
    const Context io = lsuContext(c, server, lsu);
    if (io == nullptr) return -ENOMEM;
    SnapContext ctx;
    rc = readSnapContext(io.get(), ctx);
    if (rc != 0) return rc;
    ctx.snaps.erase(std::remove(ctx.snaps.begin(), ctx.snaps.end(), record.id), ctx.snaps.end());
    rc = writeSnapContext(io.get(), ctx);
    if (rc == 0) rc = omapUpdate(c.pool(), serverIndex(server), {}, {recordKey(lsu, name)});
    if (rc == 0) rados_ioctx_selfmanaged_snap_remove(io.get(), record.id);
    return rc;
}

rados_ioctx_t snapshotContext(const Cluster& c, const std::string& server, const std::string& lsu, std::uint64_t id)
{
    rados_ioctx_t io = c.openNamespace(lsuNamespace(server, lsu));
    if (io != nullptr) rados_ioctx_snap_set_read(io, id);
    return io;
}

int snapshotImages(const Cluster& c, const std::string& server, const std::string& lsu, std::uint64_t id,
                   std::uint64_t objectSize, std::map<std::string, SnapshotImage>& out)
{
    if (id == 0) return 0;
    const Context io(snapshotContext(c, server, lsu, id));
    if (io == nullptr) return -ENOMEM;
    std::map<std::string, std::string> entries;
    int rc = listImages(io.get(), "", entries);
    if (rc == -ENOENT) return 0;   // the LSU had no image index yet
    for (auto e = entries.begin(); rc == 0 && e != entries.end(); ++e) {
        SnapshotImage image;
        rc = describeImage(io.get(), e->first, objectSize, image);
        if (rc == 0) out[e->first] = image;
        if (rc == -ENOENT) rc = 0;   // an index entry a crashed delete left behind
    }
    return rc;
}

} // namespace radosstore
