/*
 * The storage API: the C records that cross the table of entry points, the
 * function type of every slot the service calls, and the table itself,
 * sts_api_t, with all 135 slots in the order the storage framework lays
 * them out.  Plain C.
 */
#ifndef STS_API_H
#define STS_API_H

#include "sts_types.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Server and LSU records. */
typedef struct sts_lsu_name_v7 {
    char sln_name[1024];
} sts_lsu_name_v7_t;
typedef sts_lsu_name_v7_t sts_lsu_name_t;

typedef struct sts_lsu_v7 {
    sts_handle_t stl_server_handle;
    sts_lsu_name_t stl_lsu_name;
} sts_lsu_v7_t;
typedef sts_lsu_v7_t sts_lsu_t;

typedef enum sts_lsu_alloc_type {
    STS_LSU_AT_NONE = 0,
    STS_LSU_AT_STATIC = 1,
    STS_LSU_AT_DYNAMIC = 2,
    STS_LSU_AT_POOL = 3
} sts_lsu_alloc_type_t;

typedef enum sts_lsu_storage_type {
    STS_LSU_ST_NONE = 0,
    STS_LSU_ST_FILE = 1,
    STS_LSU_ST_BLOCK = 2
} sts_lsu_storage_type_t;

typedef struct sts_lsu_def_v9 {
    sts_lsu_name_t sld_name;
    sts_lsu_alloc_type_t sld_alloc;
    sts_lsu_storage_type_t sld_storage;
    sts_lsu_description_v7_t sld_description;
    sts_config_v9_t sld_config;
    sts_uint32_t sld_flags;
    sts_uint32_t sld_saveas;
    sts_uint64_t sld_max_transfer;
    sts_uint64_t sld_block_size;
    sts_uint64_t sld_alloc_size;
    sts_lsu_label_v9_t sld_label;
} sts_lsu_def_v9_t;

typedef struct sts_lsu_def_v11 {
    sts_uint64_t version;
    sts_lsu_name_t sld_name;
    sts_lsu_alloc_type_t sld_alloc;
    sts_lsu_storage_type_t sld_storage;
    sts_lsu_description_v7_t sld_description;
    sts_config_v9_t sld_config;
    sts_uint32_t sld_flags;
    sts_uint32_t sld_saveas;
    sts_uint64_t sld_max_transfer;
    sts_uint64_t sld_block_size;
    sts_uint64_t sld_alloc_size;
    sts_lsu_label_v9_t sld_label;
    sts_uint32_t sld_rep_sources;
    sts_uint32_t sld_rep_targets;
} sts_lsu_def_v11_t;
typedef sts_lsu_def_v11_t sts_lsu_def_t;

typedef struct sts_lsu_info_v9 {
    sts_server_name_v7_t lsu_server;
    sts_lsu_def_v9_t lsu_def;
    sts_uint64_t lsu_capacity;
    sts_uint64_t lsu_capacity_phys;
    sts_uint64_t lsu_used;
    sts_uint64_t lsu_used_phys;
    sts_uint64_t lsu_images;
} sts_lsu_info_v9_t;

typedef struct sts_lsu_info_v11 {
    sts_uint64_t version;
    sts_server_name_v7_t lsu_server;
    sts_lsu_def_t lsu_def;
    sts_uint64_t lsu_capacity;
    sts_uint64_t lsu_capacity_phys;
    sts_uint64_t lsu_used;
    sts_uint64_t lsu_used_phys;
    sts_uint64_t lsu_images;
} sts_lsu_info_v11_t;
typedef sts_lsu_info_v11_t sts_lsu_info_t;

typedef struct sts_server_info_v8 {
    sts_server_name_v7_t srv_server;
    sts_stream_format_v7_t srv_sth[32];
    sts_uint32_t srv_flags;
    sts_uint32_t srv_maxconnect;
    sts_uint32_t srv_nconnect;
    sts_srv_cap_v8_t srv_cap[65];
    sts_interface_v7_t srv_interface[32];
    sts_cred_type_v7_t srv_cred[8];
    sts_server_name_v7_t srv_ndmp_host;
} sts_server_info_v8_t;
typedef sts_server_info_v8_t sts_server_info_t;

typedef struct sts_host_v9 {
    sts_host_name_v9_t sh_name;
    sts_cred_t sh_cred;
    sts_interface_v7_t sh_iface;
} sts_host_v9_t;
typedef sts_host_v9_t sts_host_t;

typedef struct sts_lsu_pool_v9 {
    sts_lsu_name_t lp_name;
    sts_lsu_priority_v9_t lp_priority;
} sts_lsu_pool_v9_t;
typedef sts_lsu_pool_v9_t sts_lsu_pool_t;

typedef struct sts_storel_v9 {
    sts_storel_name_v7_t ste_devname;
    sts_config_v9_t ste_config;
    sts_uint64_t ste_off;
    sts_uint64_t ste_length;
} sts_storel_v9_t;
typedef sts_storel_v9_t sts_storel_t;

typedef struct sts_storel_info_v9 {
    sts_storel_t sti_storel;
    sts_lsu_name_t sti_owner;
    sts_lsu_name_t sti_assignee;
} sts_storel_info_v9_t;
typedef sts_storel_info_v9_t sts_storel_info_t;

/* Image records. */
typedef struct sts_isid_v10 {
    sts_uint64_t version;
    sts_dpaid_v10_t is_dpaid;
    sts_dpaver_v10_t is_dpaver;
    sts_isinfo_v10_t is_info;
} sts_isid_v10_t;

typedef struct sts_image_def_v10 {
    sts_uint64_t version;
    sts_image_name_v7_t img_basename;
    sts_date_v7_t img_date;
    sts_date_v7_t img_fulldate;
    sts_policy_v7_t img_policy;
    sts_uint32_t img_saveas;
    sts_uint32_t img_flags;
    sts_stream_format_v7_t img_format;
    sts_uint32_t img_filler;
    sts_isid_v10_t img_isid;
} sts_image_def_v10_t;
typedef sts_image_def_v10_t sts_image_def_t;

typedef struct sts_export_v7 {
    sts_exfs_v7_t ex_fstype;
    sts_uint32_t ex_filler;
    sts_mount_v7_t ex_mount;
} sts_export_v7_t;
typedef sts_export_v7_t sts_export_t;

typedef struct sts_image_info_v10 {
    sts_uint64_t version;
    sts_image_def_t imo_def;
    sts_server_name_v7_t imo_server;
    sts_lsu_name_t imo_lsu;
    sts_uint64_t imo_size;
    sts_uint64_t imo_block_size;
    sts_export_t imo_export[4];
    sts_uint32_t imo_status;
    sts_uint32_t imo_filler;
} sts_image_info_v10_t;
typedef sts_image_info_v10_t sts_image_info_t;

/* Write statistics of a slot. */
typedef struct sts_stat {
    sts_uint64_t st_unused[7];
    sts_uint32_t st_magic;
    sts_uint32_t st_filler;
    sts_uint32_t st_type;
    sts_uint32_t st_flags;
    sts_uint64_t st_seqno;
    sts_uint64_t st_len;
    sts_uint64_t st_stat[1];
} sts_stat_t;

typedef struct sts_opname {
    char op_name[256];
} sts_opname_t;

typedef struct sts_aioresult_v11 {
    sts_uint64_t aio_bytes_transferred;
    int aio_error;
} sts_aioresult_v11_t;
typedef sts_aioresult_v11_t sts_aioresult_t;

/* The structured supplier information, laid out at the start of is_info of
 * an image definition (2072 bytes). */
typedef struct stskdv_isinfo {
    char bi_master_server[512];
    sts_uint32_t bi_time;
    sts_uint32_t bi_copy_number;
    sts_uint32_t isi_strm_num;
    sts_uint32_t isi_img_type;
    sts_uint32_t isi_frag_num;
    sts_uint32_t isi_instance_num;
    char isi_client[512];
    char isi_slpname[1024];
} stskdv_isinfo_t;

/* Control records of stsa_ioctl. */
typedef struct sts_ioctl_restore_cntl_v9 {
    sts_int32_t fragnum;
    sts_int64_t firstblk;
    sts_int64_t blocks_to_skip;
    sts_int64_t bytes_to_skip;
    sts_int32_t tar_pid;
    sts_int32_t tar_exitstat;
    sts_int32_t tar_control;
    sts_int32_t suspended;
    sts_int32_t reserve2;
    char b_fragnum;
    char b_firstblk;
    char b_blocks_to_skip;
    char b_bytes_to_skip;
    char b_tar_pid;
    char b_tar_exitstat;
    char b_tar_control;
    char b_suspended;
    char b_reserve2;
    char b_set_restore_info;
    sts_int32_t copy_num;
    char b_copy_num;
    sts_int32_t reqd_port;
    char b_reqd_port;
    char restore_svr[1024];
    char b_restore_svr;
    char client[1024];
    char b_client;
    char backupid[1024];
    char b_backupid;
    sts_int32_t child_delay;
    char b_child_delay;
    sts_int32_t locate_available;
    char b_locate_available;
    sts_int32_t min_locate_skip;
    char b_min_locate_skip;
    sts_int32_t valid;
    char b_valid;
    char reqd_ipc[1024];
    char b_reqd_ipc;
} sts_ioctl_restore_cntl_v9_t;
typedef sts_ioctl_restore_cntl_v9_t sts_ioctl_restore_cntl_t;

typedef struct sts_ioctl_fscp_frag_v9 {
    char backup_id[200];
    sts_uint32_t copy_num;
    sts_uint32_t frag_num;
    sts_uint32_t remainder;
    sts_uint32_t resume_nbr;
    sts_uint64_t kbytes;
    sts_uint64_t offset;
} sts_ioctl_fscp_frag_t;

typedef struct sts_ioctl_fscp_config_v9 {
    sts_ioctl_fscp_frag_t frag;
    sts_uint64_t maxfragsize;
    sts_uint32_t backup_time;
    sts_uint32_t sched_type;
    char policy[1024];
} sts_ioctl_fscp_config_v9_t;
typedef sts_ioctl_fscp_config_v9_t sts_ioctl_fscp_config_t;

typedef struct sts_ioctl_fscp_info_v9 {
    sts_uint64_t totalbytescopied;
} sts_ioctl_fscp_info_v9_t;
typedef sts_ioctl_fscp_info_v9_t sts_ioctl_fscp_info_t;

typedef struct sts_ioctl_set_media_state_v9 {
    sts_uint32_t sio_media_state_flags;
    sts_handle_t sio_media_handle;
    sts_lsu_t sio_lsu;
} sts_ioctl_set_media_state_v9_t;
typedef sts_ioctl_set_media_state_v9_t sts_ioctl_set_media_state_t;

typedef struct sts_ioctl_ddup_stats_info_v9 {
    char ds_msg[2049];
    sts_uint32_t ds_msg_len;
} sts_ioctl_ddup_stats_info_v9_t;
typedef sts_ioctl_ddup_stats_info_v9_t sts_ioctl_ddup_stats_info_t;

typedef struct sts_ioctl_get_lsu_unique_id {
    sts_lsu_t lsu;
    char unique_id[2048];
} sts_ioctl_get_lsu_unique_id_t;

/* Control requests of stsa_ioctl on a server handle.  The service passes
 * the number its client sends on unread, except for the unique id, whose
 * number it chooses itself; the remote contract carries each of these with
 * its own operation and payload, so a plug-in that serves one of them uses
 * its number here, and the remote plug-in forwards exactly these. */
#define STS_IOCTL_SET_RETRY_TIMEOUT 20001   /* sts_uint32_t seconds */
#define STS_IOCTL_SET_MEDIA_STATE 20002     /* sts_ioctl_set_media_state_t */
#define STS_IOCTL_SET_RESTORE_CNTL 20003    /* sts_ioctl_restore_cntl_t */
#define STS_IOCTL_GET_LSU_UNIQUE_ID 20004   /* sts_ioctl_get_lsu_unique_id_t */
#define STS_IOCTL_GET_RESTORE_CNTL 20005    /* sts_ioctl_restore_cntl_t */
#define STS_IOCTL_SET_FSCP_CONFIG 20006     /* sts_ioctl_fscp_config_t */
#define STS_IOCTL_GET_FSCP_INFO 20007       /* sts_ioctl_fscp_info_t */
#define STS_IOCTL_GET_DDUP_STATS 20008      /* sts_ioctl_ddup_stats_info_t */

/* Volumes. */
typedef enum sts_volume_type_v11 {
    STS_VOLUME_NFS = 0,
    STS_VOLUME_CIFS = 1,
    STS_VOLUME_SCSI = 2,
    STS_VOLUME_DEVICE = 3,
    STS_VOLUME_NDMP = 4,
    /* Makes every int a value of the type: a plug-in may pass others on. */
    STS_VOLUME_TYPE_LIMIT = 0x7fffffff
} sts_volume_type_v11_t;

typedef struct sts_nfs_volume_v11 {
    sts_hostname_v11_t fs_export_host;
    sts_volumename_v11_t fs_export_name;
    sts_pathname_v11_t fs_export_path;
} sts_nfs_volume_v11_t;

typedef struct sts_cifs_volume_v11 {
    sts_hostname_v11_t fs_export_host;
    sts_volumename_v11_t fs_share_name;
    sts_pathname_v11_t fs_export_path;
} sts_cifs_volume_v11_t;

typedef struct sts_scsi_volume_v11 {
    sts_wwname_v11_t lun_wwnn;
    sts_serialnumber_v11_t lun_serial;
} sts_scsi_volume_v11_t;

typedef struct sts_device_volume_v11 {
    sts_device_path_v11_t dv_device_path;
} sts_device_volume_v11_t;

typedef struct sts_ndmp_volume_v11 {
    sts_hostname_v11_t fs_export_filer;
    sts_volumename_v11_t fs_export_path;
} sts_ndmp_volume_v11_t;

typedef struct sts_volume_spec_v11 {
    union {
        sts_nfs_volume_v11_t v_nfs;
        sts_cifs_volume_v11_t v_cifs;
        sts_scsi_volume_v11_t v_scsi;
        sts_device_volume_v11_t v_device;
        sts_ndmp_volume_v11_t v_ndmp;
    } v;
    sts_volume_type_v11_t vs_volume_type;
} sts_volume_spec_v11_t;
typedef sts_volume_spec_v11_t sts_volume_spec_t;

/* Snapshots. */
typedef enum sts_snap_type_v11 {
    STS_SNAPT_AUTO = 0,
    STS_SNAPT_CLONE = 1,
    STS_SNAPT_PLEX = 2,
    STS_SNAPT_DIFF = 3
} sts_snap_type_v11_t;

typedef struct sts_snap_def_v11 {
    sts_snap_name_v11_t sd_snap_name;
    sts_snap_type_v11_t sd_snap_type;
    sts_uint32_t sd_snap_flags;
    sts_uint32_t sd_snap_saveas;
    sts_isid_v10_t sd_snap_isid;
} sts_snap_def_v11_t;
typedef sts_snap_def_v11_t sts_snap_def_t;

typedef struct sts_snap_info_v11 {
    sts_snap_def_t sno_snap_def;
    sts_server_name_v7_t sno_snap_server;
    sts_lsu_name_t sno_snap_lsu;
    sts_volume_spec_t sno_snap_vol_spec;
    sts_uint32_t sno_snap_status;
    sts_uint64_t sno_snap_size;
} sts_snap_info_v11_t;
typedef sts_snap_info_v11_t sts_snap_info_t;

/* Files of a snapshot change list. */
typedef enum sts_diff_object_type_v11 {
    STS_DIFF_OBJECT_FILE = 0,
    STS_DIFF_OBJECT_DIR = 1
} sts_diff_object_type_v11_t;

typedef enum sts_diff_object_state_v11 {
    STS_DIFF_OBJECT_STATE_ADDED = 0,
    STS_DIFF_OBJECT_STATE_DELETED = 1,
    STS_DIFF_OBJECT_STATE_MODIFIED = 2
} sts_diff_object_state_v11_t;

typedef struct sts_file_attr_v11 {
    sts_diff_object_name_v11_t object_name;
    sts_diff_object_type_v11_t object_type;
    sts_diff_object_state_v11_t object_state;
    sts_uint64_t modified_time;
    sts_uint64_t last_access_time;
    sts_uint64_t creation_time;
    sts_uint64_t change_time;
    sts_uint64_t object_size;
    sts_uint32_t object_owner_id;
    sts_uint32_t object_group_id;
    sts_uint64_t object_permission_bits;
    sts_uint32_t inode_num;
    sts_uint32_t gen_num;
} sts_file_attr_v11_t;
typedef sts_file_attr_v11_t sts_file_attr_t;

/* Events of a channel.  The service keeps the record's shape only: no slot
 * it calls delivers one. */
typedef struct sts_event_type_v11 {
    sts_uint32_t evt_inline;   /* the payload travels in ev_body */
    sts_uint32_t evt_detached; /* the payload must be fetched separately */
} sts_event_type_v11_t;

typedef union sts_event_body_v11 {
    sts_evpl_v9_t evb_payload;
    sts_lsu_name_t evb_lsu;
    sts_image_def_t evb_image;
} sts_event_body_v11_t;

typedef struct sts_event_v11 {
    sts_uint64_t version;
    sts_evseqno_v11_t ev_seqno;
    sts_server_name_v7_t ev_server;
    sts_uint64_t ev_flags;
    sts_event_type_v11_t ev_type;
    sts_event_body_v11_t ev_body;
} sts_event_v11_t;
typedef sts_event_v11_t sts_event_t;

typedef void (*sts_evhandler_v11_t)(sts_event_t *event);

/* Slots the service calls. */
typedef int (*sts_activate_lsu_v9_t)(const sts_session_def_t*, const sts_lsu_t*, int);
typedef int (*sts_add_pool_lsu_v9_t)(sts_handle_t, const sts_lsu_pool_t*);
typedef int (*sts_alloc_lsu_v9_t)(sts_handle_t, const sts_storel_t*);
typedef int (*sts_claim_volume_v11_t)(sts_server_handle_t, const sts_volume_spec_t*);
typedef int (*sts_close_handle_v9_t)(sts_handle_t, sts_uint32_t);
typedef int (*sts_close_snap_change_list_v11_t)(sts_file_list_handle_t);
typedef int (*sts_copy_extent_v9_t)(sts_handle_t, sts_uint64_t, sts_handle_t, sts_uint64_t, sts_uint64_t, int, sts_uint64_t*);
typedef int (*sts_create_image_v10_t)(sts_lsu_t*, const sts_image_def_t*, int, sts_handle_t*);
typedef int (*sts_create_server_v9_t)(sts_handle_t, const char*, const sts_cred_t*, const char*, const sts_host_t*, int, sts_handle_t*);
typedef int (*sts_dealloc_lsu_v9_t)(sts_handle_t, const sts_storel_t*);
typedef int (*sts_delete_files_v9_t)(sts_handle_t, const char**, sts_uint32_t);
typedef int (*sts_delete_image_v10_t)(const sts_lsu_t*, const sts_image_def_t*, int);
typedef int (*sts_delete_lsu_v7_t)(const sts_lsu_t*);
typedef int (*sts_extract_files_v9_t)(sts_handle_t, const sts_lsu_name_t*, int);
typedef int (*sts_find_lsu_v9_t)(sts_handle_t, const sts_lsu_name_t*, sts_lsu_name_t*);
typedef int (*sts_flush_v9_t)(sts_handle_t);
typedef int (*sts_get_host_v9_t)(sts_handle_t, sts_host_name_v9_t*, int, int, int*, int*);
typedef int (*sts_get_image_group_byname_v10_t)(const sts_lsu_t*, const sts_image_def_t*, sts_uint32_t*);
typedef int (*sts_get_image_group_v9_t)(sts_handle_t, sts_uint32_t*);
typedef int (*sts_get_image_prop_byname_v10_t)(const sts_lsu_t*, const sts_image_def_t*, sts_image_info_t*);
typedef int (*sts_get_image_prop_v10_t)(sts_handle_t, sts_image_info_t*);
typedef int (*sts_get_lsu_prop_byname_v11_t)(const sts_lsu_t*, sts_lsu_info_t*);
typedef int (*sts_get_pool_lsu_v9_t)(sts_handle_t, sts_lsu_pool_t*, int, int*, int*);
typedef int (*sts_get_server_config_v11_t)(sts_handle_t, char*, sts_uint32_t, sts_uint32_t*);
typedef int (*sts_get_server_prop_byname_v7_t)(const sts_session_def_t*, const char*, sts_server_info_t*);
typedef int (*sts_get_server_prop_v9_t)(sts_handle_t, sts_server_info_t*);
typedef int (*sts_get_snap_prop_byname_v11_t)(const sts_lsu_t*, const sts_snap_def_t*, sts_snap_info_t*);
typedef int (*sts_get_storel_prop_v9_t)(sts_handle_t, const char*, sts_storel_info_t*);
typedef int (*sts_get_storel_v9_t)(sts_handle_t, sts_storel_t*, int, int*, int*);
typedef int (*sts_include_in_image_v10_t)(sts_handle_t, sts_uint64_t, sts_handle_t, sts_uint64_t, sts_uint64_t, sts_uint64_t*);
typedef int (*sts_ioctl_v9_t)(sts_handle_t, sts_uint32_t, void*);
typedef int (*sts_label_lsu_v9_t)(const sts_lsu_t*, char*);
typedef int (*sts_list_file_v11_t)(sts_file_list_handle_t, sts_uint32_t, sts_pathname_v11_t*, sts_file_attr_t*);
typedef int (*sts_list_image_v10_t)(sts_handle_t, sts_image_def_t*);
typedef int (*sts_list_lsu_v9_t)(sts_handle_t, sts_lsu_name_t*);
typedef int (*sts_mount_lsu_v9_t)(const sts_lsu_t*, const char*, int, const char*, sts_lsu_name_t*);
typedef int (*sts_open_dynamic_lsu_list_v9_t)(const sts_lsu_t*, sts_handle_t*);
typedef int (*sts_open_image_group_list_v10_t)(const sts_lsu_t*, const sts_image_def_t*, int, sts_handle_t*);
typedef int (*sts_open_image_list_v9_t)(const sts_lsu_t*, int, sts_handle_t*);
typedef int (*sts_open_image_v10_t)(const sts_lsu_t*, const sts_image_def_t*, int, sts_handle_t*);
typedef int (*sts_open_lsu_list_v11_t)(sts_handle_t, const sts_lsu_def_t*, sts_handle_t*);
typedef int (*sts_open_lsu_v9_t)(const sts_lsu_t*, sts_handle_t*);
typedef int (*sts_open_server_v9_t)(sts_handle_t, const char*, const sts_cred_t*, const char*, sts_handle_t*);
typedef int (*sts_open_session_v9_t)(const sts_session_def_t*, sts_handle_t*);
typedef int (*sts_open_snap_change_list_v11_t)(const sts_lsu_t*, const sts_snap_def_t*, const sts_snap_def_t*, const sts_volume_spec_t*, sts_uint32_t, sts_file_list_handle_t*);
typedef int (*sts_open_target_server_v9_t)(sts_handle_t, const char*, const sts_cred_t*, const char*, sts_handle_t*);
typedef int (*sts_read_image_meta_v9_t)(sts_handle_t, void*, sts_uint64_t, sts_uint64_t, sts_uint64_t*);
typedef int (*sts_read_image_v9_t)(sts_handle_t, void*, sts_uint64_t, sts_uint64_t, sts_uint64_t*);
typedef int (*sts_remove_pool_lsu_v9_t)(sts_handle_t, const sts_lsu_name_t*);
/* Replaces a server's configuration text (the text stsa_get_server_config
 * gives).  Nothing is changed when the text is refused; a refusal writes a
 * line that names the reason into msg (at most msglen bytes, terminated). */
typedef int (*sts_set_server_config_v11_t)(sts_handle_t, const char*, char*, sts_uint32_t);
typedef int (*sts_shutdown_server_v7_t)(const sts_session_def_t*, const char*, const sts_cred_t*, int);
typedef int (*sts_unmount_lsu_v9_t)(const sts_lsu_t*, const char*);
typedef int (*sts_write_image_meta_v9_t)(sts_handle_t, void*, sts_uint64_t, sts_uint64_t, sts_uint64_t*);
typedef int (*sts_write_image_v9_t)(sts_handle_t, sts_stat_t*, void*, sts_uint64_t, sts_uint64_t, sts_uint64_t*);

/* The 81 slots nobody calls share one placeholder type: the framework
 * lays them out so that the order stands, and answers every one of them
 * with an error (sts_plugin.h).  stsa_set_server_config is not called by
 * the service either, but operators' tools use it, so it is typed. */
typedef int (*sts_unused_slot_t)(void);

typedef struct sts_api {
    sts_activate_lsu_v9_t stsa_activate_lsu;
    sts_unused_slot_t stsa_add_evsource;
    sts_unused_slot_t stsa_add_export;
    sts_add_pool_lsu_v9_t stsa_add_pool_lsu;
    sts_unused_slot_t stsa_alloc_lsu_v7;
    sts_alloc_lsu_v9_t stsa_alloc_lsu;
    sts_unused_slot_t stsa_async_cancel;
    sts_unused_slot_t stsa_async_copy_image;
    sts_unused_slot_t stsa_async_copy_snap_byname;
    sts_unused_slot_t stsa_async_create_snap_byname;
    sts_unused_slot_t stsa_async_end_copy_image;
    sts_unused_slot_t stsa_async_get_snap_diff;
    sts_unused_slot_t stsa_async_import_snap_byname;
    sts_unused_slot_t stsa_async_postprocess_snap_byname;
    sts_unused_slot_t stsa_async_prepare_snap_byname;
    sts_unused_slot_t stsa_async_provision_topology;
    sts_unused_slot_t stsa_async_read_image;
    sts_unused_slot_t stsa_async_rollback_snap;
    sts_unused_slot_t stsa_async_validate_snap_byname;
    sts_unused_slot_t stsa_async_wait;
    sts_unused_slot_t stsa_async_wait_snap;
    sts_unused_slot_t stsa_async_write_image;
    sts_unused_slot_t stsa_begin_copy_image;
    sts_claim_volume_v11_t stsa_claim_volume;
    sts_close_handle_v9_t stsa_close_handle;
    sts_close_snap_change_list_v11_t stsa_close_snap_change_list;
    sts_unused_slot_t stsa_close_snap_list;
    sts_copy_extent_v9_t stsa_copy_extent;
    sts_unused_slot_t stsa_copy_image;
    sts_unused_slot_t stsa_copy_snap_byname;
    sts_unused_slot_t stsa_create_export;
    sts_create_image_v10_t stsa_create_image;
    sts_unused_slot_t stsa_create_lsu;
    sts_unused_slot_t stsa_create_lsu_v7;
    sts_unused_slot_t stsa_create_lsu_with_pool;
    sts_unused_slot_t stsa_create_lsu_with_storel;
    sts_create_server_v9_t stsa_create_server;
    sts_unused_slot_t stsa_create_snap_byname;
    sts_unused_slot_t stsa_dealloc_lsu_v7;
    sts_dealloc_lsu_v9_t stsa_dealloc_lsu;
    sts_unused_slot_t stsa_delete_event;
    sts_unused_slot_t stsa_delete_export;
    sts_delete_files_v9_t stsa_delete_files;
    sts_delete_image_v10_t stsa_delete_image;
    sts_delete_lsu_v7_t stsa_delete_lsu;
    sts_unused_slot_t stsa_delete_snap;
    sts_unused_slot_t stsa_end_copy_image;
    sts_extract_files_v9_t stsa_extract_files;
    sts_find_lsu_v9_t stsa_find_lsu;
    sts_flush_v9_t stsa_flush;
    sts_unused_slot_t stsa_get_deviceid_for_path;
    sts_unused_slot_t stsa_get_devicepath_for_deviceid;
    sts_unused_slot_t stsa_get_event_payload;
    sts_unused_slot_t stsa_get_event;
    sts_get_host_v9_t stsa_get_host;
    sts_get_image_group_byname_v10_t stsa_get_image_group_byname;
    sts_get_image_group_v9_t stsa_get_image_group;
    sts_get_image_prop_byname_v10_t stsa_get_image_prop_byname;
    sts_get_image_prop_v10_t stsa_get_image_prop;
    sts_get_lsu_prop_byname_v11_t stsa_get_lsu_prop_byname;
    sts_unused_slot_t stsa_get_lsu_prop_byname_v7;
    sts_unused_slot_t stsa_get_lsu_prop_byname_v8;
    sts_unused_slot_t stsa_get_lsu_prop;
    sts_unused_slot_t stsa_get_lsu_replication_prop;
    sts_get_pool_lsu_v9_t stsa_get_pool_lsu;
    sts_get_server_config_v11_t stsa_get_server_config;
    sts_unused_slot_t stsa_get_server_prop_byname_v7;
    sts_get_server_prop_byname_v7_t stsa_get_server_prop_byname;
    sts_unused_slot_t stsa_get_server_prop_v7;
    sts_get_server_prop_v9_t stsa_get_server_prop;
    sts_unused_slot_t stsa_get_snap_diff;
    sts_get_snap_prop_byname_v11_t stsa_get_snap_prop_byname;
    sts_get_storel_prop_v9_t stsa_get_storel_prop;
    sts_get_storel_v9_t stsa_get_storel;
    sts_unused_slot_t stsa_import_snap_byname;
    sts_include_in_image_v10_t stsa_include_in_image;
    sts_unused_slot_t stsa_iocontrol;
    sts_ioctl_v9_t stsa_ioctl;
    sts_label_lsu_v9_t stsa_label_lsu;
    sts_list_file_v11_t stsa_list_file;
    sts_list_image_v10_t stsa_list_image;
    sts_list_lsu_v9_t stsa_list_lsu;
    sts_unused_slot_t stsa_list_plugin;
    sts_unused_slot_t stsa_list_snap;
    sts_unused_slot_t stsa_message;
    sts_mount_lsu_v9_t stsa_mount_lsu;
    sts_unused_slot_t stsa_named_async_cancel;
    sts_unused_slot_t stsa_named_async_copy_image;
    sts_unused_slot_t stsa_named_async_copy_snap_byname;
    sts_unused_slot_t stsa_named_async_create_snap_byname;
    sts_unused_slot_t stsa_named_async_end_copy_image;
    sts_unused_slot_t stsa_named_async_get_snap_diff;
    sts_unused_slot_t stsa_named_async_import_snap_byname;
    sts_unused_slot_t stsa_named_async_postprocess_snap_byname;
    sts_unused_slot_t stsa_named_async_prepare_snap_byname;
    sts_unused_slot_t stsa_named_async_provision_topology;
    sts_unused_slot_t stsa_named_async_rollback_snap;
    sts_unused_slot_t stsa_named_async_status;
    sts_unused_slot_t stsa_named_async_validate_snap_byname;
    sts_unused_slot_t stsa_named_async_wait;
    sts_unused_slot_t stsa_named_async_wait_snap;
    sts_unused_slot_t stsa_nocrash;
    sts_open_dynamic_lsu_list_v9_t stsa_open_dynamic_lsu_list;
    sts_unused_slot_t stsa_open_evchannel;
    sts_open_image_group_list_v10_t stsa_open_image_group_list;
    sts_open_image_list_v9_t stsa_open_image_list;
    sts_open_image_v10_t stsa_open_image;
    sts_open_lsu_list_v11_t stsa_open_lsu_list;
    sts_open_lsu_v9_t stsa_open_lsu;
    sts_open_server_v9_t stsa_open_server;
    sts_open_session_v9_t stsa_open_session;
    sts_open_snap_change_list_v11_t stsa_open_snap_change_list;
    sts_unused_slot_t stsa_open_snap_list_by_volume;
    sts_unused_slot_t stsa_open_snap_list;
    sts_open_target_server_v9_t stsa_open_target_server;
    sts_unused_slot_t stsa_postprocess_snap_byname;
    sts_unused_slot_t stsa_prepare_snap_byname;
    sts_unused_slot_t stsa_provision_topology;
    sts_read_image_meta_v9_t stsa_read_image_meta;
    sts_read_image_v9_t stsa_read_image;
    sts_remove_pool_lsu_v9_t stsa_remove_pool_lsu;
    sts_unused_slot_t stsa_rollback_snap;
    sts_unused_slot_t stsa_server_cap;
    sts_set_server_config_v11_t stsa_set_server_config;
    sts_shutdown_server_v7_t stsa_shutdown_server;
    sts_unmount_lsu_v9_t stsa_unmount_lsu;
    sts_unused_slot_t stsa_validate_rollback;
    sts_unused_slot_t stsa_validate_snap_byname;
    sts_write_image_meta_v9_t stsa_write_image_meta;
    sts_write_image_v9_t stsa_write_image;
    sts_unused_slot_t stsa_lookup_segment;
    sts_unused_slot_t stsa_read_metastream;
    sts_unused_slot_t stsa_write_metastream;
    sts_unused_slot_t stsa_import;
    sts_unused_slot_t stsa_post_event;
} sts_api_t;

/* The storage framework's two entry points: stsm_init hands out the table
 * (0 or an error number); stsm_terminate gives one use back and answers 0
 * when the table is gone, STS_EIN_USE while other users remain. */
int stsm_init(sts_uint64_t version, const char *dir, sts_api_t **api);
int stsm_terminate(void);

#ifdef __cplusplus
}
static_assert(sizeof(stskdv_isinfo_t) == 2072, "the supplier information is 2072 bytes");
static_assert(sizeof(sts_api_t) == 135 * sizeof(void (*)(void)), "the table has 135 slots");
#else
_Static_assert(sizeof(stskdv_isinfo_t) == 2072, "the supplier information is 2072 bytes");
_Static_assert(sizeof(sts_api_t) == 135 * sizeof(void (*)(void)), "the table has 135 slots");
#endif

#endif /* STS_API_H */
