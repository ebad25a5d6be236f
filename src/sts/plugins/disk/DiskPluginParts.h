// What the units of the disk plug-in share: its handles (their kinds and
// the plug-in's own pointer come from PluginHandles.h) and small helpers.
// Each unit fills its own slots of the entry-point table: servers and the
// close of every handle (DiskPlugin.cpp), LSUs (DiskLsuSlots.cpp), images
// and their data (DiskImageSlots.cpp), controls (DiskControlSlots.cpp),
// snapshots (DiskSnapshotSlots.cpp).
#ifndef KELD_DISK_PLUGIN_PARTS_H
#define KELD_DISK_PLUGIN_PARTS_H

#include "PluginHandles.h"
#include "WriteBackStarter.h"
#include "sts_plugin.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace diskplugin {

using namespace pluginsupport;

struct Server {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string name;
    std::string dir;
};

struct Lsu {
    sts_handle_s hdr;
    sts_handle_t session;
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
    // Transfers on one handle may run at once.
    std::atomic<sts_uint64_t> writes{0};
    std::atomic<sts_uint64_t> bytesWritten{0};
    WriteBackStarter writeBack;
};

// Turns an errno into the plug-in's number, logging it on the session.
int ioError(sts_handle_t session, const char* what, int err);
// The directory of an LSU of the server, or "" for a name that is not one.
std::string lsuDirectory(const Server* s, const char* lsu);
// The server an LSU argument names, or null.
const Server* serverOf(const sts_lsu_t* lsu);
// The directory of an LSU that is there, else "".
std::string existingLsuDir(const Server* s, const char* lsu);
std::string existingLsuDir(const sts_lsu_t* lsu);
// The directory of the LSU an argument names, in dir: 0, DISK_EINVAL for
// no server or a name that cannot be an LSU's, DISK_ENOENT for an LSU that
// is not there.
int lsuDirOf(const sts_lsu_t* lsu, std::string& dir);

// The image files of an LSU directory, counted by stat.
struct ImageUsage {
    sts_uint64_t images = 0;
    sts_uint64_t bytes = 0;       // their sizes
    sts_uint64_t allocated = 0;   // the blocks they hold
};
ImageUsage imageUsage(const std::string& lsuDir);   // DiskLsuSlots.cpp

// Bytes moved between images of a server, for the copy progress
// (DiskImageSlots.cpp).
sts_uint64_t bytesCopied(const std::string& serverDir);
// A close of an image handle, durable for a writer; frees the handle.
int closeImage(Image* img, bool abandoned);

void registerLsuSlots(sts_api_t& api);
void registerImageSlots(sts_api_t& api);
void registerControlSlots(sts_api_t& api);
// Snapshot and volume slots (DiskSnapshotSlots.cpp).
void registerSnapshotSlots(sts_api_t& api);

} // namespace diskplugin

#endif
