// The RADOS plug-in's controls (stsa_ioctl on a server handle) and LSU
// administration, answered as the disk plug-in answers them.  What they
// keep goes to the server's index object in the pool:
//   "ctl.<request>"     a server's setting (retry timeout, restore control,
//                       copy configuration), a fixed-size record as its bytes
//   "media.<LSU>"       the LSU's media state flags
//   "uid.<LSU>"         the LSU's unique id, made when first asked for
//   "pools.<LSU>"       its pools, "<name> <priority>" lines
//   "alloc.<LSU>"       the storage elements allocated to it, one a line
//   "active.<LSU>"      1 or 0
//   "mount.<LSU>"       where it is mounted
// An LSU's storage element is its namespace, named "<pool>/<NAME>/<LSU>".
#include "RadosPluginParts.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>

using namespace radosstore;

namespace radosplugin {

namespace {

// ---- what the server's index keeps ----

int keep(const std::shared_ptr<Cluster>& c, const std::string& server, const std::string& key, const std::string& value)
{
    return omapUpdate(c->pool(), serverIndex(server), {{key, value}});
}

// A kept value, "" when none was kept.
int kept(const std::shared_ptr<Cluster>& c, const std::string& server, const std::string& key, std::string& value)
{
    value.clear();
    const int rc = omapValue(c->pool(), serverIndex(server), key, value);
    return rc == -ENOENT ? 0 : rc;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

std::string textOf(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

template <typename T>
int keepRecord(const Server* s, const char* key, const T* record)
{
    const int rc = keep(s->cluster, s->config.name, key, std::string(reinterpret_cast<const char*>(record), sizeof(T)));
    return rc == 0 ? 0 : failure(s->session, std::string("keeping ") + key, rc);
}

template <typename T>
int keptRecord(const Server* s, const char* key, T* record)
{
    std::string bytes;
    const int rc = kept(s->cluster, s->config.name, key, bytes);
    std::memset(record, 0, sizeof(T));
    if (bytes.size() == sizeof(T)) std::memcpy(record, bytes.data(), sizeof(T));
    return rc == 0 ? 0 : failure(s->session, std::string("reading ") + key, rc);
}

// ---- controls ----

std::string randomId()
{
    std::random_device random;
    char id[33];
    for (int i = 0; i < 4; ++i) std::snprintf(id + 8 * i, 9, "%08x", static_cast<unsigned>(random()));
    return id;
}

int lsuUniqueId(const Server* s, sts_ioctl_get_lsu_unique_id_t* req)
{
    const int checked = checkLsu(&req->lsu);
    if (checked != 0) return checked;
    const std::string key = "uid." + std::string(req->lsu.stl_lsu_name.sln_name);
    std::string id;
    int rc = kept(s->cluster, s->config.name, key, id);
    if (rc == 0 && id.empty()) {
        id = randomId();
        rc = keep(s->cluster, s->config.name, key, id);
    }
    if (rc != 0) return failure(s->session, "the LSU's unique id", rc);
    copyOut(req->unique_id, id, sizeof(req->unique_id));
    return 0;
}

int ddupStats(const Server* s, sts_ioctl_ddup_stats_info_t* info)
{
    std::vector<std::string> names;
    int rc = listLsus(*s->cluster, s->config.name, names);
    LsuUsage total;
    for (size_t i = 0; rc == 0 && i < names.size(); ++i) rc = lsuUsage(*s->cluster, s->config.name, names[i], total);
    if (rc != 0) return failure(s->session, "usage statistics", rc);
    std::memset(info, 0, sizeof(*info));
    std::snprintf(info->ds_msg, sizeof(info->ds_msg),
                  "images %llu; bytes written %llu; bytes stored %llu; deduplication ratio 1.00",
                  static_cast<unsigned long long>(total.images), static_cast<unsigned long long>(total.bytes),
                  static_cast<unsigned long long>(total.bytes));
    info->ds_msg_len = static_cast<sts_uint32_t>(std::strlen(info->ds_msg));
    return 0;
}

int setMediaState(const Server* s, const sts_ioctl_set_media_state_t* m)
{
    const int checked = checkLsu(&m->sio_lsu);
    if (checked != 0) return checked;
    const int rc = keep(s->cluster, s->config.name, "media." + std::string(m->sio_lsu.stl_lsu_name.sln_name),
                        std::to_string(m->sio_media_state_flags));
    return rc == 0 ? 0 : failure(s->session, "keeping the media state", rc);
}

int ioctl(sts_handle_t h, sts_uint32_t cmd, void* payload)
{
    const Server* s = as<Server>(h, SERVER);
    if (s == nullptr) return STSP_EBADHANDLE;
    if (payload == nullptr) return RADOS_EINVAL;
    switch (cmd) {
    case STS_IOCTL_SET_RETRY_TIMEOUT:
        return keepRecord(s, "ctl.retry_timeout", static_cast<sts_uint32_t*>(payload));
    case STS_IOCTL_SET_MEDIA_STATE:
        return setMediaState(s, static_cast<sts_ioctl_set_media_state_t*>(payload));
    case STS_IOCTL_SET_RESTORE_CNTL:
        return keepRecord(s, "ctl.restore_cntl", static_cast<sts_ioctl_restore_cntl_t*>(payload));
    case STS_IOCTL_GET_RESTORE_CNTL:
        return keptRecord(s, "ctl.restore_cntl", static_cast<sts_ioctl_restore_cntl_t*>(payload));
    case STS_IOCTL_SET_FSCP_CONFIG:
        return keepRecord(s, "ctl.fscp_config", static_cast<sts_ioctl_fscp_config_t*>(payload));
    case STS_IOCTL_GET_FSCP_INFO:
        static_cast<sts_ioctl_fscp_info_t*>(payload)->totalbytescopied = bytesCopied(s->config.name);
        return 0;
    case STS_IOCTL_GET_LSU_UNIQUE_ID:
        return lsuUniqueId(s, static_cast<sts_ioctl_get_lsu_unique_id_t*>(payload));
    case STS_IOCTL_GET_DDUP_STATS:
        return ddupStats(s, static_cast<sts_ioctl_ddup_stats_info_t*>(payload));
    default:
        return STS_ENOT_SUPPORTED;   // as the service answers a control its contract does not carry
    }
}

// ---- LSU administration ----

int openLsu(const sts_lsu_t* lsu, sts_handle_t* out)
{
    if (out == nullptr) return RADOS_EINVAL;
    const int checked = checkLsu(lsu);
    if (checked != 0) return checked;
    const Server* s = serverOf(lsu);
    Lsu* l = make<Lsu>(LSU);
    if (l == nullptr) return RADOS_EIO;
    l->session = s->session;
    l->server = s->config.name;
    l->name = lsu->stl_lsu_name.sln_name;
    l->cluster = s->cluster;
    *out = &l->hdr;
    return 0;
}

bool countsFor(size_t n, const void* buf, int max, int* ret, int* total)
{
    if (ret == nullptr || total == nullptr || (buf == nullptr && max > 0)) return false;
    *total = static_cast<int>(n);
    *ret = std::min(std::max(max, 0), *total);
    return true;
}

std::string elementName(const Server* s, const std::string& lsu)
{
    return s->config.pool + "/" + lsuNamespace(s->config.name, lsu);
}

void describeStorel(const Server* s, const std::string& lsu, sts_storel_t* e)
{
    std::memset(e, 0, sizeof(*e));
    copyOut(e->ste_devname, elementName(s, lsu), sizeof(e->ste_devname));
    LsuRecord record;
    readLsu(*s->cluster, s->config.name, lsu, record);
    e->ste_length = record.quota > 0 ? record.quota : capacity(*s->cluster, s->config.pool);
}

// One storage element per LSU, its namespace: on a server handle all of
// them, on an LSU handle its own.
int getStorel(sts_handle_t h, sts_storel_t* buf, int max, int* ret, int* total)
{
    const Server* s = as<Server>(h, SERVER);
    if (s == nullptr) return STSP_EBADHANDLE;
    std::vector<std::string> names;
    const int rc = listLsus(*s->cluster, s->config.name, names);
    if (rc != 0) return failure(s->session, "listing LSUs", rc);
    if (!countsFor(names.size(), buf, max, ret, total)) return RADOS_EINVAL;
    for (int i = 0; i < *ret; ++i) describeStorel(s, names[i], &buf[i]);
    return 0;
}

int getStorelProp(sts_handle_t server, const char* devname, sts_storel_info_t* info)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || devname == nullptr || info == nullptr) return RADOS_EINVAL;
    std::vector<std::string> names;
    const int rc = listLsus(*s->cluster, s->config.name, names);
    if (rc != 0) return failure(s->session, "listing LSUs", rc);
    for (const std::string& name : names) {
        if (elementName(s, name) != devname) continue;
        std::memset(info, 0, sizeof(*info));
        describeStorel(s, name, &info->sti_storel);
        copyOut(info->sti_owner.sln_name, name, sizeof(info->sti_owner.sln_name));
        copyOut(info->sti_assignee.sln_name, name, sizeof(info->sti_assignee.sln_name));
        return 0;
    }
    return RADOS_ENOENT;
}

// Changes the lines kept under key for an LSU handle: change(lines) gives
// 0 to keep them, else the number to answer.
template <typename Change>
int changeLines(sts_handle_t h, const char* what, Change change)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    const std::string key = std::string(what) + "." + l->name;
    std::string text;
    int rc = kept(l->cluster, l->server, key, text);
    if (rc != 0) return failure(l->session, std::string("reading ") + what, rc);
    std::vector<std::string> lines = linesOf(text);
    const int refused = change(lines);
    if (refused != 0) return refused;
    rc = keep(l->cluster, l->server, key, textOf(lines));
    return rc == 0 ? 0 : failure(l->session, std::string("keeping ") + what, rc);
}

int changeAllocation(sts_handle_t h, const sts_storel_t* e, bool allocate)
{
    if (e == nullptr || e->ste_devname[0] == '\0') return as<Lsu>(h, LSU) != nullptr ? RADOS_EINVAL : STSP_EBADHANDLE;
    return changeLines(h, "alloc", [&](std::vector<std::string>& lines) {
        const auto at = std::find(lines.begin(), lines.end(), std::string(e->ste_devname));
        if (allocate == (at != lines.end())) return allocate ? RADOS_EEXIST : RADOS_ENOENT;
        if (allocate) lines.push_back(e->ste_devname);
        else lines.erase(at);
        return 0;
    });
}

int allocLsu(sts_handle_t h, const sts_storel_t* e) { return changeAllocation(h, e, true); }
int deallocLsu(sts_handle_t h, const sts_storel_t* e) { return changeAllocation(h, e, false); }

std::vector<std::string>::iterator poolLine(std::vector<std::string>& lines, const char* name)
{
    const std::string prefix = std::string(name) + " ";
    return std::find_if(lines.begin(), lines.end(),
                        [&](const std::string& line) { return line.compare(0, prefix.size(), prefix) == 0; });
}

int addPoolLsu(sts_handle_t h, const sts_lsu_pool_t* pool)
{
    if (pool == nullptr || !validName(pool->lp_name.sln_name) || std::strchr(pool->lp_name.sln_name, ' ') != nullptr) {
        return as<Lsu>(h, LSU) != nullptr ? RADOS_EINVAL : STSP_EBADHANDLE;
    }
    return changeLines(h, "pools", [&](std::vector<std::string>& lines) {
        if (poolLine(lines, pool->lp_name.sln_name) != lines.end()) return RADOS_EEXIST;
        lines.push_back(std::string(pool->lp_name.sln_name) + " " + std::to_string(pool->lp_priority));
        return 0;
    });
}

int removePoolLsu(sts_handle_t h, const sts_lsu_name_t* name)
{
    if (name == nullptr) return as<Lsu>(h, LSU) != nullptr ? RADOS_EINVAL : STSP_EBADHANDLE;
    return changeLines(h, "pools", [&](std::vector<std::string>& lines) {
        const auto at = poolLine(lines, name->sln_name);
        if (at == lines.end()) return RADOS_ENOENT;
        lines.erase(at);
        return 0;
    });
}

int getPoolLsu(sts_handle_t h, sts_lsu_pool_t* buf, int max, int* ret, int* total)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    std::string text;
    const int rc = kept(l->cluster, l->server, "pools." + l->name, text);
    if (rc != 0) return failure(l->session, "reading pools", rc);
    const std::vector<std::string> lines = linesOf(text);
    if (!countsFor(lines.size(), buf, max, ret, total)) return RADOS_EINVAL;
    for (int i = 0; i < *ret; ++i) {
        const size_t sp = lines[i].rfind(' ');
        std::memset(&buf[i], 0, sizeof(buf[i]));
        copyOut(buf[i].lp_name.sln_name, lines[i].substr(0, sp), sizeof(buf[i].lp_name.sln_name));
        buf[i].lp_priority = std::strtoull(lines[i].c_str() + sp + 1, nullptr, 10);
    }
    return 0;
}

// Runs work(server, LSU name) on an LSU argument that names an LSU there.
template <typename Work>
int onLsu(const sts_lsu_t* lsu, Work work)
{
    const int checked = checkLsu(lsu);
    return checked != 0 ? checked : work(serverOf(lsu), std::string(lsu->stl_lsu_name.sln_name));
}

int activateLsu(const sts_session_def_t*, const sts_lsu_t* lsu, int active)
{
    return onLsu(lsu, [&](const Server* s, const std::string& name) {
        const int rc = keep(s->cluster, s->config.name, "active." + name, active ? "1" : "0");
        return rc == 0 ? 0 : failure(s->session, "activating an LSU", rc);
    });
}

// A mount records where the LSU is offered; unmount needs the same point.
int mountLsu(const sts_lsu_t* lsu, const char* point, int, const char*, sts_lsu_name_t* mounted)
{
    return onLsu(lsu, [&](const Server* s, const std::string& name) {
        if (point == nullptr || point[0] == '\0' || std::strlen(point) >= 1024) return RADOS_EINVAL;
        std::string current;
        int rc = kept(s->cluster, s->config.name, "mount." + name, current);
        if (rc == 0 && !current.empty()) return RADOS_EBUSY;
        if (rc == 0) rc = keep(s->cluster, s->config.name, "mount." + name, point);
        if (rc != 0) return failure(s->session, "mounting an LSU", rc);
        if (mounted != nullptr) copyOut(mounted->sln_name, name, sizeof(mounted->sln_name));
        return 0;
    });
}

int unmountLsu(const sts_lsu_t* lsu, const char* point)
{
    return onLsu(lsu, [&](const Server* s, const std::string& name) {
        std::string current;
        int rc = kept(s->cluster, s->config.name, "mount." + name, current);
        if (rc != 0) return failure(s->session, "unmounting an LSU", rc);
        if (current.empty()) return RADOS_ENOENT;
        if (point == nullptr || current != point) return RADOS_EINVAL;
        rc = omapUpdate(s->cluster->pool(), serverIndex(s->config.name), {}, {"mount." + name});
        return rc == 0 ? 0 : failure(s->session, "unmounting an LSU", rc);
    });
}

} // namespace

void registerControlSlots(sts_api_t& a)
{
    a.stsa_ioctl = ioctl;
    a.stsa_open_lsu = openLsu;
    a.stsa_get_storel = getStorel;
    a.stsa_get_storel_prop = getStorelProp;
    a.stsa_alloc_lsu = allocLsu;
    a.stsa_dealloc_lsu = deallocLsu;
    a.stsa_add_pool_lsu = addPoolLsu;
    a.stsa_remove_pool_lsu = removePoolLsu;
    a.stsa_get_pool_lsu = getPoolLsu;
    a.stsa_activate_lsu = activateLsu;
    a.stsa_mount_lsu = mountLsu;
    a.stsa_unmount_lsu = unmountLsu;
}

} // namespace radosplugin
