// Our storage framework: loads the plug-ins of <dir>/stsplugins and hands
// out one table whose slots route each call to the plug-in that owns the
// server name or the handle.  Counted: the plug-ins stay loaded while any
// user holds the table.
#include "sts_plugin.h"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

struct LoadedPlugin {
    void* dl = nullptr;
    stsp_plugin_t plugin{};
};

std::mutex g_lock;
int g_users = 0;
std::vector<LoadedPlugin*> g_plugins;
sts_api_t g_table;

const stsp_plugin_t* ownerOf(sts_handle_t h)
{
    if (h == nullptr || h->magic != STSP_HANDLE_MAGIC) return nullptr;
    return h->owner;
}

const stsp_plugin_t* byName(const char* name)
{
    if (name == nullptr) return nullptr;
    for (LoadedPlugin* p : g_plugins) {
        const char* prefix = p->plugin.prefix;
        if (prefix != nullptr && std::strncmp(name, prefix, std::strlen(prefix)) == 0) {
            return &p->plugin;
        }
    }
    return nullptr;
}

// The plug-in that serves proxied sessions: the first in name order that
// claims them.
const stsp_plugin_t* proxiedPlugin()
{
    for (LoadedPlugin* p : g_plugins) {
        if ((p->plugin.flags & STSP_CLAIMS_PROXIED) != 0) return &p->plugin;
    }
    return nullptr;
}

bool proxied(const sts_session_def_t* sd)
{
    return sd != nullptr && sd->sd_proxy[0] != '\0';
}

// How a slot finds its plug-in from its arguments (of), and what it
// answers when there is none (missing).
struct ByHandle {
    template <typename... A>
    static int missing(A...) { return STSP_EBADHANDLE; }
};
struct FirstHandle : ByHandle {
    template <typename... R>
    static const stsp_plugin_t* of(sts_handle_t h, R...) { return ownerOf(h); }
};
struct FirstLsu : ByHandle {
    template <typename L, typename... R>
    static const stsp_plugin_t* of(L* lsu, R...) { return lsu ? ownerOf(lsu->stl_server_handle) : nullptr; }
};
struct SecondLsu : ByHandle {
    template <typename S, typename L, typename... R>
    static const stsp_plugin_t* of(S, L* lsu, R...) { return lsu ? ownerOf(lsu->stl_server_handle) : nullptr; }
};
// A proxied session goes to the proxy plug-in whatever the server's name;
// the session comes as a handle (open, create) or as a definition.
struct SessionOrName {
    template <typename... R>
    static const stsp_plugin_t* of(sts_handle_t session, const char* name, R...)
    {
        return proxied(stsp_session_def(session)) ? proxiedPlugin() : byName(name);
    }
    template <typename... R>
    static int missing(sts_handle_t session, R...)
    {
        return proxied(stsp_session_def(session)) ? STSP_ENOPROXY : STSP_ENOSERVER;
    }
};
struct DefinitionOrName {
    template <typename... R>
    static const stsp_plugin_t* of(const sts_session_def_t* sd, const char* name, R...)
    {
        return proxied(sd) ? proxiedPlugin() : byName(name);
    }
    template <typename... R>
    static int missing(const sts_session_def_t* sd, R...) { return proxied(sd) ? STSP_ENOPROXY : STSP_ENOSERVER; }
};
// A target server of a proxied server is opened where that server is.
struct ProxiedSourceOrName {
    template <typename... R>
    static const stsp_plugin_t* of(sts_handle_t server, const char* name, R...)
    {
        const stsp_plugin_t* owner = ownerOf(server);
        if (owner != nullptr && (owner->flags & STSP_CLAIMS_PROXIED) != 0) return owner;
        return byName(name);
    }
    template <typename... A>
    static int missing(A...) { return STSP_ENOSERVER; }
};

template <auto Slot, typename Policy, typename Fn> struct Router;
template <auto Slot, typename Policy, typename... A>
struct Router<Slot, Policy, int (*)(A...)> {
    static int call(A... a)
    {
        const stsp_plugin_t* p = Policy::of(a...);
        if (p == nullptr) return Policy::missing(a...);
        auto fn = p->api.*Slot;
        return fn != nullptr ? fn(a...) : STSP_ENOSLOT;
    }
};

// What a typed slot answers while no plug-in is loaded: each slot keeps its
// own type, so no call goes through a pointer of the wrong type.
template <auto Slot, typename Policy, typename Fn> struct NotLoaded;
template <auto Slot, typename Policy, typename... A>
struct NotLoaded<Slot, Policy, int (*)(A...)> {
    static int call(A...) { return STS_ENOT_INIT; }
};

template <template <auto, typename, typename> class Entry, auto Slot, typename Policy>
void route(sts_api_t& table)
{
    using Fn = std::remove_reference_t<decltype(table.*Slot)>;
    table.*Slot = &Entry<Slot, Policy, Fn>::call;
}

// Unused slots take no arguments; only they are filled generically.
int noSlot()
{
    return STSP_ENOSLOT;
}

int notLoaded()
{
    return STS_ENOT_INIT;
}

void fillAll(sts_api_t& t, sts_unused_slot_t fn)
{
    auto* raw = reinterpret_cast<sts_unused_slot_t*>(&t);
    for (size_t i = 0; i < sizeof(sts_api_t) / sizeof(sts_unused_slot_t); ++i) raw[i] = fn;
}

// Sessions still open when the last user terminates are freed then: they
// are the framework's own, and nothing can reach them afterwards.
std::mutex g_sessionsLock;
std::set<stsp_session_t*> g_sessions;

int openSession(const sts_session_def_t* sd, sts_handle_t* out)
{
    if (sd == nullptr || out == nullptr) return STS_EINVAL_ARG;
    stsp_session_t* s = new (std::nothrow) stsp_session_t();
    if (s == nullptr) return STSP_ENOMEM;
    s->hdr.magic = STSP_HANDLE_MAGIC;
    s->sd = *sd;
    if (sd->sd_id != nullptr) {
        std::strncpy(s->id, sd->sd_id, sizeof(s->id) - 1);
        s->sd.sd_id = s->id;
    }
    {
        std::lock_guard<std::mutex> hold(g_sessionsLock);
        g_sessions.insert(s);
    }
    *out = &s->hdr;
    return 0;
}

void freeSession(stsp_session_t* s)
{
    s->hdr.magic = 0;
    delete s;
}

// Sessions are the framework's; every other handle goes to its owner.
int closeHandle(sts_handle_t h, sts_uint32_t flags)
{
    if (h == nullptr || h->magic != STSP_HANDLE_MAGIC) return STSP_EBADHANDLE;
    if (h->owner == nullptr) {
        auto* s = reinterpret_cast<stsp_session_t*>(h);
        {
            std::lock_guard<std::mutex> hold(g_sessionsLock);
            if (g_sessions.erase(s) == 0) return STSP_EBADHANDLE;
        }
        freeSession(s);
        return 0;
    }
    auto fn = h->owner->api.stsa_close_handle;
    return fn != nullptr ? fn(h, flags) : STSP_ENOSLOT;
}

void freeOpenSessions()
{
    std::lock_guard<std::mutex> hold(g_sessionsLock);
    for (stsp_session_t* s : g_sessions) freeSession(s);
    g_sessions.clear();
}

// Every slot that routes to a plug-in, with how it finds the plug-in.
template <template <auto, typename, typename> class Entry>
void routeAll(sts_api_t& t)
{
    route<Entry, &sts_api_t::stsa_open_server, SessionOrName>(t);
    route<Entry, &sts_api_t::stsa_create_server, SessionOrName>(t);
    route<Entry, &sts_api_t::stsa_get_server_prop_byname, DefinitionOrName>(t);
    route<Entry, &sts_api_t::stsa_shutdown_server, DefinitionOrName>(t);
    route<Entry, &sts_api_t::stsa_open_target_server, ProxiedSourceOrName>(t);
    route<Entry, &sts_api_t::stsa_activate_lsu, SecondLsu>(t);

    route<Entry, &sts_api_t::stsa_claim_volume, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_add_pool_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_alloc_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_close_snap_change_list, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_copy_extent, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_dealloc_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_delete_files, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_extract_files, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_find_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_flush, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_host, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_image_group, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_image_prop, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_pool_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_server_config, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_server_prop, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_set_server_config, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_storel_prop, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_get_storel, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_include_in_image, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_ioctl, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_list_file, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_list_image, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_list_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_open_lsu_list, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_read_image_meta, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_read_image, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_remove_pool_lsu, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_write_image_meta, FirstHandle>(t);
    route<Entry, &sts_api_t::stsa_write_image, FirstHandle>(t);

    route<Entry, &sts_api_t::stsa_create_image, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_delete_image, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_delete_lsu, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_get_image_group_byname, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_get_image_prop_byname, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_get_lsu_prop_byname, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_get_snap_prop_byname, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_label_lsu, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_mount_lsu, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_open_dynamic_lsu_list, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_open_image_group_list, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_open_image_list, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_open_image, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_open_lsu, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_open_snap_change_list, FirstLsu>(t);
    route<Entry, &sts_api_t::stsa_unmount_lsu, FirstLsu>(t);
}

void buildTable()
{
    sts_api_t& t = g_table;
    // Every slot first answers "not implemented", then the routed ones.
    fillAll(t, noSlot);
    t.stsa_open_session = openSession;
    t.stsa_close_handle = closeHandle;
    routeAll<Router>(t);
}

// After the last terminate every slot answers "not initialised".
void clearTable()
{
    sts_api_t& t = g_table;
    fillAll(t, notLoaded);
    route<NotLoaded, &sts_api_t::stsa_open_session, FirstHandle>(t);
    route<NotLoaded, &sts_api_t::stsa_close_handle, FirstHandle>(t);
    routeAll<NotLoaded>(t);
}

void unloadAll()
{
    for (LoadedPlugin* p : g_plugins) {
        if (p->dl != nullptr) dlclose(p->dl);
        delete p;
    }
    g_plugins.clear();
}

// Loads every plug-in of the directory in name order, so that the winner of
// two overlapping prefixes does not depend on the file system; one that
// fails to load or declines is passed over.  The directory itself must be
// readable.
int loadAll(const std::string& pluginDir)
{
    DIR* d = opendir(pluginDir.c_str());
    if (d == nullptr) return STSP_ENOPLUGINDIR;
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0) names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        void* dl = dlopen((pluginDir + "/" + name).c_str(), RTLD_NOW | RTLD_LOCAL);
        if (dl == nullptr) continue;
        auto reg = reinterpret_cast<stsp_plugin_register_t>(dlsym(dl, "stsp_plugin_register"));
        LoadedPlugin* p = new LoadedPlugin;
        p->dl = dl;
        p->plugin.abi_version = STSP_ABI_VERSION;
        if (reg == nullptr || reg(&p->plugin) != 0 || p->plugin.abi_version != STSP_ABI_VERSION) {
            dlclose(dl);
            delete p;
            continue;
        }
        g_plugins.push_back(p);
    }
    return 0;
}

// The meanings of the framework's own numbers and of the service's that
// plug-ins answer with.
const char* knownText(int number)
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
    };
    const auto it = texts.find(number);
    return it != texts.end() ? it->second : nullptr;
}

// Each plug-in's servers, asked under the lock so that none is unloaded
// meanwhile; the user's callback runs later, free to call the framework.
std::vector<std::string> serversOfPlugins(const char* installRoot)
{
    std::vector<std::string> names;
    auto collect = [](const char* server, void* ctx) {
        if (server != nullptr) static_cast<std::vector<std::string>*>(ctx)->emplace_back(server);
    };
    for (LoadedPlugin* p : g_plugins) {
        if (p->plugin.list_servers != nullptr) p->plugin.list_servers(installRoot, collect, &names);
    }
    return names;
}

} // namespace

extern "C" int stsm_list_servers(const char* install_root, stsp_server_cb_t each, void* ctx)
{
    if (install_root == nullptr || each == nullptr) return STS_EINVAL_ARG;
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        if (g_users == 0) return STS_ENOT_INIT;
        names = serversOfPlugins(install_root);
    }
    for (const std::string& name : names) each(name.c_str(), ctx);
    return 0;
}

extern "C" const char* stsm_error_text(int number)
{
    if (const char* text = knownText(number)) return text;
    std::lock_guard<std::mutex> guard(g_lock);
    for (LoadedPlugin* p : g_plugins) {
        const char* text = p->plugin.error_text != nullptr ? p->plugin.error_text(number) : nullptr;
        if (text != nullptr) return text;
    }
    return nullptr;
}

extern "C" int stsm_init(sts_uint64_t version, const char* dir, sts_api_t** api)
{
    if (version != STS_VERSION) return STS_EBAD_VERSION;
    if (dir == nullptr || api == nullptr) return STS_EINVAL_ARG;
    std::lock_guard<std::mutex> guard(g_lock);
    if (g_users == 0) {
        const int nErr = loadAll(std::string(dir) + "/stsplugins");
        if (nErr != 0) return nErr;
        buildTable();
    }
    ++g_users;
    *api = &g_table;
    return 0;
}

extern "C" int stsm_terminate(void)
{
    std::lock_guard<std::mutex> guard(g_lock);
    if (g_users == 0) return STS_ENOT_INIT;
    if (--g_users > 0) return STS_EIN_USE;
    unloadAll();
    clearTable();
    freeOpenSessions();
    return 0;
}
