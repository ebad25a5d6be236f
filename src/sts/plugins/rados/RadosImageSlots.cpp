// The RADOS plug-in's image slots: images, their data and metadata, their
// lists and groups.  A data call is split over the image's objects.  A
// write returns once it is on its way, a few left in flight, and a flush
// or a close returns success only once every acknowledged write is on the
// cluster; the size and the state go to the header then.  A reader's next
// extent is read ahead.
#include "ListSlots.h"
#include "RadosPluginParts.h"
#include "RadosSnapshots.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

using namespace radosstore;

namespace radosplugin {

namespace {

// The name of an image: base name, date and full date joined by '@';
// "" when one of them cannot be part of an object name.
std::string imageName(const sts_image_def_t* def)
{
    if (def == nullptr) return "";
    const std::string name = std::string(def->img_basename) + "@" + def->img_date + "@" + def->img_fulldate;
    return validName(def->img_basename, 512) && validName(name, 1024) ? name : "";
}

bool extentValid(sts_uint64_t length, sts_uint64_t offset)
{
    return offset <= RADOS_MAX_EXTENT && length <= RADOS_MAX_EXTENT - offset;
}

sts_uint32_t statusOf(const std::string& state)
{
    return state == STATE_COMPLETE ? STSP_IMAGE_COMPLETE : STSP_IMAGE_INCOMPLETE;
}

// A context on the LSU's namespace for a handle or one call.
rados_ioctx_t lsuContext(const Server* s, const sts_lsu_t* lsu, Cluster::Route route = Cluster::Route::DATA)
{
    return s->cluster->openNamespace(lsuNamespace(s->config.name, lsu->stl_lsu_name.sln_name), route);
}

// ---- open, data, close ----

Image* newImage(const Server* s, const sts_lsu_t* lsu, const std::string& name, const sts_image_def_t& def,
                rados_ioctx_t io)
{
    Image* img = make<Image>(IMAGE);
    if (img == nullptr) return nullptr;
    img->session = s->session;
    img->serverName = s->serverName;
    img->lsu = lsu->stl_lsu_name.sln_name;
    img->name = name;
    img->def = def;
    img->cluster = s->cluster;
    img->objectSize = s->config.objectSize;
    img->io = io;
    return img;
}

// An image opened for writing, its lock taken: the header is read again
// (a writer that closed meanwhile may have made it longer) and marked
// being written.  An image deleted meanwhile is gone, though the lock made
// a bare header object again; that object goes.
int markWriting(const Server* s, rados_ioctx_t io, const std::string& name, ImageHeader& header)
{
    header = ImageHeader();
    int rc = readHeader(io, name, header);
    if (rc == 0 && header.state.empty()) {
        rados_remove(io, headerObject(name).c_str());
        rc = -ENOENT;
    }
    if (rc == 0) rc = writeState(io, name, STATE_WRITING, header.size, header.objects);
    return rc == 0 ? 0 : failure(s->session, "opening image " + name, rc);
}

int openImageAt(const sts_lsu_t* lsu, const sts_image_def_t* def, bool create, bool writable, sts_handle_t* out)
{
    if (out == nullptr) return RADOS_EINVAL;
    const int checked = checkLsu(lsu);
    if (checked != 0) return checked;
    const std::string name = imageName(def);
    if (name.empty()) return RADOS_EINVAL;
    const Server* s = serverOf(lsu);
    rados_ioctx_t io = lsuContext(s, lsu);
    if (io == nullptr) return RADOS_EIO;
    ImageHeader header;
    int rc = create ? createHeader(io, name, *def) : readHeader(io, name, header);
    if (rc == 0 && header.state == STATE_DELETING) rc = -ENOENT;
    rc = rc != 0 ? failure(s->session, create ? "creating image " + name : "opening image " + name, rc) : 0;
    std::shared_ptr<HeldLock> lock;
    if (rc == 0 && writable) rc = lockForWriting(s, lsu->stl_lsu_name.sln_name, name, lock);
    if (rc == 0 && writable && !create) rc = markWriting(s, io, name, header);
    Image* img = rc == 0 ? newImage(s, lsu, name, create ? *def : header.def, io) : nullptr;
    if (img == nullptr) {
        if (lock) s->cluster->writeLocks().release(lock);
        rados_ioctx_destroy(io);
        return rc != 0 ? rc : RADOS_EIO;
    }
    if (!writable) {
        img->headerIo = lsuContext(s, lsu, Cluster::Route::CONTROL);
        if (img->headerIo == nullptr) {
            closeImage(img, false);
            return RADOS_EIO;
        }
        img->readAhead.open({io, img->headerIo, name, img->objectSize}, header.size);
    }
    img->writable = writable;
    img->writeLock = lock;
    img->size = header.size;
    img->objects = header.objects;
    *out = &img->hdr;
    return 0;
}

int createImage(sts_lsu_t* lsu, const sts_image_def_t* def, int, sts_handle_t* out)
{
    return openImageAt(lsu, def, true, true, out);
}

int openImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int mode, sts_handle_t* out)
{
    if (mode != RADOS_OPEN_READ && mode != RADOS_OPEN_WRITE) return RADOS_EINVAL;
    return openImageAt(lsu, def, false, mode == RADOS_OPEN_WRITE, out);
}

} // namespace

// Lets the header allow for every data object up to the one holding byte
// end - 1 before any of them is written.
int allowObjectsUpTo(Image* img, std::uint64_t end)
{
    const std::uint64_t needed = (end + img->objectSize - 1) / img->objectSize;
    std::lock_guard<std::mutex> hold(img->lock);
    if (needed <= img->objects) return 0;
    const int rc = raiseObjects(img->io, img->name, needed);
    if (rc == 0) img->objects = needed;
    return rc;
}

void growTo(Image* img, std::uint64_t end)
{
    std::uint64_t size = img->size.load();
    while (end > size && !img->size.compare_exchange_weak(size, end)) {
    }
}

namespace {

int writeImage(sts_handle_t h, sts_stat_t*, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if (!img->writable) return RADOS_EREADONLY;
    if ((buf == nullptr && len > 0) || !extentValid(len, off)) return RADOS_EINVAL;
    if (len == 0) return 0;
    int rc = leaseHeld(img, "writing image " + img->name);
    if (rc != 0) return rc;
    rc = allowObjectsUpTo(img, off + len);
    if (rc == 0) rc = applySnapContext(img->io);
    if (rc == 0) rc = img->inFlight.write(img->io, img->name, img->objectSize, static_cast<const char*>(buf), len, off);
    if (rc != 0) return failure(img->session, "writing image " + img->name, rc);
    growTo(img, off + len);
    *done = len;
    ++img->writes;
    img->bytesWritten += len;
    return 0;
}

// A writer reads what it wrote, its writes on the cluster first.
int readOwnWrites(Image* img, char* buf, std::uint64_t len, std::uint64_t off, std::uint64_t& done)
{
    int rc = img->inFlight.settle();
    const std::uint64_t size = img->size.load();
    const std::uint64_t n = off >= size ? 0 : std::min<std::uint64_t>(len, size - off);
    if (rc == 0 && n > 0) rc = readData(img->io, img->name, img->objectSize, buf, n, off);
    if (rc == 0) done = n;
    return rc;
}

int readImage(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if ((buf == nullptr && len > 0) || !extentValid(len, off)) return RADOS_EINVAL;
    char* into = static_cast<char*>(buf);
    std::uint64_t n = 0;
    const int rc = img->writable ? readOwnWrites(img, into, len, off, n) : img->readAhead.read(into, len, off, n);
    if (rc != 0) return failure(img->session, "reading image " + img->name, rc);
    *done = n;
    return 0;
}

int writeImageMeta(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if (!img->writable) return RADOS_EREADONLY;
    if ((buf == nullptr && len > 0) || !extentValid(len, off) || off + len > img->objectSize) return RADOS_EINVAL;
    const int held = leaseHeld(img, "writing the metadata of " + img->name);
    if (held != 0) return held;
    int rc = applySnapContext(img->io);
    if (rc == 0) rc = rados_write(img->io, metaObject(img->name).c_str(), static_cast<const char*>(buf), len, off);
    if (rc != 0) return failure(img->session, "writing the metadata of " + img->name, rc);
    *done = len;
    return 0;
}

int readImageMeta(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if ((buf == nullptr && len > 0) || !extentValid(len, off) || len > img->objectSize) return RADOS_EINVAL;
    const int rc = rados_read(img->io, metaObject(img->name).c_str(), static_cast<char*>(buf), len, off);
    if (rc == -ENOENT) return 0;   // no metadata written
    if (rc < 0) return failure(img->session, "reading the metadata of " + img->name, rc);
    *done = static_cast<sts_uint64_t>(rc);
    return 0;
}

// Every acknowledged write reaches the cluster first; then the header
// learns the size reached so far.
int flushImage(sts_handle_t h)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr) return STSP_EBADHANDLE;
    if (!img->writable) return 0;
    int rc = leaseHeld(img, "flushing image " + img->name);
    if (rc != 0) return rc;
    rc = img->inFlight.settle();
    if (rc != 0) return failure(img->session, "writing image " + img->name, rc);
    std::lock_guard<std::mutex> hold(img->lock);
    rc = writeState(img->io, img->name, STATE_WRITING, img->size.load(), img->objects);
    return rc == 0 ? 0 : failure(img->session, "flushing image " + img->name, rc);
}

// ---- properties, deletion, lists and groups ----

void fillImageInfo(const std::string& server, const std::string& lsu, const sts_image_def_t& def,
                   std::uint64_t size, const std::string& state, sts_image_info_t* info)
{
    std::memset(info, 0, sizeof(*info));
    info->imo_def = def;
    copyOut(info->imo_server, server, sizeof(info->imo_server));
    copyOut(info->imo_lsu.sln_name, lsu, sizeof(info->imo_lsu.sln_name));
    info->imo_size = size;
    info->imo_block_size = 4096;
    info->imo_status = statusOf(state);
}

int getImageProp(sts_handle_t h, sts_image_info_t* info)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || info == nullptr) return STSP_EBADHANDLE;
    ImageHeader header;
    const int rc = readHeader(img->io, img->name, header);
    if (rc != 0) return failure(img->session, "reading image " + img->name, rc);
    const std::uint64_t size = img->writable ? img->size.load() : header.size;
    fillImageInfo(img->serverName, img->lsu, img->def, size, header.state, info);
    return 0;
}

// Runs work(server, io) on a context of the LSU's namespace for one call.
template <typename Work>
int withLsu(const sts_lsu_t* lsu, Work work)
{
    const int checked = checkLsu(lsu);
    if (checked != 0) return checked;
    const Server* s = serverOf(lsu);
    rados_ioctx_t io = lsuContext(s, lsu);
    if (io == nullptr) return RADOS_EIO;
    const int rc = work(s, io);
    rados_ioctx_destroy(io);
    return rc;
}

int getImagePropByName(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_image_info_t* info)
{
    const std::string name = imageName(def);
    if (name.empty() || info == nullptr) return RADOS_EINVAL;
    return withLsu(lsu, [&](const Server* s, rados_ioctx_t io) {
        ImageHeader header;
        const int rc = readHeader(io, name, header);
        if (rc != 0) return failure(s->session, "reading image " + name, rc);
        fillImageInfo(s->serverName, lsu->stl_lsu_name.sln_name, header.def, header.size, header.state, info);
        return 0;
    });
}

int deleteImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int)
{
    const std::string name = imageName(def);
    if (name.empty()) return RADOS_EINVAL;
    return withLsu(lsu, [&](const Server* s, rados_ioctx_t io) {
        const int rc = removeImage(io, name);
        return rc == 0 ? 0 : failure(s->session, "deleting image " + name, rc);
    });
}

// The images of an LSU, of the definition's group (its base name) when
// there is one.
// How this plug-in finds the images of an LSU, for the shared list slots.
struct ImageLists {
    static constexpr int BAD_ARGUMENT = RADOS_EINVAL;
    static constexpr int NO_MEMORY = RADOS_EIO;
    static int lsuImages(const sts_lsu_t* lsu, const sts_image_def_t* def, std::vector<std::string>& names);
};

int ImageLists::lsuImages(const sts_lsu_t* lsu, const sts_image_def_t* def, std::vector<std::string>& names)
{
    const std::string prefix = def != nullptr ? std::string(def->img_basename) + "@" : "";
    return withLsu(lsu, [&](const Server* s, rados_ioctx_t io) {
        std::map<std::string, std::string> entries;
        const int rc = listImages(io, prefix, entries);
        if (rc != 0) return failure(s->session, "listing images", rc);
        for (const auto& entry : entries) names.push_back(entry.first);
        return 0;
    });
}


int getImageGroup(sts_handle_t h, sts_uint32_t* count)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || count == nullptr) return STSP_EBADHANDLE;
    std::map<std::string, std::string> entries;
    const int rc = listImages(img->io, std::string(img->def.img_basename) + "@", entries);
    if (rc != 0) return failure(img->session, "listing images", rc);
    *count = static_cast<sts_uint32_t>(entries.size());
    return 0;
}

} // namespace

// A close after the last write makes the image complete once every write
// is on the cluster: the header's state and size settle it.  An image
// whose writes did not all arrive is marked incomplete and the close
// fails; an abandoned one, whose writer went away, is marked incomplete.
// A writer whose lock ran out leaves the state to whoever may hold the
// image now.
int closeImage(Image* img, bool abandoned)
{
    int rc = 0;
    const int landed = img->writable ? img->inFlight.settle() : 0;   // every write ends before its context
    if (img->writable) rc = leaseHeld(img, "closing image " + img->name);
    if (img->writable && rc == 0) {
        if (landed != 0) rc = failure(img->session, "writing image " + img->name, landed);
        const bool complete = !abandoned && landed == 0;
        const int state = writeState(img->io, img->name, complete ? STATE_COMPLETE : STATE_INCOMPLETE,
                                     img->size.load(), img->objects);
        if (state != 0 && rc == 0) rc = failure(img->session, "closing image " + img->name, state);
        char line[1200];
        std::snprintf(line, sizeof(line), "rados plug-in: image %s %s after %llu writes of %llu bytes",
                      img->def.img_basename, abandoned ? "abandoned, left incomplete," : "closed",
                      static_cast<unsigned long long>(img->writes.load()),
                      static_cast<unsigned long long>(img->bytesWritten.load()));
        stsp_log(img->session, STS_ESINFO, line);
    }
    releaseLock(img);
    img->readAhead.forget();   // its read uses the context
    rados_ioctx_destroy(img->io);
    if (img->headerIo != nullptr) rados_ioctx_destroy(img->headerIo);
    delete img;
    return rc;
}

void registerImageSlots(sts_api_t& a)
{
    a.stsa_create_image = createImage;
    a.stsa_open_image = openImage;
    a.stsa_write_image = writeImage;
    a.stsa_read_image = readImage;
    a.stsa_write_image_meta = writeImageMeta;
    a.stsa_read_image_meta = readImageMeta;
    a.stsa_flush = flushImage;
    a.stsa_get_image_prop = getImageProp;
    a.stsa_get_image_prop_byname = getImagePropByName;
    a.stsa_delete_image = deleteImage;
    ImageListSlots<ImageLists>::registerIn(a);
    a.stsa_get_image_group = getImageGroup;
}

} // namespace radosplugin
