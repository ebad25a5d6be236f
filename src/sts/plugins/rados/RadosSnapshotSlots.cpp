// The RADOS plug-in's snapshot and volume slots: snapshot properties and
// change lists between two snapshots of an LSU, read from the cluster's
// snapshots (RadosSnapshots.h) with the disk plug-in's semantics: images
// added, deleted or modified (data, metadata, state or size) from base to
// diff by name, an empty base standing for an empty snapshot; entries in
// name order, one a list call, filtered by fnmatch patterns.  A closed list
// keeps its handle until the plug-in is unloaded, so a second close or a
// late list is refused instead of touching freed memory.
#include "ChangeListSlots.h"
#include "RadosPluginParts.h"
#include "RadosSnapshots.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace radosstore;

namespace radosplugin {

namespace {

// sno_snap_status of a snapshot: taken whole or not at all.
const sts_uint32_t SNAPSHOT_COMPLETE = 1;

struct Change {
    std::string name;
    sts_diff_object_state_v11_t state = STS_DIFF_OBJECT_STATE_ADDED;
    SnapshotImage image;   // from diff, from base for a deleted one
};

std::string nameOf(const sts_snap_def_t* def)
{
    return std::string(def->sd_snap_name, strnlen(def->sd_snap_name, sizeof(def->sd_snap_name)));
}

// The record of a snapshot of the LSU; an empty name, when allowed, is
// none (id 0).
int snapshotOf(const sts_lsu_t* lsu, const sts_snap_def_t* def, bool emptyIsNone, SnapshotRecord& out)
{
    const std::string name = nameOf(def);
    if (name.empty() && emptyIsNone) return 0;
    if (!validSnapshotName(name)) return RADOS_EINVAL;
    const Server* s = serverOf(lsu);
    const int rc = readSnapshot(*s->cluster, s->config.name, lsu->stl_lsu_name.sln_name, name, out);
    return rc == 0 ? 0 : failure(s->session, "reading snapshot " + name, rc);
}

int imagesOf(const sts_lsu_t* lsu, const SnapshotRecord& snap, std::map<std::string, SnapshotImage>& out)
{
    const Server* s = serverOf(lsu);
    const int rc = snapshotImages(*s->cluster, s->config.name, lsu->stl_lsu_name.sln_name, snap.id,
                                  s->config.objectSize, out);
    return rc == 0 ? 0 : failure(s->session, "reading a snapshot's images", rc);
}

int claimVolume(sts_handle_t server, const sts_volume_spec_t*)
{
    return as<Server>(server, SERVER) != nullptr ? STS_ECLAIM_VOLUME : STSP_EBADHANDLE;
}

int getSnapProp(const sts_lsu_t* lsu, const sts_snap_def_t* def, sts_snap_info_t* info)
{
    int rc = checkLsu(lsu);
    if (rc != 0 || def == nullptr || info == nullptr) return rc != 0 ? rc : RADOS_EINVAL;
    SnapshotRecord snap;
    std::map<std::string, SnapshotImage> images;
    rc = snapshotOf(lsu, def, false, snap);
    if (rc == 0) rc = imagesOf(lsu, snap, images);
    if (rc != 0) return rc;
    const Server* s = serverOf(lsu);
    std::memset(info, 0, sizeof(*info));
    sts_snap_def_t& d = info->sno_snap_def;
    copyOut(d.sd_snap_name, nameOf(def), sizeof(d.sd_snap_name));
    d.sd_snap_type = STS_SNAPT_CLONE;
    std::snprintf(d.sd_snap_isid.is_info, sizeof(d.sd_snap_isid.is_info), "time=%lld images=%zu", snap.time,
                  images.size());
    copyOut(info->sno_snap_server, s->serverName, sizeof(info->sno_snap_server));
    copyOut(info->sno_snap_lsu.sln_name, lsu->stl_lsu_name.sln_name, sizeof(info->sno_snap_lsu.sln_name));
    info->sno_snap_vol_spec.vs_volume_type = STS_VOLUME_DEVICE;
    const std::string where = s->config.pool + "/" + lsuNamespace(s->config.name, lsu->stl_lsu_name.sln_name) +
                              "@" + std::to_string(snap.id);
    copyOut(info->sno_snap_vol_spec.v.v_device.dv_device_path, where,
            sizeof(info->sno_snap_vol_spec.v.v_device.dv_device_path));
    info->sno_snap_status = SNAPSHOT_COMPLETE;
    for (const auto& image : images) info->sno_snap_size += image.second.size;
    return 0;
}

bool sameImage(const SnapshotImage& a, const SnapshotImage& b)
{
    return a.state == b.state && a.size == b.size && a.fingerprint == b.fingerprint;
}

// Both maps are in name order: one merge gives the entries in name order.
std::vector<Change> differences(const std::map<std::string, SnapshotImage>& base,
                                const std::map<std::string, SnapshotImage>& diff)
{
    std::vector<Change> out;
    auto b = base.begin();
    auto d = diff.begin();
    while (b != base.end() || d != diff.end()) {
        if (d == diff.end() || (b != base.end() && b->first < d->first)) {
            out.push_back({b->first, STS_DIFF_OBJECT_STATE_DELETED, b->second});
            ++b;
        } else if (b == base.end() || d->first < b->first) {
            out.push_back({d->first, STS_DIFF_OBJECT_STATE_ADDED, d->second});
            ++d;
        } else {
            if (!sameImage(b->second, d->second)) out.push_back({d->first, STS_DIFF_OBJECT_STATE_MODIFIED, d->second});
            ++b;
            ++d;
        }
    }
    return out;
}

void fillAttributes(const Change& change, sts_file_attr_t* attr)
{
    std::memset(attr, 0, sizeof(*attr));
    copyOut(attr->object_name, change.name, sizeof(attr->object_name));
    attr->object_type = STS_DIFF_OBJECT_FILE;
    attr->object_state = change.state;
    const auto when = static_cast<unsigned long long>(change.image.modified);
    attr->modified_time = attr->change_time = attr->last_access_time = attr->creation_time = when;
    attr->object_size = change.image.size;
}

using ChangeListSlots = ChangeLists<Change, fillAttributes>;

int openChangeList(const sts_lsu_t* lsu, const sts_snap_def_t* base, const sts_snap_def_t* diff,
                   const sts_volume_spec_t*, sts_uint32_t, sts_handle_t* out)
{
    int rc = checkLsu(lsu);
    if (rc != 0 || base == nullptr || diff == nullptr || out == nullptr) return rc != 0 ? rc : RADOS_EINVAL;
    SnapshotRecord from, to;
    std::map<std::string, SnapshotImage> before, after;
    rc = snapshotOf(lsu, diff, false, to);
    if (rc == 0) rc = snapshotOf(lsu, base, true, from);
    if (rc == 0) rc = imagesOf(lsu, from, before);
    if (rc == 0) rc = imagesOf(lsu, to, after);
    return rc != 0 ? rc : ChangeListSlots::give(differences(before, after), out);
}

} // namespace

void registerSnapshotSlots(sts_api_t& a)
{
    a.stsa_claim_volume = claimVolume;
    a.stsa_get_snap_prop_byname = getSnapProp;
    a.stsa_open_snap_change_list = openChangeList;
    ChangeListSlots::registerIn(a);
}

} // namespace radosplugin
