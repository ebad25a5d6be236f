// A stand-in storage server for tests, which injects failures.  Built apart
// from the real plug-ins (into <build>/lib/stsfault), so a test points a
// temporary install root's lib/stsplugins at it alone.
//
// Every call reads its controls afresh, first from the file named by
// KELD_FAULT_CONTROL (lines KEY=VALUE; a test may rewrite it while a service
// runs; a key present there wins even with the value 0, which switches a
// failure off), then from the environment:
//   KELD_FAULT_PREFIX="ShMem:"        server names claimed (read once, at
//                                     loading; "ShMem:" when unset)
//   KELD_FAULT_LSUS="a,b,c"           the LSUs listed, in this order
//   KELD_FAULT_BUSY="b,d"             deleting these LSUs answers 2060005
//   KELD_FAULT_DELETE_FAIL="c:NUM,.." deleting LSU c answers NUM
//   KELD_FAULT_LIST_FAIL="N:NUM"      listing answers NUM once N entries
//                                     were given (N=0: at once)
//   KELD_FAULT_OPEN_SERVER="NUM"      opening a server answers NUM
//   KELD_FAULT_OPEN_LSU_LIST="NUM"    opening the LSU list answers NUM
//   KELD_FAULT_CLOSE="NUM"            closing a server, list or image
//                                     answers NUM (the handle is freed all
//                                     the same)
//   KELD_FAULT_DROP_USES=1            opening a server first gives back every
//                                     use of the storage framework, so that
//                                     the caller's own terminate fails later
//                                     (the plug-in pins itself in memory so
//                                     that the unloading cannot unmap it)
//   KELD_FAULT_CERT="text"            opening a server needs this clear
//                                     certificate, else answers 2060077
//   KELD_FAULT_CREATE_SERVER="NUM"    creating a server answers NUM
//                                     (2060099 when unset; never succeeds)
//   KELD_FAULT_IMAGE_DELAY_MS=N       opening or creating an image takes
//                                     N milliseconds
//   KELD_FAULT_COPY_DELAY_MS=N        copying an extent takes N milliseconds
//   KELD_FAULT_TRANSFER="NUM:COUNT"   reads, writes and copies answer NUM
//                                     with COUNT bytes done (unset: all of
//                                     them and 0; a read fills what it did
//                                     with the byte 'r')
//   KELD_FAULT_LOG=path               each deleted LSU name is appended
//   KELD_FAULT_CALLS=path             each call is appended as one line:
//                                     "open_server NAME", "open_target_server
//                                     NAME", "create_server NAME",
//                                     "open_lsu_list", "list_lsu",
//                                     "delete_lsu NAME", "close server",
//                                     "close list", "open_image NAME MODE",
//                                     "create_image NAME", "read LEN OFF",
//                                     "write LEN OFF", "copy LEN", "flush",
//                                     "close image FLAG"
// Deleting an LSU that is neither busy nor failing succeeds, listed or not.
// Images of any LSU open and create, whatever their name; they hold no data.
// Target servers open like servers, without the certificate check.
#include "sts_plugin.h"

#include <chrono>
#include <cstdlib>
#include <dlfcn.h>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

stsp_plugin_t* g_self = nullptr;
std::string g_prefix;

enum Kind { SERVER = 1, LSU_LIST = 2, IMAGE = 3 };

struct ServerHandle {
    sts_handle_s hdr;
};

struct ImageHandle {
    sts_handle_s hdr;
};

struct ListHandle {
    sts_handle_s hdr;
    std::vector<std::string> names;
    size_t next = 0;
};

std::string fromFile(const char* name)
{
    const char* path = std::getenv("KELD_FAULT_CONTROL");
    if (path == nullptr) return std::string();
    std::ifstream in(path);
    const std::string key = std::string(name) + "=";
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) return line.substr(key.size());
    }
    return std::string();
}

std::string control(const char* name)
{
    const std::string v = fromFile(name);
    if (!v.empty()) return v;
    const char* e = std::getenv(name);
    return e != nullptr ? e : "";
}

int number(const char* name)
{
    return std::atoi(control(name).c_str());
}

std::vector<std::string> items(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    for (std::string item; std::getline(ss, item, ',');) {
        if (!item.empty()) out.push_back(item);
    }
    return out;
}

// "key:NUM,key2:NUM2" -> NUM of the matching key, else 0.
int codeFor(const char* name, const std::string& key)
{
    for (const std::string& item : items(control(name))) {
        const size_t colon = item.find(':');
        if (colon != std::string::npos && item.compare(0, colon, key) == 0) {
            return std::atoi(item.c_str() + colon + 1);
        }
    }
    return 0;
}

void append(const char* name, const std::string& line)
{
    const std::string path = control(name);
    if (!path.empty()) std::ofstream(path, std::ios::app) << line << "\n";
}

void called(const std::string& what)
{
    append("KELD_FAULT_CALLS", what);
}

bool certAccepted(const sts_cred_t* cred)
{
    const std::string cert = control("KELD_FAULT_CERT");
    return cert.empty() || (cred != nullptr && cred->cr_len == cert.size() &&
                            std::memcmp(cred->cr_cert, cert.data(), cert.size()) == 0);
}

int newServer(sts_handle_t* out)
{
    if (out == nullptr) return STS_EINVAL_ARG;
    ServerHandle* h = stsp_new_handle<ServerHandle>(g_self, SERVER);
    if (h == nullptr) return STSP_ENOMEM;
    *out = &h->hdr;
    return 0;
}

void dropEveryUse()
{
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&dropEveryUse), &self) != 0) {
        dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
    while (stsm_terminate() == STS_EIN_USE) {
    }
}

int openServer(sts_handle_t, const char* name, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    called(std::string("open_server ") + name);
    if (number("KELD_FAULT_DROP_USES") == 1) dropEveryUse();
    if (int code = number("KELD_FAULT_OPEN_SERVER")) return code;
    if (!certAccepted(cred)) return 2060077;
    return newServer(out);
}

int openTargetServer(sts_handle_t, const char* name, const sts_cred_t*, const char*, sts_handle_t* out)
{
    called(std::string("open_target_server ") + name);
    return newServer(out);
}

int createServer(sts_handle_t, const char* name, const sts_cred_t*, const char*, const sts_host_t*, int,
                 sts_handle_t*)
{
    called(std::string("create_server ") + name);
    const int code = number("KELD_FAULT_CREATE_SERVER");
    return code != 0 ? code : 2060099;
}

int openLsuList(sts_handle_t server, const sts_lsu_def_t*, sts_handle_t* out)
{
    called("open_lsu_list");
    if (stsp_handle_as<ServerHandle>(server, g_self, SERVER) == nullptr || out == nullptr) return STSP_EBADHANDLE;
    if (int code = number("KELD_FAULT_OPEN_LSU_LIST")) return code;
    ListHandle* h = stsp_new_handle<ListHandle>(g_self, LSU_LIST);
    if (h == nullptr) return STSP_ENOMEM;
    h->names = items(control("KELD_FAULT_LSUS"));
    *out = &h->hdr;
    return 0;
}

int listLsu(sts_handle_t list, sts_lsu_name_t* out)
{
    called("list_lsu");
    ListHandle* h = stsp_handle_as<ListHandle>(list, g_self, LSU_LIST);
    if (h == nullptr || out == nullptr) return STSP_EBADHANDLE;
    const std::string fail = control("KELD_FAULT_LIST_FAIL");
    const size_t colon = fail.find(':');
    if (colon != std::string::npos && h->next >= static_cast<size_t>(std::atoi(fail.c_str()))) {
        return std::atoi(fail.c_str() + colon + 1);
    }
    if (h->next >= h->names.size()) return STS_ENO_MORE;
    std::memset(out->sln_name, 0, sizeof(out->sln_name));
    std::strncpy(out->sln_name, h->names[h->next++].c_str(), sizeof(out->sln_name) - 1);
    return 0;
}

int deleteLsu(const sts_lsu_t* lsu)
{
    if (lsu == nullptr || stsp_handle_as<ServerHandle>(lsu->stl_server_handle, g_self, SERVER) == nullptr) {
        return STSP_EBADHANDLE;
    }
    const std::string name = lsu->stl_lsu_name.sln_name;
    called("delete_lsu " + name);
    for (const std::string& busy : items(control("KELD_FAULT_BUSY"))) {
        if (busy == name) return STS_EBUSY_AGAIN;
    }
    if (int code = codeFor("KELD_FAULT_DELETE_FAIL", name)) return code;
    append("KELD_FAULT_LOG", name);
    return 0;
}

void pause(const char* name)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(number(name)));
}

int openOrCreateImage(const sts_lsu_t* lsu, const std::string& line, sts_handle_t* out)
{
    called(line);
    pause("KELD_FAULT_IMAGE_DELAY_MS");
    if (lsu == nullptr || stsp_handle_as<ServerHandle>(lsu->stl_server_handle, g_self, SERVER) == nullptr ||
        out == nullptr) {
        return STSP_EBADHANDLE;
    }
    ImageHandle* h = stsp_new_handle<ImageHandle>(g_self, IMAGE);
    if (h == nullptr) return STSP_ENOMEM;
    *out = &h->hdr;
    return 0;
}

int createImage(sts_lsu_t* lsu, const sts_image_def_t* def, int, sts_handle_t* out)
{
    return openOrCreateImage(lsu, std::string("create_image ") + (def != nullptr ? def->img_basename : ""), out);
}

int openImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int mode, sts_handle_t* out)
{
    return openOrCreateImage(
        lsu, std::string("open_image ") + (def != nullptr ? def->img_basename : "") + " " + std::to_string(mode), out);
}

// Every transfer: all of it, or the count and number KELD_FAULT_TRANSFER gives.
int transfer(sts_handle_t image, sts_uint64_t len, sts_uint64_t* done)
{
    if (stsp_handle_as<ImageHandle>(image, g_self, IMAGE) == nullptr || done == nullptr) return STSP_EBADHANDLE;
    const std::string fault = control("KELD_FAULT_TRANSFER");
    const size_t colon = fault.find(':');
    if (colon == std::string::npos) {
        *done = len;
        return 0;
    }
    *done = std::strtoull(fault.c_str() + colon + 1, nullptr, 10);
    return std::atoi(fault.c_str());
}

int readImage(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    called("read " + std::to_string(len) + " " + std::to_string(off));
    const int rc = transfer(h, len, done);
    if (buf != nullptr && done != nullptr) std::memset(buf, 'r', *done < len ? *done : len);
    return rc;
}

int writeImage(sts_handle_t h, sts_stat_t*, void*, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    called("write " + std::to_string(len) + " " + std::to_string(off));
    return transfer(h, len, done);
}

int copyExtent(sts_handle_t to, sts_uint64_t, sts_handle_t from, sts_uint64_t, sts_uint64_t len, int,
               sts_uint64_t* done)
{
    called("copy " + std::to_string(len));
    pause("KELD_FAULT_COPY_DELAY_MS");
    if (stsp_handle_as<ImageHandle>(from, g_self, IMAGE) == nullptr) return STSP_EBADHANDLE;
    return transfer(to, len, done);
}

int flush(sts_handle_t h)
{
    called("flush");
    return stsp_handle_as<ImageHandle>(h, g_self, IMAGE) != nullptr ? 0 : STSP_EBADHANDLE;
}

int closeHandle(sts_handle_t h, sts_uint32_t flag)
{
    const int code = number("KELD_FAULT_CLOSE");
    if (ImageHandle* i = stsp_handle_as<ImageHandle>(h, g_self, IMAGE)) {
        called("close image " + std::to_string(flag));
        delete i;
        return code;
    }
    if (ServerHandle* s = stsp_handle_as<ServerHandle>(h, g_self, SERVER)) {
        called("close server");
        delete s;
        return code;
    }
    if (ListHandle* l = stsp_handle_as<ListHandle>(h, g_self, LSU_LIST)) {
        called("close list");
        delete l;
        return code;
    }
    return STSP_EBADHANDLE;
}

} // namespace

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    g_prefix = control("KELD_FAULT_PREFIX");
    if (g_prefix.empty()) g_prefix = "ShMem:";
    plugin->name = "fault";
    plugin->prefix = g_prefix.c_str();
    plugin->api.stsa_open_server = openServer;
    plugin->api.stsa_open_target_server = openTargetServer;
    plugin->api.stsa_create_server = createServer;
    plugin->api.stsa_open_lsu_list = openLsuList;
    plugin->api.stsa_list_lsu = listLsu;
    plugin->api.stsa_delete_lsu = deleteLsu;
    plugin->api.stsa_create_image = createImage;
    plugin->api.stsa_open_image = openImage;
    plugin->api.stsa_read_image = readImage;
    plugin->api.stsa_write_image = writeImage;
    plugin->api.stsa_copy_extent = copyExtent;
    plugin->api.stsa_flush = flush;
    plugin->api.stsa_close_handle = closeHandle;
    return 0;
}
