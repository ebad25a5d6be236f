// The RADOS plug-in's copies: an extent of one image into another (copy
// and include), a whole image into another LSU of the server (extract),
// and the deletion of images of an open image's LSU (delete files).
//
// Where both extents line up on their objects (same object size, offsets
// at the same place within an object), the whole objects between them are
// copied inside the cluster (RadosObjectCopy.h) and only the partial
// objects at the ends move through the plug-in.  Everything else moves
// through the plug-in in pieces of one transfer at most (COPY_PIECE), each
// one read and written with all of its objects in flight at once.
#include "RadosObjectCopy.h"
#include "RadosPluginParts.h"
#include "RadosSnapshots.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <vector>

using namespace radosstore;

namespace radosplugin {

namespace {

const std::uint64_t COPY_PIECE = 8ull << 20;

std::mutex g_copiedLock;
std::map<std::string, std::uint64_t> g_copied;   // by server (NAME)

struct Extent {
    rados_ioctx_t io;
    std::string image;
    std::uint64_t objectSize;
    std::uint64_t offset;
};

Extent advanced(const Extent& e, std::uint64_t by)
{
    return {e.io, e.image, e.objectSize, e.offset + by};
}

// len bytes read and written by the plug-in.
int streamBytes(const Extent& from, const Extent& to, std::uint64_t len)
{
    std::vector<char> piece(std::min(len, COPY_PIECE));
    for (std::uint64_t done = 0; done < len;) {
        const std::uint64_t n = std::min<std::uint64_t>(len - done, piece.size());
        int rc = readData(from.io, from.image, from.objectSize, piece.data(), n, from.offset + done);
        if (rc == 0) rc = writeData(to.io, to.image, to.objectSize, piece.data(), n, to.offset + done);
        if (rc != 0) return rc;
        done += n;
    }
    return 0;
}

std::string namespaceOf(rados_ioctx_t io)
{
    char name[1024] = {0};
    const int n = rados_ioctx_get_namespace(io, name, sizeof(name));
    return n >= 0 ? std::string(name, static_cast<size_t>(n)) : std::string();
}

// An image copied onto itself keeps the plug-in's order of reads and
// writes: copies in flight at once would race where the extents overlap.
bool sameImage(const Extent& a, const Extent& b)
{
    return a.image == b.image && rados_ioctx_get_id(a.io) == rados_ioctx_get_id(b.io) &&
           namespaceOf(a.io) == namespaceOf(b.io);
}

// Whether the cluster can copy whole objects of one extent onto the other.
bool objectsLineUp(const Extent& from, const Extent& to)
{
    return rados_ioctx_get_cluster(from.io) == rados_ioctx_get_cluster(to.io) &&
           from.objectSize == to.objectSize && from.offset % from.objectSize == to.offset % to.objectSize &&
           !sameImage(from, to);
}

// len bytes from one image to another; the target's header already allows
// for every object they reach.
int copyBytes(const Extent& from, const Extent& to, std::uint64_t len)
{
    if (!objectsLineUp(from, to)) return streamBytes(from, to, len);
    const std::uint64_t objectSize = from.objectSize;
    const std::uint64_t head = std::min(len, (objectSize - from.offset % objectSize) % objectSize);
    const std::uint64_t whole = (len - head) / objectSize;
    const std::uint64_t body = whole * objectSize;
    int rc = streamBytes(from, to, head);
    if (rc == 0) {
        rc = copyObjects(from.io, from.image, (from.offset + head) / objectSize, to.io, to.image,
                         (to.offset + head) / objectSize, whole);
    }
    if (rc == 0) rc = streamBytes(advanced(from, head + body), advanced(to, head + body), len - head - body);
    return rc;
}

void countCopied(const std::string& server, std::uint64_t bytes)
{
    std::lock_guard<std::mutex> hold(g_copiedLock);
    g_copied[server] += bytes;
}

// The size of an image as a copy from it sees it: a writer's own, with its
// writes in flight on the cluster first, else its header's now.
int sourceSize(Image* img, std::uint64_t& size)
{
    if (img->writable) {
        size = img->size.load();
        return img->inFlight.settle();
    }
    ImageHeader header;
    const int rc = readHeader(img->io, img->name, header);
    size = header.size;
    return rc;
}

bool extentValid(sts_uint64_t length, sts_uint64_t offset)
{
    return offset <= RADOS_MAX_EXTENT && length <= RADOS_MAX_EXTENT - offset;
}

// Copies up to len bytes, fewer where the source ends.
int includeInImage(sts_handle_t toH, sts_uint64_t toOff, sts_handle_t fromH, sts_uint64_t fromOff,
                   sts_uint64_t len, sts_uint64_t* done)
{
    Image* to = as<Image>(toH, IMAGE);
    Image* from = as<Image>(fromH, IMAGE);
    if (to == nullptr || from == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if (!to->writable) return RADOS_EREADONLY;
    if (!extentValid(len, toOff) || !extentValid(len, fromOff)) return RADOS_EINVAL;
    std::uint64_t size = 0;
    int rc = sourceSize(from, size);
    if (rc != 0) return failure(from->session, "reading image " + from->name, rc);
    const std::uint64_t n = fromOff >= size ? 0 : std::min<std::uint64_t>(len, size - fromOff);
    if (n == 0) return 0;
    rc = leaseHeld(to, "copying into image " + to->name);
    if (rc != 0) return rc;
    rc = to->inFlight.settle();   // the copy lands after the writes before it
    if (rc == 0) rc = allowObjectsUpTo(to, toOff + n);
    if (rc == 0) {
        rc = copyBytes({from->io, from->name, from->objectSize, fromOff}, {to->io, to->name, to->objectSize, toOff}, n);
    }
    if (rc != 0) return failure(to->session, "copying into image " + to->name, rc);
    growTo(to, toOff + n);
    *done = n;
    countCopied(nameOf(to->serverName), n);
    return 0;
}

int copyExtent(sts_handle_t to, sts_uint64_t toOff, sts_handle_t from, sts_uint64_t fromOff, sts_uint64_t len, int,
               sts_uint64_t* done)
{
    return includeInImage(to, toOff, from, fromOff, len, done);
}

// The metadata stream of an image into the image of the same name in
// another namespace; none, none.
int copyMetadata(Image* img, rados_ioctx_t target)
{
    std::uint64_t size = 0;
    time_t mtime = 0;
    int rc = rados_stat(img->io, metaObject(img->name).c_str(), &size, &mtime);
    if (rc == -ENOENT || (rc == 0 && size == 0)) return 0;
    if (rc != 0) return rc;
    std::vector<char> bytes(size);
    rc = rados_read(img->io, metaObject(img->name).c_str(), bytes.data(), size, 0);
    if (rc < 0) return rc;
    return rados_write_full(target, metaObject(img->name).c_str(), bytes.data(), static_cast<size_t>(rc));
}

// The image made in the target namespace, complete when this returns.
int extractInto(Image* img, rados_ioctx_t target)
{
    std::uint64_t size = 0;
    int rc = sourceSize(img, size);
    if (rc != 0) return rc;
    const std::uint64_t objects = (size + img->objectSize - 1) / img->objectSize;
    rc = createHeader(target, img->name, img->def);
    if (rc != 0) return rc;
    rc = raiseObjects(target, img->name, objects);
    if (rc == 0) rc = copyBytes({img->io, img->name, img->objectSize, 0}, {target, img->name, img->objectSize, 0}, size);
    if (rc == 0) rc = copyMetadata(img, target);
    if (rc == 0) rc = writeState(target, img->name, STATE_COMPLETE, size, objects);
    if (rc != 0) removeImage(target, img->name);   // no half copy stays
    else countCopied(nameOf(img->serverName), size);
    return rc;
}

// Extraction copies the open image (data and metadata) whole into another
// LSU of the same server under the same definition.
int extractFiles(sts_handle_t h, const sts_lsu_name_t* target, int)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr) return STSP_EBADHANDLE;
    if (target == nullptr || !validName(target->sln_name)) return RADOS_EINVAL;
    const std::string server = nameOf(img->serverName);
    LsuRecord record;
    int rc = readLsu(*img->cluster, server, target->sln_name, record);
    if (rc != 0) return failure(img->session, "reading LSU " + std::string(target->sln_name), rc);
    rados_ioctx_t io = img->cluster->openNamespace(lsuNamespace(server, target->sln_name));
    if (io == nullptr) return RADOS_EIO;
    rc = extractInto(img, io);
    rados_ioctx_destroy(io);
    return rc == 0 ? 0 : failure(img->session, "extracting image " + img->name, rc);
}

// Each name is an image of the open image's LSU as an image list gives it
// ("base@date@fulldate"); the open image itself cannot go.  Names that are
// not there are passed over.
int deleteFiles(sts_handle_t h, const char** names, sts_uint32_t count)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr) return STSP_EBADHANDLE;
    if (names == nullptr && count > 0) return RADOS_EINVAL;
    for (sts_uint32_t i = 0; i < count; ++i) {
        if (names[i] == nullptr || !validName(names[i], 1024)) return RADOS_EINVAL;
        if (img->name == names[i]) return RADOS_EBUSY;
    }
    for (sts_uint32_t i = 0; i < count; ++i) {
        const int rc = removeImage(img->io, names[i]);
        if (rc != 0 && rc != -ENOENT) return failure(img->session, "deleting image " + std::string(names[i]), rc);
    }
    return 0;
}

} // namespace

std::uint64_t bytesCopied(const std::string& server)
{
    std::lock_guard<std::mutex> hold(g_copiedLock);
    const auto at = g_copied.find(server);
    return at != g_copied.end() ? at->second : 0;
}

void registerCopySlots(sts_api_t& a)
{
    a.stsa_copy_extent = copyExtent;
    a.stsa_include_in_image = includeInImage;
    a.stsa_extract_files = extractFiles;
    a.stsa_delete_files = deleteFiles;
}

} // namespace radosplugin
