// The handles of a storage plug-in: the pointer the framework registered it
// with, the kinds of handle it hands out, and small helpers every plug-in
// of this tree uses.  Each plug-in .so links this unit in and keeps the
// pointer its stsp_plugin_register is given in g_self.  Everything here is
// hidden: each .so has its own g_self, and a plug-in loaded beside another
// never binds to the other's copy.
#ifndef KELD_PLUGIN_HANDLES_H
#define KELD_PLUGIN_HANDLES_H

#include "sts_plugin.h"

#include <cstddef>
#include <string>

#pragma GCC visibility push(hidden)

namespace pluginsupport {

extern stsp_plugin_t* g_self;

enum Kind : sts_uint32_t { SERVER = 1, LSU_LIST, IMAGE, IMAGE_LIST, LSU, CHANGE_LIST };

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

// src into a fixed field of size bytes, cut to fit and always terminated.
void copyOut(char* dst, const std::string& src, size_t size);

// stsa_close_handle of a plug-in with servers, LSUs, images, name lists and
// change lists: an image is closed by closeImage (abandoned when the flags
// say its holder went away), a change list by the plug-in's own change
// list slot, the others are freed.
template <typename Server, typename Lsu, typename Image, int (*closeImage)(Image*, bool)>
int closeHandle(sts_handle_t h, sts_uint32_t flags)
{
    if (Image* img = as<Image>(h, IMAGE)) return closeImage(img, (flags & STSP_CLOSE_ABANDONED) != 0);
    if (as<void>(h, CHANGE_LIST) != nullptr) return g_self->api.stsa_close_snap_change_list(h);
    if (Server* s = as<Server>(h, SERVER)) {
        delete s;
        return 0;
    }
    if (Lsu* l = as<Lsu>(h, LSU)) {
        delete l;
        return 0;
    }
    stsp_name_list* l = as<stsp_name_list>(h, LSU_LIST);
    if (l == nullptr) l = as<stsp_name_list>(h, IMAGE_LIST);
    if (l == nullptr) return STSP_EBADHANDLE;
    delete l;
    return 0;
}

} // namespace pluginsupport

#pragma GCC visibility pop

#endif
