// keldctl snapshot info and diff: what the storage API offers of snapshots
// (their properties and the change list between two of them).  Taking and
// deleting snapshots is the storage server's operator's business (for a
// disk server, keldv-disk-snapshot on its host).
#include "KeldCtlCommands.h"
#include "KeldCtlExit.h"
#include "KeldCtlOutput.h"
#include "KeldCtlStorage.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace keldctl {

namespace {

sts_snap_def_t snapshotDefinition(const std::string& name)
{
    sts_snap_def_t d;
    std::memset(&d, 0, sizeof(d));
    if (name.size() >= sizeof(d.sd_snap_name)) throw usageError("the snapshot name is too long");
    std::snprintf(d.sd_snap_name, sizeof(d.sd_snap_name), "%s", name.c_str());
    return d;
}

std::string utcTime(std::uint64_t seconds)
{
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm utc{};
    gmtime_r(&t, &utc);
    char out[32];
    std::strftime(out, sizeof(out), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return out;
}

// The volume a snapshot lives on, as one line.
std::string volumeText(const sts_volume_spec_t& v)
{
    switch (v.vs_volume_type) {
    case STS_VOLUME_NFS: return "nfs " + fieldText(v.v.v_nfs.fs_export_host) + ":" + fieldText(v.v.v_nfs.fs_export_path);
    case STS_VOLUME_CIFS: return "cifs //" + fieldText(v.v.v_cifs.fs_export_host) + "/" + fieldText(v.v.v_cifs.fs_share_name);
    case STS_VOLUME_SCSI: return "scsi " + fieldText(v.v.v_scsi.lun_wwnn);
    case STS_VOLUME_DEVICE: return "device " + fieldText(v.v.v_device.dv_device_path);
    case STS_VOLUME_NDMP: return "ndmp " + fieldText(v.v.v_ndmp.fs_export_filer) + ":" + fieldText(v.v.v_ndmp.fs_export_path);
    default: break;
    }
    return "";
}

const char* stateText(sts_diff_object_state_v11_t state)
{
    switch (state) {
    case STS_DIFF_OBJECT_STATE_ADDED: return "added";
    case STS_DIFF_OBJECT_STATE_DELETED: return "deleted";
    case STS_DIFF_OBJECT_STATE_MODIFIED: return "modified";
    }
    return "?";
}

// A change list, closed when it goes.
class ChangeList {
public:
    ChangeList(Storage& st, const sts_lsu_t& lsu, const std::string& base, const std::string& diff) : m_st(st)
    {
        const sts_snap_def_t b = snapshotDefinition(base);
        const sts_snap_def_t d = snapshotDefinition(diff);
        sts_volume_spec_t volume;
        std::memset(&volume, 0, sizeof(volume));
        Storage::check(st.api()->stsa_open_snap_change_list(&lsu, &b, &d, &volume, 0, &m_handle),
                       "opening the changes from " + (base.empty() ? std::string("nothing") : base) + " to " + diff);
    }
    ~ChangeList() { m_st.api()->stsa_close_snap_change_list(m_handle); }
    ChangeList(const ChangeList&) = delete;
    ChangeList& operator=(const ChangeList&) = delete;
    sts_handle_t handle() const { return m_handle; }

private:
    Storage& m_st;
    sts_handle_t m_handle = nullptr;
};

} // namespace

int snapshotInfo(const Context& ctx, const std::string& server, const std::string& lsuName, const std::string& name)
{
    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    const sts_snap_def_t def = snapshotDefinition(name);
    sts_snap_info_t info;
    std::memset(&info, 0, sizeof(info));
    Storage::check(st.api()->stsa_get_snap_prop_byname(&lsu, &def, &info), "reading snapshot " + name);
    const json object{{"snapshot", fieldText(info.sno_snap_def.sd_snap_name)},
                      {"type", info.sno_snap_def.sd_snap_type},
                      {"info", fieldText(info.sno_snap_def.sd_snap_isid.is_info)},
                      {"server", fieldText(info.sno_snap_server)},
                      {"lsu", fieldText(info.sno_snap_lsu.sln_name)},
                      {"volume", volumeText(info.sno_snap_vol_spec)},
                      {"status", info.sno_snap_status},
                      {"size", info.sno_snap_size}};
    if (ctx.json) {
        printJson(object);
        return 0;
    }
    printFields({{"snapshot", fieldText(info.sno_snap_def.sd_snap_name)},
                 {"type", std::to_string(info.sno_snap_def.sd_snap_type)},
                 {"info", fieldText(info.sno_snap_def.sd_snap_isid.is_info)},
                 {"server", fieldText(info.sno_snap_server)},
                 {"lsu", fieldText(info.sno_snap_lsu.sln_name)},
                 {"volume", volumeText(info.sno_snap_vol_spec)},
                 {"status", std::to_string(info.sno_snap_status)},
                 {"size", humanBytes(info.sno_snap_size) + " (" + std::to_string(info.sno_snap_size) + ")"}});
    return 0;
}

int snapshotDiff(const Context& ctx, const std::string& server, const std::string& lsuName, const std::string& base,
                 const std::string& diff, const std::vector<std::string>& patterns)
{
    std::vector<sts_pathname_t> filter(patterns.size());
    for (size_t i = 0; i < patterns.size(); ++i) {
        if (patterns[i].size() >= sizeof(filter[i])) throw usageError("pattern too long: " + patterns[i]);
        std::snprintf(filter[i], sizeof(filter[i]), "%s", patterns[i].c_str());
    }
    Storage st(ctx.proxy, ctx.verbose);
    const sts_lsu_t lsu = st.lsu(st.openServer(server), lsuName);
    ChangeList list(st, lsu, base == "-" ? "" : base, diff);
    json all = json::array();
    Table table({"STATE", "SIZE", "MODIFIED", "NAME"}, {false, true});
    sts_file_attr_t attr;
    int rc = 0;
    while ((rc = st.api()->stsa_list_file(list.handle(), static_cast<sts_uint32_t>(filter.size()), filter.data(), &attr)) == 0) {
        const std::string name = fieldText(attr.object_name);
        all.push_back(json{{"name", name},
                           {"state", stateText(attr.object_state)},
                           {"type", attr.object_type == STS_DIFF_OBJECT_DIR ? "directory" : "file"},
                           {"size", attr.object_size},
                           {"modified", attr.modified_time},
                           {"owner", attr.object_owner_id},
                           {"group", attr.object_group_id},
                           {"mode", attr.object_permission_bits}});
        table.add({stateText(attr.object_state), humanBytes(attr.object_size), utcTime(attr.modified_time), name});
    }
    if (rc != END_OF_LIST) Storage::check(rc, "walking the change list");
    if (ctx.json) {
        printJson(all);
    } else {
        table.print();
    }
    return 0;
}

} // namespace keldctl
