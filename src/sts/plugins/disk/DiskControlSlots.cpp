// The disk plug-in's controls (stsa_ioctl) on a server handle: settings kept
// per server or per LSU, the copy progress, an LSU's unique id and usage
// statistics (the requests are listed in DiskStore.h).
#include "DiskPluginParts.h"
#include "DiskStore.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

using namespace diskstore;

namespace diskplugin {

namespace {

// A fixed-size request kept as its bytes in a file of the server.
template <typename T>
int saveRecord(const Server* s, const char* file, const T* record)
{
    return writeFileDurably(s->dir + "/" + file, std::string(reinterpret_cast<const char*>(record), sizeof(T)))
               ? 0 : ioError(s->session, file, errno);
}

template <typename T>
int loadRecord(const Server* s, const char* file, T* record)
{
    std::string bytes;
    std::memset(record, 0, sizeof(T));
    if (readFile(s->dir + "/" + file, bytes) && bytes.size() == sizeof(T)) std::memcpy(record, bytes.data(), sizeof(T));
    return 0;
}

// A random id made the first time it is asked for, kept in the LSU.
int lsuUniqueId(const Server* s, sts_ioctl_get_lsu_unique_id_t* req)
{
    const std::string dir = existingLsuDir(s, req->lsu.stl_lsu_name.sln_name);
    if (dir.empty()) return DISK_ENOENT;
    std::string id;
    if (!readFile(dir + "/unique_id", id) || id.empty()) {
        id = hashCredential(dir).substr(0, 32);   // salt: 16 random bytes in hex
        if (!writeFileDurably(dir + "/unique_id", id)) return DISK_EIO;
    }
    copyOut(req->unique_id, id, sizeof(req->unique_id));
    return 0;
}

int ddupStats(const Server* s, sts_ioctl_ddup_stats_info_t* info)
{
    sts_uint64_t images = 0;
    sts_uint64_t bytes = 0;
    for (const std::string& name : listDirectory(s->dir + "/lsus")) {
        const ImageUsage usage = imageUsage(s->dir + "/lsus/" + name);
        images += usage.images;
        bytes += usage.bytes;
    }
    std::memset(info, 0, sizeof(*info));
    std::snprintf(info->ds_msg, sizeof(info->ds_msg),
                  "images %llu; bytes written %llu; bytes stored %llu; deduplication ratio 1.00",
                  static_cast<unsigned long long>(images), static_cast<unsigned long long>(bytes),
                  static_cast<unsigned long long>(bytes));
    info->ds_msg_len = static_cast<sts_uint32_t>(std::strlen(info->ds_msg));
    return 0;
}

int ioctl(sts_handle_t h, sts_uint32_t cmd, void* payload)
{
    const Server* s = as<Server>(h, SERVER);
    if (s == nullptr) return STSP_EBADHANDLE;
    if (payload == nullptr) return DISK_EINVAL;
    switch (cmd) {
    case DISK_IOCTL_SET_RETRY_TIMEOUT:
        return writeFileDurably(s->dir + "/retry_timeout", std::to_string(*static_cast<sts_uint32_t*>(payload))) ? 0 : DISK_EIO;
    case DISK_IOCTL_SET_MEDIA_STATE: {
        const auto* m = static_cast<sts_ioctl_set_media_state_t*>(payload);
        const std::string dir = existingLsuDir(s, m->sio_lsu.stl_lsu_name.sln_name);
        if (dir.empty()) return DISK_ENOENT;
        return writeFileDurably(dir + "/media_state", std::to_string(m->sio_media_state_flags)) ? 0 : DISK_EIO;
    }
    case DISK_IOCTL_SET_RESTORE_CNTL:
        return saveRecord(s, "restore.cntl", static_cast<sts_ioctl_restore_cntl_t*>(payload));
    case DISK_IOCTL_GET_RESTORE_CNTL:
        return loadRecord(s, "restore.cntl", static_cast<sts_ioctl_restore_cntl_t*>(payload));
    case DISK_IOCTL_SET_FSCP_CONFIG:
        return saveRecord(s, "fscp.conf", static_cast<sts_ioctl_fscp_config_t*>(payload));
    case DISK_IOCTL_GET_FSCP_INFO:
        static_cast<sts_ioctl_fscp_info_t*>(payload)->totalbytescopied = bytesCopied(s->dir);
        return 0;
    case DISK_IOCTL_GET_LSU_UNIQUE_ID:
        return lsuUniqueId(s, static_cast<sts_ioctl_get_lsu_unique_id_t*>(payload));
    case DISK_IOCTL_GET_DDUP_STATS:
        return ddupStats(s, static_cast<sts_ioctl_ddup_stats_info_t*>(payload));
    default:
        return STS_ENOT_SUPPORTED;   // as the service answers a control its contract does not carry
    }
}

} // namespace

void registerControlSlots(sts_api_t& a)
{
    a.stsa_ioctl = ioctl;
}

} // namespace diskplugin
