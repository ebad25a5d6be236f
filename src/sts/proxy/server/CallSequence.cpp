#include "CallSequence.h"

#include "ClosedObjects.h"
#include "ProxyLogger.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_unistd.h>
#include <cerrno>
#include <algorithm>
#include <cstring>
#include <new>

namespace {

const int WAIT_CHECKS = 30;   // decremented before each check: 29 checks

void realSleep(unsigned seconds)
{
    ACE_OS::sleep(seconds);
}

CallSequence::SleepFunction s_waitSleep = realSleep;

const char* nameOr(const char* caller)
{
    return caller != nullptr ? caller : "unknown";
}

bool sameOperation(const char* recorded, const char* caller)
{
    return recorded == caller || (recorded != nullptr && caller != nullptr && std::strcmp(recorded, caller) == 0);
}

using Guard = ACE_Guard<ACE_Thread_Mutex>;

// Hands a fresh copy to an out argument of a variable-length record (T*&)
// or of a fixed-length one (T&).
template <typename T>
bool giveCopy(bool flag, const T& value, T*& out)
{
    if (!flag) return false;
    out = new (std::nothrow) T(value);
    if (out == nullptr) errno = ENOMEM;
    return flag;
}

template <typename T>
bool giveCopy(bool flag, const T& value, T& out)
{
    if (flag) out = value;
    return flag;
}

// A payload copied with one memcpy: the sequence's own copy goes element by
// element, and for octets the compiler must assume each store may change
// the length it loops to, which makes it several times slower than the ORB
// that carries the bytes.  A buffer that is large enough is kept.
void copyPayload(const API::Bytes& from, API::Bytes& to)
{
    const CORBA::ULong n = from.length();
    if (n > to.maximum()) to.length(0);   // frees it, so growing copies nothing
    to.length(n);
    if (n > 0) std::memcpy(to.get_buffer(), from.get_buffer(), n);
}

// Records an outcome in place: the text is copied only when it changed, so
// a run of calls that all end "ok" allocates nothing for it.
template <typename Error>
void keepText(Error& error, int code, const char* msg)
{
    error.stsErrorNo = code;
    const char* kept = error.errorMsg.in();
    if (kept == nullptr || std::strcmp(kept, msg) != 0) error.errorMsg = msg;
}

// A reference the last call recorded is let go; one it never set is nil
// already and costs nothing.
template <typename Interface, typename Var>
void dropReference(bool& flag, Var& held)
{
    if (flag) held = Interface::_nil();
    flag = false;
}

template <typename Interface, typename Var, typename Ptr>
bool giveReference(bool flag, const Var& held, Ptr& out)
{
    if (!flag) return false;
    out = Interface::_duplicate(held.in());
    return true;
}

} // namespace

template <typename... Args>
void CallSequence::debug(const char* szWho, const char* fmt, Args... args) const
{
    if (m_plog != nullptr) m_plog->logMsg(nullptr, szWho, STS_ESDEBUG, fmt, args...);
}

CallSequence::CallSequence(ProxyLogger* plog)
    : m_error(0, ""),
      m_errorval(0, "", 0),
      m_plog(plog)
{
}

CallSequence::~CallSequence()
{
    debug("CallSequence::~CallSequence", "destruct %p", static_cast<void*>(this));
    if (m_objvarb) deactivatePending();
}

void CallSequence::setWaitSleep(SleepFunction fn)
{
    s_waitSleep = fn != nullptr ? fn : realSleep;
}

void CallSequence::toss(API::UInt64 callsequence)
{
    debug("CallSequence::checkCompletion", "%p tossing out of order call = %llu previous = %llu call: %s",
          static_cast<void*>(this), static_cast<unsigned long long>(callsequence),
          static_cast<unsigned long long>(m_callsequence), nameOr(m_caller));
    ServiceMetrics::process().outOfOrder.add();
    throw API::STSError(STS_ESEQUENCE, "out of order call sequence");
}

// One judgement, with the lock held; throws for a recorded failure or a toss.
CallSequence::Decision CallSequence::decide(API::UInt64 callsequence, const char* caller, API::UInt64* bytes)
{
    if (m_complete && m_callsequence == callsequence) {
        // Only the same operation may be answered from the record: another
        // one's results would leave this one's out arguments empty.
        if (!sameOperation(m_caller, caller)) reused(callsequence, caller);
        debug("CallSequence::checkCompletion", "%p hit retry", static_cast<void*>(this));
        ServiceMetrics::process().replayed.add();
        if (bytes != nullptr) *bytes = m_bytesreturned;
        if (m_errorb) throw API::STSError(m_error);
        if (m_errorvalb) throw API::STSError_val(m_errorval);
        return HIT;
    }
    if (m_complete && m_callsequence < callsequence) return NEW_CALL;
    if (m_callsequence > callsequence) toss(callsequence);
    debug("CallSequence::checkCompletion",
          "%p sequence = %llu waiting for in progress sequence = %llu call: %s",
          static_cast<void*>(this), static_cast<unsigned long long>(callsequence),
          static_cast<unsigned long long>(m_callsequence), nameOr(m_caller));
    return RUNNING;
}

void CallSequence::waitWhileRunning(API::UInt64 callsequence)
{
    for (int counter = WAIT_CHECKS;;) {
        if (--counter < 1) {
            debug("CallSequence::checkCompletion",
                  "%p sequence = %llu timed out waiting for in progress sequence = %llu",
                  static_cast<void*>(this), static_cast<unsigned long long>(callsequence),
                  static_cast<unsigned long long>(m_callsequence));
            throw CORBA::TIMEOUT();
        }
        {
            Guard guard(m_lock);
            if (!guard.locked()) return;
            if (m_callsequence > callsequence) toss(callsequence);
            if (m_complete) return;   // judged afresh by the caller
        }
        s_waitSleep(1);
    }
}

void CallSequence::reused(API::UInt64 callsequence, const char* caller)
{
    debug("CallSequence::checkCompletion", "%p sequence = %llu of %s sent again for %s",
          static_cast<void*>(this), static_cast<unsigned long long>(callsequence), nameOr(m_caller), nameOr(caller));
    throw API::STSError(STS_ESEQUENCE, "call sequence number already used by another operation");
}

bool CallSequence::checkCompletion(API::UInt64 callsequence, const char* caller, API::UInt64* bytes)
{
    if (callsequence == 0) return false;
    debug("CallSequence::checkCompletion", "%p sequence = %llu caller: %s",
          static_cast<void*>(this), static_cast<unsigned long long>(callsequence), caller);
    for (;;) {
        {
            Guard guard(m_lock);
            if (!guard.locked()) return false;
            switch (decide(callsequence, caller, bytes)) {
            case HIT: return true;
            case NEW_CALL: return false;
            case RUNNING: break;
            }
        }
        waitWhileRunning(callsequence);
    }
}

CallSequence::Admission CallSequence::admit(API::UInt64 callsequence, const char* caller, API::UInt64* bytes)
{
    debug("CallSequence::checkCompletion", "%p sequence = %llu caller: %s",
          static_cast<void*>(this), static_cast<unsigned long long>(callsequence), caller);
    for (;;) {
        {
            Guard guard(m_lock);
            if (!guard.locked()) return Admission(nullptr);
            switch (decide(callsequence, caller, bytes)) {
            case HIT:
                guard.disown();   // the admission releases it after the replay
                return Admission(&m_lock);
            case NEW_CALL:
                start(callsequence, caller);
                return Admission(nullptr);
            case RUNNING: break;
            }
        }
        waitWhileRunning(callsequence);
    }
}

CallSequence::Admission::~Admission()
{
    if (m_held != nullptr) m_held->release();
}

CallSequence& CallSequence::startCall(API::UInt64 callsequence, const char* caller)
{
    Guard guard(m_lock);
    if (callsequence == 0) {
        m_callsequence = 0;
        m_complete = true;
        m_recordComplete = true;
        m_caller = nullptr;
        return *this;
    }
    start(callsequence, caller);
    return *this;
}

// With the lock held.
void CallSequence::start(API::UInt64 callsequence, const char* caller)
{
    debug("CallSequence::startCall", "%p sequence = %llu starting: %s", static_cast<void*>(this),
          static_cast<unsigned long long>(callsequence), nameOr(caller));
    m_callsequence = callsequence;
    m_complete = m_recordComplete = m_errorb = m_errorvalb = false;
    m_bytesreturned = 0;
    m_errorcode = 0;
    m_caller = caller;
    m_long1b = m_long2b = m_int32b = m_bytesb = m_aioresultb = m_imageinfob = m_lsuinfob = false;
    m_lsupoolseqb = m_storageelemseqb = m_lsunameb = m_imagedefb = m_serverinfob = false;
    m_storelb = m_ddupstatsinfob = m_restorecntlb = false;
    dropReference<API::Image>(m_imgvarb, m_imgvar);
    dropReference<API::ImageList>(m_imglistvarb, m_imglistvar);
    dropReference<API::Lsu>(m_lsuvarb, m_lsuvar);
    dropReference<API::LsuList>(m_lsulistvarb, m_lsulistvar);
    dropReference<API::StorageServer>(m_svrvarb, m_svrvar);
    // Dropped without a release: the record never gives this one back.
    m_logvarb = false;
    m_logvar = nullptr;
    // m_fscpinfob, m_lsuuniqueidb and m_hostnameseqb stay set once set:
    // their operations always store a fresh value before reporting success.
    if (m_objvarb) deactivatePending();
}

void CallSequence::deactivatePending()
{
    m_objvarb = false;
    try {
        PortableServer::ObjectId_var id = m_vobjPOA->reference_to_id(m_objvar);
        m_vobjPOA->deactivate_object(id);
    } catch (const CORBA::Exception&) {
        // Already gone with its POA: nothing is left to deactivate.
    }
    m_objvar = CORBA::Object::_nil();
    m_vobjPOA = PortableServer::POA::_nil();
}

API::STSError& CallSequence::recordCompletion(int code, const char* msg)
{
    if (msg == nullptr) msg = "";   // a null text could not be marshalled
    Guard guard(m_lock);
    if (!guard.locked()) return m_error;
    if (m_callsequence == 0) {
        keepText(m_error, code, msg);
        return m_error;
    }
    debug("CallSequence::recordCompletion", "%p sequence = %llu recorded: %s error = (%d:%s)",
          static_cast<void*>(this), static_cast<unsigned long long>(m_callsequence),
          nameOr(m_caller), code, msg);
    m_recordComplete = true;
    m_errorcode = code;
    m_bytesreturned = 0;
    keepText(m_error, code, msg);
    if (code != 0) m_errorb = true;
    return m_error;
}

API::STSError_val& CallSequence::recordCompletion(int code, const char* msg, API::UInt64 bytes)
{
    if (msg == nullptr) msg = "";   // a null text could not be marshalled
    Guard guard(m_lock);
    if (!guard.locked()) return m_errorval;
    if (m_callsequence == 0) {
        keepText(m_errorval, code, msg);
        m_errorval.bytesReturned = bytes;
        return m_errorval;
    }
    debug("CallSequence::recordCompletion",
          "%p sequence = %llu completed: %s error = (%d:%s) bytes = %llu", static_cast<void*>(this),
          static_cast<unsigned long long>(m_callsequence), nameOr(m_caller), code, msg,
          static_cast<unsigned long long>(bytes));
    m_recordComplete = true;
    m_errorcode = code;
    m_bytesreturned = bytes;
    keepText(m_errorval, code, msg);
    m_errorval.bytesReturned = bytes;
    if (code != 0) m_errorvalb = true;
    return m_errorval;
}

void CallSequence::complete()
{
    Guard guard(m_lock);
    if (!guard.locked() || m_callsequence == 0) return;
    debug("CallSequence::complete", "%p sequence = %llu completed: %s", static_cast<void*>(this),
          static_cast<unsigned long long>(m_callsequence), nameOr(m_caller));
    if (!m_recordComplete) {
        // Left by a way that recorded nothing: a retry gets this, not a rerun.
        m_error = API::STSError(STS_ESEQUENCE, "unknown exception");
        m_errorb = true;
    }
    m_complete = true;
}

void CallSequence::storeObjForDeactivate(CORBA::Object_ptr obj, PortableServer::POA_ptr poa)
{
    if (m_callsequence == 0) {
        PortableServer::ObjectId_var id = poa->reference_to_id(obj);
        poa->deactivate_object(id);
        return;
    }
    m_objvar = CORBA::Object::_duplicate(obj);
    m_vobjPOA = PortableServer::POA::_duplicate(poa);
    m_objvarb = true;
}

void CallSequence::storeServantForDeactivate(PortableServer::Servant servant, PortableServer::POA_ptr poa)
{
    CORBA::Object_var self = poa->servant_to_reference(servant);
    if (m_callsequence == 0) {
        storeObjForDeactivate(self, poa);
        return;
    }
    // A resent close needs only its outcome: the last read's copy goes now.
    m_bytes.length(0);
    ClosedObjects::process().add(self, poa);
}

void CallSequence::setLong1(CORBA::Long v) { m_long1 = v; m_long1b = true; }
void CallSequence::setLong2(CORBA::Long v) { m_long2 = v; m_long2b = true; }
void CallSequence::setUInt32(API::UInt32 v) { m_int32 = v; m_int32b = true; }
// An unnumbered call's scratch record keeps no copy of the bytes: nothing
// can ask for them again.
void CallSequence::setBytes(const API::Bytes& v)
{
    if (m_callsequence == 0) return;
    copyPayload(v, m_bytes);
    m_bytesb = true;
}
void CallSequence::setAioResult(const API::AioResult& v) { m_aioresult = v; m_aioresultb = true; }
void CallSequence::setImageInfo(const API::ImageInformationV13& v) { m_imageinfo = v; m_imageinfob = true; }
void CallSequence::setLsuInfo(const API::LsuInformationV11& v) { m_lsuinfo = v; m_lsuinfob = true; }
void CallSequence::setLSUPoolSeq(const API::LSUPoolSeq& v) { m_lsupoolseq = v; m_lsupoolseqb = true; }
void CallSequence::setStorageElemSeq(const API::StorageElementSeq& v) { m_storageelemseq = v; m_storageelemseqb = true; }
void CallSequence::setLsuName(const char* v) { m_lsuname = CORBA::string_dup(v); m_lsunameb = true; }
void CallSequence::setImageDef(const API::ImageDefinitionV13& v) { m_imagedef = v; m_imagedefb = true; }
void CallSequence::setServerInfo(const API::ServerInformation& v) { m_serverinfo = v; m_serverinfob = true; }
void CallSequence::setStorelInfo(const API::StorelInformation& v) { m_storel = v; m_storelb = true; }
void CallSequence::setDdupStatsInfo(const API::DdupStatsInfo& v) { m_ddupstatsinfo = v; m_ddupstatsinfob = true; }
void CallSequence::setRestoreCntl(const API::RestoreCntl& v) { m_restorecntl = v; m_restorecntlb = true; }
void CallSequence::setFscpInfo(const API::FscpInfo& v) { m_fscpinfo = v; m_fscpinfob = true; }
void CallSequence::setLsuUniqueId(const char* v) { m_lsuuniqueid = CORBA::string_dup(v); m_lsuuniqueidb = true; }
void CallSequence::setHostNameSeq(const API::HostNameSeq& v) { m_hostnameseq = v; m_hostnameseqb = true; }
void CallSequence::setImagePtr(API::Image_ptr v) { m_imgvar = API::Image::_duplicate(v); m_imgvarb = true; }
void CallSequence::setImageListPtr(API::ImageList_ptr v) { m_imglistvar = API::ImageList::_duplicate(v); m_imglistvarb = true; }
void CallSequence::setLsuPtr(API::Lsu_ptr v) { m_lsuvar = API::Lsu::_duplicate(v); m_lsuvarb = true; }
void CallSequence::setLsuListPtr(API::LsuList_ptr v) { m_lsulistvar = API::LsuList::_duplicate(v); m_lsulistvarb = true; }
void CallSequence::setStorageServerPtr(API::StorageServer_ptr v) { m_svrvar = API::StorageServer::_duplicate(v); m_svrvarb = true; }
void CallSequence::setRemLogPtr(API::RemoteLogger_ptr v) { m_logvar = API::RemoteLogger::_duplicate(v); m_logvarb = true; }

bool CallSequence::getLong1(CORBA::Long* v) const { if (m_long1b) *v = m_long1; return m_long1b; }
bool CallSequence::getLong2(CORBA::Long* v) const { if (m_long2b) *v = m_long2; return m_long2b; }
bool CallSequence::getUInt32(API::UInt32* v) const { if (m_int32b) *v = m_int32; return m_int32b; }
bool CallSequence::getBytes(API::Bytes_out v) const
{
    if (!m_bytesb) return false;
    API::Bytes* fresh = new (std::nothrow) API::Bytes;
    if (fresh == nullptr) {
        errno = ENOMEM;
        v = nullptr;
        return true;
    }
    API::Bytes_var copy = fresh;
    copyPayload(m_bytes, copy.inout());
    v = copy._retn();
    return true;
}
bool CallSequence::getAioResult(API::AioResult_out v) const { return giveCopy<API::AioResult>(m_aioresultb, m_aioresult, v); }
bool CallSequence::getImageInfo(API::ImageInformationV13_out v) const { return giveCopy<API::ImageInformationV13>(m_imageinfob, m_imageinfo, v); }
bool CallSequence::getLsuInfo(API::LsuInformationV11_out v) const { return giveCopy<API::LsuInformationV11>(m_lsuinfob, m_lsuinfo, v); }
bool CallSequence::getLSUPoolSeq(API::LSUPoolSeq_out v) const { return giveCopy<API::LSUPoolSeq>(m_lsupoolseqb, m_lsupoolseq, v); }
bool CallSequence::getStorageElemSeq(API::StorageElementSeq_out v) const { return giveCopy<API::StorageElementSeq>(m_storageelemseqb, m_storageelemseq, v); }
bool CallSequence::getImageDef(API::ImageDefinitionV13_out v) const { return giveCopy<API::ImageDefinitionV13>(m_imagedefb, m_imagedef, v); }
bool CallSequence::getServerInfo(API::ServerInformation_out v) const { return giveCopy<API::ServerInformation>(m_serverinfob, m_serverinfo, v); }
bool CallSequence::getStorelInfo(API::StorelInformation_out v) const { return giveCopy<API::StorelInformation>(m_storelb, m_storel, v); }
bool CallSequence::getDdupStatsInfo(API::DdupStatsInfo_out v) const { return giveCopy<API::DdupStatsInfo>(m_ddupstatsinfob, m_ddupstatsinfo, v); }
bool CallSequence::getRestoreCntl(API::RestoreCntl_out v) const { return giveCopy<API::RestoreCntl>(m_restorecntlb, m_restorecntl, v); }
bool CallSequence::getFscpInfo(API::FscpInfo_out v) const { return giveCopy<API::FscpInfo>(m_fscpinfob, m_fscpinfo, v); }
bool CallSequence::getHostNameSeq(API::HostNameSeq_out v) const { return giveCopy<API::HostNameSeq>(m_hostnameseqb, m_hostnameseq, v); }
// Never a null string, even before anything was recorded: it goes on the wire.
static char* dupOrEmpty(const char* s)
{
    return CORBA::string_dup(s != nullptr ? s : "");
}
bool CallSequence::getLsuName(CORBA::String_out v) const { v = dupOrEmpty(m_lsuname.in()); return m_lsunameb; }
bool CallSequence::getLsuUniqueId(CORBA::String_out v) const { v = dupOrEmpty(m_lsuuniqueid.in()); return m_lsuuniqueidb; }
bool CallSequence::getImagePtr(API::Image_ptr& v) const { return giveReference<API::Image>(m_imgvarb, m_imgvar, v); }
bool CallSequence::getImageListPtr(API::ImageList_ptr& v) const { return giveReference<API::ImageList>(m_imglistvarb, m_imglistvar, v); }
bool CallSequence::getLsuPtr(API::Lsu_ptr& v) const { return giveReference<API::Lsu>(m_lsuvarb, m_lsuvar, v); }
bool CallSequence::getLsuListPtr(API::LsuList_ptr& v) const { return giveReference<API::LsuList>(m_lsulistvarb, m_lsulistvar, v); }
bool CallSequence::getStorageServerPtr(API::StorageServer_ptr& v) const { return giveReference<API::StorageServer>(m_svrvarb, m_svrvar, v); }
bool CallSequence::getRemLogPtr(API::RemoteLogger_ptr& v) const
{
    if (!m_logvarb) return false;
    v = API::RemoteLogger::_duplicate(m_logvar);
    return true;
}

bool CallSequence::idle()
{
    Guard guard(m_lock);
    return guard.locked() && m_complete;
}

CallSequenceMgr::CallSequenceMgr(ProxyLogger* plog, SessionOpen sessionOpen, Bounds bounds)
    : m_plog(plog),
      m_sessionOpen(std::move(sessionOpen)),
      m_bounds(bounds),
      m_now([] { return Clock::now(); }),
      m_lastSweep(Clock::now()),
      m_sweepAtSize(bounds.keptRecords)
{
}

size_t CallSequenceMgr::size()
{
    Guard guard(m_lock);
    return m_sequence_map.size();
}

bool CallSequenceMgr::mayGo(const std::string& id, Entry& entry)
{
    // Only the map holds it: no call runs on it or is about to.
    if (entry.record.use_count() > 1) return false;
    if (m_sessionOpen && m_sessionOpen(id)) return false;
    return entry.record->idle();
}

// Takes out what has been idle too long, then, above the bound, the least
// recently used of what may go.  The records are destroyed by the caller,
// outside the lock: a record with a pending close deactivates its object.
void CallSequenceMgr::collectStale(Clock::time_point now,
                                   std::vector<std::shared_ptr<CallSequence>>& gone)
{
    std::vector<std::map<std::string, Entry>::iterator> candidates;
    for (auto it = m_sequence_map.begin(); it != m_sequence_map.end(); ++it) {
        if (mayGo(it->first, it->second)) candidates.push_back(it);
    }
    std::sort(candidates.begin(), candidates.end(),
              [](const auto& a, const auto& b) { return a->second.lastUse < b->second.lastUse; });
    for (auto it : candidates) {
        const bool tooOld = now - it->second.lastUse >= m_bounds.idleLimit;
        if (!tooOld && m_sequence_map.size() <= m_bounds.keptRecords) break;
        gone.push_back(std::move(it->second.record));
        m_sequence_map.erase(it);
    }
    m_lastSweep = now;
    m_sweepAtSize = std::max(m_bounds.keptRecords, 2 * m_sequence_map.size());
}

std::shared_ptr<CallSequence> CallSequenceMgr::getCallSequence(const char* id)
{
    std::vector<std::shared_ptr<CallSequence>> gone;
    Guard guard(m_lock);
    const Clock::time_point now = m_now();
    // A sweep a minute, or sooner when the map outgrows its bound.
    if (now - m_lastSweep >= std::chrono::minutes(1) || m_sequence_map.size() >= m_sweepAtSize) {
        collectStale(now, gone);
    }
    Entry& entry = m_sequence_map[std::string(id != nullptr ? id : "")];
    if (!entry.record) {
        try {
            entry.record = std::make_shared<CallSequence>(m_plog);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            throw CORBA::NO_MEMORY();
        }
    }
    entry.lastUse = now;
    return entry.record;
}

void failRecorded(CallSequence& cs, int code, const char* msg)
{
    throwRecorded(cs.recordCompletion(code, msg));
}

void failRecorded(CallSequence& cs, int code, const char* msg, API::UInt64 bytes)
{
    throwRecorded(cs.recordCompletion(code, msg, bytes));
}

void refuseCall(ProxyLogger* plog, CallSequence& cs, const char* szWho, const char* refusal)
{
    if (plog != nullptr) plog->logMsg(nullptr, szWho, STS_ESERROR, "call refused: %s", refusal);
    failRecorded(cs, STS_ENOT_OPEN, refusal);
}

void failRecordedIf(CallSequence& cs, bool record, int code, const char* msg)
{
    if (record) failRecorded(cs, code, msg);
    throw API::STSError(code, msg);
}
