// The disk storage plug-in: servers "Disk:<host>" kept as directories on a
// local file system (layout in DiskStore.h).  One data call is one pread or
// pwrite on the image file; the image's size lives in the file itself and
// its completeness in a marker removed at a durable close.
#include "DiskPluginParts.h"
#include "DiskStore.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

using namespace diskstore;

namespace diskplugin {

stsp_plugin_t* g_self = nullptr;

void copyOut(char* dst, const std::string& src, size_t size)
{
    std::strncpy(dst, src.c_str(), size - 1);
    dst[size - 1] = '\0';
}

int ioError(sts_handle_t session, const char* what, int err)
{
    if (err == ENOSPC || err == EDQUOT) return DISK_ENOSPC;
    char line[256];
    std::snprintf(line, sizeof(line), "disk plug-in: %s failed: %s", what, std::strerror(err));
    stsp_log(session, STS_ESERROR, line);
    return DISK_EIO;
}

std::string lsuDirectory(const Server* s, const char* lsu)
{
    return validComponent(lsu != nullptr ? lsu : "", 1024) ? s->dir + "/lsus/" + lsu : "";
}

} // namespace diskplugin

using namespace diskplugin;

namespace {

// Bytes moved between images of each server, for the copy progress.
std::mutex g_copiedLock;
std::map<std::string, sts_uint64_t> g_copied;

struct NameList {
    sts_handle_s hdr;
    std::vector<std::string> names;
    size_t next = 0;
    std::string lsu;
};

struct Lsu {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string server;
    std::string name;
    std::string dir;
};

struct Image {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string server;
    std::string serverDir;
    std::string lsu;
    std::string base;      // .../images/<image> without suffix
    sts_image_def_t def;
    int fd = -1;
    int metaFd = -1;
    bool writable = false;
    // Data writes through this handle and the bytes they wrote, reported at
    // close: a retried transfer that reached the disk twice shows here.
    sts_uint64_t writes = 0;
    sts_uint64_t bytesWritten = 0;
};

// The file name of an image: base name, date and full date joined by '@'.
std::string imageName(const sts_image_def_t* def)
{
    if (def == nullptr) return "";
    const std::string name = std::string(def->img_basename) + "@" + def->img_date + "@" + def->img_fulldate;
    return validComponent(def->img_basename, 512) && name.find('/') == std::string::npos ? name : "";
}

void imageDefFromName(const std::string& name, sts_image_def_t* def)
{
    std::memset(def, 0, sizeof(*def));
    const size_t a = name.find('@');
    const size_t b = a == std::string::npos ? a : name.find('@', a + 1);
    copyOut(def->img_basename, name.substr(0, a), sizeof(def->img_basename));
    if (b != std::string::npos) {
        copyOut(def->img_date, name.substr(a + 1, b - a - 1), sizeof(def->img_date));
        copyOut(def->img_fulldate, name.substr(b + 1), sizeof(def->img_fulldate));
    }
}

// The image of a definition in an LSU: "" when anything is not valid.
std::string imageBase(const sts_lsu_t* lsu, const sts_image_def_t* def)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    if (s == nullptr) return "";
    const std::string dir = lsuDirectory(s, lsu->stl_lsu_name.sln_name);
    const std::string name = imageName(def);
    if (dir.empty() || name.empty() || !exists(dir)) return "";
    return dir + "/images/" + name;
}

// ---- servers ----

int openServerAt(sts_handle_t session, const char* name, const sts_cred_t* cred, sts_handle_t* out)
{
    if (name == nullptr || out == nullptr) return DISK_EINVAL;
    ensureDefaultServer();
    const std::string dir = serverDirectory(name);
    std::string config;
    if (dir.empty() || !readFile(dir + "/server.conf", config)) return DISK_ENOENT;
    const std::string stored = configValue(config, "credential");
    if (!stored.empty()) {
        const std::string cert = cred != nullptr ? std::string(cred->cr_cert, std::min<size_t>(cred->cr_len, sizeof(cred->cr_cert))) : "";
        if (cred == nullptr || !credentialMatches(stored, cert)) return DISK_ECRED;
    }
    Server* s = make<Server>(SERVER);
    if (s == nullptr) return DISK_EIO;
    s->session = session;
    s->name = name;
    s->dir = dir;
    *out = &s->hdr;
    return 0;
}

int openServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    return openServerAt(session, name, cred, out);
}

int openTargetServer(sts_handle_t server, const char* name, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    const Server* s = as<Server>(server, SERVER);
    return s != nullptr ? openServerAt(s->session, name, cred, out) : STSP_EBADHANDLE;
}

int createServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char*,
                 const sts_host_t* hosts, int nhost, sts_handle_t* out)
{
    const std::string dir = name != nullptr ? serverDirectory(name) : "";
    if (dir.empty() || out == nullptr || nhost < 0) return DISK_EINVAL;
    ensureDefaultServer();
    if (exists(dir)) return DISK_EEXIST;
    std::string config = std::string("# server ") + name + "\n";
    for (int i = 0; i < nhost; ++i) config += std::string("host = ") + hosts[i].sh_name + "\n";
    std::string cert;
    if (cred != nullptr && cred->cr_len > 0) {
        cert.assign(cred->cr_cert, std::min<size_t>(cred->cr_len, sizeof(cred->cr_cert)));
        config += "credential = " + hashCredential(cert) + "\n";
    }
    if (!makeDirectories(dir + "/lsus") || !writeFileDurably(dir + "/server.conf", config)) {
        return ioError(session, "create server", errno);
    }
    return openServerAt(session, name, cred, out);
}

// The configured connection limit; a file edited by hand may hold anything,
// and a bad number gives the default.
sts_uint32_t maxConnections(const std::string& text)
{
    char* end = nullptr;
    const unsigned long n = std::strtoul(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && n >= 1 && n <= 65535 ? static_cast<sts_uint32_t>(n) : 64;
}

// What a server reports: its configured stream format and connection limit,
// else "raw" and 64.
void describeServer(const std::string& name, const std::string& dir, sts_server_info_t* info)
{
    std::string config;
    readFile(dir + "/server.conf", config);
    const std::string format = configValue(config, "stream_format");
    const std::string connections = configValue(config, "max_connections");
    std::memset(info, 0, sizeof(*info));
    copyOut(info->srv_server, name, sizeof(info->srv_server));
    copyOut(info->srv_sth[0], format.empty() ? "raw" : format, sizeof(info->srv_sth[0]));
    copyOut(info->srv_interface[0], "disk", sizeof(info->srv_interface[0]));
    info->srv_maxconnect = maxConnections(connections);
    info->srv_cred[0] = STS_CRED_NONE;
    info->srv_cred[1] = STS_CRED_MD5;
}

int getServerPropByName(const sts_session_def_t*, const char* name, sts_server_info_t* info)
{
    if (name == nullptr || info == nullptr) return DISK_EINVAL;
    ensureDefaultServer();
    const std::string dir = serverDirectory(name);
    if (dir.empty() || !exists(dir + "/server.conf")) return DISK_ENOENT;
    describeServer(name, dir, info);
    return 0;
}

int getServerProp(sts_handle_t server, sts_server_info_t* info)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || info == nullptr) return STSP_EBADHANDLE;
    describeServer(s->name, s->dir, info);
    return 0;
}

int shutdownServer(const sts_session_def_t*, const char* name, const sts_cred_t*, int)
{
    const std::string dir = name != nullptr ? serverDirectory(name) : "";
    return !dir.empty() && exists(dir) ? 0 : DISK_ENOENT;
}

// The configuration text; a short buffer gets the length it needs.
int getServerConfig(sts_handle_t server, char* buf, sts_uint32_t size, sts_uint32_t* needed)
{
    const Server* s = as<Server>(server, SERVER);
    std::string config;
    if (s == nullptr || !readFile(s->dir + "/server.conf", config)) return STSP_EBADHANDLE;
    if (needed != nullptr) *needed = static_cast<sts_uint32_t>(config.size() + 1);
    if (buf == nullptr || size < config.size() + 1) return STS_EBUFFER_SMALL;
    std::memcpy(buf, config.c_str(), config.size() + 1);
    return 0;
}

// Replaces the configuration text after checking all of it; a refused text
// changes nothing and leaves its reason in msg.  The credential survives
// every edit (see configToStore).
int setServerConfig(sts_handle_t server, const char* text, char* msg, sts_uint32_t msglen)
{
    static std::mutex editing;   // one edit at a time reads and replaces the file
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr) return STSP_EBADHANDLE;
    auto refuse = [&](const std::string& why, int number) {
        if (msg != nullptr && msglen > 0) copyOut(msg, why, msglen);
        return number;
    };
    if (text == nullptr) return refuse("no configuration text", DISK_EINVAL);
    std::lock_guard<std::mutex> hold(editing);
    std::string current;
    if (!readFile(s->dir + "/server.conf", current)) return refuse("the server is gone", DISK_ENOENT);
    const std::string stored = configValue(current, "credential");
    const std::string problem = configProblem(text, stored);
    if (!problem.empty()) return refuse(problem, DISK_EINVAL);
    if (!writeFileDurably(s->dir + "/server.conf", configToStore(text, stored))) {
        const int err = errno;
        return refuse(std::string("writing the configuration failed: ") + std::strerror(err),
                      ioError(s->session, "set server configuration", err));
    }
    if (msg != nullptr && msglen > 0) msg[0] = '\0';
    return 0;
}

int getHost(sts_handle_t server, sts_host_name_v9_t* hosts, int max, int start, int* ret, int* total)
{
    if (as<Server>(server, SERVER) == nullptr || ret == nullptr || total == nullptr) return STSP_EBADHANDLE;
    *total = 1;
    *ret = 0;
    if (start == 0 && max > 0 && hosts != nullptr) {
        copyOut(hosts[0], hostName(), sizeof(hosts[0]));
        *ret = 1;
    }
    return 0;
}

// ---- LSUs ----

int openLsuList(sts_handle_t server, const sts_lsu_def_t* def, sts_handle_t* out)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || out == nullptr) return STSP_EBADHANDLE;
    NameList* l = make<NameList>(LSU_LIST);
    if (l == nullptr) return DISK_EIO;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        if (def == nullptr || def->sld_name.sln_name[0] == '\0' || name == def->sld_name.sln_name) {
            l->names.push_back(name);
        }
    }
    std::sort(l->names.begin(), l->names.end());
    *out = &l->hdr;
    return 0;
}

int openDynamicLsuList(const sts_lsu_t* lsu, sts_handle_t* out)
{
    return lsu != nullptr ? openLsuList(lsu->stl_server_handle, nullptr, out) : DISK_EINVAL;
}

int nextName(sts_handle_t list, Kind kind, std::string& name)
{
    NameList* l = as<NameList>(list, kind);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (l->next >= l->names.size()) return STS_ENO_MORE;
    name = l->names[l->next++];
    return 0;
}

int listLsu(sts_handle_t list, sts_lsu_name_t* out)
{
    std::string name;
    const int rc = out != nullptr ? nextName(list, LSU_LIST, name) : DISK_EINVAL;
    if (rc == 0) copyOut(out->sln_name, name, sizeof(out->sln_name));
    return rc;
}

int getLsuProp(const sts_lsu_t* lsu, sts_lsu_info_t* info)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    if (s == nullptr || info == nullptr) return DISK_EINVAL;
    const std::string dir = lsuDirectory(s, lsu->stl_lsu_name.sln_name);
    if (dir.empty() || !exists(dir)) return DISK_ENOENT;
    std::memset(info, 0, sizeof(*info));
    copyOut(info->lsu_server, s->name, sizeof(info->lsu_server));
    copyOut(info->lsu_def.sld_name.sln_name, lsu->stl_lsu_name.sln_name, sizeof(info->lsu_def.sld_name.sln_name));
    info->lsu_def.sld_alloc = STS_LSU_AT_STATIC;
    info->lsu_def.sld_storage = STS_LSU_ST_FILE;
    info->lsu_def.sld_max_transfer = 64u << 20;
    info->lsu_def.sld_block_size = 4096;
    std::string label;
    if (readFile(dir + "/label", label)) copyOut(info->lsu_def.sld_label, label, sizeof(info->lsu_def.sld_label));
    struct statvfs fs;
    if (statvfs(dir.c_str(), &fs) == 0) {
        info->lsu_capacity = info->lsu_capacity_phys = static_cast<sts_uint64_t>(fs.f_blocks) * fs.f_frsize;
    }
    for (const std::string& image : listDirectory(dir + "/images", ".img")) {
        struct stat st;
        if (stat((dir + "/images/" + image + ".img").c_str(), &st) != 0) continue;
        info->lsu_used += static_cast<sts_uint64_t>(st.st_size);
        info->lsu_used_phys += static_cast<sts_uint64_t>(st.st_blocks) * 512;
        ++info->lsu_images;
    }
    return 0;
}

int labelLsu(const sts_lsu_t* lsu, char* label)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    if (s == nullptr || label == nullptr || std::strlen(label) >= sizeof(sts_lsu_label_t)) return DISK_EINVAL;
    const std::string dir = lsuDirectory(s, lsu->stl_lsu_name.sln_name);
    if (dir.empty() || !exists(dir)) return DISK_ENOENT;
    return writeFileDurably(dir + "/label", label) ? 0 : ioError(s->session, "label", errno);
}

// By name, or by label when no LSU has that name.
int findLsu(sts_handle_t server, const sts_lsu_name_t* wanted, sts_lsu_name_t* found)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || wanted == nullptr || found == nullptr) return DISK_EINVAL;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        std::string label;
        readFile(s->dir + "/lsus/" + name + "/label", label);
        if (name == wanted->sln_name || (!label.empty() && label == wanted->sln_name)) {
            copyOut(found->sln_name, name, sizeof(found->sln_name));
            return 0;
        }
    }
    return STS_ENO_MORE;
}

// Only an empty LSU goes.
int deleteLsu(const sts_lsu_t* lsu)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    if (s == nullptr) return DISK_EINVAL;
    const std::string dir = lsuDirectory(s, lsu->stl_lsu_name.sln_name);
    if (dir.empty() || !exists(dir)) return DISK_ENOENT;
    if (!listDirectory(dir + "/images").empty() || !listSnapshots(dir).empty()) return DISK_EBUSY;
    rmdir((dir + "/images").c_str());
    rmdir((dir + "/snapshots").c_str());
    unlink((dir + "/label").c_str());
    return rmdir(dir.c_str()) == 0 ? 0 : ioError(s->session, "delete lsu", errno);
}

// ---- images ----

int openImageAt(const sts_lsu_t* lsu, const sts_image_def_t* def, bool create, bool writable,
                sts_handle_t* out)
{
    const std::string base = imageBase(lsu, def);
    if (base.empty() || out == nullptr) return lsu != nullptr && out != nullptr ? DISK_EINVAL : STSP_EBADHANDLE;
    const Server* s = as<Server>(lsu->stl_server_handle, SERVER);
    const int flags = create ? (O_RDWR | O_CREAT | O_EXCL) : (writable ? O_RDWR : O_RDONLY);
    // A writer holds the images directory against a snapshot being taken
    // while it marks the image and gives it files of its own.
    std::unique_ptr<ImagesLock> held;
    if (create || writable) {
        held.reset(new ImagesLock(base.substr(0, base.rfind('/')), false));
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

// A durable close ends the write: data and metadata reach the disk first,
// then the marker goes.
int closeImage(Image* img)
{
    int rc = 0;
    if (img->writable) {
        rc = flushImage(&img->hdr);
        if (rc == 0) unlink((img->base + ".writing").c_str());
        char line[1200];
        std::snprintf(line, sizeof(line), "disk plug-in: image %s closed after %llu writes of %llu bytes",
                      img->def.img_basename, static_cast<unsigned long long>(img->writes),
                      static_cast<unsigned long long>(img->bytesWritten));
        stsp_log(img->session, STS_ESINFO, line);
    }
    close(img->fd);
    if (img->metaFd >= 0) close(img->metaFd);
    delete img;
    return rc;
}

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
    const Server* s = as<Server>(lsu->stl_server_handle, SERVER);
    fillImageInfo(s->name, lsu->stl_lsu_name.sln_name, base, *def, info);
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

// Every image of the LSU, one definition a call.
int openImageList(const sts_lsu_t* lsu, int, sts_handle_t* out)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    if (s == nullptr || out == nullptr) return DISK_EINVAL;
    const std::string dir = lsuDirectory(s, lsu->stl_lsu_name.sln_name);
    if (dir.empty() || !exists(dir)) return DISK_ENOENT;
    NameList* l = make<NameList>(IMAGE_LIST);
    if (l == nullptr) return DISK_EIO;
    l->names = listDirectory(dir + "/images", ".img");
    std::sort(l->names.begin(), l->names.end());
    *out = &l->hdr;
    return 0;
}

// The images that share the definition's base name.
int openImageGroupList(const sts_lsu_t* lsu, const sts_image_def_t* def, int flags, sts_handle_t* out)
{
    const int rc = openImageList(lsu, flags, out);
    if (rc != 0 || def == nullptr) return rc;
    NameList* l = as<NameList>(*out, IMAGE_LIST);
    const std::string prefix = std::string(def->img_basename) + "@";
    l->names.erase(std::remove_if(l->names.begin(), l->names.end(),
                                  [&](const std::string& n) { return n.compare(0, prefix.size(), prefix) != 0; }),
                   l->names.end());
    return 0;
}

int listImage(sts_handle_t list, sts_image_def_t* def)
{
    std::string name;
    const int rc = def != nullptr ? nextName(list, IMAGE_LIST, name) : DISK_EINVAL;
    if (rc == 0) imageDefFromName(name, def);
    return rc;
}

int countGroup(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_uint32_t* count)
{
    sts_handle_t list = nullptr;
    const int rc = openImageGroupList(lsu, def, 0, &list);
    if (rc != 0) return rc;
    *count = static_cast<sts_uint32_t>(as<NameList>(list, IMAGE_LIST)->names.size());
    delete as<NameList>(list, IMAGE_LIST);
    return 0;
}

int getImageGroupByName(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_uint32_t* count)
{
    return count != nullptr ? countGroup(lsu, def, count) : DISK_EINVAL;
}

// The group of an open image: the images of its LSU that share its base name.
int getImageGroup(sts_handle_t h, sts_uint32_t* count)
{
    const Image* img = as<Image>(h, IMAGE);
    if (img == nullptr || count == nullptr) return STSP_EBADHANDLE;
    const std::string prefix = std::string(img->def.img_basename) + "@";
    *count = 0;
    for (const std::string& name : listDirectory(img->base.substr(0, img->base.rfind('/')), ".img")) {
        *count += name.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    }
    return 0;
}

// Copies between images in the kernel where it can (copy_file_range).
int copyBetween(sts_handle_t toH, sts_uint64_t toOff, sts_handle_t fromH, sts_uint64_t fromOff,
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
    return copyBetween(to, toOff, from, fromOff, len, done);
}

int includeInImage(sts_handle_t to, sts_uint64_t toOff, sts_handle_t from, sts_uint64_t fromOff,
                   sts_uint64_t len, sts_uint64_t* done)
{
    return copyBetween(to, toOff, from, fromOff, len, done);
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
    const std::string dir = img->base.substr(0, img->base.rfind('/') + 1);
    for (sts_uint32_t i = 0; i < count; ++i) {
        if (names[i] == nullptr || !validComponent(names[i], 1024)) return DISK_EINVAL;
        if (dir + names[i] == img->base) return DISK_EBUSY;
    }
    for (sts_uint32_t i = 0; i < count; ++i) {
        for (const char* suffix : {".img", ".meta", ".writing"}) unlink((dir + names[i] + suffix).c_str());
    }
    return 0;
}

// ---- LSU handles, storage elements, pools, mounts ----

// Small per-LSU and per-server state lives in text files of "key value"
// lines, rewritten whole and durably.
std::vector<std::string> readLines(const std::string& path)
{
    std::string text;
    std::vector<std::string> lines;
    if (!readFile(path, text)) return lines;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        if (nl > start) lines.push_back(text.substr(start, nl - start));
    }
    return lines;
}

bool writeLines(const std::string& path, const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& l : lines) text += l + "\n";
    return writeFileDurably(path, text);
}

int openLsu(const sts_lsu_t* lsu, sts_handle_t* out)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    if (s == nullptr || out == nullptr) return DISK_EINVAL;
    const std::string dir = lsuDirectory(s, lsu->stl_lsu_name.sln_name);
    if (dir.empty() || !exists(dir)) return DISK_ENOENT;
    Lsu* l = make<Lsu>(LSU);
    if (l == nullptr) return DISK_EIO;
    l->session = s->session;
    l->server = s->dir;
    l->name = lsu->stl_lsu_name.sln_name;
    l->dir = dir;
    *out = &l->hdr;
    return 0;
}

void describeStorel(const std::string& lsuDir, sts_storel_t* e)
{
    std::memset(e, 0, sizeof(*e));
    copyOut(e->ste_devname, lsuDir, sizeof(e->ste_devname));
    struct statvfs fs;
    if (statvfs(lsuDir.c_str(), &fs) == 0) e->ste_length = static_cast<sts_uint64_t>(fs.f_blocks) * fs.f_frsize;
}

// One storage element per LSU: its directory.  On a server handle all of
// them, on an LSU handle its own.
int getStorel(sts_handle_t h, sts_storel_t* buf, int max, int* ret, int* total)
{
    std::vector<std::string> dirs;
    if (const Server* s = as<Server>(h, SERVER)) {
        for (const std::string& name : listDirectory(s->dir + "/lsus")) dirs.push_back(s->dir + "/lsus/" + name);
    } else if (const Lsu* l = as<Lsu>(h, LSU)) {
        dirs.push_back(l->dir);
    } else {
        return STSP_EBADHANDLE;
    }
    if (ret == nullptr || total == nullptr || (buf == nullptr && max > 0)) return DISK_EINVAL;
    std::sort(dirs.begin(), dirs.end());
    *total = static_cast<int>(dirs.size());
    *ret = std::min(std::max(max, 0), *total);
    for (int i = 0; i < *ret; ++i) describeStorel(dirs[i], &buf[i]);
    return 0;
}

int getStorelProp(sts_handle_t server, const char* devname, sts_storel_info_t* info)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || devname == nullptr || info == nullptr) return DISK_EINVAL;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        const std::string dir = s->dir + "/lsus/" + name;
        if (dir != devname) continue;
        std::memset(info, 0, sizeof(*info));
        describeStorel(dir, &info->sti_storel);
        copyOut(info->sti_owner.sln_name, name, sizeof(info->sti_owner.sln_name));
        copyOut(info->sti_assignee.sln_name, name, sizeof(info->sti_assignee.sln_name));
        return 0;
    }
    return DISK_ENOENT;
}

// Allocation marks an element as in use by the LSU, in its "allocated" file.
int changeAllocation(sts_handle_t h, const sts_storel_t* e, bool allocate)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (e == nullptr || e->ste_devname[0] == '\0') return DISK_EINVAL;
    std::vector<std::string> lines = readLines(l->dir + "/allocated");
    const auto at = std::find(lines.begin(), lines.end(), std::string(e->ste_devname));
    if (allocate) {
        if (at != lines.end()) return DISK_EEXIST;
        lines.push_back(e->ste_devname);
    } else {
        if (at == lines.end()) return DISK_ENOENT;
        lines.erase(at);
    }
    return writeLines(l->dir + "/allocated", lines) ? 0 : ioError(l->session, "allocation", errno);
}

int allocLsu(sts_handle_t h, const sts_storel_t* e) { return changeAllocation(h, e, true); }
int deallocLsu(sts_handle_t h, const sts_storel_t* e) { return changeAllocation(h, e, false); }

// Pools of an LSU: "<name> <priority>" lines of its "pools" file.
int addPoolLsu(sts_handle_t h, const sts_lsu_pool_t* pool)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (pool == nullptr || !validComponent(pool->lp_name.sln_name, 1024) ||
        std::strchr(pool->lp_name.sln_name, ' ') != nullptr) {
        return DISK_EINVAL;
    }
    std::vector<std::string> lines = readLines(l->dir + "/pools");
    const std::string prefix = std::string(pool->lp_name.sln_name) + " ";
    for (const std::string& line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0) return DISK_EEXIST;
    }
    lines.push_back(prefix + std::to_string(pool->lp_priority));
    return writeLines(l->dir + "/pools", lines) ? 0 : ioError(l->session, "add pool", errno);
}

int removePoolLsu(sts_handle_t h, const sts_lsu_name_t* name)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (name == nullptr) return DISK_EINVAL;
    std::vector<std::string> lines = readLines(l->dir + "/pools");
    const std::string prefix = std::string(name->sln_name) + " ";
    const auto at = std::find_if(lines.begin(), lines.end(),
                                 [&](const std::string& line) { return line.compare(0, prefix.size(), prefix) == 0; });
    if (at == lines.end()) return DISK_ENOENT;
    lines.erase(at);
    return writeLines(l->dir + "/pools", lines) ? 0 : ioError(l->session, "remove pool", errno);
}

int getPoolLsu(sts_handle_t h, sts_lsu_pool_t* buf, int max, int* ret, int* total)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (ret == nullptr || total == nullptr || (buf == nullptr && max > 0)) return DISK_EINVAL;
    const std::vector<std::string> lines = readLines(l->dir + "/pools");
    *total = static_cast<int>(lines.size());
    *ret = std::min(std::max(max, 0), *total);
    for (int i = 0; i < *ret; ++i) {
        const size_t sp = lines[i].rfind(' ');
        std::memset(&buf[i], 0, sizeof(buf[i]));
        copyOut(buf[i].lp_name.sln_name, lines[i].substr(0, sp), sizeof(buf[i].lp_name.sln_name));
        buf[i].lp_priority = std::strtoull(lines[i].c_str() + sp + 1, nullptr, 10);
    }
    return 0;
}

std::string existingLsuDir(const sts_lsu_t* lsu)
{
    const Server* s = lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
    const std::string dir = s != nullptr ? lsuDirectory(s, lsu->stl_lsu_name.sln_name) : "";
    return !dir.empty() && exists(dir) ? dir : "";
}

int activateLsu(const sts_session_def_t*, const sts_lsu_t* lsu, int active)
{
    const std::string dir = existingLsuDir(lsu);
    if (dir.empty()) return DISK_ENOENT;
    return writeFileDurably(dir + "/active", active ? "1\n" : "0\n") ? 0 : DISK_EIO;
}

// A mount records where the LSU is offered; unmount needs the same point.
int mountLsu(const sts_lsu_t* lsu, const char* point, int, const char*, sts_lsu_name_t* mounted)
{
    const std::string dir = existingLsuDir(lsu);
    if (dir.empty()) return DISK_ENOENT;
    if (point == nullptr || point[0] == '\0' || std::strlen(point) >= 1024) return DISK_EINVAL;
    if (exists(dir + "/mount")) return DISK_EBUSY;
    if (!writeFileDurably(dir + "/mount", point)) return DISK_EIO;
    if (mounted != nullptr) copyOut(mounted->sln_name, lsu->stl_lsu_name.sln_name, sizeof(mounted->sln_name));
    return 0;
}

int unmountLsu(const sts_lsu_t* lsu, const char* point)
{
    const std::string dir = existingLsuDir(lsu);
    std::string current;
    if (dir.empty() || !readFile(dir + "/mount", current)) return DISK_ENOENT;
    if (point == nullptr || current != point) return DISK_EINVAL;
    return unlink((dir + "/mount").c_str()) == 0 ? 0 : DISK_EIO;
}

// ---- controls ----


template <typename T>
int saveRecord(const Server* s, const char* file, const T* record)
{
    return writeFileDurably(s->dir + "/" + file, std::string(reinterpret_cast<const char*>(record), sizeof(T)))
               ? 0 : ioError(s->session, file, errno);
}

template <typename T>
int loadRecord(const Server* s, const char* file, T* record)
{
    std::string bytes;
    std::memset(record, 0, sizeof(T));
    if (readFile(s->dir + "/" + file, bytes) && bytes.size() == sizeof(T)) std::memcpy(record, bytes.data(), sizeof(T));
    return 0;
}

// A random id made the first time it is asked for, kept in the LSU.
int lsuUniqueId(const Server* s, sts_ioctl_get_lsu_unique_id_t* req)
{
    const std::string dir = lsuDirectory(s, req->lsu.stl_lsu_name.sln_name);
    if (dir.empty() || !exists(dir)) return DISK_ENOENT;
    std::string id;
    if (!readFile(dir + "/unique_id", id) || id.empty()) {
        id = hashCredential(dir).substr(0, 32);   // salt: 16 random bytes in hex
        if (!writeFileDurably(dir + "/unique_id", id)) return DISK_EIO;
    }
    copyOut(req->unique_id, id, sizeof(req->unique_id));
    return 0;
}

int ddupStats(const Server* s, sts_ioctl_ddup_stats_info_t* info)
{
    sts_uint64_t images = 0;
    sts_uint64_t bytes = 0;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        for (const std::string& image : listDirectory(s->dir + "/lsus/" + name + "/images", ".img")) {
            struct stat st;
            if (stat((s->dir + "/lsus/" + name + "/images/" + image + ".img").c_str(), &st) == 0) {
                ++images;
                bytes += static_cast<sts_uint64_t>(st.st_size);
            }
        }
    }
    std::memset(info, 0, sizeof(*info));
    std::snprintf(info->ds_msg, sizeof(info->ds_msg),
                  "images %llu; bytes written %llu; bytes stored %llu; deduplication ratio 1.00",
                  static_cast<unsigned long long>(images), static_cast<unsigned long long>(bytes),
                  static_cast<unsigned long long>(bytes));
    info->ds_msg_len = static_cast<sts_uint32_t>(std::strlen(info->ds_msg));
    return 0;
}

int ioctl(sts_handle_t h, sts_uint32_t cmd, void* payload)
{
    const Server* s = as<Server>(h, SERVER);
    if (s == nullptr) return STSP_EBADHANDLE;
    if (payload == nullptr) return DISK_EINVAL;
    switch (cmd) {
    case DISK_IOCTL_SET_RETRY_TIMEOUT:
        return writeFileDurably(s->dir + "/retry_timeout", std::to_string(*static_cast<sts_uint32_t*>(payload))) ? 0 : DISK_EIO;
    case DISK_IOCTL_SET_MEDIA_STATE: {
        const auto* m = static_cast<sts_ioctl_set_media_state_t*>(payload);
        const std::string dir = lsuDirectory(s, m->sio_lsu.stl_lsu_name.sln_name);
        if (dir.empty() || !exists(dir)) return DISK_ENOENT;
        return writeFileDurably(dir + "/media_state", std::to_string(m->sio_media_state_flags)) ? 0 : DISK_EIO;
    }
    case DISK_IOCTL_SET_RESTORE_CNTL:
        return saveRecord(s, "restore.cntl", static_cast<sts_ioctl_restore_cntl_t*>(payload));
    case DISK_IOCTL_GET_RESTORE_CNTL:
        return loadRecord(s, "restore.cntl", static_cast<sts_ioctl_restore_cntl_t*>(payload));
    case DISK_IOCTL_SET_FSCP_CONFIG:
        return saveRecord(s, "fscp.conf", static_cast<sts_ioctl_fscp_config_t*>(payload));
    case DISK_IOCTL_GET_FSCP_INFO: {
        std::lock_guard<std::mutex> guard(g_copiedLock);
        static_cast<sts_ioctl_fscp_info_t*>(payload)->totalbytescopied = g_copied[s->dir];
        return 0;
    }
    case DISK_IOCTL_GET_LSU_UNIQUE_ID:
        return lsuUniqueId(s, static_cast<sts_ioctl_get_lsu_unique_id_t*>(payload));
    case DISK_IOCTL_GET_DDUP_STATS:
        return ddupStats(s, static_cast<sts_ioctl_ddup_stats_info_t*>(payload));
    default:
        return STS_ENOT_SUPPORTED;   // as the service answers a control its contract does not carry
    }
}

int closeHandle(sts_handle_t h, sts_uint32_t)
{
    if (Image* img = as<Image>(h, IMAGE)) return closeImage(img);
    if (as<void>(h, CHANGE_LIST) != nullptr) return closeChangeList(h);
    if (Server* s = as<Server>(h, SERVER)) {
        delete s;
        return 0;
    }
    if (Lsu* l = as<Lsu>(h, LSU)) {
        delete l;
        return 0;
    }
    NameList* l = as<NameList>(h, LSU_LIST);
    if (l == nullptr) l = as<NameList>(h, IMAGE_LIST);
    if (l == nullptr) return STSP_EBADHANDLE;
    delete l;
    return 0;
}

} // namespace

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    plugin->name = "disk";
    plugin->prefix = SERVER_PREFIX;
    sts_api_t& a = plugin->api;
    a.stsa_open_server = openServer;
    a.stsa_open_target_server = openTargetServer;
    a.stsa_create_server = createServer;
    a.stsa_get_server_prop_byname = getServerPropByName;
    a.stsa_get_server_prop = getServerProp;
    a.stsa_shutdown_server = shutdownServer;
    a.stsa_get_server_config = getServerConfig;
    a.stsa_set_server_config = setServerConfig;
    a.stsa_get_host = getHost;
    a.stsa_open_lsu_list = openLsuList;
    a.stsa_open_dynamic_lsu_list = openDynamicLsuList;
    a.stsa_list_lsu = listLsu;
    a.stsa_get_lsu_prop_byname = getLsuProp;
    a.stsa_label_lsu = labelLsu;
    a.stsa_find_lsu = findLsu;
    a.stsa_delete_lsu = deleteLsu;
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
    a.stsa_open_image_list = openImageList;
    a.stsa_open_image_group_list = openImageGroupList;
    a.stsa_list_image = listImage;
    a.stsa_get_image_group_byname = getImageGroupByName;
    a.stsa_get_image_group = getImageGroup;
    a.stsa_copy_extent = copyExtent;
    a.stsa_include_in_image = includeInImage;
    a.stsa_ioctl = ioctl;
    a.stsa_open_lsu = openLsu;
    a.stsa_extract_files = extractFiles;
    a.stsa_delete_files = deleteFiles;
    a.stsa_get_storel = getStorel;
    a.stsa_get_storel_prop = getStorelProp;
    a.stsa_alloc_lsu = allocLsu;
    a.stsa_dealloc_lsu = deallocLsu;
    a.stsa_add_pool_lsu = addPoolLsu;
    a.stsa_remove_pool_lsu = removePoolLsu;
    a.stsa_get_pool_lsu = getPoolLsu;
    a.stsa_activate_lsu = activateLsu;
    a.stsa_mount_lsu = mountLsu;
    a.stsa_unmount_lsu = unmountLsu;
    a.stsa_close_handle = closeHandle;
    registerSnapshotSlots(a);
    return 0;
}
