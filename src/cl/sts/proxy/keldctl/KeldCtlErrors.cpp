// The storage API carries numbers only; these are their meanings for the
// numbers of the service, our framework and the plug-ins built here.
#include "KeldCtlStorage.h"

#include "DiskStore.h"
#include "HopAddress.h"
#include "HopCause.h"
#include "RemotePlugin.h"
#include "sts_plugin.h"

#include <map>
#include <vector>

namespace keldctl {

namespace {

// "proxy hop 2 (host:port) cannot be reached: connection refused", the
// address as the chain gives it.
std::string hopText(int number, const std::string& chain)
{
    const int place = REMOTE_EHOP_PLACE(number);
    const std::vector<std::string> hops = chainHops(chain);
    HopAddress address;
    const bool known = !chain.empty() && static_cast<size_t>(place) < hops.size() && firstHop(hops[place], address);
    // Peer admission at hop N refuses the hop before it, or this host.
    const std::string refused = place == 0 ? "this host" : "proxy hop " + std::to_string(place);
    return "proxy hop " + std::to_string(place + 1) + (known ? " (" + address.text() + ")" : "") +
           " cannot be reached: " + hopCauseText(static_cast<HopCause>(REMOTE_EHOP_CAUSE(number)), refused);
}

} // namespace

std::string errorText(int number, const std::string& chain)
{
    static const std::map<int, const char*> texts = {
        {STS_EINVAL_ARG, "invalid argument"},
        {STS_ENOMEM_OBJ, "the service could not build an object"},
        {STS_EBUSY_AGAIN, "busy, try again"},
        {STS_EBAD_VERSION, "storage API version not supported"},
        {STS_ECLAIM_VOLUME, "the volume cannot be claimed"},
        {STS_ENOT_INIT, "the storage plug-ins are not loaded"},
        {STS_EIN_USE, "in use"},
        {STS_ENO_MORE, "not found (or end of list)"},
        {STS_ENOT_OPEN, "not open"},
        {STS_ENOT_SUPPORTED, "operation not supported"},
        {STS_EVERSION_NOT_SUPP, "not supported at this version"},
        {STS_EBUFFER_SMALL, "buffer too small"},
        {STS_ENO_EVENT, "nothing to deliver"},
        {STS_ESEQUENCE, "call sequence fault"},
        {STSP_ENOSLOT, "the storage server does not offer this operation"},
        {STSP_ENOSERVER, "no storage plug-in serves this server name"},
        {STSP_EBADHANDLE, "bad handle"},
        {STSP_ENOPLUGINDIR, "the plug-in directory cannot be read"},
        {STSP_ENOMEM, "out of memory"},
        {STSP_ESYSTEM, "the operating system refused"},
        {STSP_ENOPROXY, "no storage plug-in reaches a proxy (libsts_remote.so is not installed)"},
        {DISK_ENOENT, "no such server, LSU, image or snapshot"},
        {DISK_EEXIST, "it exists already"},
        {DISK_EBUSY, "in use"},
        {DISK_ENOSPC, "the file system is full"},
        {DISK_ECRED, "wrong or missing credential (KELDCTL_CREDENTIAL)"},
        {DISK_EINVAL, "bad argument (name, offset or mode)"},
        {DISK_EIO, "input/output error"},
        {DISK_EREADONLY, "the image is open for reading"},
        {REMOTE_ELOST, "the reply was lost on every try"},
        {REMOTE_ENOOBJECT, "the remote object is gone (did the service restart?)"},
        {REMOTE_ESYSTEM, "the ORB refused the call"},
        {REMOTE_EBADPROXY, "the proxy is not host[:port]"},
        {REMOTE_ECREDENTIAL, "the credential cannot be encrypted under the proxy's key"},
        {REMOTE_ETLS, "the TLS identity cannot be used"},
        {REMOTE_ESEND, "the proxy closed the connection each time (a message larger than it accepts?)"},
    };
    if (number >= REMOTE_EHOP && number <= REMOTE_EHOP_LAST) return hopText(number, chain);
    const auto it = texts.find(number);
    return it != texts.end() ? it->second : "unknown error";
}

} // namespace keldctl
