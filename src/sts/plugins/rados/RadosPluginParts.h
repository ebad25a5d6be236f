// What the units of the RADOS plug-in share: the plug-in's own pointer,
// its kinds of handle and small helpers.  Each unit fills its own slots:
// servers, the close of every handle and the registration
// (RadosPlugin.cpp), LSUs (RadosLsuSlots.cpp), images and their data
// (RadosImageSlots.cpp).
#ifndef KELD_RADOS_PLUGIN_PARTS_H
#define KELD_RADOS_PLUGIN_PARTS_H

#include "RadosInFlight.h"
#include "RadosStore.h"
#include "sts_plugin.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace radosplugin {

using radosstore::Cluster;
using radosstore::ServerConfig;

extern stsp_plugin_t* g_self;

enum Kind { SERVER = 1, LSU_LIST, IMAGE, IMAGE_LIST };

struct Server {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string serverName;   // Rados:NAME
    ServerConfig config;
    std::shared_ptr<Cluster> cluster;
};

using NameList = stsp_name_list;

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
    bool writable = false;
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

template <typename T>
T* make(Kind kind)
{
    return stsp_new_handle<T>(g_self, kind);
}

template <typename T>
T* as(sts_handle_t h, Kind kind)
{
    return stsp_handle_as<T>(h, g_self, kind);
}

void copyOut(char* dst, const std::string& src, size_t size);
// A librados failure as the plug-in's number, logged on the session with
// what was being done.
int failure(sts_handle_t session, const std::string& what, int radosResult);
// The server an LSU argument names, or null.
const Server* serverOf(const sts_lsu_t* lsu);
// 0 when the LSU of the argument is one of its server's; else a number.
int checkLsu(const sts_lsu_t* lsu);

int giveNameList(Kind kind, std::vector<std::string> names, sts_handle_t* out);
int nextName(sts_handle_t list, Kind kind, std::string& name);

// A close of an image handle, complete for a writer unless abandoned;
// frees the handle.
int closeImage(Image* img, bool abandoned);

void registerLsuSlots(sts_api_t& api);
void registerImageSlots(sts_api_t& api);

} // namespace radosplugin

#endif
