// The disk storage plug-in: servers "Disk:<host>" kept as directories on a
// local file system (layout in DiskStore.h).  This unit holds what the other
// units share, the server slots, the close of every kind of handle and the
// registration; the rest of the table is filled by the units named in
// DiskPluginParts.h.
#include "DiskPluginParts.h"
#include "DiskStore.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

using namespace diskstore;

namespace diskplugin {

int ioError(sts_handle_t session, const char* what, int err)
{
    if (err == ENOSPC || err == EDQUOT) return DISK_ENOSPC;
    char line[256];
    std::snprintf(line, sizeof(line), "disk plug-in: %s failed: %s", what, std::strerror(err));
    stsp_log(session, STS_ESERROR, line);
    return DISK_EIO;
}

std::string lsuDirectory(const Server* s, const char* lsu)
{
    return validComponent(lsu != nullptr ? lsu : "", 1024) ? s->dir + "/lsus/" + lsu : "";
}

const Server* serverOf(const sts_lsu_t* lsu)
{
    return lsu != nullptr ? as<Server>(lsu->stl_server_handle, SERVER) : nullptr;
}

std::string existingLsuDir(const Server* s, const char* lsu)
{
    const std::string dir = lsuDirectory(s, lsu);
    return !dir.empty() && exists(dir) ? dir : "";
}

std::string existingLsuDir(const sts_lsu_t* lsu)
{
    const Server* s = serverOf(lsu);
    return s != nullptr ? existingLsuDir(s, lsu->stl_lsu_name.sln_name) : "";
}

int lsuDirOf(const sts_lsu_t* lsu, std::string& dir)
{
    const Server* s = serverOf(lsu);
    dir = s != nullptr ? lsuDirectory(s, lsu->stl_lsu_name.sln_name) : "";
    if (dir.empty()) return DISK_EINVAL;
    return exists(dir) ? 0 : DISK_ENOENT;
}

namespace {

// ---- servers ----

std::string certificateOf(const sts_cred_t* cred)
{
    return cred != nullptr ? std::string(cred->cr_cert, std::min<size_t>(cred->cr_len, sizeof(cred->cr_cert))) : "";
}

int openServerAt(sts_handle_t session, const char* name, const sts_cred_t* cred, sts_handle_t* out)
{
    if (name == nullptr || out == nullptr) return DISK_EINVAL;
    ensureDefaultServer();
    const std::string dir = serverDirectory(name);
    std::string config;
    if (dir.empty() || !readFile(dir + "/server.conf", config)) return DISK_ENOENT;
    const std::string stored = configValue(config, "credential");
    if (!stored.empty() && (cred == nullptr || !credentialMatches(stored, certificateOf(cred)))) return DISK_ECRED;
    Server* s = make<Server>(SERVER);
    if (s == nullptr) return DISK_EIO;
    s->session = session;
    s->name = name;
    s->dir = dir;
    *out = &s->hdr;
    return 0;
}

int openServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    return openServerAt(session, name, cred, out);
}

int openTargetServer(sts_handle_t server, const char* name, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    const Server* s = as<Server>(server, SERVER);
    return s != nullptr ? openServerAt(s->session, name, cred, out) : STSP_EBADHANDLE;
}

int createServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char*,
                 const sts_host_t* hosts, int nhost, sts_handle_t* out)
{
    const std::string dir = name != nullptr ? serverDirectory(name) : "";
    if (dir.empty() || out == nullptr || nhost < 0) return DISK_EINVAL;
    ensureDefaultServer();
    if (exists(dir)) return DISK_EEXIST;
    std::string config = std::string("# server ") + name + "\n";
    for (int i = 0; i < nhost; ++i) config += std::string("host = ") + hosts[i].sh_name + "\n";
    const std::string cert = certificateOf(cred);
    if (!cert.empty()) config += "credential = " + hashCredential(cert) + "\n";
    if (!makeDirectories(dir + "/lsus") || !writeFileDurably(dir + "/server.conf", config)) {
        return ioError(session, "create server", errno);
    }
    return openServerAt(session, name, cred, out);
}

// The configured connection limit; a file edited by hand may hold anything,
// and a bad number gives the default.
sts_uint32_t maxConnections(const std::string& text)
{
    char* end = nullptr;
    const unsigned long n = std::strtoul(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && n >= 1 && n <= 65535 ? static_cast<sts_uint32_t>(n) : 64;
}

// What a server reports: its configured stream format and connection limit,
// else "raw" and 64.
void describeServer(const std::string& name, const std::string& dir, sts_server_info_t* info)
{
    std::string config;
    readFile(dir + "/server.conf", config);
    const std::string format = configValue(config, "stream_format");
    const std::string connections = configValue(config, "max_connections");
    std::memset(info, 0, sizeof(*info));
    copyOut(info->srv_server, name, sizeof(info->srv_server));
    copyOut(info->srv_sth[0], format.empty() ? "raw" : format, sizeof(info->srv_sth[0]));
    copyOut(info->srv_interface[0], "disk", sizeof(info->srv_interface[0]));
    info->srv_maxconnect = maxConnections(connections);
    info->srv_cred[0] = STS_CRED_NONE;
    info->srv_cred[1] = STS_CRED_MD5;
}

int getServerPropByName(const sts_session_def_t*, const char* name, sts_server_info_t* info)
{
    if (name == nullptr || info == nullptr) return DISK_EINVAL;
    ensureDefaultServer();
    const std::string dir = serverDirectory(name);
    if (dir.empty() || !exists(dir + "/server.conf")) return DISK_ENOENT;
    describeServer(name, dir, info);
    return 0;
}

int getServerProp(sts_handle_t server, sts_server_info_t* info)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || info == nullptr) return STSP_EBADHANDLE;
    describeServer(s->name, s->dir, info);
    return 0;
}

int shutdownServer(const sts_session_def_t*, const char* name, const sts_cred_t*, int)
{
    const std::string dir = name != nullptr ? serverDirectory(name) : "";
    return !dir.empty() && exists(dir) ? 0 : DISK_ENOENT;
}

// The configuration text; a short buffer gets the length it needs.
int getServerConfig(sts_handle_t server, char* buf, sts_uint32_t size, sts_uint32_t* needed)
{
    const Server* s = as<Server>(server, SERVER);
    std::string config;
    if (s == nullptr || !readFile(s->dir + "/server.conf", config)) return STSP_EBADHANDLE;
    if (needed != nullptr) *needed = static_cast<sts_uint32_t>(config.size() + 1);
    if (buf == nullptr || size < config.size() + 1) return STS_EBUFFER_SMALL;
    std::memcpy(buf, config.c_str(), config.size() + 1);
    return 0;
}

// Replaces the configuration text after checking all of it; a refused text
// changes nothing and leaves its reason in msg.  The credential survives
// every edit (see configToStore).
int setServerConfig(sts_handle_t server, const char* text, char* msg, sts_uint32_t msglen)
{
    static std::mutex editing;   // one edit at a time reads and replaces the file
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr) return STSP_EBADHANDLE;
    auto refuse = [&](const std::string& why, int number) {
        if (msg != nullptr && msglen > 0) copyOut(msg, why, msglen);
        return number;
    };
    if (text == nullptr) return refuse("no configuration text", DISK_EINVAL);
    std::lock_guard<std::mutex> hold(editing);
    std::string current;
    if (!readFile(s->dir + "/server.conf", current)) return refuse("the server is gone", DISK_ENOENT);
    const std::string stored = configValue(current, "credential");
    const std::string problem = configProblem(text, stored);
    if (!problem.empty()) return refuse(problem, DISK_EINVAL);
    if (!writeFileDurably(s->dir + "/server.conf", configToStore(text, stored))) {
        const int err = errno;
        return refuse(std::string("writing the configuration failed: ") + std::strerror(err),
                      ioError(s->session, "set server configuration", err));
    }
    if (msg != nullptr && msglen > 0) msg[0] = '\0';
    return 0;
}

int getHost(sts_handle_t server, sts_host_name_v9_t* hosts, int max, int start, int* ret, int* total)
{
    if (as<Server>(server, SERVER) == nullptr || ret == nullptr || total == nullptr) return STSP_EBADHANDLE;
    *total = 1;
    *ret = 0;
    if (start == 0 && max > 0 && hosts != nullptr) {
        copyOut(hosts[0], hostName(), sizeof(hosts[0]));
        *ret = 1;
    }
    return 0;
}

// ---- what the plug-in says of itself ----

// The servers configured under an install root.  A root that holds none
// gets this host's default server at the plug-in's first use there, so
// that one is listed before it exists.
void listServers(const char* installRoot, stsp_server_cb_t each, void* ctx)
{
    if (installRoot == nullptr || each == nullptr) return;
    const std::string root = storageRootUnder(installRoot);
    std::vector<std::string> hosts = listDirectory(root);
    if (hosts.empty()) {
        each((SERVER_PREFIX + hostName()).c_str(), ctx);
        return;
    }
    std::sort(hosts.begin(), hosts.end());
    for (const std::string& host : hosts) {
        if (exists(root + "/" + host + "/server.conf")) each((SERVER_PREFIX + host).c_str(), ctx);
    }
}

const char* errorText(int number)
{
    switch (number) {
    case DISK_ENOENT: return "no such server, LSU, image or snapshot";
    case DISK_EEXIST: return "it exists already";
    case DISK_EBUSY: return "in use";
    case DISK_ENOSPC: return "the file system is full";
    case DISK_ECRED: return "wrong or missing credential";
    case DISK_EINVAL: return "bad argument (name, offset or mode)";
    case DISK_EIO: return "input/output error";
    case DISK_EREADONLY: return "the image is open for reading";
    default: return nullptr;
    }
}

// Users of the framework tell the image states apart by its numbers.
static_assert(DISK_IMAGE_COMPLETE == STSP_IMAGE_COMPLETE && DISK_IMAGE_INCOMPLETE == STSP_IMAGE_INCOMPLETE,
              "the disk plug-in's image states are the framework's");

} // namespace

} // namespace diskplugin

using namespace diskplugin;

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    plugin->name = "disk";
    plugin->prefix = SERVER_PREFIX;
    sts_api_t& a = plugin->api;
    a.stsa_open_server = openServer;
    a.stsa_open_target_server = openTargetServer;
    a.stsa_create_server = createServer;
    a.stsa_get_server_prop_byname = getServerPropByName;
    a.stsa_get_server_prop = getServerProp;
    a.stsa_shutdown_server = shutdownServer;
    a.stsa_get_server_config = getServerConfig;
    a.stsa_set_server_config = setServerConfig;
    a.stsa_get_host = getHost;
    a.stsa_close_handle = closeHandle<Server, Lsu, Image, closeImage>;
    plugin->list_servers = listServers;
    plugin->error_text = errorText;
    registerLsuSlots(a);
    registerImageSlots(a);
    registerControlSlots(a);
    registerSnapshotSlots(a);
    return 0;
}
