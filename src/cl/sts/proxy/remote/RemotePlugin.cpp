// Registration of the remote plug-in and the close of its handles.
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include <dlfcn.h>

namespace {

// Closes go by kind; each frees its handle whatever the service answers.
int closeHandle(sts_handle_t h, sts_uint32_t flags)
{
    if (h == nullptr || h->owner != remote::self()) return STSP_EBADHANDLE;
    switch (h->kind) {
    case SERVER: return closeServerHandle(h);
    case LSU: return closeLsuHandle(h);
    case LSU_LIST: return closeLsuListHandle(h);
    case IMAGE: return closeImageHandle(h, flags);
    case IMAGE_LIST: return closeImageListHandle(h);
    case FILE_LIST: return closeFileListHandle(h);
    default: return STSP_EBADHANDLE;
    }
}

// The ORB keeps pointers into this object (the stubs' factories, threads it
// started): once loaded it stays, whatever unloads it.
void stayLoaded()
{
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&stayLoaded), &self) != 0 && self.dli_fname != nullptr) {
        dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) int stsp_plugin_register(stsp_plugin_t* plugin)
{
    stayLoaded();
    plugin->name = "remote";
    plugin->prefix = nullptr;
    plugin->flags = STSP_CLAIMS_PROXIED;
    sts_api_t& a = plugin->api;
    fillServerSlots(a);
    fillLsuSlots(a);
    fillImageSlots(a);
    fillTransferSlots(a);
    fillSnapshotSlots(a);
    a.stsa_close_handle = closeHandle;
    remote::startRuntime(plugin);
    return 0;
}
