// The file layout of the disk storage plug-in.
//
//   <root>/keldrive/storage/<host>/server.conf      the server "Disk:<host>"
//   <root>/keldrive/storage/<host>/lsus/<lsu>/      one LSU
//   .../lsus/<lsu>/label                            its label, when set
//   .../lsus/<lsu>/images/<image>.img               image data
//   .../lsus/<lsu>/images/<image>.meta              its metadata stream
//   .../lsus/<lsu>/images/<image>.writing           present while written
//
// <root> is $KELDV_ROOT, or /usr/keldv.  <image> is the base name, the date
// and the full date of the image definition joined by '@'.  An image whose
// ".writing" marker survived a crash is reported incomplete.  Closing an
// image opened for writing logs on the session how many data writes reached
// it and how many bytes they wrote ("... closed after N writes of M bytes").
#ifndef KELD_DISK_STORE_H
#define KELD_DISK_STORE_H

#include "sts_api.h"

#include <string>
#include <vector>

namespace diskstore {

const char* const SERVER_PREFIX = "Disk:";

std::string storageRoot();
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

} // namespace diskstore

#endif

// Numbers of the disk plug-in (the framework's own are 2061xxx).
#define DISK_ENOENT 2062001     /* no such server, LSU or image */
#define DISK_EEXIST 2062002     /* it exists already */
#define DISK_EBUSY 2062003      /* in use (an LSU that still holds images) */
#define DISK_ENOSPC 2062004     /* the file system is full */
#define DISK_ECRED 2062005      /* wrong or missing credential */
#define DISK_EINVAL 2062006     /* bad argument: names, offsets, modes */
#define DISK_EIO 2062007        /* an I/O error; errno goes to the session log */
#define DISK_EREADONLY 2062008  /* a write to an image opened for reading */
#define DISK_ENOTSUP 2062009    /* snapshots, volumes and unknown controls */

// Open modes of stsa_open_image: bit 2 asks for writing, else reading.
#define DISK_OPEN_READ 1
#define DISK_OPEN_WRITE 2

// imo_status of an image.
#define DISK_IMAGE_COMPLETE 1
#define DISK_IMAGE_INCOMPLETE 2

// Control requests of stsa_ioctl this plug-in serves, on a server handle:
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
