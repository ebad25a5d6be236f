// The RADOS storage plug-in: servers "Rados:NAME" whose storage is a pool
// of a Ceph cluster (layout in RadosStore.h).  This unit holds what the
// other units share, the server slots, the close of every kind of handle
// and the registration.
#include "RadosPluginParts.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

using namespace radosstore;

namespace radosplugin {

int failure(sts_handle_t session, const std::string& what, int radosResult)
{
    const int number = numberOf(radosResult);
    if (number == RADOS_EIO || number == RADOS_ECONNECT) {
        const std::string line = "rados plug-in: " + what + " failed: " + std::strerror(-radosResult);
        stsp_log(session, STS_ESERROR, line.c_str());
    }
    return number;
}

const Server* serverOf(const sts_lsu_t* lsu)
{
    return lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
}

int checkLsu(const sts_lsu_t* lsu)
{
    const Server* s = serverOf(lsu);
    if (s == nullptr) return lsu == nullptr ? RADOS_EINVAL : STSP_EBADHANDLE;
    if (!validName(lsu->stl_lsu_name.sln_name)) return RADOS_EINVAL;
    LsuRecord record;
    const int rc = readLsu(*s->cluster, s->config.name, lsu->stl_lsu_name.sln_name, record);
    return rc == 0 ? 0 : failure(s->session, "reading the LSU index", rc);
}

namespace {

// ---- servers ----

void logOn(sts_handle_t session, const sts_session_def_t* sd, const std::string& line)
{
    const std::string text = "rados plug-in: " + line;
    if (session != nullptr) stsp_log(session, STS_ESERROR, text.c_str());
    else if (sd != nullptr && sd->sd_log != nullptr) sd->sd_log(sd->sd_id, text.c_str(), STS_ESERROR);
}

// The configuration of a server name; a fault is logged.
int configOf(sts_handle_t session, const sts_session_def_t* sd, const char* serverName, ServerConfig& config)
{
    const std::string name = serverName != nullptr ? nameOf(serverName) : "";
    if (name.empty()) return RADOS_ENOENT;
    std::string error;
    const int rc = readServerConfig(installRoot(), name, config, error);
    if (rc != 0) logOn(session, sd, "server " + std::string(serverName) + ": " + error);
    return rc;
}

int openServerAt(sts_handle_t session, const char* name, sts_handle_t* out)
{
    if (name == nullptr || out == nullptr) return RADOS_EINVAL;
    ServerConfig config;
    int rc = configOf(session, nullptr, name, config);
    if (rc != 0) return rc;
    std::shared_ptr<Cluster> cluster;
    std::string error;
    rc = connect(config, cluster, error);
    if (rc != 0) {
        logOn(session, nullptr, error);
        return rc;
    }
    Server* s = make<Server>(SERVER);
    if (s == nullptr) return RADOS_EIO;
    s->session = session;
    s->serverName = name;
    s->config = config;
    s->cluster = cluster;
    *out = &s->hdr;
    return 0;
}

int openServer(sts_handle_t session, const char* name, const sts_cred_t*, const char*, sts_handle_t* out)
{
    return openServerAt(session, name, out);
}

int openTargetServer(sts_handle_t server, const char* name, const sts_cred_t*, const char*, sts_handle_t* out)
{
    const Server* s = as<Server>(server, SERVER);
    return s != nullptr ? openServerAt(s->session, name, out) : STSP_EBADHANDLE;
}

void describeServer(const std::string& name, sts_server_info_t* info)
{
    std::memset(info, 0, sizeof(*info));
    copyOut(info->srv_server, name, sizeof(info->srv_server));
    copyOut(info->srv_sth[0], "raw", sizeof(info->srv_sth[0]));
    copyOut(info->srv_interface[0], "rados", sizeof(info->srv_interface[0]));
    info->srv_maxconnect = 64;
    info->srv_cred[0] = STS_CRED_NONE;
}

int getServerPropByName(const sts_session_def_t* sd, const char* name, sts_server_info_t* info)
{
    if (name == nullptr || info == nullptr) return RADOS_EINVAL;
    ServerConfig config;
    const int rc = configOf(nullptr, sd, name, config);
    if (rc == 0) describeServer(name, info);
    return rc;
}

int getServerProp(sts_handle_t server, sts_server_info_t* info)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || info == nullptr) return STSP_EBADHANDLE;
    describeServer(s->serverName, info);
    return 0;
}

int shutdownServer(const sts_session_def_t* sd, const char* name, const sts_cred_t*, int)
{
    ServerConfig config;
    return configOf(nullptr, sd, name, config);
}

int getHost(sts_handle_t server, sts_host_name_v9_t* hosts, int max, int start, int* ret, int* total)
{
    if (as<Server>(server, SERVER) == nullptr || ret == nullptr || total == nullptr) return STSP_EBADHANDLE;
    *total = 1;
    *ret = 0;
    if (start == 0 && max > 0 && hosts != nullptr) {
        char host[256] = {0};
        gethostname(host, sizeof(host) - 1);
        copyOut(hosts[0], host, sizeof(hosts[0]));
        *ret = 1;
    }
    return 0;
}

// ---- what the plug-in says of itself ----

void listServersHook(const char* root, stsp_server_cb_t each, void* ctx)
{
    if (root == nullptr || each == nullptr) return;
    for (const std::string& name : listServers(root)) each(name.c_str(), ctx);
}

const char* errorText(int number)
{
    switch (number) {
    case RADOS_ENOENT: return "no such server, LSU, image or snapshot";
    case RADOS_EEXIST: return "it exists already";
    case RADOS_EBUSY: return "busy: in use (an LSU that holds images, or an image open for writing elsewhere)";
    case RADOS_ENOSPC: return "the cluster, the pool or its quota is full";
    case RADOS_ECONFIG: return "the server's configuration file is malformed";
    case RADOS_EINVAL: return "bad argument (name, offset or mode)";
    case RADOS_EIO: return "the cluster refused the operation";
    case RADOS_EREADONLY: return "the image is open for reading";
    case RADOS_ECONNECT: return "the cluster cannot be reached";
    case RADOS_ENOPOOL: return "the configured pool is not in the cluster";
    default: return nullptr;
    }
}

} // namespace

} // namespace radosplugin

using namespace radosplugin;

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    plugin->name = "rados";
    plugin->prefix = SERVER_PREFIX;
    sts_api_t& a = plugin->api;
    a.stsa_open_server = openServer;
    a.stsa_open_target_server = openTargetServer;
    a.stsa_get_server_prop_byname = getServerPropByName;
    a.stsa_get_server_prop = getServerProp;
    a.stsa_shutdown_server = shutdownServer;
    a.stsa_get_host = getHost;
    a.stsa_close_handle = closeHandle<Server, Lsu, Image, closeImage>;
    plugin->list_servers = listServersHook;
    plugin->error_text = errorText;
    registerLsuSlots(a);
    registerImageSlots(a);
    registerCopySlots(a);
    registerControlSlots(a);
    registerSnapshotSlots(a);
    return 0;
}
