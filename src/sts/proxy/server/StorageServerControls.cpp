// The storage server's controls, passed to the plug-in through its one
// control entry (the command numbers are agreed between the client and the
// plug-in; the service gives them no meaning), the client's cleanup of a
// session left behind, and the job counters the idle timer looks at.
#include "StorageServerImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ProxyV9SVC.h"
#include "SessionManager.h"
#include "StsBinding.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_unistd.h>

namespace {

// The control that asks for an LSU's unique id.
const sts_uint32_t kLsuUniqueIdCommand = STS_IOCTL_GET_LSU_UNIQUE_ID;
const int kCleanupRounds = 180;   // one a second

const char* const kNoHandleText = "server handle is not initilized";

// The record size of each control command the storage API knows.  The
// command is the client's word; handed over with a record of another size,
// the plug-in would read or write past this operation's record.  A
// command the storage API does not know is the plug-in's to judge.
size_t recordSizeOf(sts_uint32_t cmd)
{
    switch (cmd) {
    case STS_IOCTL_SET_RETRY_TIMEOUT: return sizeof(sts_uint32_t);
    case STS_IOCTL_SET_MEDIA_STATE: return sizeof(sts_ioctl_set_media_state_t);
    case STS_IOCTL_SET_RESTORE_CNTL:
    case STS_IOCTL_GET_RESTORE_CNTL: return sizeof(sts_ioctl_restore_cntl_t);
    case STS_IOCTL_GET_LSU_UNIQUE_ID: return sizeof(sts_ioctl_get_lsu_unique_id_t);
    case STS_IOCTL_SET_FSCP_CONFIG: return sizeof(sts_ioctl_fscp_config_t);
    case STS_IOCTL_GET_FSCP_INFO: return sizeof(sts_ioctl_fscp_info_t);
    case STS_IOCTL_GET_DDUP_STATS: return sizeof(sts_ioctl_ddup_stats_info_t);
    default: return 0;
    }
}

} // namespace

// The texts of one control.
struct StorageServerImpl::ControlTexts {
    const char* szWho;
    const char* requestLog;
    const char* noHandleLog;   // "server handle is not initilized" or "sts server handle is not init"
    const char* failLog;       // "%d": the plug-in's number
    const char* failText;
    const char* okLog;
    // setFscpConfig raises its failures without recording them, so a
    // retry of that number answers "unknown exception".
    bool recordFailures = true;
};

// The shape of every control: the server must have a handle, payload
// fills the record handed to the plug-in (and answers what to record on
// success), and a failure is logged and raised.
template <typename Payload>
void StorageServerImpl::runControl(const ControlTexts& texts, API::UInt64 callsequence, sts_uint32_t cmd,
                                   const std::function<void(CallSequence&)>& replay, Payload payload)
{
    const ServantSite here = site(texts.szWho);
    runSequenced(m_CallSeq, callsequence, texts.szWho, nullptr, replay, [&](CallSequence& cs) {
        here.log(STS_ESDEBUG, "%s", texts.requestLog);
        if (m_svh == nullptr) {
            here.log(STS_ESERROR, "%s", texts.noHandleLog);
            failRecordedIf(cs, texts.recordFailures, STS_ENOT_INIT, kNoHandleText);
        }
        payload(cs, here, [&](auto* record) {
            const size_t wanted = recordSizeOf(cmd);
            if (wanted != 0 && wanted != sizeof(*record)) {
                here.log(STS_ESERROR, "control command %u does not fit this operation", static_cast<unsigned>(cmd));
                failRecordedIf(cs, texts.recordFailures, STS_EINVAL_ARG, "control command does not fit this operation");
            }
            const int nErr = STS_CALL(stsa_ioctl, m_svh, cmd, record);
            if (nErr != 0) {
                here.log(STS_ESERROR, texts.failLog, nErr);
                failRecordedIf(cs, texts.recordFailures, nErr, texts.failText);
            }
        });
        here.log(STS_ESINFO, "%s", texts.okLog);
        cs.recordCompletion(0, "ok");
    });
}

void StorageServerImpl::setRetryConnectTimeoutV12(API::UInt64 callsequence, CORBA::Short cmd,
                                                  API::Int32 retryConnectTimeout)
{
    static const ControlTexts texts = {
        "StorageServerImpl::setRetryConnectTimeoutV12", "get one question of setting retry connect timeout",
        "sts server handle is not init", "sts_ioctl failed, return %d",
        "fail to call sts_ioctl to set retry connect timeout", "succeed to call sts_ioctl to set retry connect timeout"};
    runControl(texts, callsequence, cmd, [](CallSequence&) {}, [&](CallSequence&, const ServantSite&, auto ioctl) {
        sts_int32_t timeout = retryConnectTimeout;
        ioctl(&timeout);
    });
}

void StorageServerImpl::setMediaStateV12(API::UInt64 callsequence, CORBA::Short cmd, const API::MediaState& state)
{
    static const ControlTexts texts = {
        "StorageServerImpl::setMediaState", "got one request of setting media state", "sts server handle is not init",
        "sts_ioctl failed, return %d", "fail to call sts_ioctl to set media state.",
        "succeed to call sts_ioctl to set media state"};
    runControl(texts, callsequence, cmd, [](CallSequence&) {}, [&](CallSequence&, const ServantSite&, auto ioctl) {
        sts_ioctl_set_media_state_t media = {};
        CORBA2ZVS(state, &media);
        media.sio_lsu.stl_server_handle = m_svh;
        dumpSetMedia(media);
        ioctl(&media);
    });
}

void StorageServerImpl::setRestoreCntlV12(API::UInt64 callsequence, CORBA::Short cmd, const API::RestoreCntl& cntl)
{
    static const ControlTexts texts = {
        "StorageServerImpl::setRestoreCntl", "get one question of setting restore control info",
        "sts server handle is not init", "sts_ioctl failed, return %d", "fail to call sts_ioctl to set restore control",
        "succeed to call sts_ioctl to set restore control info"};
    runControl(texts, callsequence, cmd, [](CallSequence&) {}, [&](CallSequence&, const ServantSite&, auto ioctl) {
        sts_ioctl_restore_cntl_t restore = {};
        CORBA2ZVS(cntl, &restore);
        dumpRestoreCntl(restore);
        ioctl(&restore);
    });
}

void StorageServerImpl::setFscpConfig(API::UInt64 callsequence, CORBA::Short cmd, const API::FscpConfig& fscpconfig)
{
    static const ControlTexts texts = {
        "StorageServerImpl::setFscpConfig", "get one question of setting fscp config", "sts server handle is not init",
        "sts_ioctl failed, return %d", "fail to call sts_ioctl to set fscp config",
        "succeed to call sts_ioctl to set fscp config", false};
    runControl(texts, callsequence, cmd, [](CallSequence&) {}, [&](CallSequence&, const ServantSite&, auto ioctl) {
        sts_ioctl_fscp_config_t config = {};
        CORBA2ZVS(fscpconfig, &config);
        dumpFscpConfig(config);
        ioctl(&config);
    });
}

void StorageServerImpl::getDDUPStatsV12(API::UInt64 callsequence, CORBA::Short cmd, API::DdupStatsInfo_out info)
{
    static const ControlTexts texts = {
        "StorageServerImpl::getDDUPStats", "got one request of getting DDUP stats", kNoHandleText,
        "sts_ioctl failed, sts return %d", "fail to call sts_ioctl to get ddup stats",
        "succeed to call sts_ioctl for ddup stats"};
    runControl(texts, callsequence, cmd,
        [&](CallSequence& cs) {
            if (!cs.getDdupStatsInfo(info)) info = newOutRecord<API::DdupStatsInfo>();
        },
        [&](CallSequence& cs, const ServantSite&, auto ioctl) {
            API::DdupStatsInfo* out = newOutRecord<API::DdupStatsInfo>();
            info = out;
            sts_ioctl_ddup_stats_info_t stats = {};
            ioctl(&stats);
            dumpGetDDUP(stats);
            out->len = stats.ds_msg_len;
            out->msg = dupField(stats.ds_msg);
            cs.setDdupStatsInfo(*out);
        });
}

void StorageServerImpl::getRestoreCntlV12(API::UInt64 callsequence, CORBA::Short cmd, API::RestoreCntl_out cntlOut)
{
    static const ControlTexts texts = {
        "StorageServerImpl::getRestoreCntl", "get one request of getting restore control info", kNoHandleText,
        "sts_ioctl failed, reutrn %d", "fail to call sts_ioctl to get reposition",
        "succeed to call sts_ioctl to get restore control info"};
    runControl(texts, callsequence, cmd,
        [&](CallSequence& cs) {
            if (!cs.getRestoreCntl(cntlOut)) cntlOut = newOutRecord<API::RestoreCntl>();
        },
        [&](CallSequence& cs, const ServantSite&, auto ioctl) {
            API::RestoreCntl* out = newOutRecord<API::RestoreCntl>();
            cntlOut = out;
            sts_ioctl_restore_cntl_t restore = {};
            ioctl(&restore);
            dumpRestoreCntl(restore);
            ZVS2CORBA(&restore, out);
            cs.setRestoreCntl(*out);
        });
}

void StorageServerImpl::getFscpInfo(API::UInt64 callsequence, CORBA::Short cmd, API::FscpInfo_out infoOut)
{
    static const ControlTexts texts = {
        "StorageServerImpl::getFscpInfo", "get one request of getting fscp info", kNoHandleText,
        "sts_ioctl failed, reutrn %d", "fail to call sts_ioctl to get reposition",
        "succeed to call sts_ioctl to get bytes copied"};
    runControl(texts, callsequence, cmd,
        [&](CallSequence& cs) {
            if (!cs.getFscpInfo(infoOut)) infoOut = newOutRecord<API::FscpInfo>();
        },
        [&](CallSequence& cs, const ServantSite&, auto ioctl) {
            API::FscpInfo* out = newOutRecord<API::FscpInfo>();
            infoOut = out;
            sts_ioctl_fscp_info_t fscp = {};
            ioctl(&fscp);
            dumpFscpInfo(fscp);
            ZVS2CORBA(&fscp, out);
            cs.setFscpInfo(*out);
        });
}

void StorageServerImpl::getLsuUniqueId(API::UInt64 callsequence, const char* lsu, API::LsuUniqueId_out id)
{
    static const ControlTexts texts = {
        "StorageServerImpl::getLsuUniqueId", "get one question of getting LSU unique ID", "sts server handle is not init",
        "sts_ioctl failed, return %d", "fail to call sts_ioctl to get LSU unique ID",
        "succeed to call sts_ioctl to get LSU unique ID"};
    runControl(texts, callsequence, kLsuUniqueIdCommand,
        [&](CallSequence& cs) { cs.getLsuUniqueId(id); },
        [&](CallSequence& cs, const ServantSite&, auto ioctl) {
            sts_ioctl_get_lsu_unique_id_t request = {};
            request.lsu = lsuNamed(lsu);
            ioctl(&request);
            id = dupField(request.unique_id);
            cs.setLsuUniqueId(id.ptr());
        });
}

// Closes a session handle left in the registry under a client's id.  It
// needs no server handle, so it works on a cleanup shell too.  Every way
// out of the waiting rounds returns without a record: a retry of such a
// number answers "unknown exception".
void StorageServerImpl::cleanupSessionV12(API::UInt64 callsequence, const char* id)
{
    const ServantSite here = site("StorageServerImpl::cleanupSession");
    runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, [](CallSequence&) {}, [&](CallSequence& cs) {
        here.log(STS_ESDEBUG, "got one request of cleanup session handle for id %s", id);
        const SessionJobs::Ended ended = sessionJobs().endSession(id);
        if (ended.jobs > 0) here.log(STS_ESWARN, "session %s is cleaned up: its %lld active job(s) end, %lld remain", id,
                                     static_cast<long long>(ended.jobs), static_cast<long long>(ended.total));
        if (m_sm != nullptr) {
            const sts_handle_t handle = m_sm->Pop(id);
            if (handle == nullptr) {
                here.log(STS_ESDEBUG, "there is no session handle associated with id %s, break", id);
            } else {
                closeWhenUnused(here, id, handle);
                return;
            }
        }
        cs.recordCompletion(0, "ok");
    });
}

// The handle has left the registry; it is closed once no call counts on
// its session, or given up (left open) after the rounds.
void StorageServerImpl::closeWhenUnused(const ServantSite& here, const char* id, sts_handle_t handle)
{
    for (int nRetry = 1; nRetry <= kCleanupRounds; ++nRetry) {
        const int counter = m_sm->CheckCounter(id);
        if (counter > 0) {
            here.log(STS_ESWARN,
                     "session handle of %s is used for other threads, counter(%d), do not close it, retry %d of %d", id,
                     counter, nRetry, kCleanupRounds);
            ACE_OS::sleep(1);
            continue;
        }
        if (counter < 0) {
            here.log(STS_ESERROR, "counter %d is invalid, something wrong here, return directly", counter);
            return;
        }
        here.log(STS_ESDEBUG, "no thread is using session handle of %s, now it is safe to close", id);
        // A server open in the session closes it after its own handle and
        // its children's, once no call is inside it; later calls on any of
        // them are refused.
        if (const std::shared_ptr<ServantGate> server = m_sm->ServerOf(handle)) {
            here.log(STS_ESDEBUG, "closing the server open in session %s with its children", id);
            server->sever();
            return;
        }
        if (STS_CALL(stsa_close_handle, handle, 8) == 0) {
            here.log(STS_ESDEBUG, "succeed to close one session handle for id %s", id);
        } else {
            here.log(STS_ESERROR, "fail to close one session handle for id %s", id);
        }
        return;
    }
    here.log(STS_ESWARN, "reach the timeout, cleanup job return directly without close handle");
}

// No floor at 0; being sequenced, a retried change counts once.
void StorageServerImpl::increaseJobCounterV12(API::UInt64 callsequence)
{
    changeJobCounter(callsequence, "StorageServerImpl::increaseJobCounter", +1, "there are [%lld] active jobs");
}

void StorageServerImpl::decreaseJobCounterV12(API::UInt64 callsequence)
{
    changeJobCounter(callsequence, "StorageServerImpl::decreaseJobCounter", -1, "still have [%lld] active jobs");
}

void StorageServerImpl::changeJobCounter(API::UInt64 callsequence, const char* szWho, int change, const char* format)
{
    const ServantSite here = site(szWho);
    runSequenced(m_CallSeq, callsequence, szWho, nullptr, [](CallSequence&) {}, [&](CallSequence& cs) {
        const sts_int64_t jobs = change > 0 ? sessionJobs().increase(m_sd.sd_id) : sessionJobs().decrease(m_sd.sd_id);
        here.log(STS_ESDEBUG, format, static_cast<long long>(jobs));
        cs.recordCompletion(0, "ok");
    });
}

void StorageServerImpl::dumpSetMedia(const sts_ioctl_set_media_state_t& media) const
{
    const ServantSite d = site("dumpSetMedia");
    d.log(STS_ESDEBUG, "Setting Media flag: %d", static_cast<int>(media.sio_media_state_flags));
    d.log(STS_ESDEBUG, "Lsu name: %s", media.sio_lsu.stl_lsu_name.sln_name);
}

void StorageServerImpl::dumpGetDDUP(const sts_ioctl_ddup_stats_info_t& stats) const
{
    const ServantSite d = site("dumpGetDDUP");
    d.log(STS_ESDEBUG, "Getting DDUP from plugin:");
    d.log(STS_ESDEBUG, "msg: %.2048s", stats.ds_msg);
    d.log(STS_ESDEBUG, "len: %d", static_cast<int>(stats.ds_msg_len));
}

void StorageServerImpl::dumpFscpInfo(const sts_ioctl_fscp_info_t& info) const
{
    const ServantSite d = site("dumpBytesCopied");
    d.log(STS_ESDEBUG, "----- fscp info: -----");
    d.log(STS_ESDEBUG, "totalbytescopied is %ld", static_cast<long>(info.totalbytescopied));
}

void StorageServerImpl::dumpFscpConfig(const sts_ioctl_fscp_config_t& c) const
{
    const ServantSite d = site("dumpFscpConfig");
    d.log(STS_ESDEBUG, "----- fscp config info: -----");
    d.log(STS_ESDEBUG, "copy num is %d", static_cast<int>(c.frag.copy_num));
    d.log(STS_ESDEBUG, "frag num is %d", static_cast<int>(c.frag.frag_num));
    d.log(STS_ESDEBUG, "offset is %ld", static_cast<long>(c.frag.offset));
    d.log(STS_ESDEBUG, "kbytes is %d", static_cast<int>(c.frag.kbytes));
    d.log(STS_ESDEBUG, "remainder is %d", static_cast<int>(c.frag.remainder));
    d.log(STS_ESDEBUG, "backup id is %.200s", c.frag.backup_id);
    d.log(STS_ESDEBUG, "policy is %.1024s", c.policy);
    d.log(STS_ESDEBUG, "maxfragsize is %ld", static_cast<long>(c.maxfragsize));
}

void StorageServerImpl::dumpRestoreCntl(const sts_ioctl_restore_cntl_t& r) const
{
    const ServantSite d = site("dumpRestoreCntl");
    d.log(STS_ESDEBUG, "----- Restore Control info: -----");
    d.log(STS_ESDEBUG, "fragment_number is %d", static_cast<int>(r.fragnum));
    d.log(STS_ESDEBUG, "firstblk is %lld", static_cast<long long>(r.firstblk));
    d.log(STS_ESDEBUG, "blocks_to_skip is %lld", static_cast<long long>(r.blocks_to_skip));
    d.log(STS_ESDEBUG, "bytes_to_skip is %lld", static_cast<long long>(r.bytes_to_skip));
    d.log(STS_ESDEBUG, "tar_pid is %d", static_cast<int>(r.tar_pid));
    d.log(STS_ESDEBUG, "tar_exitstat is %d", static_cast<int>(r.tar_exitstat));
    d.log(STS_ESDEBUG, "tar_control is %d", static_cast<int>(r.tar_control));
    d.log(STS_ESDEBUG, "suspended is %d", static_cast<int>(r.suspended));
    d.log(STS_ESDEBUG, "b_fragnum is %d", static_cast<int>(r.b_fragnum));
    d.log(STS_ESDEBUG, "b_fristblk is %d", static_cast<int>(r.b_firstblk));
    d.log(STS_ESDEBUG, "b_blocks_to_skip is %d", static_cast<int>(r.b_blocks_to_skip));
    d.log(STS_ESDEBUG, "b_bytes_to_skip is %d", static_cast<int>(r.b_bytes_to_skip));
    d.log(STS_ESDEBUG, "b_tar_pid is %d", static_cast<int>(r.b_tar_pid));
    d.log(STS_ESDEBUG, "b_tar_exitstat is %d", static_cast<int>(r.b_tar_exitstat));
    d.log(STS_ESDEBUG, "b_tar_control is %d", static_cast<int>(r.b_tar_control));
    d.log(STS_ESDEBUG, "b_suspended is %d", static_cast<int>(r.b_suspended));
}
