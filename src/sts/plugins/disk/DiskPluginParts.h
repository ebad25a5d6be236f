// What the units of the disk plug-in share: the plug-in's own pointer, its
// kinds of handle, the server handle and small helpers.
#ifndef KELD_DISK_PLUGIN_PARTS_H
#define KELD_DISK_PLUGIN_PARTS_H

#include "sts_plugin.h"

#include <string>

namespace diskplugin {

extern stsp_plugin_t* g_self;

enum Kind { SERVER = 1, LSU_LIST, IMAGE, IMAGE_LIST, LSU, CHANGE_LIST };

struct Server {
    sts_handle_s hdr;
    sts_handle_t session;
    std::string name;
    std::string dir;
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
// Turns an errno into the plug-in's number, logging it on the session.
int ioError(sts_handle_t session, const char* what, int err);
// The directory of an LSU of the server, or "" for a name that is not one.
std::string lsuDirectory(const Server* s, const char* lsu);

// Snapshot and volume slots (DiskSnapshotSlots.cpp).
void registerSnapshotSlots(sts_api_t& api);
// A change list given to stsa_close_handle: closed as by its own slot.
int closeChangeList(sts_handle_t h);

} // namespace diskplugin

#endif
