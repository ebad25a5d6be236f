/*
 * Base types of the storage API: scalars, character arrays, handles, the
 * session definition, credentials, severities, the log callback and the
 * error numbers the proxy service itself returns.  Plain C.
 *
 * The records and the table of entry points are in sts_api.h, the plug-in
 * ABI of our storage framework in sts_plugin.h.
 */
#ifndef STS_TYPES_H
#define STS_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Scalars. */
typedef uint32_t sts_uint32_t;
typedef uint64_t sts_uint64_t;
typedef int32_t sts_int32_t;
typedef int64_t sts_int64_t;

/* Character arrays, sized as they cross the table. */
typedef char sts_server_name_v7_t[512];
typedef char sts_interface_v7_t[512];
typedef char sts_stream_format_v7_t[16];
typedef char sts_date_v7_t[32];
typedef char sts_dpaid_v10_t[64];
typedef char sts_dpaver_v10_t[32];
typedef char sts_lsu_description_v7_t[1024];
typedef char sts_hostname_v11_t[1024];
typedef char sts_volumename_v11_t[1024];
typedef char sts_serialnumber_v11_t[1024];
typedef char sts_snap_name_v11_t[2048];
typedef char sts_topology_v11_t[4096];
typedef char sts_host_name_v9_t[512];
typedef char sts_storel_name_v7_t[1024];
typedef char sts_mount_v7_t[1024];
typedef char sts_image_name_v7_t[1024];
typedef char sts_policy_v7_t[1024];
typedef char sts_cert_v7_t[1024];
typedef char sts_config_v9_t[2048];
typedef char sts_evpl_v9_t[2048];
typedef char sts_isinfo_v10_t[4096];
typedef char sts_lsu_label_v9_t[64];
typedef char sts_lsu_attn_msg_v7_t[1024];
typedef char sts_wwname_v11_t[1024];
typedef char sts_pathname_v11_t[1024];
typedef char sts_device_path_v11_t[1024];
typedef char sts_diff_object_name_v11_t[4096];
typedef char sts_evset_v11_t[256];
typedef sts_uint64_t sts_time_v11_t;
typedef sts_uint64_t sts_evseqno_v11_t;
typedef sts_uint64_t sts_lsu_priority_v9_t;
typedef sts_uint32_t sts_exfs_v7_t;
typedef sts_uint32_t sts_lsu_alloc_v7_t;
typedef sts_uint32_t sts_srv_cap_v8_t;

/* Unversioned aliases. */
typedef sts_server_name_v7_t sts_server_name_t;
typedef sts_host_name_v9_t sts_host_name_t;
typedef sts_storel_name_v7_t sts_storel_name_t;
typedef sts_pathname_v11_t sts_pathname_t;
typedef sts_lsu_label_v9_t sts_lsu_label_t;
typedef sts_evpl_v9_t sts_evpl_t;

/* Handles: opaque pointers owned by the storage framework. */
typedef struct sts_handle_s *sts_handle_t;
typedef sts_handle_t sts_session_t;
typedef sts_handle_t sts_server_handle_t;
typedef sts_handle_t sts_lsu_handle_t;
typedef sts_handle_t sts_lsu_list_handle_t;
typedef sts_handle_t sts_image_handle_t;
typedef sts_handle_t sts_image_list_handle_t;
typedef sts_handle_t sts_snap_list_handle_t;
typedef sts_handle_t sts_file_list_handle_t;
typedef struct sts_opid_s *sts_opid_t;

/* Severities of a log line. */
typedef enum sts_severity_v7 {
    STS_ESNONE = 0,
    STS_ESINFO = 1,
    STS_ESWARN = 2,
    STS_ESDEBUG = 3,
    STS_ESERROR = 4,
    STS_ESCRITICAL = 5
} sts_severity_v7_t;
typedef sts_severity_v7_t sts_severity_t;

/* Log callback of a session: who, message, severity. */
typedef void (*sts_log_v7_t)(const char *who, const char *msg, sts_severity_t sev);

/* Session definition: the argument of every session-level call. */
typedef struct sts_session_def_v7 {
    sts_server_name_v7_t sd_proxy;
    int *sd_connectFailedPTR;
    const char *sd_id;
    sts_log_v7_t sd_log;
    sts_uint32_t sd_flags;
} sts_session_def_v7_t;
typedef sts_session_def_v7_t sts_session_def_t;

/* Credentials.  NONE and CLEAR are deliberately the same value. */
typedef enum sts_cred_type_v7 {
    STS_CRED_NONE = 0,
    STS_CRED_CLEAR = 0,
    STS_CRED_MD5 = 1
} sts_cred_type_v7_t;

typedef struct sts_cred_v7 {
    sts_uint32_t cr_len;
    sts_cred_type_v7_t cr_type;
    sts_cert_v7_t cr_cert;
} sts_cred_v7_t;
typedef sts_cred_v7_t sts_cred_t;

/* Error record of the library header; the service keeps no table of them. */
typedef struct sts_err_rec {
    int error;
    const char *string;
} sts_err_rec;
typedef sts_err_rec stserrrec;

/* Numbers the service itself returns.  Any other number a slot returns is
 * passed through unchanged. */
#define STS_EINVAL_ARG          2060001 /* missing argument (no directory, null message) */
#define STS_ENOMEM_OBJ          2060002 /* an object could not be built or bound */
#define STS_EBUSY_AGAIN         2060005 /* busy or try-again reply */
#define STS_EBAD_VERSION        2060007 /* sts_init with a version other than 11 */
#define STS_ECLAIM_VOLUME       2060009 /* claimVolume refused */
#define STS_ENOT_INIT           2060010 /* the table is not loaded / no server handle */
#define STS_EIN_USE             2060012 /* table still in use; second busy reply */
#define STS_ENO_MORE            2060013 /* end of a list; LSU not found */
#define STS_ENOT_OPEN           2060014 /* an object's handle is not open */
#define STS_ENOT_SUPPORTED      2060016 /* refused operation */
#define STS_EVERSION_NOT_SUPP   2060022 /* not supported at this version */
#define STS_EBUFFER_SMALL       2060031 /* caller's buffer too small */
#define STS_ENO_EVENT           2060043 /* nothing to deliver */
#define STS_ESEQUENCE           2060058 /* call sequence or logger map fault */

/* The version of the table this service speaks. */
#define STS_VERSION 11

#ifdef __cplusplus
}
#endif

#endif /* STS_TYPES_H */
