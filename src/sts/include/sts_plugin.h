/*
 * Plug-in ABI of our storage framework (libstsMT).
 *
 * The framework loads every shared object in <dir>/stsplugins/ and calls its
 * one exported entry point
 *
 *     int stsp_plugin_register(stsp_plugin_t *plugin);
 *
 * which fills in the plug-in's name, the server-name prefix it claims (for
 * example "ShMem:") and its own table of slots; a slot left null is answered
 * by the framework with STSP_ENOSLOT.  It returns 0, or a non-zero number to
 * decline loading.
 *
 * Routing.  Calls that name a server (stsa_open_server, stsa_create_server,
 * stsa_get_server_prop_byname, stsa_shutdown_server) go to the plug-in whose
 * prefix starts the name; no such plug-in: STSP_ENOSERVER.  Every other slot
 * goes to the plug-in that made the handle it is given; a slot taking an
 * sts_lsu_t goes by the LSU's server handle.
 *
 * Handles.  Every handle a plug-in returns must begin with struct
 * sts_handle_s, filled with STSP_HANDLE_MAGIC and the plug-in's own
 * stsp_plugin_t pointer (the one passed to stsp_plugin_register): that is
 * how the framework finds the owner.  A plug-in frees its handles in its
 * stsa_close_handle.  Session handles belong to the framework
 * (stsa_open_session); a plug-in reads the session's definition with
 * stsp_session_def().
 */
#ifndef STS_PLUGIN_H
#define STS_PLUGIN_H

#include "sts_api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define STSP_ABI_VERSION 1
#define STSP_HANDLE_MAGIC 0x4B4C4456u /* "KLDV" */

/* Numbers of the framework itself. */
#define STSP_ENOSLOT 2061001      /* no plug-in implements the slot */
#define STSP_ENOSERVER 2061002    /* no plug-in claims the server name */
#define STSP_EBADHANDLE 2061003   /* null handle, or not one of ours */
#define STSP_ENOPLUGINDIR 2061004 /* <dir>/stsplugins cannot be read */
#define STSP_ENOMEM 2061005       /* out of memory */

struct stsp_plugin;

/* The head of every handle. */
struct sts_handle_s {
    sts_uint32_t magic;
    sts_uint32_t kind;                 /* free for the owner; sessions use 0 */
    const struct stsp_plugin *owner;   /* null for the framework's sessions */
};

/* A session handle made by the framework. */
typedef struct stsp_session {
    struct sts_handle_s hdr;
    sts_session_def_t sd;              /* sd_id points at id below */
    char id[1024];
} stsp_session_t;

typedef struct stsp_plugin {
    sts_uint32_t abi_version;          /* STSP_ABI_VERSION */
    const char *name;                  /* for log lines */
    const char *prefix;                /* server names claimed */
    sts_api_t api;                     /* the plug-in's slots */
} stsp_plugin_t;

typedef int (*stsp_plugin_register_t)(stsp_plugin_t *plugin);

/* The definition behind a session handle, or null for another handle. */
static inline const sts_session_def_t *stsp_session_def(sts_handle_t session)
{
    if (session == 0 || session->magic != STSP_HANDLE_MAGIC || session->owner != 0) return 0;
    return &((const stsp_session_t *)session)->sd;
}

/* Writes a line through the session's log callback, when it has one. */
static inline void stsp_log(sts_handle_t session, sts_severity_t sev, const char *msg)
{
    const sts_session_def_t *sd = stsp_session_def(session);
    if (sd != 0 && sd->sd_log != 0) sd->sd_log(sd->sd_id, msg, sev);
}

#ifdef __cplusplus
}

#include <new>

/* For C++ plug-ins: a new handle of type T (whose first member is
 * struct sts_handle_s hdr) stamped with the owner and kind, or null; and the
 * handle as T when it is one of the owner's of that kind, else null. */
template <typename T>
T *stsp_new_handle(const stsp_plugin_t *owner, sts_uint32_t kind)
{
    T *h = new (std::nothrow) T();
    if (h != 0) {
        h->hdr.magic = STSP_HANDLE_MAGIC;
        h->hdr.kind = kind;
        h->hdr.owner = owner;
    }
    return h;
}

template <typename T>
T *stsp_handle_as(sts_handle_t h, const stsp_plugin_t *owner, sts_uint32_t kind)
{
    return (h != 0 && h->owner == owner && h->kind == kind) ? reinterpret_cast<T *>(h) : 0;
}
#endif

#endif /* STS_PLUGIN_H */
