// What the units of the RADOS plug-in share: its handles (their kinds and
// the plug-in's own pointer come from PluginHandles.h) and small helpers.
// Each unit fills its own slots:
// servers, the close of every handle and the registration
// (RadosPlugin.cpp), LSUs (RadosLsuSlots.cpp), images and their data
// (RadosImageSlots.cpp), copies between images (RadosCopySlots.cpp),
// controls and LSU administration (RadosControlSlots.cpp), snapshots and
// change lists (RadosSnapshotSlots.cpp).
#ifndef KELD_RADOS_PLUGIN_PARTS_H
#define KELD_RADOS_PLUGIN_PARTS_H

#include "RadosImageLock.h"
#include "RadosInFlight.h"
#include "RadosStore.h"
#include "PluginHandles.h"
#include "sts_plugin.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace radosplugin {

using radosstore::Cluster;
using radosstore::ServerConfig;

using namespace pluginsupport;

struct Server {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string serverName;   // Rados:NAME
    ServerConfig config;
    std::shared_ptr<Cluster> cluster;
};

// An LSU opened for its administration (stsa_open_lsu).
struct Lsu {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string server;            // NAME of Rados:NAME
    std::string name;
    std::shared_ptr<Cluster> cluster;
};

// Bytes of an image's writes left in flight: a few transfers, so that the
// cluster stores one while the next comes in.
const std::uint64_t WRITE_BEHIND_BYTES = 32ull << 20;

struct Image {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string serverName;
    std::string lsu;
    std::string name;              // base@date@fulldate
    sts_image_def_t def;
    std::shared_ptr<Cluster> cluster;
    std::uint64_t objectSize = 0;
    rados_ioctx_t io = nullptr;    // the LSU's namespace, the handle's own
    rados_ioctx_t headerIo = nullptr;   // a reader's, for the header (Cluster::Route::CONTROL)
    bool writable = false;
    std::shared_ptr<radosstore::HeldLock> writeLock;   // a writer's, from open to close
    std::mutex lock;               // guards size (of a reader) and objects
    std::atomic<std::uint64_t> size{0};
    std::uint64_t objects = 0;     // data objects the header allows for
    std::atomic<std::uint64_t> writes{0};
    std::atomic<std::uint64_t> bytesWritten{0};
    // A writer's transfers on their way, settled at a flush and a close; a
    // reader's next extent.
    radosstore::WriteBehind inFlight{WRITE_BEHIND_BYTES};
    radosstore::ReadAhead readAhead;
};

// A librados failure as the plug-in's number, logged on the session with
// what was being done.
int failure(sts_handle_t session, const std::string& what, int radosResult);
// The server an LSU argument names, or null.
const Server* serverOf(const sts_lsu_t* lsu);
// 0 when the LSU of the argument is one of its server's; else a number.
int checkLsu(const sts_lsu_t* lsu);

// Before data reaches an image: its header allows for every object up to
// the one holding byte end - 1.  After: its size covers end.
int allowObjectsUpTo(Image* img, std::uint64_t end);
void growTo(Image* img, std::uint64_t end);

// A close of an image handle, complete for a writer unless abandoned;
// frees the handle.
int closeImage(Image* img, bool abandoned);

// The write lock of a writer (RadosImageLocking.cpp).  lockForWriting takes
// it for an image being opened or created: 0, or RADOS_EBUSY with the
// holder named in the session's log, or another number.  leaseHeld is 0
// while the lock of a writer holds, else RADOS_EBUSY, logged with what
// was being done.  releaseLock gives it up at the close.
int lockForWriting(const Server* s, const std::string& lsu, const std::string& image,
                   std::shared_ptr<radosstore::HeldLock>& lock);
int leaseHeld(const Image* img, const std::string& doing);
void releaseLock(Image* img);

// Bytes copied between images of a server (NAME) since the plug-in loaded.
std::uint64_t bytesCopied(const std::string& server);

void registerLsuSlots(sts_api_t& api);
void registerImageSlots(sts_api_t& api);
void registerCopySlots(sts_api_t& api);
void registerControlSlots(sts_api_t& api);
void registerSnapshotSlots(sts_api_t& api);

} // namespace radosplugin

#endif
