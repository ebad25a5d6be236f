// The disk plug-in's snapshot and volume slots: snapshot properties and
// change lists between two snapshots of an LSU (semantics in DiskStore.h).
#include "ChangeListSlots.h"
#include "DiskPluginParts.h"
#include "DiskStore.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace diskstore;

namespace diskplugin {

namespace {

int numberOf(int err, sts_handle_t session, const char* what)
{
    switch (err) {
    case 0: return 0;
    case EINVAL: return DISK_EINVAL;
    case ENOENT: return DISK_ENOENT;
    default: return ioError(session, what, err);
    }
}

// The LSU's directory, or "" with the number to answer in rc.
std::string existingLsu(const sts_lsu_t* lsu, const Server*& s, int& rc)
{
    s = serverOf(lsu);
    std::string dir;
    rc = lsuDirOf(lsu, dir);
    return rc == 0 ? dir : "";
}

std::string nameOf(const sts_snap_def_t* def)
{
    return std::string(def->sd_snap_name, strnlen(def->sd_snap_name, sizeof(def->sd_snap_name)));
}

int claimVolume(sts_handle_t server, const sts_volume_spec_t*)
{
    return as<Server>(server, SERVER) != nullptr ? STS_ECLAIM_VOLUME : STSP_EBADHANDLE;
}

int getSnapProp(const sts_lsu_t* lsu, const sts_snap_def_t* def, sts_snap_info_t* info)
{
    const Server* s = nullptr;
    int rc = 0;
    const std::string dir = existingLsu(lsu, s, rc);
    if (rc != 0 || def == nullptr || info == nullptr) return rc != 0 ? rc : DISK_EINVAL;
    SnapshotSummary summary;
    rc = numberOf(describeSnapshot(dir, nameOf(def), summary), s->session, "snapshot properties");
    if (rc != 0) return rc;
    std::memset(info, 0, sizeof(*info));
    sts_snap_def_t& d = info->sno_snap_def;
    copyOut(d.sd_snap_name, summary.name, sizeof(d.sd_snap_name));
    d.sd_snap_type = STS_SNAPT_CLONE;
    std::snprintf(d.sd_snap_isid.is_info, sizeof(d.sd_snap_isid.is_info), "time=%lld images=%u",
                  summary.time, summary.images);
    copyOut(info->sno_snap_server, s->name, sizeof(info->sno_snap_server));
    copyOut(info->sno_snap_lsu.sln_name, lsu->stl_lsu_name.sln_name, sizeof(info->sno_snap_lsu.sln_name));
    info->sno_snap_vol_spec.vs_volume_type = STS_VOLUME_DEVICE;
    copyOut(info->sno_snap_vol_spec.v.v_device.dv_device_path, snapshotDirectory(dir, summary.name),
            sizeof(info->sno_snap_vol_spec.v.v_device.dv_device_path));
    info->sno_snap_status = DISK_SNAPSHOT_COMPLETE;
    info->sno_snap_size = summary.bytes;
    return 0;
}

void fillAttributes(const ImageChange& change, sts_file_attr_t* attr)
{
    std::memset(attr, 0, sizeof(*attr));
    copyOut(attr->object_name, change.name, sizeof(attr->object_name));
    attr->object_type = STS_DIFF_OBJECT_FILE;
    attr->object_state = static_cast<sts_diff_object_state_v11_t>(change.state);
    attr->modified_time = change.facts.modified;
    attr->last_access_time = change.facts.accessed;
    attr->creation_time = change.facts.created;
    attr->change_time = change.facts.changed;
    attr->object_size = change.facts.size;
    attr->object_owner_id = change.facts.owner;
    attr->object_group_id = change.facts.group;
    attr->object_permission_bits = change.facts.mode;
    attr->inode_num = change.facts.inode;
}

using ChangeListSlots = ChangeLists<ImageChange, fillAttributes>;

int openChangeList(const sts_lsu_t* lsu, const sts_snap_def_t* base, const sts_snap_def_t* diff,
                   const sts_volume_spec_t*, sts_uint32_t, sts_handle_t* out)
{
    const Server* s = nullptr;
    int rc = 0;
    const std::string dir = existingLsu(lsu, s, rc);
    if (rc != 0 || base == nullptr || diff == nullptr || out == nullptr) return rc != 0 ? rc : DISK_EINVAL;
    std::vector<ImageChange> entries;
    rc = numberOf(snapshotChanges(dir, nameOf(base), nameOf(diff), entries), s->session, "change list");
    return rc != 0 ? rc : ChangeListSlots::give(std::move(entries), out);
}

} // namespace

void registerSnapshotSlots(sts_api_t& a)
{
    a.stsa_claim_volume = claimVolume;
    a.stsa_get_snap_prop_byname = getSnapProp;
    a.stsa_open_snap_change_list = openChangeList;
    ChangeListSlots::registerIn(a);
}

} // namespace diskplugin
