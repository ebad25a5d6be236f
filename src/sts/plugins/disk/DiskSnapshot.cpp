// Snapshots of a disk LSU: hard links of closed images, copies of images
// being written, and copy-before-write of a shared image (see DiskStore.h).
#include "DiskStore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <linux/fs.h>
#include <mutex>
#include <set>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace diskstore {

namespace {

const char* const PARTS[] = {".img", ".meta", ".writing"};

bool endsWith(const std::string& text, const std::string& tail)
{
    return text.size() > tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

int syncDirectory(const std::string& dir)
{
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno;
    const int rc = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    return rc;
}

int removeOne(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

void removeTree(const std::string& dir)
{
    nftw(dir.c_str(), removeOne, 16, FTW_DEPTH | FTW_PHYS);
}

// The bytes of one open file into another, in the kernel where it can.
int copyBytes(int in, int out, off_t size)
{
    for (off_t at = 0; at < size;) {
        loff_t from = at;
        loff_t to = at;
        ssize_t n = copy_file_range(in, &from, out, &to, static_cast<size_t>(size - at), 0);
        if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
            char buf[1 << 16];
            n = pread(in, buf, std::min<off_t>(sizeof(buf), size - at), at);
            if (n > 0 && pwrite(out, buf, static_cast<size_t>(n), at) != n) n = -1;
        }
        if (n < 0) return errno;
        if (n == 0) break;   // the source got shorter meanwhile
        at += n;
    }
    return 0;
}

bool sameBytes(const std::string& a, const std::string& b)
{
    const int fa = open(a.c_str(), O_RDONLY | O_CLOEXEC);
    const int fb = open(b.c_str(), O_RDONLY | O_CLOEXEC);
    bool same = fa >= 0 && fb >= 0;
    static const size_t CHUNK = 1 << 20;
    std::string ba(CHUNK, '\0');
    std::string bb(CHUNK, '\0');
    for (off_t at = 0; same;) {
        const ssize_t na = pread(fa, &ba[0], CHUNK, at);
        const ssize_t nb = pread(fb, &bb[0], CHUNK, at);
        same = na == nb && na >= 0 && std::memcmp(ba.data(), bb.data(), static_cast<size_t>(na)) == 0;
        if (na <= 0) break;
        at += na;
    }
    if (fa >= 0) close(fa);
    if (fb >= 0) close(fb);
    return same;
}

// One part of an image is unchanged when it is the same file, or absent on
// both sides, or holds the same bytes.
bool samePart(const std::string& a, const std::string& b)
{
    struct stat sa;
    struct stat sb;
    const bool hasA = stat(a.c_str(), &sa) == 0;
    const bool hasB = stat(b.c_str(), &sb) == 0;
    if (!hasA || !hasB) return hasA == hasB;
    if (sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino) return true;
    return sa.st_size == sb.st_size && sameBytes(a, b);
}

bool sameImage(const std::string& baseA, const std::string& baseB)
{
    for (const char* part : PARTS) {
        if (!samePart(baseA + part, baseB + part)) return false;
    }
    return true;
}

FileFacts factsOf(const std::string& path)
{
    FileFacts f;
    struct statx sx;
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) return f;
    f.size = sx.stx_size;
    f.modified = static_cast<unsigned long long>(sx.stx_mtime.tv_sec);
    f.accessed = static_cast<unsigned long long>(sx.stx_atime.tv_sec);
    f.changed = static_cast<unsigned long long>(sx.stx_ctime.tv_sec);
    f.created = (sx.stx_mask & STATX_BTIME) != 0 ? static_cast<unsigned long long>(sx.stx_btime.tv_sec) : 0;
    f.owner = sx.stx_uid;
    f.group = sx.stx_gid;
    f.mode = sx.stx_mode;
    f.inode = static_cast<unsigned>(sx.stx_ino);
    return f;
}

// One file of the images directory into the snapshot being built: a copy
// for an image being written (its ".writing" marker is there), else a link.
int keepFile(const std::string& images, const std::string& into, const std::string& file)
{
    std::string image;
    for (const char* part : PARTS) {
        if (endsWith(file, part)) image = file.substr(0, file.size() - std::strlen(part));
    }
    if (image.empty()) return 0;   // not a part of an image
    const std::string from = images + "/" + file;
    const std::string to = into + "/" + file;
    const bool beingWritten = !endsWith(file, ".writing") && exists(images + "/" + image + ".writing");
    int rc = 0;
    if (beingWritten || link(from.c_str(), to.c_str()) != 0) {
        rc = beingWritten || errno == EMLINK ? cloneFile(from, to) : errno;
    }
    return rc == ENOENT ? 0 : rc;   // deleted meanwhile: not in the snapshot
}

// What a crash left under hidden names: snapshots half taken or half
// deleted.  Called with the exclusive lock, so no take is under way.
void removeLeftovers(const std::string& snapshots)
{
    std::vector<std::string> hidden;
    if (DIR* d = opendir(snapshots.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name[0] == '.' && name != "." && name != "..") hidden.push_back(snapshots + "/" + name);
        }
        closedir(d);
    }
    for (const std::string& dir : hidden) removeTree(dir);
}

int errnoOr(bool ok)
{
    return ok ? 0 : (errno != 0 ? errno : EIO);
}

} // namespace

ImagesLock::ImagesLock(const std::string& imagesDir, bool exclusive)
    : m_fd(open(imagesDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    while (m_fd >= 0 && flock(m_fd, exclusive ? LOCK_EX : LOCK_SH) != 0) {
        if (errno == EINTR) continue;
        close(m_fd);
        m_fd = -1;
    }
}

ImagesLock::~ImagesLock()
{
    if (m_fd >= 0) close(m_fd);   // closing the only descriptor releases the lock
}

int cloneFile(const std::string& from, const std::string& to)
{
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return errno;
    struct stat st;
    if (fstat(in, &st) != 0) {
        const int err = errno;
        close(in);
        return err;
    }
    const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777);
    int rc = out >= 0 ? 0 : errno;
    if (rc == 0 && ioctl(out, FICLONE, in) != 0) rc = copyBytes(in, out, st.st_size);
    if (rc == 0) {
        const struct timespec times[2] = {st.st_atim, st.st_mtim};
        futimens(out, times);
        if (fsync(out) != 0) rc = errno;
    }
    close(in);
    if (out >= 0) close(out);
    if (rc != 0 && out >= 0) unlink(to.c_str());
    return rc;
}

// Two writers opening one image must not both copy it: the copy and the
// rename happen one at a time in this process.
int unshareImage(const std::string& base)
{
    static std::mutex copying;
    std::lock_guard<std::mutex> hold(copying);
    for (const char* part : {".img", ".meta"}) {
        const std::string path = base + part;
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || st.st_nlink <= 1) continue;
        const size_t slash = path.rfind('/');
        std::string tmp = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".XXXXXX";
        const int fd = mkstemp(&tmp[0]);
        if (fd < 0) return errno;
        close(fd);
        unlink(tmp.c_str());
        int rc = cloneFile(path, tmp);
        if (rc == 0 && rename(tmp.c_str(), path.c_str()) != 0) rc = errno;
        if (rc != 0) {
            unlink(tmp.c_str());
            return rc;
        }
    }
    return 0;
}

std::string snapshotDirectory(const std::string& lsuDir, const std::string& name)
{
    return validComponent(name) ? lsuDir + "/snapshots/" + name : "";
}

int createSnapshot(const std::string& lsuDir, const std::string& name)
{
    const std::string target = snapshotDirectory(lsuDir, name);
    if (target.empty()) return EINVAL;
    const std::string images = lsuDir + "/images";
    if (!exists(images)) return ENOENT;
    const std::string snapshots = lsuDir + "/snapshots";
    if (!makeDirectories(snapshots)) return errno;
    ImagesLock lock(images, true);
    if (!lock.held()) return errnoOr(false);
    if (exists(target)) return EEXIST;
    removeLeftovers(snapshots);
    std::string work = snapshots + "/." + name + ".XXXXXX";
    if (mkdtemp(&work[0]) == nullptr) return errno;
    int rc = errnoOr(mkdir((work + "/images").c_str(), 0755) == 0);
    std::vector<std::string> files = listDirectory(images);
    for (size_t i = 0; rc == 0 && i < files.size(); ++i) rc = keepFile(images, work + "/images", files[i]);
    if (rc == 0) rc = errnoOr(writeFileDurably(work + "/time", std::to_string(std::time(nullptr)) + "\n"));
    if (rc == 0) rc = syncDirectory(work + "/images");
    if (rc == 0) rc = errnoOr(rename(work.c_str(), target.c_str()) == 0);
    if (rc != 0) {
        removeTree(work);
        return rc;
    }
    return syncDirectory(snapshots);
}

// Renamed aside first, so that a crash never leaves half a snapshot under
// its name.
int deleteSnapshot(const std::string& lsuDir, const std::string& name)
{
    const std::string target = snapshotDirectory(lsuDir, name);
    if (target.empty()) return EINVAL;
    if (!exists(target)) return ENOENT;
    std::string aside = lsuDir + "/snapshots/." + name + ".gone.XXXXXX";
    if (mkdtemp(&aside[0]) == nullptr) return errno;
    if (rename(target.c_str(), aside.c_str()) != 0) {
        const int err = errno;
        rmdir(aside.c_str());
        return err;
    }
    removeTree(aside);
    return 0;
}

std::vector<std::string> listSnapshots(const std::string& lsuDir)
{
    std::vector<std::string> names = listDirectory(lsuDir + "/snapshots");
    std::sort(names.begin(), names.end());
    return names;
}

int describeSnapshot(const std::string& lsuDir, const std::string& name, SnapshotSummary& out)
{
    const std::string dir = snapshotDirectory(lsuDir, name);
    if (dir.empty()) return EINVAL;
    std::string time;
    if (!readFile(dir + "/time", time)) return ENOENT;
    out = SnapshotSummary();
    out.name = name;
    out.time = std::strtoll(time.c_str(), nullptr, 10);
    for (const std::string& image : listDirectory(dir + "/images", ".img")) {
        struct stat st;
        if (stat((dir + "/images/" + image + ".img").c_str(), &st) != 0) continue;
        out.bytes += static_cast<unsigned long long>(st.st_size);
        ++out.images;
    }
    return 0;
}

int snapshotChanges(const std::string& lsuDir, const std::string& base, const std::string& diff,
                    std::vector<ImageChange>& out)
{
    const std::string diffDir = snapshotDirectory(lsuDir, diff);
    const std::string baseDir = base.empty() ? "" : snapshotDirectory(lsuDir, base);
    if (diffDir.empty() || (!base.empty() && baseDir.empty())) return EINVAL;
    if (!exists(diffDir + "/time") || (!base.empty() && !exists(baseDir + "/time"))) return ENOENT;
    std::set<std::string> before;
    if (!base.empty()) {
        for (const std::string& image : listDirectory(baseDir + "/images", ".img")) before.insert(image);
    }
    std::set<std::string> after;
    for (const std::string& image : listDirectory(diffDir + "/images", ".img")) after.insert(image);
    std::set<std::string> all = before;
    all.insert(after.begin(), after.end());
    out.clear();
    for (const std::string& image : all) {
        const std::string was = baseDir + "/images/" + image;
        const std::string now = diffDir + "/images/" + image;
        ImageChange change;
        change.name = image;
        if (before.count(image) == 0) {
            change.state = IMAGE_ADDED;
        } else if (after.count(image) == 0) {
            change.state = IMAGE_DELETED;
        } else if (!sameImage(was, now)) {
            change.state = IMAGE_MODIFIED;
        } else {
            continue;
        }
        change.facts = factsOf((change.state == IMAGE_DELETED ? was : now) + ".img");
        out.push_back(change);
    }
    return 0;
}

} // namespace diskstore
