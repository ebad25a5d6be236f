// A stand-in "ShMem:" storage server for tests, which injects failures.
// Every call reads its controls from the environment:
//   KELD_FAULT_LSUS="a,b,c"          the LSUs listed
//   KELD_FAULT_BUSY="b"              deleting this LSU answers 2060005 (busy)
//   KELD_FAULT_DELETE_FAIL="c:NUM"   deleting this LSU answers NUM
//   KELD_FAULT_LIST_FAIL="N:NUM"     listing answers NUM after N entries
//   KELD_FAULT_OPEN_SERVER="NUM"     opening the server answers NUM
//   KELD_FAULT_LOG=path              each deleted LSU name is appended here
//   KELD_FAULT_DROP_USES=1           opening the server first gives back every
//                                    use of the storage framework, so that the
//                                    caller's own terminate fails later (the
//                                    plug-in pins itself in memory first)
//   KELD_FAULT_CERT="text"           opening the server needs this certificate,
//                                    else answers 2060077
// It also opens target servers, and answers 2060099 to creating one.
#include "sts_plugin.h"

#include <cstdlib>
#include <dlfcn.h>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

stsp_plugin_t* g_self = nullptr;

std::string env(const char* name)
{
    const char* v = std::getenv(name);
    return v != nullptr ? v : "";
}

// "key:NUM" -> NUM when key matches, else 0.
int codeFor(const char* var, const std::string& key)
{
    const std::string v = env(var);
    const size_t colon = v.find(':');
    if (colon == std::string::npos || v.substr(0, colon) != key) return 0;
    return std::atoi(v.c_str() + colon + 1);
}

struct Handle {
    sts_handle_s hdr;
    std::vector<std::string> names;
    size_t next = 0;
};

Handle* make()
{
    Handle* h = new Handle();
    h->hdr.magic = STSP_HANDLE_MAGIC;
    h->hdr.owner = g_self;
    return h;
}

// Unloading the framework's plug-ins must not unmap the code running here.
void dropEveryUse()
{
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&dropEveryUse), &self) != 0) {
        dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
    while (stsm_terminate() == STS_EIN_USE) {
    }
}

int openServer(sts_handle_t, const char*, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    if (env("KELD_FAULT_DROP_USES") == "1") dropEveryUse();
    if (int code = std::atoi(env("KELD_FAULT_OPEN_SERVER").c_str())) return code;
    const std::string cert = env("KELD_FAULT_CERT");
    if (!cert.empty() && (cred == nullptr || cred->cr_len != cert.size() ||
                          std::memcmp(cred->cr_cert, cert.data(), cert.size()) != 0)) {
        return 2060077;
    }
    *out = &make()->hdr;
    return 0;
}

int openLsuList(sts_handle_t, const sts_lsu_def_t*, sts_handle_t* out)
{
    Handle* h = make();
    std::stringstream ss(env("KELD_FAULT_LSUS"));
    for (std::string name; std::getline(ss, name, ',');) {
        if (!name.empty()) h->names.push_back(name);
    }
    *out = &h->hdr;
    return 0;
}

int listLsu(sts_handle_t list, sts_lsu_name_t* out)
{
    Handle* h = reinterpret_cast<Handle*>(list);
    const std::string fail = env("KELD_FAULT_LIST_FAIL");
    const size_t colon = fail.find(':');
    if (colon != std::string::npos && h->next >= static_cast<size_t>(std::atoi(fail.c_str()))) {
        return std::atoi(fail.c_str() + colon + 1);
    }
    if (h->next >= h->names.size()) return STS_ENO_MORE;
    std::strncpy(out->sln_name, h->names[h->next++].c_str(), sizeof(out->sln_name) - 1);
    return 0;
}

int deleteLsu(const sts_lsu_t* lsu)
{
    const std::string name = lsu->stl_lsu_name.sln_name;
    if (env("KELD_FAULT_BUSY") == name) return STS_EBUSY_AGAIN;
    if (int code = codeFor("KELD_FAULT_DELETE_FAIL", name)) return code;
    const std::string log = env("KELD_FAULT_LOG");
    if (!log.empty()) std::ofstream(log, std::ios::app) << name << "\n";
    return 0;
}

int openTargetServer(sts_handle_t, const char*, const sts_cred_t*, const char*, sts_handle_t* out)
{
    *out = &make()->hdr;
    return 0;
}

int createServer(sts_handle_t, const char*, const sts_cred_t*, const char*, const sts_host_t*, int,
                 sts_handle_t*)
{
    return 2060099;
}

int closeHandle(sts_handle_t h, sts_uint32_t)
{
    delete reinterpret_cast<Handle*>(h);
    return 0;
}

} // namespace

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    plugin->name = "fault";
    plugin->prefix = "ShMem:";
    plugin->api.stsa_open_server = openServer;
    plugin->api.stsa_open_lsu_list = openLsuList;
    plugin->api.stsa_list_lsu = listLsu;
    plugin->api.stsa_delete_lsu = deleteLsu;
    plugin->api.stsa_open_target_server = openTargetServer;
    plugin->api.stsa_create_server = createServer;
    plugin->api.stsa_close_handle = closeHandle;
    return 0;
}
