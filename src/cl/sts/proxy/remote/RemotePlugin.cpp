// Registration of the remote plug-in and the close of its handles.
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include "HopCause.h"

#include <dlfcn.h>
#include <string>
#include <vector>

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

// The texts of the hop numbers, made once: they must outlive the call.
const char* hopText(int number)
{
    static const std::vector<std::string> texts = [] {
        std::vector<std::string> all;
        for (int n = REMOTE_EHOP; n <= REMOTE_EHOP_LAST; ++n) all.push_back(hopNumberText(n));
        return all;
    }();
    return texts[static_cast<size_t>(number - REMOTE_EHOP)].c_str();
}

const char* errorText(int number)
{
    if (number >= REMOTE_EHOP && number <= REMOTE_EHOP_LAST) return hopText(number);
    switch (number) {
    case REMOTE_ELOST: return "the reply was lost on every try";
    case REMOTE_ENOOBJECT: return "the remote object is gone (did the service restart?)";
    case REMOTE_ESYSTEM: return "the ORB refused the call";
    case REMOTE_EBADPROXY: return "the proxy is not host[:port]";
    case REMOTE_ECREDENTIAL: return "the credential cannot be encrypted under the proxy's key";
    case REMOTE_ETLS: return "the TLS identity cannot be used";
    case REMOTE_ESEND: return "the proxy closed the connection each time (a message larger than it accepts?)";
    default: return nullptr;
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
    plugin->error_text = errorText;   // no list_servers: its servers are behind the proxy
    remote::startRuntime(plugin);
    return 0;
}
