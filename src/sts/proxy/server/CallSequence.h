// Call sequencing: a client that lost a reply resends the call with the
// same number and gets the recorded answer instead of a second execution.
//
// Each servant object keeps one CallSequence: the number of the last call it
// took, whether that call finished, its error and every result it returned.
// Number 0 means "not sequenced": the operation runs every time.
//
// A sequenced operation is written with runSequenced():
//
//   CORBA::Long StorageServerImpl::deleteLsuV12(API::UInt64 callsequence, const char* lsuName)
//   {
//       static const char* szWho = "StorageServerImpl::deleteLsu";
//       return runSequenced(m_CallSeq, callsequence, szWho, nullptr,
//           [&](CallSequence& cs) { return cs.getErrorCode(); },      // replay
//           [&](CallSequence& cs) {                                   // first run
//               ... build arguments, one storage call ...
//               if (nErr != 0) failRecorded(cs, nErr, "fail to call sts_delete_lsu");
//               cs.recordCompletion(0, "ok");
//               return 0;
//           });
//   }
//
// runSequenced sets the idle timer's request flag, answers a retry from the
// record (or rethrows its recorded error), otherwise starts the call, lets
// it through the servant's gate and closes it however the body leaves; and
// it counts the call by its outcome (Metrics.h).
//
// Any interleaving of calls on one object is safe.  Numbered calls take the
// record one at a time: judging a number and starting its call is one step
// under the record's lock, a retry is answered under that lock, and a call
// that overlaps the running one waits for it.  A call with number 0 is not
// recorded at all: it runs against a scratch record of its own, so that
// unnumbered calls never share one.
#ifndef KELD_PROXY_CALLSEQUENCE_H
#define KELD_PROXY_CALLSEQUENCE_H

#include "Metrics.h"
#include "ServantGate.h"
#include "ServantSupport.h"

#include "Proxy.hh"

#include <ace/Thread_Mutex.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class ProxyLogger;
extern std::atomic<bool> bReceivedRequest;

class CallSequence {
public:
    explicit CallSequence(ProxyLogger* plog);
    ~CallSequence();
    CallSequence(const CallSequence&) = delete;
    CallSequence& operator=(const CallSequence&) = delete;

    // true: a retry of the finished call, answer from the record.  Throws the
    // recorded error of a failed call, the toss of a lower number, or
    // CORBA::TIMEOUT after waiting about 29 s for a running call.
    bool checkCompletion(API::UInt64 callsequence, const char* caller, API::UInt64* bytes);
    CallSequence& startCall(API::UInt64 callsequence, const char* caller);

    // checkCompletion and startCall of a numbered call in one step: a
    // retry is answered while the admission holds the record's lock, a new
    // call is started before anyone else may judge its number.
    class Admission {
    public:
        ~Admission();
        Admission(const Admission&) = delete;
        Admission& operator=(const Admission&) = delete;
        // A retry of the finished call: answer from the record now.
        bool isRetry() const { return m_held != nullptr; }

    private:
        friend class CallSequence;
        explicit Admission(ACE_Thread_Mutex* held) : m_held(held) {}
        ACE_Thread_Mutex* m_held;
    };
    Admission admit(API::UInt64 callsequence, const char* caller, API::UInt64* bytes);

    // The gate of the handle the record's servant owns; every call the
    // record starts passes through it.  Null: no gate.
    void setGate(ServantGate* gate) { m_gate = gate; }
    ServantGate* gate() const { return m_gate; }
    ProxyLogger* logger() const { return m_plog; }
    API::STSError& recordCompletion(int code, const char* msg);
    API::STSError_val& recordCompletion(int code, const char* msg, API::UInt64 bytes);
    void complete();
    int getErrorCode() const { return m_errorcode; }
    // No call runs on this record (its last one finished).
    bool idle();
    // Deactivates a closed object: at once for number 0, otherwise at the
    // next sequenced call, so that a retried close still finds the object.
    void storeObjForDeactivate(CORBA::Object_ptr obj, PortableServer::POA_ptr poa);
    // The same for a servant closed by a call on this, its own record, which
    // gets no next call: it waits in ClosedObjects for a resent close.
    void storeServantForDeactivate(PortableServer::Servant servant, PortableServer::POA_ptr poa);

    // Setters store a deep copy and set the flag; they take no lock: they run
    // on the thread that owns the running call.
    void setLong1(CORBA::Long v);
    void setLong2(CORBA::Long v);
    void setUInt32(API::UInt32 v);
    void setBytes(const API::Bytes& v);
    void setAioResult(const API::AioResult& v);
    void setImageInfo(const API::ImageInformationV13& v);
    void setLsuInfo(const API::LsuInformationV11& v);
    void setLSUPoolSeq(const API::LSUPoolSeq& v);
    void setStorageElemSeq(const API::StorageElementSeq& v);
    void setLsuName(const char* v);
    void setImageDef(const API::ImageDefinitionV13& v);
    void setServerInfo(const API::ServerInformation& v);
    void setStorelInfo(const API::StorelInformation& v);
    void setDdupStatsInfo(const API::DdupStatsInfo& v);
    void setRestoreCntl(const API::RestoreCntl& v);
    void setFscpInfo(const API::FscpInfo& v);
    void setLsuUniqueId(const char* v);
    void setHostNameSeq(const API::HostNameSeq& v);
    void setImagePtr(API::Image_ptr v);
    void setImageListPtr(API::ImageList_ptr v);
    void setLsuPtr(API::Lsu_ptr v);
    void setLsuListPtr(API::LsuList_ptr v);
    void setStorageServerPtr(API::StorageServer_ptr v);
    void setRemLogPtr(API::RemoteLogger_ptr v);

    // Getters return the value's flag.  Record getters hand a fresh copy to
    // the out argument only when the flag is set; the two string getters
    // always assign; reference getters hand a duplicate.
    bool getLong1(CORBA::Long* v) const;
    bool getLong2(CORBA::Long* v) const;
    bool getUInt32(API::UInt32* v) const;
    bool getBytes(API::Bytes_out v) const;
    bool getAioResult(API::AioResult_out v) const;
    bool getImageInfo(API::ImageInformationV13_out v) const;
    bool getLsuInfo(API::LsuInformationV11_out v) const;
    bool getLSUPoolSeq(API::LSUPoolSeq_out v) const;
    bool getStorageElemSeq(API::StorageElementSeq_out v) const;
    bool getLsuName(CORBA::String_out v) const;
    bool getImageDef(API::ImageDefinitionV13_out v) const;
    bool getServerInfo(API::ServerInformation_out v) const;
    bool getStorelInfo(API::StorelInformation_out v) const;
    bool getDdupStatsInfo(API::DdupStatsInfo_out v) const;
    bool getRestoreCntl(API::RestoreCntl_out v) const;
    bool getFscpInfo(API::FscpInfo_out v) const;
    bool getLsuUniqueId(CORBA::String_out v) const;
    bool getHostNameSeq(API::HostNameSeq_out v) const;
    bool getImagePtr(API::Image_ptr& v) const;
    bool getImageListPtr(API::ImageList_ptr& v) const;
    bool getLsuPtr(API::Lsu_ptr& v) const;
    bool getLsuListPtr(API::LsuList_ptr& v) const;
    bool getStorageServerPtr(API::StorageServer_ptr& v) const;
    bool getRemLogPtr(API::RemoteLogger_ptr& v) const;

    // The pause between two checks of a running call; tests replace it.
    using SleepFunction = void (*)(unsigned seconds);
    static void setWaitSleep(SleepFunction fn);

private:
    enum Decision { HIT, NEW_CALL, RUNNING };
    // With m_lock held.
    Decision decide(API::UInt64 callsequence, const char* caller, API::UInt64* bytes);
    [[noreturn]] void reused(API::UInt64 callsequence, const char* caller);
    void start(API::UInt64 callsequence, const char* caller);
    // Polls, without the lock, until the running call finished; throws
    // the toss of a lower number or CORBA::TIMEOUT.
    void waitWhileRunning(API::UInt64 callsequence);
    [[noreturn]] void toss(API::UInt64 callsequence);
    void deactivatePending();
    template <typename... Args> void debug(const char* szWho, const char* fmt, Args... args) const;

    API::UInt64 m_callsequence = 0;
    bool m_complete = true;
    bool m_recordComplete = true;
    int m_errorcode = 0;
    API::UInt64 m_bytesreturned = 0;
    bool m_errorb = false;
    API::STSError m_error;
    bool m_errorvalb = false;
    API::STSError_val m_errorval;
    ProxyLogger* m_plog;
    ACE_Thread_Mutex m_lock;
    const char* m_caller = nullptr;
    ServantGate* m_gate = nullptr;

    CORBA::Long m_long1 = 0;
    bool m_long1b = false;
    CORBA::Long m_long2 = 0;
    bool m_long2b = false;
    API::UInt32 m_int32 = 0;
    bool m_int32b = false;
    API::Bytes m_bytes;
    bool m_bytesb = false;
    API::AioResult m_aioresult;
    bool m_aioresultb = false;
    API::ImageInformationV13 m_imageinfo;
    bool m_imageinfob = false;
    API::LsuInformationV11 m_lsuinfo;
    bool m_lsuinfob = false;
    API::LSUPoolSeq m_lsupoolseq;
    bool m_lsupoolseqb = false;
    API::StorageElementSeq m_storageelemseq;
    bool m_storageelemseqb = false;
    CORBA::String_var m_lsuname;
    bool m_lsunameb = false;
    API::ImageDefinitionV13 m_imagedef;
    bool m_imagedefb = false;
    API::ServerInformation m_serverinfo;
    bool m_serverinfob = false;
    API::StorelInformation m_storel;
    bool m_storelb = false;
    API::DdupStatsInfo m_ddupstatsinfo;
    bool m_ddupstatsinfob = false;
    API::RestoreCntl m_restorecntl;
    bool m_restorecntlb = false;
    API::FscpInfo m_fscpinfo;
    bool m_fscpinfob = false;
    CORBA::String_var m_lsuuniqueid;
    bool m_lsuuniqueidb = false;
    API::HostNameSeq m_hostnameseq;
    bool m_hostnameseqb = false;
    API::Image_var m_imgvar;
    bool m_imgvarb = false;
    API::ImageList_var m_imglistvar;
    bool m_imglistvarb = false;
    API::Lsu_var m_lsuvar;
    bool m_lsuvarb = false;
    API::LsuList_var m_lsulistvar;
    bool m_lsulistvarb = false;
    API::StorageServer_var m_svrvar;
    bool m_svrvarb = false;
    // A plain pointer: the record never gives this reference back.
    API::RemoteLogger_ptr m_logvar = nullptr;
    bool m_logvarb = false;

    CORBA::Object_var m_objvar;
    PortableServer::POA_var m_vobjPOA;
    bool m_objvarb = false;
};

// Closes the call however the operation leaves.
class CallSequenceComplete {
public:
    explicit CallSequenceComplete(CallSequence& cs) : m_callsequence(cs) {}
    ~CallSequenceComplete() { m_callsequence.complete(); }
    CallSequenceComplete(const CallSequenceComplete&) = delete;
    CallSequenceComplete& operator=(const CallSequenceComplete&) = delete;

private:
    CallSequence& m_callsequence;
};

// How long and how many records of closed sessions CallSequenceMgr keeps.
struct CallSequenceBounds {
    std::chrono::steady_clock::duration idleLimit = std::chrono::minutes(10);
    size_t keptRecords = 1024;
};

// Records for operations that have no object yet, one per client session id.
//
// A service that runs for months sees sessions come and go, so the map is
// kept bounded: a record may go when nobody is in a call on it, its session
// has no open server, and it has had no call for idleLimit; when more than
// keptRecords remain, the least recently used of those that may go are
// dropped earlier.  A client that lost a reply retries within seconds, far
// inside both bounds under any ordinary load.
class CallSequenceMgr {
public:
    using Clock = std::chrono::steady_clock;
    // True while the session id has a server open.
    using SessionOpen = std::function<bool(const std::string& id)>;
    using Bounds = CallSequenceBounds;

    explicit CallSequenceMgr(ProxyLogger* plog, SessionOpen sessionOpen = {}, Bounds bounds = Bounds());
    CallSequenceMgr(const CallSequenceMgr&) = delete;
    CallSequenceMgr& operator=(const CallSequenceMgr&) = delete;

    // The record for id; the caller holds it for the length of its call.
    std::shared_ptr<CallSequence> getCallSequence(const char* id);
    size_t size();
    // Tests move time on.
    void setClock(std::function<Clock::time_point()> now) { m_now = std::move(now); }

private:
    struct Entry {
        std::shared_ptr<CallSequence> record;
        Clock::time_point lastUse;
    };
    bool mayGo(const std::string& id, Entry& entry);
    void collectStale(Clock::time_point now, std::vector<std::shared_ptr<CallSequence>>& gone);

    std::map<std::string, Entry> m_sequence_map;
    ACE_Thread_Mutex m_lock;
    ProxyLogger* m_plog;
    SessionOpen m_sessionOpen;
    Bounds m_bounds;
    std::function<Clock::time_point()> m_now;
    Clock::time_point m_lastSweep;
    size_t m_sweepAtSize;
};

// Records the failure and throws a copy of it: the record keeps its own for
// a retry.
[[noreturn]] void failRecorded(CallSequence& cs, int code, const char* msg);
[[noreturn]] void failRecorded(CallSequence& cs, int code, const char* msg, API::UInt64 bytes);
// The same when record is set; otherwise the error is raised plain and a
// retry of that number answers "unknown exception" (a few operations do so).
[[noreturn]] void failRecordedIf(CallSequence& cs, bool record, int code, const char* msg);

// A call the servant's gate refused: logged, recorded for a retry, raised
// as 2060014 with the gate's reason.
[[noreturn]] void refuseCall(ProxyLogger* plog, CallSequence& cs, const char* szWho, const char* refusal);

// Runs the body with a pass of owner's gate; results go to record (owner's
// own, or an unnumbered call's scratch).
template <typename Body>
auto runInGate(CallSequence& owner, CallSequence& record, const char* szWho, Body& body) -> decltype(body(record))
{
    const ServantGate::Pass pass(owner.gate());
    if (!pass) refuseCall(owner.logger(), record, szWho, pass.refusal());
    return body(record);
}

// Marks the service busy for the idle timer: the only writer of the flag
// besides the timer, called by runSequenced and UnsequencedCall
// (ServantSite.h).  Read before written: the flag's cache line is not
// bounced between cores at every call, only after the idle timer cleared it.
inline void noteRequest()
{
    if (!bReceivedRequest.load(std::memory_order_relaxed)) bReceivedRequest = true;
}

// Counts the call by its outcome once it is answered; the throws change
// the outcome on the way out.
class CallOutcome {
public:
    explicit CallOutcome(const char* operation) : m_operation(operation) {}
    ~CallOutcome() { ServiceMetrics::process().calls.count(m_operation, m_outcome); }
    CallOutcome(const CallOutcome&) = delete;
    CallOutcome& operator=(const CallOutcome&) = delete;
    void is(CallTally::Outcome outcome) { m_outcome = outcome; }

private:
    const char* m_operation;
    CallTally::Outcome m_outcome = CallTally::kOk;
};

template <typename Replay, typename Body>
auto runAdmitted(CallSequence& cs, API::UInt64 callsequence, const char* szWho,
                 API::UInt64* bytes, Replay& replay, Body& body) -> decltype(body(cs))
{
    if (callsequence == 0) {
        CallSequence scratch(nullptr);
        return runInGate(cs, scratch, szWho, body);
    }
    const CallSequence::Admission admission = cs.admit(callsequence, szWho, bytes);
    if (admission.isRetry()) return replay(cs);
    CallSequenceComplete cmpl(cs);
    return runInGate(cs, cs, szWho, body);
}

// The sequenced-operation pattern: see the top of this file.
template <typename Replay, typename Body>
auto runSequenced(CallSequence& cs, API::UInt64 callsequence, const char* szWho,
                  API::UInt64* bytes, Replay replay, Body body) -> decltype(body(cs))
{
    noteRequest();
    CallOutcome outcome(szWho);
    try {
        return runAdmitted(cs, callsequence, szWho, bytes, replay, body);
    } catch (const CORBA::UserException&) {
        outcome.is(CallTally::kError);   // STSError or STSError_val: a storage answer
        throw;
    } catch (...) {
        outcome.is(CallTally::kException);
        throw;
    }
}

#endif
