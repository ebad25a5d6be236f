// Conversions of the image, snapshot, volume, file and control records.
#include "ProxyUtil.h"

#include <cstring>

namespace {

template <typename T>
void zeroHead(T* to)
{
    std::memset(static_cast<void*>(to), 0, 8);
}

// The members every image definition generation shares.
template <typename Contract>
void imageDefToC(const Contract& from, sts_image_def_v10_t* to)
{
    zeroHead(to);
    toC(to->img_date, from.shortdate, 32);
    toC(to->img_fulldate, from.fulldate, 32);
    toC(to->img_policy, from.policy, 1024);
    to->img_saveas = from.saveas;
    to->img_flags = from.flags;
    toC(to->img_format, from.format, 16);
    toC(to->img_basename, from.base_name, 1024);
    to->version = from.version;
    to->img_filler = from.filler;
    to->img_isid.version = from.isid.is_version;
    toC(to->img_isid.is_dpaid, from.isid.is_dpaid, 64);
    toC(to->img_isid.is_dpaver, from.isid.is_dpaversion, 32);
}

template <typename Contract>
void imageDefToContract(const sts_image_def_v10_t& from, Contract* to)
{
    to->shortdate = dupField(from.img_date);
    to->fulldate = dupField(from.img_fulldate);
    to->policy = dupField(from.img_policy);
    to->saveas = from.img_saveas;
    to->flags = from.img_flags;
    to->format = dupField(from.img_format);
    to->base_name = dupField(from.img_basename);
    to->version = from.version;
    to->filler = from.img_filler;
    to->isid.is_version = from.img_isid.version;
    to->isid.is_dpaid = dupField(from.img_isid.is_dpaid);
    to->isid.is_dpaversion = dupField(from.img_isid.is_dpaver);
}

template <typename Contract>
void imageInfoToC(const Contract& from, sts_image_info_v10_t* to)
{
    zeroHead(to);
    to->version = from.imo_version;
    CORBA2ZVS(from.imo_def, &to->imo_def);
    toC(to->imo_server, from.imo_server, 512);
    toC(to->imo_lsu.sln_name, from.imo_lsu, 1024);
    to->imo_size = from.imo_size;
    to->imo_block_size = from.imo_block_size;
    for (int i = 0; i < 4; ++i) {
        sts_export_t ex;   // built whole, then copied into place
        std::memset(&ex, 0, sizeof(ex));
        ex.ex_fstype = from.imo_export[i].ex_fstype;
        ex.ex_filler = from.imo_export[i].ex_filler;
        toC(ex.ex_mount, from.imo_export[i].ex_mount, 1024);
        to->imo_export[i] = ex;
    }
    to->imo_status = from.imo_status;
    to->imo_filler = from.imo_filler;
}

template <typename Contract>
void imageInfoToContract(const sts_image_info_v10_t& from, Contract* to)
{
    ZVS2CORBA(from.imo_def, &to->imo_def);
    to->imo_version = from.version;
    to->imo_server = dupField(from.imo_server);
    to->imo_lsu = dupField(from.imo_lsu.sln_name);
    to->imo_size = from.imo_size;
    to->imo_block_size = from.imo_block_size;
    for (int i = 0; i < 4; ++i) {
        to->imo_export[i].ex_fstype = from.imo_export[i].ex_fstype;
        to->imo_export[i].ex_filler = from.imo_export[i].ex_filler;
        to->imo_export[i].ex_mount = dupField(from.imo_export[i].ex_mount);
    }
    to->imo_status = from.imo_status;
    to->imo_filler = from.imo_filler;
}

template <typename Isid, typename C>
void supplierTextToC(const Isid& from, C* to)
{
    to->version = from.is_version;
    toC(to->is_dpaid, from.is_dpaid, 64);
    toC(to->is_dpaver, from.is_dpaversion, 32);
    toC(to->is_info, from.is_dpainfo, 4096);
}

template <typename Isid, typename C>
void supplierTextToContract(const C& from, Isid* to)
{
    to->is_version = from.version;
    to->is_dpaid = dupField(from.is_dpaid);
    to->is_dpaversion = dupField(from.is_dpaver);
    to->is_dpainfo = dupField(from.is_info);
}

// The contract's char arrays are arrays of the ORB's (unsigned) char.
const char* contractChars(const CORBA::Char* chars)
{
    return reinterpret_cast<const char*>(chars);
}

char* contractChars(CORBA::Char* chars)
{
    return reinterpret_cast<char*>(chars);
}

} // namespace

int CORBA2ZVS(const API::ImageDefinitionV10& from, sts_image_def_v10_t* to)
{
    imageDefToC(from, to);
    toC(to->img_isid.is_info, from.isid.is_dpainfo, 4096);
    return 0;
}

int ZVS2CORBA(const sts_image_def_v10_t& from, API::ImageDefinitionV10* to)
{
    imageDefToContract(from, to);
    to->isid.is_dpainfo = dupField(from.img_isid.is_info);
    return 0;
}

// The structured supplier information lies at fixed places in is_info.  The
// lifecycle policy name goes to the plug-in cut to 511 characters although
// its field is 1024 wide; it comes back whole.
int CORBA2ZVS(const API::ImageDefinitionV13& from, sts_image_def_v10_t* to)
{
    imageDefToC(from, to);
    const API::DpaInfoV13& d = from.isid.is_dpainfo;
    stskdv_isinfo_t info;
    std::memcpy(&info, to->img_isid.is_info, sizeof(info));
    toC(info.bi_master_server, d.isi_bckpid.bi_master_server, 512);
    info.bi_time = d.isi_bckpid.bi_time;
    info.bi_copy_number = d.isi_bckpid.bi_copy_number;
    info.isi_strm_num = d.isi_strm_num;
    info.isi_img_type = static_cast<sts_uint32_t>(d.isi_img_type);
    info.isi_frag_num = d.isi_frag_num;
    info.isi_instance_num = d.isi_instance_num;
    toC(info.isi_client, d.isi_client, 512);
    toC(info.isi_slpname, d.isi_slpname, 512);
    std::memcpy(to->img_isid.is_info, &info, sizeof(info));
    return 0;
}

int ZVS2CORBA(const sts_image_def_v10_t& from, API::ImageDefinitionV13* to)
{
    imageDefToContract(from, to);
    stskdv_isinfo_t info;
    std::memcpy(&info, from.img_isid.is_info, sizeof(info));
    API::DpaInfoV13& d = to->isid.is_dpainfo;
    d.isi_bckpid.bi_master_server = dupField(info.bi_master_server);
    d.isi_bckpid.bi_time = info.bi_time;
    d.isi_bckpid.bi_copy_number = info.bi_copy_number;
    d.isi_strm_num = info.isi_strm_num;
    d.isi_img_type = static_cast<API::KdvImgTypeV65>(info.isi_img_type);
    d.isi_frag_num = info.isi_frag_num;
    d.isi_instance_num = info.isi_instance_num;
    d.isi_client = dupField(info.isi_client);
    d.isi_slpname = dupField(info.isi_slpname);
    return 0;
}

int CORBA2ZVS(const API::ImageInformationV10& from, sts_image_info_v10_t* to) { imageInfoToC(from, to); return 0; }
int ZVS2CORBA(const sts_image_info_v10_t& from, API::ImageInformationV10* to) { imageInfoToContract(from, to); return 0; }
int CORBA2ZVS(const API::ImageInformationV13& from, sts_image_info_v10_t* to) { imageInfoToC(from, to); return 0; }
int ZVS2CORBA(const sts_image_info_v10_t& from, API::ImageInformationV13* to) { imageInfoToContract(from, to); return 0; }

int CORBA2ZVS(const API::AioResult& from, sts_aioresult_v11_t* to)
{
    zeroHead(to);
    to->aio_bytes_transferred = from.bytes_transferred;
    to->aio_error = static_cast<int>(from.error);
    return 0;
}

int ZVS2CORBA(const sts_aioresult_v11_t& from, API::AioResult* to)
{
    to->bytes_transferred = from.aio_bytes_transferred;
    to->error = static_cast<API::UInt32>(from.aio_error);
    return 0;
}

int CORBA2ZVS(const API::FileAttrV11& from, sts_file_attr_v11_t* to)
{
    zeroHead(to);
    toC(to->object_name, from.object_name, 4096);
    to->object_type = static_cast<sts_diff_object_type_v11_t>(from.object_type);
    to->object_state = static_cast<sts_diff_object_state_v11_t>(from.object_state);
    to->modified_time = from.modified_time;
    to->last_access_time = from.last_access_time;
    to->creation_time = from.creation_time;
    to->change_time = from.change_time;
    to->object_size = from.object_size;
    to->object_owner_id = from.object_owner_id;
    to->object_group_id = from.object_group_id;
    to->object_permission_bits = from.object_permission_bits;
    to->inode_num = from.inode_num;
    to->gen_num = from.gen_num;
    return 0;
}

int ZVS2CORBA(const sts_file_attr_v11_t& from, API::FileAttrV11* to)
{
    to->object_name = dupField(from.object_name);
    to->object_type = static_cast<API::DiffObjectTypeV11>(from.object_type);
    to->object_state = static_cast<API::DiffObjectStateV11>(from.object_state);
    to->modified_time = from.modified_time;
    to->last_access_time = from.last_access_time;
    to->creation_time = from.creation_time;
    to->change_time = from.change_time;
    to->object_size = from.object_size;
    to->object_owner_id = from.object_owner_id;
    to->object_group_id = from.object_group_id;
    to->object_permission_bits = from.object_permission_bits;
    to->inode_num = from.inode_num;
    to->gen_num = from.gen_num;
    return 0;
}

int CORBA2ZVS(const API::STSPathName& from, char (*to)[1024])
{
    zeroHead(to);
    toC(*to, from.pn_name, 1024);
    return 0;
}

int ZVS2CORBA(const char (&from)[1024], API::STSPathName* to)
{
    to->pn_name = dupField(from);
    return 0;
}

int CORBA2ZVS(const API::SnapDefinitionV11& from, sts_snap_def_v11_t* to)
{
    zeroHead(to);
    toC(to->sd_snap_name, from.sd_snap_name, 2048);
    to->sd_snap_type = static_cast<sts_snap_type_v11_t>(from.sd_snap_type);
    to->sd_snap_flags = from.sd_snap_flags;
    to->sd_snap_saveas = from.sd_snap_saveas;
    supplierTextToC(from.sd_snap_isid, &to->sd_snap_isid);
    return 0;
}

int ZVS2CORBA(const sts_snap_def_v11_t& from, API::SnapDefinitionV11* to)
{
    to->sd_snap_name = dupField(from.sd_snap_name);
    to->sd_snap_type = static_cast<API::SnapTypeV11>(from.sd_snap_type);
    to->sd_snap_flags = from.sd_snap_flags;
    to->sd_snap_saveas = from.sd_snap_saveas;
    supplierTextToContract(from.sd_snap_isid, &to->sd_snap_isid);
    return 0;
}

int CORBA2ZVS(const API::SnapInformationV11& from, sts_snap_info_v11_t* to)
{
    zeroHead(to);
    toC(to->sno_snap_server, from.sno_snap_server, 512);
    toC(to->sno_snap_lsu.sln_name, from.sno_snap_lsu, 1024);
    to->sno_snap_status = from.sno_snap_status;
    to->sno_snap_size = from.sno_snap_size;
    CORBA2ZVS(from.sno_snap_vol_spec, &to->sno_snap_vol_spec);
    CORBA2ZVS(from.sno_snap_def, &to->sno_snap_def);
    return 0;
}

int ZVS2CORBA(const sts_snap_info_v11_t& from, API::SnapInformationV11* to)
{
    to->sno_snap_server = dupField(from.sno_snap_server);
    to->sno_snap_lsu = dupField(from.sno_snap_lsu.sln_name);
    to->sno_snap_status = from.sno_snap_status;
    to->sno_snap_size = from.sno_snap_size;
    ZVS2CORBA(from.sno_snap_vol_spec, &to->sno_snap_vol_spec);
    ZVS2CORBA(from.sno_snap_def, &to->sno_snap_def);
    return 0;
}

// The switch is vs_volume_type on both sides.  The union's own
// discriminator only guards the read: a member the client did not set is
// taken as empty strings, never read through the union's unset pointer.
int CORBA2ZVS(const API::VolumeSpecV11& from, sts_volume_spec_v11_t* to)
{
    zeroHead(to);
    to->vs_volume_type = static_cast<sts_volume_type_v11_t>(from.vs_volume_type);
    if (from.v._d() != static_cast<CORBA::Short>(from.vs_volume_type)) {
        std::memset(&to->v, 0, sizeof(to->v));
        return 0;
    }
    switch (from.vs_volume_type) {
    case API::STS_VOLUME_NFS:
        toC(to->v.v_nfs.fs_export_host, from.v.v_nfs().fs_export_host);
        toC(to->v.v_nfs.fs_export_name, from.v.v_nfs().fs_export_name);
        toC(to->v.v_nfs.fs_export_path, from.v.v_nfs().fs_export_path);
        break;
    case API::STS_VOLUME_CIFS:
        toC(to->v.v_cifs.fs_export_host, from.v.v_cifs().fs_export_host);
        toC(to->v.v_cifs.fs_share_name, from.v.v_cifs().fs_share_name);
        toC(to->v.v_cifs.fs_export_path, from.v.v_cifs().fs_export_path);
        break;
    case API::STS_VOLUME_SCSI:
        toC(to->v.v_scsi.lun_wwnn, from.v.v_scsi().lun_wwnn);
        toC(to->v.v_scsi.lun_serial, from.v.v_scsi().lun_serial);
        break;
    case API::STS_VOLUME_DEVICE:
        toC(to->v.v_device.dv_device_path, from.v.v_device().dv_device_path);
        break;
    case API::STS_VOLUME_NDMP:
        toC(to->v.v_ndmp.fs_export_filer, from.v.v_ndmp().fs_export_filer);
        toC(to->v.v_ndmp.fs_export_path, from.v.v_ndmp().fs_export_path);
        break;
    default:
        break;
    }
    return 0;
}

int ZVS2CORBA(const sts_volume_spec_v11_t& from, API::VolumeSpecV11* to)
{
    const int type = static_cast<int>(from.vs_volume_type);
    // The contract's enumeration ends at 4, and no ORB marshals or accepts
    // a value past it: such a type travels in the union's discriminator.
    to->vs_volume_type = type >= 0 && type <= API::STS_VOLUME_NDMP ? static_cast<API::VolumeTypeV11>(type)
                                                                    : API::STS_VOLUME_NFS;
    switch (type) {
    case 0: {
        API::NfsVolumeV11 m;
        m.fs_export_host = dupField(from.v.v_nfs.fs_export_host);
        m.fs_export_name = dupField(from.v.v_nfs.fs_export_name);
        m.fs_export_path = dupField(from.v.v_nfs.fs_export_path);
        to->v.v_nfs(m);
        break;
    }
    case 1: {
        API::CifsVolumeV11 m;
        m.fs_export_host = dupField(from.v.v_cifs.fs_export_host);
        m.fs_share_name = dupField(from.v.v_cifs.fs_share_name);
        m.fs_export_path = dupField(from.v.v_cifs.fs_export_path);
        to->v.v_cifs(m);
        break;
    }
    case 2: {
        API::ScsiVolumeV11 m;
        m.lun_wwnn = dupField(from.v.v_scsi.lun_wwnn);
        m.lun_serial = dupField(from.v.v_scsi.lun_serial);
        to->v.v_scsi(m);
        break;
    }
    case 3: {
        API::DeviceVolumeV11 m;
        m.dv_device_path = dupField(from.v.v_device.dv_device_path);
        to->v.v_device(m);
        break;
    }
    case 4: {
        API::NdmpVolumeV11 m;
        m.fs_export_filer = dupField(from.v.v_ndmp.fs_export_filer);
        m.fs_export_path = dupField(from.v.v_ndmp.fs_export_path);
        to->v.v_ndmp(m);
        break;
    }
    default:
        // Above 4: the discriminator alone, no member.  The union must be
        // made valid first, or it would go on the wire uninitialised.
        to->v._default();
        to->v._d(static_cast<CORBA::Short>(type));
        break;
    }
    return 0;
}

#define RESTORE_PAIRS(X)                                                      \
    X(frag_num, fragnum) X(first_blk, firstblk) X(blocks_to_skip, blocks_to_skip) \
    X(bytes_to_skip, bytes_to_skip) X(tar_pid, tar_pid) X(tar_exitstat, tar_exitstat) \
    X(tar_control, tar_control) X(suspended, suspended) X(copy_num, copy_num) \
    X(reqd_port, reqd_port) X(child_delay, child_delay)                       \
    X(locate_available, locate_available) X(min_locate_skip, min_locate_skip) X(valid, valid)
#define RESTORE_NAMES(X) X(restore_svr) X(client) X(backupid) X(reqd_ipc)

// Same names on both sides but frag_num/fragnum and first_blk/firstblk;
// reserve2 has no contract member and is left alone.
int CORBA2ZVS(const API::RestoreCntl& from, sts_ioctl_restore_cntl_v9_t* to)
{
    zeroHead(to);
#define TO_C(c, z) to->z = from.c; to->b_##z = from.b_##c;
    RESTORE_PAIRS(TO_C)
#undef TO_C
#define NAME_TO_C(n) toC(to->n, from.n, 1024); to->b_##n = from.b_##n;
    RESTORE_NAMES(NAME_TO_C)
#undef NAME_TO_C
    to->b_set_restore_info = from.b_set_restore_info;
    return 0;
}

int ZVS2CORBA(const sts_ioctl_restore_cntl_v9_t* from, API::RestoreCntl* to)
{
#define TO_CONTRACT(c, z) to->c = from->z; to->b_##c = from->b_##z;
    RESTORE_PAIRS(TO_CONTRACT)
#undef TO_CONTRACT
#define NAME_TO_CONTRACT(n) to->n = dupField(from->n); to->b_##n = from->b_##n;
    RESTORE_NAMES(NAME_TO_CONTRACT)
#undef NAME_TO_CONTRACT
    to->b_set_restore_info = from->b_set_restore_info;
    return 0;
}

// Both directions of the file-system-copy configuration clear the whole
// target first.
int CORBA2ZVS(const API::FscpConfig& from, sts_ioctl_fscp_config_v9_t* to)
{
    std::memset(to, 0, sizeof(*to));
    boundedCopy(to->frag.backup_id, contractChars(from.frag.backup_id), 200);
    to->frag.copy_num = from.frag.copy_num;
    to->frag.frag_num = from.frag.frag_num;
    to->frag.remainder = from.frag.remainder;
    to->frag.resume_nbr = from.frag.resume_nbr;
    to->frag.kbytes = from.frag.kbytes;
    to->frag.offset = from.frag.offset;
    to->maxfragsize = from.maxfragsize;
    to->backup_time = from.backup_time;
    to->sched_type = from.sched_type;
    boundedCopy(to->policy, contractChars(from.policy), 1024);
    return 0;
}

int ZVS2CORBA(const sts_ioctl_fscp_config_v9_t* from, API::FscpConfig* to)
{
    *to = API::FscpConfig();
    std::memset(to->frag.backup_id, 0, sizeof(to->frag.backup_id));
    std::memset(to->policy, 0, sizeof(to->policy));
    boundedCopy(contractChars(to->frag.backup_id), from->frag.backup_id, 200);
    to->frag.copy_num = from->frag.copy_num;
    to->frag.frag_num = from->frag.frag_num;
    to->frag.remainder = from->frag.remainder;
    to->frag.resume_nbr = from->frag.resume_nbr;
    to->frag.kbytes = from->frag.kbytes;
    to->frag.offset = from->frag.offset;
    to->maxfragsize = from->maxfragsize;
    to->backup_time = from->backup_time;
    to->sched_type = from->sched_type;
    boundedCopy(contractChars(to->policy), from->policy, 1024);
    return 0;
}

int CORBA2ZVS(const API::FscpInfo& from, sts_ioctl_fscp_info_v9_t* to)
{
    to->totalbytescopied = from.totalbytescopied;
    return 0;
}

// reserved has no C counterpart: it goes out empty, never null, since a
// null string cannot be marshalled.
int ZVS2CORBA(const sts_ioctl_fscp_info_v9_t* from, API::FscpInfo* to)
{
    to->reserved = CORBA::string_dup("");
    to->totalbytescopied = from->totalbytescopied;
    return 0;
}

// The media handle and the LSU's server handle do not cross: the servant
// sets them.
int CORBA2ZVS(const API::MediaState& from, sts_ioctl_set_media_state_v9_t* to)
{
    zeroHead(to);
    to->sio_media_state_flags = from.flags;
    toC(to->sio_lsu.stl_lsu_name.sln_name, from.lsu_name, 1024);
    return 0;
}

int ZVS2CORBA(const sts_ioctl_set_media_state_v9_t& from, API::MediaState* to)
{
    to->flags = from.sio_media_state_flags;
    to->lsu_name = dupField(from.sio_lsu.stl_lsu_name.sln_name);
    return 0;
}

// One less than the field's 2049.
int CORBA2ZVS(const API::DdupStatsInfo& from, sts_ioctl_ddup_stats_info_v9_t* to)
{
    zeroHead(to);
    boundedCopy(to->ds_msg, from.msg, 2048);
    to->ds_msg_len = from.len;
    return 0;
}
