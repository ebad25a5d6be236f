/*
 * Plug-in ABI of our storage framework (libstsMT).
 *
 * Loading.  stsm_init(11, dir, &api) loads every "*.so" of <dir>/stsplugins
 * in name order, resolves its one exported entry point
 *
 *     int stsp_plugin_register(stsp_plugin_t *plugin);
 *
 * and calls it once.  The plug-in fills in its name (for log lines), the
 * server-name prefix it claims (for example "ShMem:"), its flags and its
 * own table of slots, leaving null what it does not implement (every field
 * it leaves alone stays zero); it may keep the pointer
 * it was given, which stays valid until it is unloaded.  It returns 0, or a
 * non-zero number to decline.  A file that cannot be loaded, lacks the entry
 * point or declines is passed over; a directory that cannot be read fails
 * stsm_init with STSP_ENOPLUGINDIR.  When two plug-ins claim overlapping
 * prefixes, the first in name order wins.
 *
 * Counting.  stsm_init may be called by several users; all get the same
 * table.  stsm_terminate answers STS_EIN_USE (2060012) while other users
 * remain and 0 for the last one, after which the plug-ins are unloaded and
 * every slot of the table answers STS_ENOT_INIT (2060010), so that a caller
 * still holding the old table pointer gets an error and not a crash.
 * Without any user stsm_terminate answers STS_ENOT_INIT.
 *
 * Routing.  The table handed out belongs to the framework; each slot finds
 * the plug-in to call:
 *   - proxied sessions first: a session whose definition has a non-empty
 *     sd_proxy (a chain of proxies "host[:port]#host[:port]...") goes to
 *     the plug-in that sets STSP_CLAIMS_PROXIED in its flags (the first in
 *     name order), whatever the server's name: stsa_open_server and
 *     stsa_create_server by their session handle, stsa_get_server_prop_byname
 *     and stsa_shutdown_server by their definition; without such a plug-in
 *     they answer STSP_ENOPROXY.  stsa_open_target_server on a server of that
 *     plug-in stays with it.  Every later call goes by handle (below), so
 *     the proxy plug-in's handles keep the whole session with it;
 *   - by server name: stsa_open_server, stsa_create_server,
 *     stsa_get_server_prop_byname, stsa_shutdown_server (the name
 *     argument) and stsa_open_target_server (the target's name, so a target
 *     may live in another plug-in than the source server): the plug-in whose
 *     prefix starts the name, else STSP_ENOSERVER;
 *   - by handle, every other slot: the plug-in that made the handle, found
 *     from its header; a slot taking an sts_lsu_t (stsa_delete_lsu,
 *     stsa_open_lsu, stsa_activate_lsu, ...) goes by the LSU's
 *     stl_server_handle.  A null handle, a handle of no plug-in, or a
 *     session handle where a plug-in's is expected: STSP_EBADHANDLE;
 *   - the framework's own: stsa_open_session makes a session handle holding
 *     a copy of the definition (sd_id points at a copy of the id text, so
 *     the caller's storage may go); stsa_close_handle frees a session
 *     itself and hands any other handle to its owner.
 * A slot the chosen plug-in leaves null, and every one of the 81 slots
 * typed sts_unused_slot_t, answers STSP_ENOSLOT.  Nothing of this crashes on a
 * missing slot.
 *
 * Handles.  Every handle a plug-in returns begins with struct sts_handle_s,
 * filled with STSP_HANDLE_MAGIC, the plug-in's own stsp_plugin_t pointer
 * (the one passed to stsp_plugin_register) and a kind of its choosing;
 * stsp_new_handle() does this for C++ plug-ins.  A handle lives until the
 * caller gives it to stsa_close_handle, which the framework passes to the
 * owner's stsa_close_handle; the owner frees it there.  The framework never
 * frees or reads a plug-in's handle beyond its header.  Session handles
 * have no owner; a plug-in reads the definition of the session it is given
 * with stsp_session_def() and logs through it with stsp_log().  Handles
 * still open when the last user terminates are lost with their plug-in.
 *
 * Numbers.  Plug-ins answer with the service's numbers where one fits
 * (STS_ENO_MORE at the end of a list, STS_EBUSY_AGAIN for a busy object,
 * ...); the framework's own numbers below lie outside the service's range.
 * An image's imo_status is STSP_IMAGE_COMPLETE or STSP_IMAGE_INCOMPLETE
 * where a plug-in keeps that apart.
 *
 * Describing.  Two optional hooks let a user learn about the plug-ins
 * without knowing any of them; a plug-in that leaves one null is not asked:
 *   - list_servers(install_root, each, ctx) calls each(name, ctx) for every
 *     server the plug-in serves under that install root (the directory whose
 *     lib/stsplugins it came from, or another one); the name is only valid
 *     during the call.  A plug-in that serves no local servers leaves it null;
 *   - error_text(number) gives the meaning of one of the plug-in's own
 *     numbers as a static text (valid until the plug-in is unloaded), or null
 *     for a number it does not own.
 * Both run under the framework's lock, so they must not call stsm_*.
 * The framework offers them over every loaded plug-in: stsm_list_servers
 * asks each in name order and then hands its user every name (so that its
 * callback may call the framework again); it answers STS_ENOT_INIT without a user,
 * STS_EINVAL_ARG for a null root or callback, else 0; stsm_error_text knows
 * the framework's numbers and the service's, then asks each plug-in in name
 * order while the plug-ins are loaded, and gives null for a number nobody
 * owns.  A text a plug-in gave stays valid while the caller keeps its use
 * of the framework.
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
#define STSP_ESYSTEM 2061006      /* the operating system refused (a plug-in's errno) */
#define STSP_ENOPROXY 2061007     /* a proxied session, and no plug-in claims proxied sessions */

/* A bit of stsa_close_handle's flags: whoever held the handle went away
 * (its storage server was closed or its session cleaned up) without closing
 * it.  An image open for writing is closed as it stands and stays
 * incomplete: it is never made complete this way. */
#define STSP_CLOSE_ABANDONED 0x80000000u

/* An image's imo_status. */
#define STSP_IMAGE_COMPLETE 1     /* closed after its last write: holds a whole backup */
#define STSP_IMAGE_INCOMPLETE 2   /* being written, or its writer went away */

/* Flags of a plug-in. */
#define STSP_CLAIMS_PROXIED 0x1u  /* serves every session with a non-empty sd_proxy */

struct stsp_plugin;

/* Called once for each server name a plug-in lists. */
typedef void (*stsp_server_cb_t)(const char *server, void *ctx);

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
    sts_uint32_t flags;                /* STSP_CLAIMS_PROXIED, or 0 */
    /* Optional hooks, null when not offered (see "Describing" above); they
     * come last so that a plug-in built before them leaves them null. */
    void (*list_servers)(const char *install_root, stsp_server_cb_t each, void *ctx);
    const char *(*error_text)(int number);
} stsp_plugin_t;

typedef int (*stsp_plugin_register_t)(stsp_plugin_t *plugin);

/* The hooks of every loaded plug-in, for the framework's users. */
int stsm_list_servers(const char *install_root, stsp_server_cb_t each, void *ctx);
const char *stsm_error_text(int number);

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

#include <algorithm>
#include <mutex>
#include <new>
#include <string>
#include <vector>

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

/* A list handle (LSUs, images) giving its names in order, one a call; two
 * calls on one list at once each get a name of their own. */
struct stsp_name_list {
    struct sts_handle_s hdr;
    std::vector<std::string> names;
    std::mutex lock; /* guards next */
    size_t next = 0;
};

/* A new list of the owner's holding the names, sorted, in *out; noMemory
 * when it cannot be made. */
inline int stsp_give_names(const stsp_plugin_t *owner, sts_uint32_t kind, std::vector<std::string> names,
                           sts_handle_t *out, int noMemory)
{
    stsp_name_list *l = stsp_new_handle<stsp_name_list>(owner, kind);
    if (l == 0) return noMemory;
    l->names = std::move(names);
    std::sort(l->names.begin(), l->names.end());
    *out = &l->hdr;
    return 0;
}

/* The next name of one of the owner's lists of that kind: 0, STS_ENO_MORE
 * past the end, STSP_EBADHANDLE for any other handle. */
inline int stsp_next_name(sts_handle_t list, const stsp_plugin_t *owner, sts_uint32_t kind, std::string &name)
{
    stsp_name_list *l = stsp_handle_as<stsp_name_list>(list, owner, kind);
    if (l == 0) return STSP_EBADHANDLE;
    std::lock_guard<std::mutex> guard(l->lock);
    if (l->next >= l->names.size()) return STS_ENO_MORE;
    name = l->names[l->next++];
    return 0;
}
#endif

#endif /* STS_PLUGIN_H */
