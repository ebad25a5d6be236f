// The disk plug-in's image slots: images, their data and metadata, their
// lists and groups, copies between them and the files of an open image.
// One data call is one pread or pwrite on the image file; the image's size
// lives in the file itself and its completeness in a marker removed at a
// durable close (layout in DiskStore.h).
#include "DiskPluginParts.h"
#include "DiskStore.h"
#include "ListSlots.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace diskstore;

namespace diskplugin {

namespace {

std::mutex g_copiedLock;
std::map<std::string, sts_uint64_t> g_copied;

// The file name of an image: base name, date and full date joined by '@'.
std::string imageName(const sts_image_def_t* def)
{
    if (def == nullptr) return "";
    const std::string name = std::string(def->img_basename) + "@" + def->img_date + "@" + def->img_fulldate;
    return validComponent(def->img_basename, 512) && name.find('/') == std::string::npos ? name : "";
}

// The image of a definition in an LSU: "" when anything is not valid.
std::string imageBase(const sts_lsu_t* lsu, const sts_image_def_t* def)
{
    const std::string dir = existingLsuDir(lsu);
    const std::string name = imageName(def);
    return dir.empty() || name.empty() ? "" : dir + "/images/" + name;
}

// Why an image has no place: an LSU that is not there, else a bad name.
int refusal(const sts_lsu_t* lsu, const sts_image_def_t* def)
{
    const Server* s = serverOf(lsu);
    const std::string dir = s != nullptr ? lsuDirectory(s, lsu->stl_lsu_name.sln_name) : "";
    return !dir.empty() && !imageName(def).empty() && !exists(dir) ? DISK_ENOENT : DISK_EINVAL;
}

std::string directoryOf(const std::string& base)
{
    return base.substr(0, base.rfind('/'));
}

// ---- open, data, close ----

int openImageAt(const sts_lsu_t* lsu, const sts_image_def_t* def, bool create, bool writable,
                sts_handle_t* out)
{
    const std::string base = imageBase(lsu, def);
    if (base.empty() || out == nullptr) return lsu != nullptr && out != nullptr ? refusal(lsu, def) : STSP_EBADHANDLE;
    const Server* s = serverOf(lsu);
    const int flags = create ? (O_RDWR | O_CREAT | O_EXCL) : (writable ? O_RDWR : O_RDONLY);
    // A writer holds the images directory against a snapshot being taken
    // while it marks the image and gives it files of its own.
    std::unique_ptr<ImagesLock> held;
    if (create || writable) {
        held.reset(new ImagesLock(directoryOf(base), false));
        if (!held->held()) return errno == ENOENT ? DISK_ENOENT : ioError(s->session, "lock images", errno);
    }
    // A create of an image that is there must not mark it incomplete.
    if (create && exists(base + ".img")) return DISK_EEXIST;
    if (writable && !create) {
        if (!exists(base + ".img")) return DISK_ENOENT;
        const int rc = unshareImage(base);
        if (rc != 0) return ioError(s->session, "copy an image shared with a snapshot", rc);
    }
    if (create || writable) {
        // The marker first: a crash from here on leaves an incomplete image.
        const int marker = open((base + ".writing").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (marker < 0) return ioError(s->session, create ? "create image" : "open image", errno);
        close(marker);
    }
    const int fd = open((base + ".img").c_str(), flags | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int err = errno;
        if (create && err == EEXIST) return DISK_EEXIST;
        if (err == ENOENT) return DISK_ENOENT;
        return ioError(s->session, "open image", err);
    }
    const int metaFd = open((base + ".meta").c_str(), (writable || create ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC, 0600);
    Image* img = make<Image>(IMAGE);
    if (img == nullptr) {
        close(fd);
        if (metaFd >= 0) close(metaFd);
        return DISK_EIO;
    }
    img->session = s->session;
    img->server = s->name;
    img->serverDir = s->dir;
    img->lsu = lsu->stl_lsu_name.sln_name;
    img->base = base;
    img->def = *def;
    img->fd = fd;
    img->metaFd = metaFd;
    img->writable = writable || create;
    *out = &img->hdr;
    return 0;
}

int createImage(sts_lsu_t* lsu, const sts_image_def_t* def, int, sts_handle_t* out)
{
    return openImageAt(lsu, def, true, true, out);
}

int openImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int mode, sts_handle_t* out)
{
    if (mode != DISK_OPEN_READ && mode != DISK_OPEN_WRITE) return DISK_EINVAL;
    return openImageAt(lsu, def, false, mode == DISK_OPEN_WRITE, out);
}

bool extentValid(sts_uint64_t length, sts_uint64_t offset)
{
    return offset <= DISK_MAX_EXTENT && length <= DISK_MAX_EXTENT - offset;
}

// One pwrite; a short write reports its count with the busy number, so the
// caller sends the rest.
int writeAt(Image* img, int fd, const void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    if (img == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if (!img->writable) return DISK_EREADONLY;
    if ((buf == nullptr && len > 0) || !extentValid(len, off)) return DISK_EINVAL;
    const ssize_t n = pwrite(fd, buf, len, static_cast<off_t>(off));
    if (n < 0) return ioError(img->session, "write image", errno);
    *done = static_cast<sts_uint64_t>(n);
    return *done < len ? STS_EBUSY_AGAIN : 0;
}

// One pread; at the end of the image fewer bytes come back with success.
int readAt(Image* img, int fd, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    if (img == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if ((buf == nullptr && len > 0) || !extentValid(len, off)) return DISK_EINVAL;
    const ssize_t n = pread(fd, buf, len, static_cast<off_t>(off));
    if (n < 0) return ioError(img->session, "read image", errno);
    *done = static_cast<sts_uint64_t>(n);
    return 0;
}

int writeImage(sts_handle_t h, sts_stat_t*, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    const int rc = writeAt(img, img != nullptr ? img->fd : -1, buf, len, off, done);
    if (img != nullptr && done != nullptr && *done > 0) {
        ++img->writes;
        img->bytesWritten += *done;
        img->writeBack.wrote(img->fd, *done);
    }
    return rc;
}

int readImage(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    return readAt(img, img != nullptr ? img->fd : -1, buf, len, off, done);
}

int writeImageMeta(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    return writeAt(img, img != nullptr ? img->metaFd : -1, buf, len, off, done);
}

int readImageMeta(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    Image* img = as<Image>(h, IMAGE);
    return readAt(img, img != nullptr ? img->metaFd : -1, buf, len, off, done);
}

int flushImage(sts_handle_t h)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr) return STSP_EBADHANDLE;
    if (fsync(img->fd) != 0 || (img->metaFd >= 0 && fsync(img->metaFd) != 0)) {
        return ioError(img->session, "flush image", errno);
    }
    return 0;
}

// ---- properties, deletion, lists and groups ----

void fillImageInfo(const std::string& server, const std::string& lsu, const std::string& base,
                   const sts_image_def_t& def, sts_image_info_t* info)
{
    std::memset(info, 0, sizeof(*info));
    info->imo_def = def;
    copyOut(info->imo_server, server, sizeof(info->imo_server));
    copyOut(info->imo_lsu.sln_name, lsu, sizeof(info->imo_lsu.sln_name));
    struct stat st;
    if (stat((base + ".img").c_str(), &st) == 0) {
        info->imo_size = static_cast<sts_uint64_t>(st.st_size);
        info->imo_block_size = static_cast<sts_uint64_t>(st.st_blksize);
    }
    info->imo_status = exists(base + ".writing") ? DISK_IMAGE_INCOMPLETE : DISK_IMAGE_COMPLETE;
}

int getImageProp(sts_handle_t h, sts_image_info_t* info)
{
    const Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || info == nullptr) return STSP_EBADHANDLE;
    fillImageInfo(img->server, img->lsu, img->base, img->def, info);
    return 0;
}

int getImagePropByName(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_image_info_t* info)
{
    const std::string base = imageBase(lsu, def);
    if (base.empty() || info == nullptr) return DISK_EINVAL;
    if (!exists(base + ".img")) return DISK_ENOENT;
    fillImageInfo(serverOf(lsu)->name, lsu->stl_lsu_name.sln_name, base, *def, info);
    return 0;
}

int deleteImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int)
{
    const std::string base = imageBase(lsu, def);
    if (base.empty()) return DISK_EINVAL;
    if (unlink((base + ".img").c_str()) != 0) return errno == ENOENT ? DISK_ENOENT : DISK_EIO;
    unlink((base + ".meta").c_str());
    unlink((base + ".writing").c_str());
    return 0;
}

// The images of an images directory; with a base name only its group, the
// images that share it.
std::vector<std::string> imagesIn(const std::string& imagesDir, const char* basename)
{
    std::vector<std::string> names = listDirectory(imagesDir, ".img");
    if (basename != nullptr) {
        const std::string prefix = std::string(basename) + "@";
        names.erase(std::remove_if(names.begin(), names.end(),
                                   [&](const std::string& n) { return n.compare(0, prefix.size(), prefix) != 0; }),
                    names.end());
    }
    return names;
}

// The images of an LSU, of the definition's group when there is one.
// How this plug-in finds the images of an LSU, for the shared list slots.
struct ImageLists {
    static constexpr int BAD_ARGUMENT = DISK_EINVAL;
    static constexpr int NO_MEMORY = DISK_EIO;
    static int lsuImages(const sts_lsu_t* lsu, const sts_image_def_t* def, std::vector<std::string>& names);
};

int ImageLists::lsuImages(const sts_lsu_t* lsu, const sts_image_def_t* def, std::vector<std::string>& names)
{
    std::string dir;
    const int rc = lsuDirOf(lsu, dir);
    if (rc != 0) return rc;
    names = imagesIn(dir + "/images", def != nullptr ? def->img_basename : nullptr);
    return 0;
}


int getImageGroup(sts_handle_t h, sts_uint32_t* count)
{
    const Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || count == nullptr) return STSP_EBADHANDLE;
    *count = static_cast<sts_uint32_t>(imagesIn(directoryOf(img->base), img->def.img_basename).size());
    return 0;
}

// ---- copies and files ----

// Copies between images in the kernel where it can (copy_file_range).
int includeInImage(sts_handle_t toH, sts_uint64_t toOff, sts_handle_t fromH, sts_uint64_t fromOff,
                   sts_uint64_t len, sts_uint64_t* done)
{
    Image* to = as<Image>(toH, IMAGE);
    Image* from = as<Image>(fromH, IMAGE);
    if (to == nullptr || from == nullptr || done == nullptr) return STSP_EBADHANDLE;
    *done = 0;
    if (!to->writable) return DISK_EREADONLY;
    if (!extentValid(len, toOff) || !extentValid(len, fromOff)) return DISK_EINVAL;
    loff_t in = static_cast<loff_t>(fromOff);
    loff_t out = static_cast<loff_t>(toOff);
    while (*done < len) {
        const ssize_t n = copy_file_range(from->fd, &in, to->fd, &out, len - *done, 0);
        if (n < 0) return ioError(to->session, "copy extent", errno);
        if (n == 0) break;   // the source ended
        *done += static_cast<sts_uint64_t>(n);
    }
    std::lock_guard<std::mutex> guard(g_copiedLock);
    g_copied[to->serverDir] += *done;
    return 0;
}

int copyExtent(sts_handle_t to, sts_uint64_t toOff, sts_handle_t from, sts_uint64_t fromOff,
               sts_uint64_t len, int, sts_uint64_t* done)
{
    return includeInImage(to, toOff, from, fromOff, len, done);
}

// Extraction copies the open image (data and metadata) whole, in the
// kernel, into another LSU of the same server under the same definition;
// the copy is complete when the call returns.
int extractFiles(sts_handle_t h, const sts_lsu_name_t* target, int)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr) return STSP_EBADHANDLE;
    if (target == nullptr || !validComponent(target->sln_name, 1024)) return DISK_EINVAL;
    const std::string dir = img->serverDir + "/lsus/" + target->sln_name;
    if (!exists(dir)) return DISK_ENOENT;
    const std::string name = img->base.substr(img->base.rfind('/') + 1);
    const std::string base = dir + "/images/" + name;
    ImagesLock held(dir + "/images", false);   // no snapshot links a half-made copy
    for (const char* suffix : {".img", ".meta"}) {
        const int in = open((img->base + suffix).c_str(), O_RDONLY | O_CLOEXEC);
        if (in < 0) continue;
        const int out = open((base + suffix).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (out < 0) {
            close(in);
            return errno == EEXIST ? DISK_EEXIST : ioError(img->session, "extract", errno);
        }
        struct stat st;
        fstat(in, &st);
        for (off_t left = st.st_size; left > 0;) {
            const ssize_t n = copy_file_range(in, nullptr, out, nullptr, static_cast<size_t>(left), 0);
            if (n <= 0) break;
            left -= n;
        }
        const int rc = fsync(out);
        close(in);
        close(out);
        if (rc != 0) return ioError(img->session, "extract", errno);
    }
    return 0;
}

// Deletion of files: each name is an image of the open image's LSU, as an
// image list gives it ("base@date@fulldate"); the open image itself cannot
// go.  Names that are not there are passed over.
int deleteFiles(sts_handle_t h, const char** names, sts_uint32_t count)
{
    Image* img = as<Image>(h, IMAGE);
    if (img == nullptr) return STSP_EBADHANDLE;
    if (names == nullptr && count > 0) return DISK_EINVAL;
    const std::string dir = directoryOf(img->base) + "/";
    for (sts_uint32_t i = 0; i < count; ++i) {
        if (names[i] == nullptr || !validComponent(names[i], 1024)) return DISK_EINVAL;
        if (dir + names[i] == img->base) return DISK_EBUSY;
    }
    for (sts_uint32_t i = 0; i < count; ++i) {
        for (const char* suffix : {".img", ".meta", ".writing"}) unlink((dir + names[i] + suffix).c_str());
    }
    return 0;
}

} // namespace

sts_uint64_t bytesCopied(const std::string& serverDir)
{
    std::lock_guard<std::mutex> guard(g_copiedLock);
    const auto at = g_copied.find(serverDir);
    return at != g_copied.end() ? at->second : 0;
}

// A durable close ends the write: data and metadata reach the disk first,
// then the marker goes.  An abandoned image keeps its marker: whoever wrote
// it went away, so it is incomplete.
int closeImage(Image* img, bool abandoned)
{
    int rc = 0;
    if (img->writable) {
        if (!abandoned) {
            rc = flushImage(&img->hdr);
            if (rc == 0) unlink((img->base + ".writing").c_str());
        }
        char line[1200];
        std::snprintf(line, sizeof(line), "disk plug-in: image %s %s after %llu writes of %llu bytes",
                      img->def.img_basename, abandoned ? "abandoned, left incomplete," : "closed",
                      static_cast<unsigned long long>(img->writes.load()),
                      static_cast<unsigned long long>(img->bytesWritten.load()));
        stsp_log(img->session, STS_ESINFO, line);
    }
    close(img->fd);
    if (img->metaFd >= 0) close(img->metaFd);
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
    a.stsa_copy_extent = copyExtent;
    a.stsa_include_in_image = includeInImage;
    a.stsa_extract_files = extractFiles;
    a.stsa_delete_files = deleteFiles;
}

} // namespace diskplugin
