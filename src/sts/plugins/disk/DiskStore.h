// The file layout of the disk storage plug-in.
//
//   <root>/keldrive/storage/<host>/server.conf      the server "Disk:<host>"
//   <root>/keldrive/storage/<host>/lsus/<lsu>/      one LSU
//   .../lsus/<lsu>/label                            its label, when set
//   .../lsus/<lsu>/images/<image>.img               image data
//   .../lsus/<lsu>/images/<image>.meta              its metadata stream
//   .../lsus/<lsu>/images/<image>.writing           present while written
//   .../lsus/<lsu>/snapshots/<snap>/images/         the image files as they
//                                                   were when <snap> was taken
//   .../lsus/<lsu>/snapshots/<snap>/time            when, in seconds since 1970
//
// <root> is $KELDV_ROOT, or /usr/keldv.  <image> is the base name, the date
// and the full date of the image definition joined by '@'.  An image whose
// ".writing" marker survived a crash is reported incomplete, as is one
// closed with STSP_CLOSE_ABANDONED (its writer went away: the marker stays,
// nothing is flushed).  Closing an image opened for writing logs on the session how many data writes reached
// it and how many bytes they wrote ("... closed after N writes of M bytes").
// An image's group is the images of its LSU that share its base name: an
// open image's (stsa_get_image_group), a definition's
// (stsa_get_image_group_byname), and the list of them
// (stsa_open_image_group_list).
//
// Snapshots.  A snapshot is a named, read-only, point-in-time view of an
// LSU's images, made and deleted by the operator's keldv-disk-snapshot (the
// storage API only reads them).  Taking one costs no data copy for a closed
// image: its files are hard-linked into the snapshot.  An image being
// written (its marker is there) is copied instead, with FICLONE where the
// file system shares blocks, else byte by byte.  Opening an image for
// writing later gives it its own copy first (again FICLONE where possible)
// whenever a snapshot shares its files, seen from a link count above 1, so
// a snapshot never changes after it was taken.  Hard links are used even
// where FICLONE works: a shared inode is what tells an unchanged image in a
// change list without reading it.  The snapshot holds the images
// directory's flock exclusively, the plug-in shares it while it opens an
// image for writing, so neither sees the other half done.  A snapshot is
// built under a hidden name and renamed into place, deleted by renaming it
// aside first: a crash never leaves half of one under its name.
//
// Properties (stsa_get_snap_prop_byname): sd_snap_name, sd_snap_type
// STS_SNAPT_CLONE, sd_snap_isid.is_info "time=<seconds since 1970>
// images=<count>", the server and LSU names, a device volume whose path is
// the snapshot's directory, status DISK_SNAPSHOT_COMPLETE and as size the
// bytes of image data it holds.
//
// Change lists (stsa_open_snap_change_list): the images added, deleted or
// modified (data, metadata or marker) from the base snapshot to the diff
// snapshot of one LSU, by name; an empty base name stands for an empty
// snapshot, so the list is then every image of diff as added.  The list is
// worked out at the open, in name order; the volume and diff_flag arguments
// are not read.  stsa_list_file gives one entry a call (object_name the
// image name as an image list gives it, type STS_DIFF_OBJECT_FILE, the data
// file's times in seconds, size, owner, mode and inode from the diff
// snapshot, from the base for a deleted one) and 2060013 (STS_ENO_MORE) at
// the end.  Its path filter of npaths patterns lets an image through when
// npaths is 0 or any pattern matches its name as fnmatch(3) does without
// flags ("backup1@*" for one base name); a null filter with npaths above 0
// is a missing argument, 2060001 (STS_EINVAL_ARG).  stsa_close_snap_change_list frees
// the entries; the handle itself stays until the plug-in is unloaded, so
// that a second close or a late list answers 2060014 (STS_ENOT_OPEN)
// instead of touching freed memory.  stsa_claim_volume answers 2060009
// (STS_ECLAIM_VOLUME): this plug-in owns no volumes.
#ifndef KELD_DISK_STORE_H
#define KELD_DISK_STORE_H

#include "sts_api.h"

#include <string>
#include <vector>

namespace diskstore {

const char* const SERVER_PREFIX = "Disk:";

std::string storageRoot();
// <installRoot>/keldrive/storage, where the servers of that root are kept.
std::string storageRootUnder(const std::string& installRoot);
std::string hostName();
// "Disk:<host>" -> the server's directory, or "" for a name that is not ours
// or would leave the storage directory.
std::string serverDirectory(const std::string& serverName);
// A name usable as one path component: not empty, no '/', not "." or "..",
// no leading '.', shorter than limit.
bool validComponent(const std::string& name, size_t limit = 256);

bool exists(const std::string& path);
bool makeDirectories(const std::string& path);
std::vector<std::string> listDirectory(const std::string& dir, const std::string& suffix = "");
bool readFile(const std::string& path, std::string& content);
bool writeFileDurably(const std::string& path, const std::string& content);

// Makes "Disk:<host>" with LSU lsu0 when the storage directory has no
// server yet.
void ensureDefaultServer();

// "name = value" lines of a server's configuration.
std::string configValue(const std::string& config, const std::string& name);

// A server's configuration text holds blank lines, "#" comments and these
// settings: "host" (any number), "stream_format" (the format the server
// reports, shorter than 16), "max_connections" (1..65535) and
// "credential" (the salted hash written at create; it cannot be changed
// through the text).  Returns "" for an acceptable replacement of a server
// whose stored credential is storedCredential, else the reason.
std::string configProblem(const std::string& text, const std::string& storedCredential);
// The replacement as it is kept: the stored credential line is added when
// the text leaves it out, so an edit never drops the credential.
std::string configToStore(const std::string& text, const std::string& storedCredential);
// A salted SHA-256 of the certificate, as "salt:hash" in hexadecimal.
std::string hashCredential(const std::string& certificate, const std::string& saltHex = "");
bool credentialMatches(const std::string& stored, const std::string& certificate);

// ---- snapshots (DiskSnapshot.cpp); results are 0 or an errno value ----

// The images directory's flock, shared by an open for writing and held
// exclusively while a snapshot is taken; released on destruction.
class ImagesLock {
public:
    ImagesLock(const std::string& imagesDir, bool exclusive);
    ~ImagesLock();
    ImagesLock(const ImagesLock&) = delete;
    ImagesLock& operator=(const ImagesLock&) = delete;
    bool held() const { return m_fd >= 0; }

private:
    int m_fd;
};

// A copy of a file with its mode and times: FICLONE, else the bytes.
int cloneFile(const std::string& from, const std::string& to);
// Gives the image at base (".../images/<image>") files of its own where a
// snapshot shares them; called before it is opened for writing.
int unshareImage(const std::string& base);

// "<lsuDir>/snapshots/<name>", or "" for a name that is not one component
// shorter than 256.
std::string snapshotDirectory(const std::string& lsuDir, const std::string& name);
int createSnapshot(const std::string& lsuDir, const std::string& name);   // EEXIST, ENOENT, EINVAL
int deleteSnapshot(const std::string& lsuDir, const std::string& name);   // ENOENT, EINVAL
std::vector<std::string> listSnapshots(const std::string& lsuDir);       // in name order

struct SnapshotSummary {
    std::string name;
    long long time = 0;              // seconds since 1970
    unsigned long long bytes = 0;    // image data held
    unsigned images = 0;
};
int describeSnapshot(const std::string& lsuDir, const std::string& name, SnapshotSummary& out);

// Facts of an image's data file, as a change list reports them.
struct FileFacts {
    unsigned long long size = 0;
    unsigned long long modified = 0, accessed = 0, created = 0, changed = 0;   // seconds
    unsigned owner = 0, group = 0, inode = 0;
    unsigned long long mode = 0;
};

// The values of the storage API's sts_diff_object_state_t.
enum ImageChangeState { IMAGE_ADDED = 0, IMAGE_DELETED = 1, IMAGE_MODIFIED = 2 };

struct ImageChange {
    std::string name;
    ImageChangeState state = IMAGE_ADDED;
    FileFacts facts;
};

// The changes from snapshot base ("" for none) to snapshot diff, in name
// order.  EINVAL for a bad name, ENOENT for a snapshot that is not there.
int snapshotChanges(const std::string& lsuDir, const std::string& base, const std::string& diff,
                    std::vector<ImageChange>& out);

} // namespace diskstore

#endif

// Numbers of the disk plug-in (the framework's own are 2061xxx).
#define DISK_ENOENT 2062001     /* no such server, LSU, image or snapshot */
#define DISK_EEXIST 2062002     /* it exists already */
#define DISK_EBUSY 2062003      /* in use (an LSU that still holds images or snapshots) */
#define DISK_ENOSPC 2062004     /* the file system is full */
#define DISK_ECRED 2062005      /* wrong or missing credential */
#define DISK_EINVAL 2062006     /* bad argument: names, offsets, modes */
#define DISK_EIO 2062007        /* an I/O error; errno goes to the session log */
#define DISK_EREADONLY 2062008  /* a write to an image opened for reading */

// Open modes of stsa_open_image: bit 2 asks for writing, else reading.
#define DISK_OPEN_READ 1
#define DISK_OPEN_WRITE 2

// imo_status of an image.
#define DISK_IMAGE_COMPLETE 1
#define DISK_IMAGE_INCOMPLETE 2

// sno_snap_status of a snapshot.
#define DISK_SNAPSHOT_COMPLETE 1

// Control requests of stsa_ioctl this plug-in serves, on a server handle
// (any other answers 2060016, STS_ENOT_SUPPORTED, as through the service):
// the ones the remote contract carries (sts_api.h).
#define DISK_IOCTL_SET_RETRY_TIMEOUT STS_IOCTL_SET_RETRY_TIMEOUT  /* kept per server */
#define DISK_IOCTL_SET_MEDIA_STATE STS_IOCTL_SET_MEDIA_STATE      /* kept per LSU */
#define DISK_IOCTL_SET_RESTORE_CNTL STS_IOCTL_SET_RESTORE_CNTL    /* kept per server */
#define DISK_IOCTL_GET_LSU_UNIQUE_ID STS_IOCTL_GET_LSU_UNIQUE_ID
#define DISK_IOCTL_GET_RESTORE_CNTL STS_IOCTL_GET_RESTORE_CNTL
#define DISK_IOCTL_SET_FSCP_CONFIG STS_IOCTL_SET_FSCP_CONFIG      /* kept per server */
#define DISK_IOCTL_GET_FSCP_INFO STS_IOCTL_GET_FSCP_INFO          /* bytes copied between images */
#define DISK_IOCTL_GET_DDUP_STATS STS_IOCTL_GET_DDUP_STATS        /* usage text */

// The largest offset plus length the plug-in accepts (1 PiB).
#define DISK_MAX_EXTENT (1ULL << 50)
