// The "ShMem:" storage server of this host: its LSUs are shared-memory
// objects (see ShmemLsu.h).  It serves what removing leftover LSUs needs:
// open and close of the server, its properties, the LSU list, LSU
// properties and deletion.
#include "PluginHandles.h"
#include "ShmemLsu.h"
#include "sts_plugin.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace pluginsupport;

struct ServerHandle {
    sts_handle_s hdr;
    std::string name;
};

struct ListHandle {
    sts_handle_s hdr;
    std::vector<std::string> names;
    size_t next = 0;
};

std::string serverName()
{
    char host[512] = {0};
    gethostname(host, sizeof(host) - 1);
    return std::string("ShMem:") + host;
}

int openServer(sts_handle_t, const char* name, const sts_cred_t*, const char*, sts_handle_t* out)
{
    if (name == nullptr || out == nullptr) return STS_EINVAL_ARG;
    if (serverName() != name) return STSP_ENOSERVER;
    ServerHandle* h = make<ServerHandle>(SERVER);
    if (h == nullptr) return STSP_ENOMEM;
    h->name = name;
    *out = &h->hdr;
    return 0;
}

// An all-zero definition selects every LSU; a name selects that one only.
int openLsuList(sts_handle_t server, const sts_lsu_def_t* def, sts_handle_t* out)
{
    if (as<ServerHandle>(server, SERVER) == nullptr || out == nullptr) return STSP_EBADHANDLE;
    ListHandle* h = make<ListHandle>(LSU_LIST);
    if (h == nullptr) return STSP_ENOMEM;
    for (const std::string& name : shmemlsu::listLsus()) {
        if (def == nullptr || def->sld_name.sln_name[0] == '\0' || name == def->sld_name.sln_name) {
            h->names.push_back(name);
        }
    }
    *out = &h->hdr;
    return 0;
}

int listLsu(sts_handle_t list, sts_lsu_name_t* out)
{
    ListHandle* h = as<ListHandle>(list, LSU_LIST);
    if (h == nullptr || out == nullptr) return STSP_EBADHANDLE;
    if (h->next >= h->names.size()) return STS_ENO_MORE;
    copyOut(out->sln_name, h->names[h->next++], sizeof(out->sln_name));
    return 0;
}

// An LSU name is one path component: no name may reach outside the
// server's own objects.
bool validLsu(const sts_lsu_t* lsu)
{
    return lsu->stl_lsu_name.sln_name[0] != '\0' && std::strchr(lsu->stl_lsu_name.sln_name, '/') == nullptr;
}

// A holder's lock makes the LSU busy; a missing one is "not found".
int deleteLsu(const sts_lsu_t* lsu)
{
    if (lsu == nullptr) return STS_EINVAL_ARG;
    if (as<ServerHandle>(lsu->stl_server_handle, SERVER) == nullptr) return STSP_EBADHANDLE;
    if (!validLsu(lsu)) return STS_EINVAL_ARG;
    switch (shmemlsu::removeLsu(lsu->stl_lsu_name.sln_name)) {
    case 0: return 0;
    case ENOENT: return STS_ENO_MORE;
    case EBUSY: return STS_EBUSY_AGAIN;
    default: return STSP_ESYSTEM;
    }
}

int getLsuProp(const sts_lsu_t* lsu, sts_lsu_info_t* info)
{
    if (lsu == nullptr || info == nullptr) return STS_EINVAL_ARG;
    const ServerHandle* server = as<ServerHandle>(lsu->stl_server_handle, SERVER);
    if (server == nullptr) return STSP_EBADHANDLE;
    const long size = validLsu(lsu) ? shmemlsu::lsuSize(lsu->stl_lsu_name.sln_name) : -1;
    if (size < 0) return STS_ENO_MORE;
    std::memset(info, 0, sizeof(*info));
    copyOut(info->lsu_server, server->name, sizeof(info->lsu_server));
    copyOut(info->lsu_def.sld_name.sln_name, lsu->stl_lsu_name.sln_name,
             sizeof(info->lsu_def.sld_name.sln_name));
    info->lsu_def.sld_alloc = STS_LSU_AT_STATIC;
    info->lsu_def.sld_storage = STS_LSU_ST_BLOCK;
    info->lsu_capacity = info->lsu_capacity_phys = static_cast<sts_uint64_t>(size);
    return 0;
}

// What the server reports of itself: its name, block storage, no limits.
void describeServer(const std::string& name, sts_server_info_t* info)
{
    std::memset(info, 0, sizeof(*info));
    copyOut(info->srv_server, name, sizeof(info->srv_server));
    copyOut(info->srv_interface[0], "shm", sizeof(info->srv_interface[0]));
    info->srv_cred[0] = STS_CRED_NONE;
}

int getServerPropByName(const sts_session_def_t*, const char* name, sts_server_info_t* info)
{
    if (name == nullptr || info == nullptr) return STS_EINVAL_ARG;
    if (serverName() != name) return STSP_ENOSERVER;
    describeServer(name, info);
    return 0;
}

int getServerProp(sts_handle_t server, sts_server_info_t* info)
{
    const ServerHandle* h = as<ServerHandle>(server, SERVER);
    if (h == nullptr || info == nullptr) return STSP_EBADHANDLE;
    describeServer(h->name, info);
    return 0;
}

int closeHandle(sts_handle_t h, sts_uint32_t)
{
    if (ServerHandle* s = as<ServerHandle>(h, SERVER)) {
        delete s;
        return 0;
    }
    if (ListHandle* l = as<ListHandle>(h, LSU_LIST)) {
        delete l;
        return 0;
    }
    return STSP_EBADHANDLE;
}

// Shared memory is the host's, whatever the install root: its one server.
void listServers(const char*, stsp_server_cb_t each, void* ctx)
{
    if (each != nullptr) each(serverName().c_str(), ctx);
}

} // namespace

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    plugin->name = "shmem";
    plugin->prefix = "ShMem:";
    plugin->api.stsa_open_server = openServer;
    plugin->api.stsa_open_lsu_list = openLsuList;
    plugin->api.stsa_list_lsu = listLsu;
    plugin->api.stsa_delete_lsu = deleteLsu;
    plugin->api.stsa_get_lsu_prop_byname = getLsuProp;
    plugin->api.stsa_get_server_prop_byname = getServerPropByName;
    plugin->api.stsa_get_server_prop = getServerProp;
    plugin->api.stsa_close_handle = closeHandle;
    plugin->list_servers = listServers;
    // error_text stays null: every number answered here is the service's
    // or the framework's.
    return 0;
}
