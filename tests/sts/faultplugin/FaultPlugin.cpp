// A stand-in storage server for tests, which injects failures; built apart
// from the real plug-ins (into <build>/lib/stsfault).  Every call reads its
// controls afresh, first from the file KELD_FAULT_CONTROL names (KEY=VALUE
// lines a test may rewrite while a service runs; a key there wins, even as
// 0, which switches a failure off), then from the environment:
//   KELD_FAULT_PREFIX="ShMem:"        server names claimed (read at loading)
//   KELD_FAULT_LSUS="a,b,c"           the LSUs listed, in this order
//   KELD_FAULT_BUSY="b,d"             deleting these LSUs answers STS_EBUSY_AGAIN
//   KELD_FAULT_DELETE_FAIL="c:NUM,.." deleting LSU c answers NUM
//   KELD_FAULT_LIST_FAIL="N:NUM"      listing answers NUM once N entries were given
//   KELD_FAULT_OPEN_SERVER="NUM"      opening a server answers NUM
//   KELD_FAULT_CERT="text"            opening a server (not a target) needs this
//                                     clear certificate, else answers FAULT_EREFUSED
//   KELD_FAULT_LOG_LINES=N            opening a server (not a target) first writes
//                                     "fault line 1" .. "fault line N" through the
//                                     session's log
//   KELD_FAULT_DROP_USES=1            opening a server first gives back every use of
//                                     the framework (the caller's terminate fails later)
//   KELD_FAULT_CLOSE="NUM"            closing any handle answers NUM (and frees it)
//   KELD_FAULT_IMAGE_DELAY_MS=N       opening or creating an image takes N ms
//   KELD_FAULT_COPY_DELAY_MS=N        copying an extent takes N ms
//   KELD_FAULT_TRANSFER="NUM:COUNT"   transfers answer NUM with COUNT bytes done
//                                     (unset: all and 0; reads fill with 'r')
//   KELD_FAULT_LOG=path               each deleted LSU name is appended
//   KELD_FAULT_CALLS=path             each call is appended as the line called() gets
//                                     (a write: "write LEN OFFSET FNV-1a-of-the-bytes")
// Creating a server answers FAULT_ECREATE; any other LSU deletes; images of any
// name open and create and hold no data.
#include "FaultNumbers.h"
#include "sts_plugin.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

stsp_plugin_t* g_self = nullptr;
std::string g_prefix;

enum Kind { SERVER = 1, LSU_LIST = 2, IMAGE = 3 };

// One shape for every kind; only lists use the names.
struct Handle {
    sts_handle_s hdr;
    std::vector<std::string> names;
    size_t next = 0;
};

Handle* as(sts_handle_t h, Kind kind)
{
    return stsp_handle_as<Handle>(h, g_self, kind);
}

std::string control(const char* name)
{
    if (const char* path = std::getenv("KELD_FAULT_CONTROL")) {
        std::ifstream in(path);
        const std::string key = std::string(name) + "=";
        for (std::string line; std::getline(in, line);) {
            if (line.compare(0, key.size(), key) == 0 && line.size() > key.size()) return line.substr(key.size());
        }
    }
    const char* e = std::getenv(name);
    return e != nullptr ? e : "";
}

int number(const char* name)
{
    return std::atoi(control(name).c_str());
}

std::vector<std::string> items(const char* name)
{
    std::vector<std::string> out;
    std::stringstream ss(control(name));
    for (std::string item; std::getline(ss, item, ',');) {
        if (!item.empty()) out.push_back(item);
    }
    return out;
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

int newHandle(Kind kind, sts_handle_t* out)
{
    if (out == nullptr) return STS_EINVAL_ARG;
    Handle* h = stsp_new_handle<Handle>(g_self, kind);
    if (h == nullptr) return STSP_ENOMEM;
    if (kind == LSU_LIST) h->names = items("KELD_FAULT_LSUS");
    *out = &h->hdr;
    return 0;
}

// Gives back every use of the framework; the plug-in pins itself in memory
// first, so that the unloading cannot unmap it.
void dropEveryUse()
{
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&dropEveryUse), &self) != 0) {
        dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
    while (stsm_terminate() == STS_EIN_USE) {
    }
}

int openServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char*, sts_handle_t* out)
{
    called(std::string("open_server ") + name);
    const int lines = number("KELD_FAULT_LOG_LINES");
    for (int k = 1; k <= lines; ++k) stsp_log(session, STS_ESINFO, ("fault line " + std::to_string(k)).c_str());
    if (number("KELD_FAULT_DROP_USES") == 1) dropEveryUse();
    if (int code = number("KELD_FAULT_OPEN_SERVER")) return code;
    const std::string cert = control("KELD_FAULT_CERT");
    const bool certOk = cert.empty() || (cred != nullptr && cred->cr_len == cert.size() &&
                                         std::memcmp(cred->cr_cert, cert.data(), cert.size()) == 0);
    return certOk ? newHandle(SERVER, out) : FAULT_EREFUSED;
}

int openTargetServer(sts_handle_t, const char* name, const sts_cred_t*, const char*, sts_handle_t* out)
{
    called(std::string("open_target_server ") + name);
    return newHandle(SERVER, out);
}

int createServer(sts_handle_t, const char* name, const sts_cred_t*, const char*, const sts_host_t*, int, sts_handle_t*)
{
    called(std::string("create_server ") + name);
    return FAULT_ECREATE;
}

int openLsuList(sts_handle_t server, const sts_lsu_def_t*, sts_handle_t* out)
{
    called("open_lsu_list");
    return as(server, SERVER) != nullptr ? newHandle(LSU_LIST, out) : STSP_EBADHANDLE;
}

int listLsu(sts_handle_t list, sts_lsu_name_t* out)
{
    called("list_lsu");
    Handle* h = as(list, LSU_LIST);
    if (h == nullptr || out == nullptr) return STSP_EBADHANDLE;
    const std::string fail = control("KELD_FAULT_LIST_FAIL");   // "N:NUM"
    const size_t colon = fail.find(':');
    if (colon != std::string::npos && h->next >= static_cast<size_t>(std::atoi(fail.c_str()))) {
        return std::atoi(&fail[colon + 1]);
    }
    if (h->next >= h->names.size()) return STS_ENO_MORE;
    std::memset(out->sln_name, 0, sizeof(out->sln_name));
    std::strncpy(out->sln_name, h->names[h->next++].c_str(), sizeof(out->sln_name) - 1);
    return 0;
}

int deleteLsu(const sts_lsu_t* lsu)
{
    if (lsu == nullptr || as(lsu->stl_server_handle, SERVER) == nullptr) return STSP_EBADHANDLE;
    const std::string name = lsu->stl_lsu_name.sln_name;
    called("delete_lsu " + name);
    for (const std::string& busy : items("KELD_FAULT_BUSY")) {
        if (busy == name) return STS_EBUSY_AGAIN;
    }
    for (const std::string& item : items("KELD_FAULT_DELETE_FAIL")) {   // "name:NUM"
        const size_t colon = item.find(':');
        const int code = colon != std::string::npos && item.compare(0, colon, name) == 0 ? std::atoi(&item[colon + 1]) : 0;
        if (code != 0) return code;
    }
    append("KELD_FAULT_LOG", name);
    return 0;
}

int openOrCreateImage(const sts_lsu_t* lsu, const std::string& line, sts_handle_t* out)
{
    called(line);
    std::this_thread::sleep_for(std::chrono::milliseconds(number("KELD_FAULT_IMAGE_DELAY_MS")));
    return lsu != nullptr && as(lsu->stl_server_handle, SERVER) != nullptr ? newHandle(IMAGE, out) : STSP_EBADHANDLE;
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
    if (as(image, IMAGE) == nullptr || done == nullptr) return STSP_EBADHANDLE;
    const std::string fault = control("KELD_FAULT_TRANSFER");
    const size_t colon = fault.find(':');
    *done = colon == std::string::npos ? len : std::strtoull(&fault[colon + 1], nullptr, 10);
    return colon == std::string::npos ? 0 : std::atoi(fault.c_str());
}

int readImage(sts_handle_t h, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    called("read " + std::to_string(len) + " " + std::to_string(off));
    const int rc = transfer(h, len, done);
    if (buf != nullptr && done != nullptr) std::memset(buf, 'r', *done < len ? *done : len);
    return rc;
}

// FNV-1a of the bytes, so that the call log tells which bytes came.
std::string digest(const void* buf, sts_uint64_t len)
{
    std::uint32_t h = 2166136261u;
    const auto* p = static_cast<const unsigned char*>(buf);
    for (sts_uint64_t i = 0; p != nullptr && i < len; ++i) h = (h ^ p[i]) * 16777619u;
    char hex[9];
    std::snprintf(hex, sizeof(hex), "%08x", static_cast<unsigned>(h));
    return hex;
}

int writeImage(sts_handle_t h, sts_stat_t*, void* buf, sts_uint64_t len, sts_uint64_t off, sts_uint64_t* done)
{
    called("write " + std::to_string(len) + " " + std::to_string(off) + " " + digest(buf, len));
    return transfer(h, len, done);
}

int copyExtent(sts_handle_t to, sts_uint64_t, sts_handle_t from, sts_uint64_t, sts_uint64_t len, int, sts_uint64_t* done)
{
    called("copy " + std::to_string(len));
    std::this_thread::sleep_for(std::chrono::milliseconds(number("KELD_FAULT_COPY_DELAY_MS")));
    return as(from, IMAGE) != nullptr ? transfer(to, len, done) : STSP_EBADHANDLE;
}

int flush(sts_handle_t h)
{
    called("flush");
    return as(h, IMAGE) != nullptr ? 0 : STSP_EBADHANDLE;
}

int closeHandle(sts_handle_t h, sts_uint32_t flag)
{
    const char* what[] = {nullptr, "close server", "close list", "close image "};
    for (Kind kind : {IMAGE, SERVER, LSU_LIST}) {
        if (Handle* mine = as(h, kind)) {
            called(what[kind] + (kind == IMAGE ? std::to_string(flag) : ""));
            delete mine;
            return number("KELD_FAULT_CLOSE");
        }
    }
    return STSP_EBADHANDLE;
}

} // namespace

extern "C" int stsp_plugin_register(stsp_plugin_t* plugin)
{
    g_self = plugin;
    g_prefix = control("KELD_FAULT_PREFIX").empty() ? "ShMem:" : control("KELD_FAULT_PREFIX");
    plugin->name = "fault";
    plugin->prefix = g_prefix.c_str();
    sts_api_t& a = plugin->api;
    a.stsa_open_server = openServer;
    a.stsa_open_target_server = openTargetServer;
    a.stsa_create_server = createServer;
    a.stsa_open_lsu_list = openLsuList;
    a.stsa_list_lsu = listLsu;
    a.stsa_delete_lsu = deleteLsu;
    a.stsa_create_image = createImage;
    a.stsa_open_image = openImage;
    a.stsa_read_image = readImage;
    a.stsa_write_image = writeImage;
    a.stsa_copy_extent = copyExtent;
    a.stsa_flush = flush;
    a.stsa_close_handle = closeHandle;
    return 0;
}
