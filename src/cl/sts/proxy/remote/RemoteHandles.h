// The handles of the remote plug-in.  Each holds its remote object and the
// numbering of that object's calls; children (LSUs, lists, images) also
// hold their server, through which they are closed while it is open.
#ifndef KELD_CLIENT_REMOTEHANDLES_H
#define KELD_CLIENT_REMOTEHANDLES_H

#include "CallNumbers.h"
#include "RemotePlugin.h"
#include "RemoteRuntime.h"
#include "RemoteSession.h"
#include "sts_plugin.h"

#include "Proxy.hh"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

enum RemoteKind : sts_uint32_t { SERVER = 1, LSU, LSU_LIST, IMAGE, IMAGE_LIST, FILE_LIST };

// An open server at the hop, shared by its handle and its children.
struct RemoteServer {
    std::shared_ptr<RemoteSession> session;
    API::StorageServer_var ref;
    CallNumbers numbers;
    std::atomic<bool> open{true};
    // Announced to the hop as a job while open (not a target server, which
    // belongs to its source's job).
    bool job = false;
    // The mailbox of REMOTE_IOCTL_REMOTE_LOG, opened at its first use.
    std::mutex mailboxLock;
    API::RemoteLogger_var mailbox;

    // One call on this server, numbered on its record.
    CallOutcome call(const char* who, const std::function<int(API::UInt64)>& fn)
    {
        return session->call(&numbers, who, Resend::Safe, fn);
    }
};

struct ServerHandle {
    sts_handle_s hdr;
    std::shared_ptr<RemoteServer> server;
};

template <typename Var>
struct ChildHandle {
    sts_handle_s hdr;
    std::shared_ptr<RemoteServer> server;
    Var ref;
    CallNumbers numbers;
    bool closed = false;   // a change list keeps its handle after its close

    // One call on this object, numbered on its own record.
    CallOutcome call(const char* who, const std::function<int(API::UInt64)>& fn, Resend resend = Resend::Safe)
    {
        return server->session->call(&numbers, who, resend, fn);
    }
};

using LsuHandle = ChildHandle<API::Lsu_var>;
using LsuListHandle = ChildHandle<API::LsuList_var>;
using ImageHandle = ChildHandle<API::Image_var>;
using ImageListHandle = ChildHandle<API::ImageList_var>;
using FileListHandle = ChildHandle<API::FileList_var>;

// The handle as T when it is one of this plug-in's of that kind, else null.
template <typename T>
T* remoteHandle(sts_handle_t h, RemoteKind kind)
{
    return stsp_handle_as<T>(h, remote::self(), kind);
}

// The server handle of an LSU record, or null.
inline ServerHandle* serverOf(const sts_lsu_t* lsu)
{
    return lsu != nullptr ? remoteHandle<ServerHandle>(lsu->stl_server_handle, SERVER) : nullptr;
}

// The text of a C character field, never read past its end.
template <size_t N>
std::string fieldText(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}

// The two busy answers of the service's data path (a partial transfer
// comes back with one of them).
inline bool busyAnswer(int code)
{
    return code == STS_EBUSY_AGAIN || code == STS_EIN_USE;
}

// Runs a slot's body: nothing thrown inside reaches the C caller.
template <typename Fn>
int guarded(const char* who, Fn&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return STSP_ENOMEM;
    } catch (const CORBA::Exception& e) {
        remote::logUnexpected(who, e._name());
        return REMOTE_ESYSTEM;
    } catch (...) {
        remote::logUnexpected(who, "an unknown exception");
        return REMOTE_ESYSTEM;
    }
}

// The shape of a slot that works on an LSU by name through its server: a
// foreign handle and a missing argument are answered at once, the rest is
// body(server, lsuName), guarded.
template <typename Fn>
int onLsuServer(const char* who, const sts_lsu_t* lsu, bool argumentMissing, Fn&& body) noexcept
{
    return guarded(who, [&] {
        ServerHandle* s = serverOf(lsu);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (argumentMissing) return STS_EINVAL_ARG;
        return body(s, fieldText(lsu->stl_lsu_name.sln_name));
    });
}

// A new child handle of kind for ref, or null when memory runs out.
template <typename T, typename Ptr>
T* newChild(RemoteKind kind, const std::shared_ptr<RemoteServer>& server, Ptr ref)
{
    T* h = stsp_new_handle<T>(remote::self(), kind);
    if (h == nullptr) {
        CORBA::release(ref);
        return nullptr;
    }
    h->server = server;
    h->ref = ref;
    remote::prepare(h->ref);
    return h;
}

// Hands a new child of ref out through *out; 0, or STSP_ENOMEM.
template <typename T, typename Var>
int adoptChild(RemoteKind kind, const std::shared_ptr<RemoteServer>& server, Var& ref, sts_handle_t* out)
{
    T* h = newChild<T>(kind, server, ref._retn());
    if (h == nullptr) return STSP_ENOMEM;
    *out = &h->hdr;
    return 0;
}

#endif
