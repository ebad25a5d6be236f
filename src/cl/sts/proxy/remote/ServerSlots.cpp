// Sessions and servers: open, create, target servers, properties, the
// configuration text, hosts, storage elements, the controls and the
// remote log.
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include <algorithm>
#include <cstring>

namespace {

// A server open at the hop is a job there: the service does not end itself
// as idle while one runs.  A failed announcement costs only that.
void announceJob(RemoteServer& s, bool started)
{
    static const char* szWho = "remote::announceJob";
    s.call(szWho, [&](API::UInt64 seq) {
        if (started) {
            s.ref->increaseJobCounterV12(seq);
        } else {
            s.ref->decreaseJobCounterV12(seq);
        }
        return 0;
    });
}

int newServer(const std::shared_ptr<RemoteSession>& session, API::StorageServer_ptr ref, bool job, sts_handle_t* out)
{
    ServerHandle* h = stsp_new_handle<ServerHandle>(remote::self(), SERVER);
    if (h == nullptr) {
        CORBA::release(ref);
        return STSP_ENOMEM;
    }
    h->server = std::make_shared<RemoteServer>();
    h->server->session = session;
    h->server->ref = ref;
    h->server->job = job;
    remote::prepare(h->server->ref);
    if (job) announceJob(*h->server, true);
    *out = &h->hdr;
    return 0;
}

RemoteServer* serverOfHandle(sts_handle_t h)
{
    ServerHandle* s = remoteHandle<ServerHandle>(h, SERVER);
    return s != nullptr ? s->server.get() : nullptr;
}

int openServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char* iface, sts_handle_t* out)
{
    static const char* szWho = "remote::openServer";
    return guarded(szWho, [&] {
        const sts_session_def_t* sd = stsp_session_def(session);
        if (sd == nullptr || name == nullptr || out == nullptr) return STS_EINVAL_ARG;
        std::shared_ptr<RemoteSession> rs;
        int nErr = RemoteSession::open(*sd, rs);
        API::Credential c;
        if (nErr == 0) nErr = rs->encrypt(cred, c);
        if (nErr != 0) return nErr;
        const API::SessionDefinition ssd = rs->contractDefinition();
        API::StorageServer_var ref;
        const CallOutcome o = rs->call(&rs->managerNumbers(), szWho, Resend::Safe, [&](API::UInt64 seq) {
            ref = rs->manager()->openServerV12(seq, ssd, name, c, iface != nullptr ? iface : "", 0);
            return 0;
        });
        if (o.code != 0) return o.code;
        remote::log().logMsg(rs->definition(), szWho, STS_ESINFO, "opened %s at %s", name, rs->hopText().c_str());
        return newServer(rs, ref._retn(), true, out);
    });
}

int createServer(sts_handle_t session, const char* name, const sts_cred_t* cred, const char* iface,
                 const sts_host_t* hosts, int nhost, sts_handle_t* out)
{
    static const char* szWho = "remote::createServer";
    return guarded(szWho, [&] {
        const sts_session_def_t* sd = stsp_session_def(session);
        if (sd == nullptr || name == nullptr || out == nullptr || nhost < 0) return STS_EINVAL_ARG;
        std::shared_ptr<RemoteSession> rs;
        int nErr = RemoteSession::open(*sd, rs);
        API::Credential c;
        API::STSHostSeq hostSeq;
        if (nErr == 0) nErr = rs->encrypt(cred, c);
        if (nErr == 0) nErr = rs->encrypt(hosts, nhost, hostSeq);
        if (nErr != 0) return nErr;
        const API::SessionDefinition ssd = rs->contractDefinition();
        API::StorageServer_var ref;
        const CallOutcome o = rs->call(&rs->managerNumbers(), szWho, Resend::Safe, [&](API::UInt64 seq) {
            ref = rs->manager()->createServerV12(seq, ssd, name, c, iface != nullptr ? iface : "", hostSeq,
                                                 static_cast<CORBA::Long>(hostSeq.length()));
            return 0;
        });
        if (o.code != 0) return o.code;
        return newServer(rs, ref._retn(), true, out);
    });
}

int openTargetServer(sts_handle_t server, const char* name, const sts_cred_t* cred, const char* iface,
                     sts_handle_t* out)
{
    static const char* szWho = "remote::openTargetServer";
    return guarded(szWho, [&] {
        ServerHandle* s = remoteHandle<ServerHandle>(server, SERVER);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (name == nullptr || out == nullptr) return STS_EINVAL_ARG;
        API::Credential c;
        const int nErr = s->server->session->encrypt(cred, c);
        if (nErr != 0) return nErr;
        API::StorageServer_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = s->server->ref->openTargetServerV12(seq, name, c, iface != nullptr ? iface : "");
            return 0;
        });
        if (o.code != 0) return o.code;
        return newServer(s->server->session, ref._retn(), false, out);   // part of its source's job
    });
}

int getServerPropByName(const sts_session_def_t* sd, const char* name, sts_server_info_t* info)
{
    static const char* szWho = "remote::getServerPropByName";
    return guarded(szWho, [&] {
        if (sd == nullptr || name == nullptr || info == nullptr) return STS_EINVAL_ARG;
        std::shared_ptr<RemoteSession> rs;
        const int nErr = RemoteSession::open(*sd, rs);
        if (nErr != 0) return nErr;
        const API::SessionDefinition ssd = rs->contractDefinition();
        API::ServerInformation_var out;
        const CallOutcome o = rs->call(&rs->managerNumbers(), szWho, Resend::Safe, [&](API::UInt64 seq) {
            return rs->manager()->getServerPropByNameV12(seq, ssd, name, out);
        });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

int shutdownServer(const sts_session_def_t* sd, const char* name, const sts_cred_t* cred, int when)
{
    static const char* szWho = "remote::shutdownServer";
    return guarded(szWho, [&] {
        if (sd == nullptr || name == nullptr) return STS_EINVAL_ARG;
        std::shared_ptr<RemoteSession> rs;
        int nErr = RemoteSession::open(*sd, rs);
        API::Credential c;
        if (nErr == 0) nErr = rs->encrypt(cred, c);
        if (nErr != 0) return nErr;
        const API::SessionDefinition ssd = rs->contractDefinition();
        return rs->call(&rs->managerNumbers(), szWho, Resend::Safe, [&](API::UInt64 seq) {
                   return rs->manager()->shutdownServerV12(seq, ssd, name, c, when);
               }).code;
    });
}

int getServerProp(sts_handle_t h, sts_server_info_t* info)
{
    static const char* szWho = "remote::getServerProp";
    return guarded(szWho, [&] {
        RemoteServer* s = serverOfHandle(h);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (info == nullptr) return STS_EINVAL_ARG;
        API::ServerInformation_var out;
        const CallOutcome o = s->call(szWho, [&](API::UInt64 seq) { return s->ref->getServerPropV12(seq, out); });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

// A buffer too small answers STSError_val 2060031 whose count is the length
// needed.
int getServerConfig(sts_handle_t h, char* buf, sts_uint32_t size, sts_uint32_t* needed)
{
    static const char* szWho = "remote::getServerConfig";
    return guarded(szWho, [&] {
        RemoteServer* s = serverOfHandle(h);
        if (s == nullptr) return STSP_EBADHANDLE;
        if ((buf == nullptr && size > 0) || needed == nullptr) return STS_EINVAL_ARG;
        API::Bytes_var text;
        API::UInt32 maxLen = 0;
        const CallOutcome o = s->call(szWho, [&](API::UInt64 seq) {
            s->ref->getServerConfigV12(seq, text, size, maxLen);
            return 0;
        });
        if (o.withBytes) *needed = static_cast<sts_uint32_t>(o.bytes);
        if (o.code != 0) return o.code;
        const CORBA::ULong n = std::min<CORBA::ULong>(text->length(), size);
        if (n > 0) std::memcpy(buf, text->get_buffer(), n);
        *needed = maxLen;
        return 0;
    });
}

int setServerConfig(sts_handle_t h, const char* text, char* msg, sts_uint32_t msglen)
{
    static const char* szWho = "remote::setServerConfig";
    return guarded(szWho, [&] {
        RemoteServer* s = serverOfHandle(h);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (text == nullptr) return STS_EINVAL_ARG;
        const CORBA::ULong len = static_cast<CORBA::ULong>(std::strlen(text) + 1);
        const API::Bytes config(len, len, reinterpret_cast<CORBA::Octet*>(const_cast<char*>(text)), false);
        API::Bytes_var answer;
        const CallOutcome o = s->call(szWho, [&](API::UInt64 seq) {
            s->ref->setServerConfigV12(seq, config, answer, msglen);
            return 0;
        });
        if (msg != nullptr && msglen > 0) {
            const CORBA::ULong n = answer.operator->() != nullptr ? std::min<CORBA::ULong>(answer->length(), msglen - 1) : 0;
            if (n > 0) std::memcpy(msg, answer->get_buffer(), n);
            msg[n] = '\0';
        }
        return o.code;
    });
}

// A resent call may be answered from the service's record, which keeps the
// names but not the counts: the counts then come from the names.
int getHost(sts_handle_t h, sts_host_name_v9_t* hosts, int nhost, int returnall, int* rethost, int* maxhost)
{
    static const char* szWho = "remote::getHost";
    return guarded(szWho, [&] {
        RemoteServer* s = serverOfHandle(h);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (nhost < 0 || (hosts == nullptr && nhost > 0) || rethost == nullptr || maxhost == nullptr) {
            return STS_EINVAL_ARG;
        }
        API::HostNameSeq_var names;
        CORBA::Long ret = 0;
        CORBA::Long max = 0;
        int sends = 0;
        const CallOutcome o = s->call(szWho, [&](API::UInt64 seq) {
            ++sends;
            names = s->ref->getHostV12(seq, nhost, returnall, ret, max);
            return 0;
        });
        if (o.code != 0) return o.code;
        const CORBA::ULong got = std::min<CORBA::ULong>(names->length(), static_cast<CORBA::ULong>(nhost));
        CORBA::ULong filled = 0;
        while (filled < got && names[filled].in()[0] != '\0') ++filled;
        if (sends > 1 || ret < 0 || static_cast<CORBA::ULong>(ret) > got) {
            ret = static_cast<CORBA::Long>(filled);
            max = std::max(max, ret);
        }
        for (CORBA::Long i = 0; i < ret; ++i) boundedCopy(hosts[i], names[static_cast<CORBA::ULong>(i)], sizeof(hosts[i]));
        *rethost = ret;
        *maxhost = max;
        return 0;
    });
}

int getStorelProp(sts_handle_t h, const char* name, sts_storel_info_t* info)
{
    static const char* szWho = "remote::getStorelProp";
    return guarded(szWho, [&] {
        RemoteServer* s = serverOfHandle(h);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (name == nullptr || info == nullptr) return STS_EINVAL_ARG;
        API::StorelInformation_var out;
        const CallOutcome o =
            s->call(szWho, [&](API::UInt64 seq) { return s->ref->getStorelPropV12(seq, name, out); });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

// ---- controls ----

int controlCall(RemoteServer& s, const char* who, const std::function<void(API::UInt64)>& op)
{
    return s.call(who, [&](API::UInt64 seq) {
                op(seq);
                return 0;
            }).code;
}

int forwardControl(RemoteServer& s, sts_uint32_t cmd, void* payload)
{
    static const char* szWho = "remote::ioctl";
    const CORBA::Short command = static_cast<CORBA::Short>(cmd);
    switch (cmd) {
    case STS_IOCTL_SET_RETRY_TIMEOUT: {
        const API::Int32 seconds = static_cast<API::Int32>(*static_cast<sts_uint32_t*>(payload));
        return controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->setRetryConnectTimeoutV12(seq, command, seconds); });
    }
    case STS_IOCTL_SET_MEDIA_STATE: {
        API::MediaState state;
        ZVS2CORBA(*static_cast<sts_ioctl_set_media_state_t*>(payload), &state);
        return controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->setMediaStateV12(seq, command, state); });
    }
    case STS_IOCTL_SET_RESTORE_CNTL: {
        API::RestoreCntl cntl;
        ZVS2CORBA(static_cast<sts_ioctl_restore_cntl_t*>(payload), &cntl);
        return controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->setRestoreCntlV12(seq, command, cntl); });
    }
    case STS_IOCTL_GET_RESTORE_CNTL: {
        API::RestoreCntl_var cntl;
        const int nErr = controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->getRestoreCntlV12(seq, command, cntl); });
        if (nErr == 0) CORBA2ZVS(cntl.in(), static_cast<sts_ioctl_restore_cntl_t*>(payload));
        return nErr;
    }
    case STS_IOCTL_SET_FSCP_CONFIG: {
        API::FscpConfig config;
        ZVS2CORBA(static_cast<sts_ioctl_fscp_config_t*>(payload), &config);
        return controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->setFscpConfig(seq, command, config); });
    }
    case STS_IOCTL_GET_FSCP_INFO: {
        API::FscpInfo_var info;
        const int nErr = controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->getFscpInfo(seq, command, info); });
        if (nErr == 0) CORBA2ZVS(info.in(), static_cast<sts_ioctl_fscp_info_t*>(payload));
        return nErr;
    }
    case STS_IOCTL_GET_DDUP_STATS: {
        API::DdupStatsInfo_var info;
        const int nErr = controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->getDDUPStatsV12(seq, command, info); });
        if (nErr == 0) CORBA2ZVS(info.in(), static_cast<sts_ioctl_ddup_stats_info_t*>(payload));
        return nErr;
    }
    case STS_IOCTL_GET_LSU_UNIQUE_ID: {
        auto* request = static_cast<sts_ioctl_get_lsu_unique_id_t*>(payload);
        const std::string lsu = fieldText(request->lsu.stl_lsu_name.sln_name);
        CORBA::String_var id;
        const int nErr = controlCall(s, szWho, [&](API::UInt64 seq) { s.ref->getLsuUniqueId(seq, lsu.c_str(), id); });
        if (nErr == 0) boundedCopy(request->unique_id, id, sizeof(request->unique_id));
        return nErr;
    }
    default:
        return STS_ENOT_SUPPORTED;
    }
}

// The first use opens the mailbox at the hop, on the session's manager
// record; each poll takes one line.
int nextRemoteLogLine(RemoteServer& s, remote_log_line_t* out)
{
    static const char* szWho = "remote::remoteLog";
    std::lock_guard<std::mutex> guard(s.mailboxLock);
    RemoteSession& rs = *s.session;
    if (CORBA::is_nil(s.mailbox)) {
        const API::SessionDefinition ssd = rs.contractDefinition();
        API::RemoteLogger_var mailbox;
        const CallOutcome o = rs.call(&rs.managerNumbers(), szWho, Resend::Safe, [&](API::UInt64 seq) {
            mailbox = rs.manager()->openRmtLoggerV12(seq, ssd);
            return 0;
        });
        if (o.code != 0) return o.code;
        s.mailbox = mailbox._retn();
        remote::prepare(s.mailbox);
    }
    API::SessionDefinition_var from;
    CORBA::String_var line;
    const CallOutcome o = rs.call(nullptr, szWho, Resend::Safe, [&](API::UInt64) {
        return s.mailbox->getRemoteLogV12(0, from, line);
    });
    std::memset(out, 0, sizeof(*out));
    if (o.code == 0) {
        boundedCopy(out->rl_origin, from->proxy, sizeof(out->rl_origin));
        boundedCopy(out->rl_line, line, sizeof(out->rl_line));
    }
    return o.code;
}

int ioctl(sts_handle_t h, sts_uint32_t cmd, void* payload)
{
    static const char* szWho = "remote::ioctl";
    return guarded(szWho, [&] {
        RemoteServer* s = serverOfHandle(h);
        if (s == nullptr) return STSP_EBADHANDLE;
        if (payload == nullptr) return STS_EINVAL_ARG;
        if (cmd == REMOTE_IOCTL_REMOTE_LOG) return nextRemoteLogLine(*s, static_cast<remote_log_line_t*>(payload));
        return forwardControl(*s, cmd, payload);
    });
}

void closeMailbox(RemoteServer& s)
{
    std::lock_guard<std::mutex> guard(s.mailboxLock);
    if (CORBA::is_nil(s.mailbox)) return;
    RemoteSession& rs = *s.session;
    const API::SessionDefinition ssd = rs.contractDefinition();
    rs.call(&rs.managerNumbers(), "remote::closeRemoteLog", Resend::Safe, [&](API::UInt64 seq) {
        rs.manager()->closeRmtLoggerV12(seq, ssd, s.mailbox);
        return 0;
    });
    s.mailbox = API::RemoteLogger::_nil();
}

} // namespace

// Servers close themselves: the call also lets the service release the
// child closed last through this server.
int closeServerHandle(sts_handle_t h)
{
    static const char* szWho = "remote::closeServer";
    ServerHandle* handle = remoteHandle<ServerHandle>(h, SERVER);
    if (handle == nullptr) return STSP_EBADHANDLE;
    const int nErr = guarded(szWho, [&] {
        RemoteServer& s = *handle->server;
        closeMailbox(s);
        if (s.job) announceJob(s, false);
        const CallOutcome o = s.call(szWho, [&](API::UInt64 seq) {
            s.ref->closeServerV12(seq);
            return 0;
        });
        s.open = false;
        return o.code;
    });
    delete handle;
    return nErr;
}

void fillServerSlots(sts_api_t& a)
{
    a.stsa_open_server = openServer;
    a.stsa_create_server = createServer;
    a.stsa_open_target_server = openTargetServer;
    a.stsa_get_server_prop_byname = getServerPropByName;
    a.stsa_shutdown_server = shutdownServer;
    a.stsa_get_server_prop = getServerProp;
    a.stsa_get_server_config = getServerConfig;
    a.stsa_set_server_config = setServerConfig;
    a.stsa_get_host = getHost;
    a.stsa_get_storel_prop = getStorelProp;
    a.stsa_ioctl = ioctl;
}
