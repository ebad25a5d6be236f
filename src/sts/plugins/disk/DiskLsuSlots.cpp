// The disk plug-in's LSU slots: LSU lists and properties, labels, LSU
// handles with their storage elements, allocations and pools, activation
// and mounts.  An LSU is a directory of its server (layout in DiskStore.h).
#include "DiskPluginParts.h"
#include "DiskStore.h"
#include "ListSlots.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

using namespace diskstore;

namespace diskplugin {

ImageUsage imageUsage(const std::string& lsuDir)
{
    ImageUsage usage;
    for (const std::string& image : listDirectory(lsuDir + "/images", ".img")) {
        struct stat st;
        if (stat((lsuDir + "/images/" + image + ".img").c_str(), &st) != 0) continue;
        usage.bytes += static_cast<sts_uint64_t>(st.st_size);
        usage.allocated += static_cast<sts_uint64_t>(st.st_blocks) * 512;
        ++usage.images;
    }
    return usage;
}

namespace {

// The size of the file system an LSU lives on, 0 when it cannot be told.
sts_uint64_t capacityOf(const std::string& lsuDir)
{
    struct statvfs fs;
    return statvfs(lsuDir.c_str(), &fs) == 0 ? static_cast<sts_uint64_t>(fs.f_blocks) * fs.f_frsize : 0;
}

// The counts of a call that gives up to max of n entries; false when an
// output is missing.
bool countsFor(size_t n, const void* buf, int max, int* ret, int* total)
{
    if (ret == nullptr || total == nullptr || (buf == nullptr && max > 0)) return false;
    *total = static_cast<int>(n);
    *ret = std::min(std::max(max, 0), *total);
    return true;
}

// ---- LSUs of a server ----

// How this plug-in finds the LSUs of a server, for the shared list slots.
struct LsuLists {
    using Server = diskplugin::Server;
    static constexpr int BAD_ARGUMENT = DISK_EINVAL;
    static constexpr int NO_MEMORY = DISK_EIO;
    static int lsuNames(const Server* s, std::vector<std::string>& names)
    {
        names = listDirectory(s->dir + "/lsus");
        return 0;
    }
};

int getLsuProp(const sts_lsu_t* lsu, sts_lsu_info_t* info)
{
    const Server* s = serverOf(lsu);
    if (s == nullptr || info == nullptr) return DISK_EINVAL;
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    std::memset(info, 0, sizeof(*info));
    copyOut(info->lsu_server, s->name, sizeof(info->lsu_server));
    copyOut(info->lsu_def.sld_name.sln_name, lsu->stl_lsu_name.sln_name, sizeof(info->lsu_def.sld_name.sln_name));
    info->lsu_def.sld_alloc = STS_LSU_AT_STATIC;
    info->lsu_def.sld_storage = STS_LSU_ST_FILE;
    info->lsu_def.sld_max_transfer = 64u << 20;
    info->lsu_def.sld_block_size = 4096;
    std::string label;
    if (readFile(dir + "/label", label)) copyOut(info->lsu_def.sld_label, label, sizeof(info->lsu_def.sld_label));
    info->lsu_capacity = info->lsu_capacity_phys = capacityOf(dir);
    const ImageUsage usage = imageUsage(dir);
    info->lsu_used = usage.bytes;
    info->lsu_used_phys = usage.allocated;
    info->lsu_images = usage.images;
    return 0;
}

int labelLsu(const sts_lsu_t* lsu, char* label)
{
    const Server* s = serverOf(lsu);
    if (s == nullptr || label == nullptr || std::strlen(label) >= sizeof(sts_lsu_label_t)) return DISK_EINVAL;
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    return writeFileDurably(dir + "/label", label) ? 0 : ioError(s->session, "label", errno);
}

// By name, or by label when no LSU has that name.
int findLsu(sts_handle_t server, const sts_lsu_name_t* wanted, sts_lsu_name_t* found)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || wanted == nullptr || found == nullptr) return DISK_EINVAL;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        std::string label;
        readFile(s->dir + "/lsus/" + name + "/label", label);
        if (name == wanted->sln_name || (!label.empty() && label == wanted->sln_name)) {
            copyOut(found->sln_name, name, sizeof(found->sln_name));
            return 0;
        }
    }
    return STS_ENO_MORE;
}

// Only an empty LSU goes.
int deleteLsu(const sts_lsu_t* lsu)
{
    const Server* s = serverOf(lsu);
    if (s == nullptr) return DISK_EINVAL;
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    if (!listDirectory(dir + "/images").empty() || !listSnapshots(dir).empty()) return DISK_EBUSY;
    rmdir((dir + "/images").c_str());
    rmdir((dir + "/snapshots").c_str());
    unlink((dir + "/label").c_str());
    return rmdir(dir.c_str()) == 0 ? 0 : ioError(s->session, "delete lsu", errno);
}

// ---- LSU handles, storage elements, pools, mounts ----

// Small per-LSU state lives in text files of lines, rewritten whole and
// durably.
std::vector<std::string> readLines(const std::string& path)
{
    std::string text;
    std::vector<std::string> lines;
    if (!readFile(path, text)) return lines;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        if (nl > start) lines.push_back(text.substr(start, nl - start));
    }
    return lines;
}

bool writeLines(const std::string& path, const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& l : lines) text += l + "\n";
    return writeFileDurably(path, text);
}

int openLsu(const sts_lsu_t* lsu, sts_handle_t* out)
{
    const Server* s = serverOf(lsu);
    if (s == nullptr || out == nullptr) return DISK_EINVAL;
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    Lsu* l = make<Lsu>(LSU);
    if (l == nullptr) return DISK_EIO;
    l->session = s->session;
    l->dir = dir;
    *out = &l->hdr;
    return 0;
}

void describeStorel(const std::string& lsuDir, sts_storel_t* e)
{
    std::memset(e, 0, sizeof(*e));
    copyOut(e->ste_devname, lsuDir, sizeof(e->ste_devname));
    e->ste_length = capacityOf(lsuDir);
}

// One storage element per LSU: its directory.  On a server handle all of
// them, on an LSU handle its own.
int getStorel(sts_handle_t h, sts_storel_t* buf, int max, int* ret, int* total)
{
    std::vector<std::string> dirs;
    if (const Server* s = as<Server>(h, SERVER)) {
        for (const std::string& name : listDirectory(s->dir + "/lsus")) dirs.push_back(s->dir + "/lsus/" + name);
    } else if (const Lsu* l = as<Lsu>(h, LSU)) {
        dirs.push_back(l->dir);
    } else {
        return STSP_EBADHANDLE;
    }
    if (!countsFor(dirs.size(), buf, max, ret, total)) return DISK_EINVAL;
    std::sort(dirs.begin(), dirs.end());
    for (int i = 0; i < *ret; ++i) describeStorel(dirs[i], &buf[i]);
    return 0;
}

int getStorelProp(sts_handle_t server, const char* devname, sts_storel_info_t* info)
{
    const Server* s = as<Server>(server, SERVER);
    if (s == nullptr || devname == nullptr || info == nullptr) return DISK_EINVAL;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        const std::string dir = s->dir + "/lsus/" + name;
        if (dir != devname) continue;
        std::memset(info, 0, sizeof(*info));
        describeStorel(dir, &info->sti_storel);
        copyOut(info->sti_owner.sln_name, name, sizeof(info->sti_owner.sln_name));
        copyOut(info->sti_assignee.sln_name, name, sizeof(info->sti_assignee.sln_name));
        return 0;
    }
    return DISK_ENOENT;
}

// Allocation marks an element as in use by the LSU, in its "allocated" file.
int changeAllocation(sts_handle_t h, const sts_storel_t* e, bool allocate)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (e == nullptr || e->ste_devname[0] == '\0') return DISK_EINVAL;
    std::vector<std::string> lines = readLines(l->dir + "/allocated");
    const auto at = std::find(lines.begin(), lines.end(), std::string(e->ste_devname));
    if (allocate) {
        if (at != lines.end()) return DISK_EEXIST;
        lines.push_back(e->ste_devname);
    } else {
        if (at == lines.end()) return DISK_ENOENT;
        lines.erase(at);
    }
    return writeLines(l->dir + "/allocated", lines) ? 0 : ioError(l->session, "allocation", errno);
}

int allocLsu(sts_handle_t h, const sts_storel_t* e) { return changeAllocation(h, e, true); }
int deallocLsu(sts_handle_t h, const sts_storel_t* e) { return changeAllocation(h, e, false); }

// Pools of an LSU: "<name> <priority>" lines of its "pools" file.
std::vector<std::string>::iterator poolLine(std::vector<std::string>& lines, const char* name)
{
    const std::string prefix = std::string(name) + " ";
    return std::find_if(lines.begin(), lines.end(),
                        [&](const std::string& line) { return line.compare(0, prefix.size(), prefix) == 0; });
}

int addPoolLsu(sts_handle_t h, const sts_lsu_pool_t* pool)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (pool == nullptr || !validComponent(pool->lp_name.sln_name, 1024) ||
        std::strchr(pool->lp_name.sln_name, ' ') != nullptr) {
        return DISK_EINVAL;
    }
    std::vector<std::string> lines = readLines(l->dir + "/pools");
    if (poolLine(lines, pool->lp_name.sln_name) != lines.end()) return DISK_EEXIST;
    lines.push_back(std::string(pool->lp_name.sln_name) + " " + std::to_string(pool->lp_priority));
    return writeLines(l->dir + "/pools", lines) ? 0 : ioError(l->session, "add pool", errno);
}

int removePoolLsu(sts_handle_t h, const sts_lsu_name_t* name)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    if (name == nullptr) return DISK_EINVAL;
    std::vector<std::string> lines = readLines(l->dir + "/pools");
    const auto at = poolLine(lines, name->sln_name);
    if (at == lines.end()) return DISK_ENOENT;
    lines.erase(at);
    return writeLines(l->dir + "/pools", lines) ? 0 : ioError(l->session, "remove pool", errno);
}

int getPoolLsu(sts_handle_t h, sts_lsu_pool_t* buf, int max, int* ret, int* total)
{
    Lsu* l = as<Lsu>(h, LSU);
    if (l == nullptr) return STSP_EBADHANDLE;
    const std::vector<std::string> lines = readLines(l->dir + "/pools");
    if (!countsFor(lines.size(), buf, max, ret, total)) return DISK_EINVAL;
    for (int i = 0; i < *ret; ++i) {
        const size_t sp = lines[i].rfind(' ');
        std::memset(&buf[i], 0, sizeof(buf[i]));
        copyOut(buf[i].lp_name.sln_name, lines[i].substr(0, sp), sizeof(buf[i].lp_name.sln_name));
        buf[i].lp_priority = std::strtoull(lines[i].c_str() + sp + 1, nullptr, 10);
    }
    return 0;
}

int activateLsu(const sts_session_def_t*, const sts_lsu_t* lsu, int active)
{
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    return writeFileDurably(dir + "/active", active ? "1\n" : "0\n") ? 0 : DISK_EIO;
}

// A mount records where the LSU is offered; unmount needs the same point.
int mountLsu(const sts_lsu_t* lsu, const char* point, int, const char*, sts_lsu_name_t* mounted)
{
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    if (point == nullptr || point[0] == '\0' || std::strlen(point) >= 1024) return DISK_EINVAL;
    if (exists(dir + "/mount")) return DISK_EBUSY;
    if (!writeFileDurably(dir + "/mount", point)) return DISK_EIO;
    if (mounted != nullptr) copyOut(mounted->sln_name, lsu->stl_lsu_name.sln_name, sizeof(mounted->sln_name));
    return 0;
}

int unmountLsu(const sts_lsu_t* lsu, const char* point)
{
    std::string dir;
    if (const int rc = lsuDirOf(lsu, dir)) return rc;
    std::string current;
    if (!readFile(dir + "/mount", current)) return DISK_ENOENT;
    if (point == nullptr || current != point) return DISK_EINVAL;
    return unlink((dir + "/mount").c_str()) == 0 ? 0 : DISK_EIO;
}

} // namespace

void registerLsuSlots(sts_api_t& a)
{
    LsuListSlots<LsuLists>::registerIn(a);
    a.stsa_get_lsu_prop_byname = getLsuProp;
    a.stsa_label_lsu = labelLsu;
    a.stsa_find_lsu = findLsu;
    a.stsa_delete_lsu = deleteLsu;
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

} // namespace diskplugin
