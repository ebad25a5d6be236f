// Where a servant's operation logs from, and the shape every storage call
// of a sequenced operation shares: a failure is logged at error severity,
// recorded for a retry and raised; the caller logs and records success.
#ifndef KELD_PROXY_SERVANTSITE_H
#define KELD_PROXY_SERVANTSITE_H

#include "CallSequence.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "StsBinding.h"
#include "sts_plugin.h"
#include "sts_types.h"

#include <vector>

// The origin and the session of an operation's log lines.
struct ServantSite {
    ProxyLogger* plog;
    const sts_session_def_t* sd;   // null for lines without a session
    const char* szWho;

    template <typename... Args>
    void log(sts_severity_t sev, const char* fmt, Args... args) const
    {
        if constexpr (sizeof...(Args) == 0)
            plog->logMsg(sd, szWho, sev, "%s", fmt);   // a line with no arguments is text
        else
            plog->logMsg(sd, szWho, sev, fmt, args...);
    }
};

// Raises a failed storage result: failFormat ends with the "%d" of nErr,
// after the arguments given; failText goes to the client with nErr.
template <typename... Args>
void raiseOnFailure(int nErr, CallSequence& cs, const ServantSite& site, const char* failText,
                    const char* failFormat, Args... args)
{
    if (nErr == 0) return;
    site.log(STS_ESERROR, failFormat, args..., nErr);
    failRecorded(cs, nErr, failText);
}

// The texts of closing a plug-in handle.
struct CloseTexts {
    const char* notOpenLog;    // error, when there is no handle
    const char* notOpenText;   // to the client, with 2060014
    const char* failText;      // to the client, with the plug-in's number
    const char* failFormat;    // error, "... %d" with the plug-in's number
};

// An operation outside the retry scheme: it marks the service busy, as
// runSequenced does for the others, and holds a pass of the servant's gate
// while it runs.  A refusal is logged and raised plain (2060014): there is
// no record.  Every client call that does work starts with one or the
// other; the refused forms, the remote log's poll and the probes of the
// entry objects (getString, getPublicKey) do not, so that none of them
// alone keeps an idle service alive.
class UnsequencedCall {
public:
    UnsequencedCall(ServantGate& gate, const ServantSite& site) : m_pass(&gate)
    {
        noteRequest();
        if (!m_pass) {
            site.log(STS_ESERROR, "call refused: %s", m_pass.refusal());
            throw API::STSError(STS_ENOT_OPEN, m_pass.refusal());
        }
    }
    // A servant without a gate (the managers, an event channel), or a close
    // that shuts its gate itself: the call only marks the service busy.
    UnsequencedCall() : m_pass(nullptr) { noteRequest(); }

private:
    ServantGate::Pass m_pass;
};

// Keeps every other call of a servant out while it closes its handle.  A
// close that cannot have the gate (another close holds it, or the server
// is gone) is refused with 2060014, recorded, before anything is touched.
class HandleClosing : public ServantGate::Closing {
public:
    HandleClosing(ServantGate& gate, CallSequence& cs, const ServantSite& site) : Closing(gate)
    {
        if (!*this) refuseCall(site.plog, cs, site.szWho, refusal());
    }
};

// Closes a plug-in handle and forgets it, whatever the outcome: the plug-in
// has freed it even when the close failed, and handing it over again could
// only touch freed memory, so a further close is answered 2060014.  The
// caller holds a HandleClosing.
inline void closePluginHandle(sts_handle_t& handle, CallSequence& cs, const ServantSite& site,
                              const CloseTexts& texts)
{
    if (handle == nullptr) {
        site.log(STS_ESERROR, texts.notOpenLog);
        failRecorded(cs, STS_ENOT_OPEN, texts.notOpenText);
    }
    const int nErr = STS_CALL(stsa_close_handle, handle, 0);
    handle = nullptr;
    raiseOnFailure(nErr, cs, site, texts.failText, texts.failFormat);
}

// What a servant's gate runs when its server goes with the handle still
// open: the plug-in closes it with STSP_CLOSE_ABANDONED in flags, and the
// servant forgets it.  Logged, never raised.
inline void abandonPluginHandle(sts_handle_t& handle, sts_uint32_t flags, const ServantSite& site,
                                const char* what)
{
    if (handle == nullptr) return;
    const int nErr = STS_CALL(stsa_close_handle, handle, flags | STSP_CLOSE_ABANDONED);
    handle = nullptr;
    site.log(nErr == 0 ? STS_ESINFO : STS_ESERROR, "closed the %s its client left open, sts return %d", what, nErr);
}

// The texts of a counted listing (storage elements, pool members).
struct ListingTexts {
    const char* requestLog;   // debug, at the start
    const char* failFormat;   // error, "... %d" with the plug-in's number
    const char* failText;     // to the client
    const char* countsLog;    // debug, "%d ... %d": returned and available
    const char* okLog;        // info, at the end
};

// The storage elements of a server or of an LSU: the same listing on
// either handle.
extern const ListingTexts kStorelListing;

// The most entries a client may ask a listing for: enough for any server,
// small enough that no request can make the service allocate without end.
const CORBA::Long kMaxListingCount = 65536;

// A count outside 0..kMaxListingCount is the client's mistake.
inline void checkListingCount(CORBA::Long count)
{
    if (count < 0 || count > kMaxListingCount) throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
}

inline void recordListing(CallSequence& cs, const API::StorageElementSeq& s) { cs.setStorageElemSeq(s); }
inline void recordListing(CallSequence& cs, const API::LSUPoolSeq& s) { cs.setLSUPoolSeq(s); }
inline void replayListing(CallSequence& cs, API::StorageElementSeq_out s) { cs.getStorageElemSeq(s); }
inline void replayListing(CallSequence& cs, API::LSUPoolSeq_out s) { cs.getLSUPoolSeq(s); }

// The shape of every counted listing: the plug-in fills an array of count
// C records (call(array, count, &returned, &available)) and the reply is a
// sequence of length count whose first `returned` entries are filled and
// the rest empty; a retry answers with the recorded sequence and both
// counts.
template <typename Seq, typename Item, typename Call>
Seq* runCountedListing(CallSequence& record, API::UInt64 callsequence, const ServantSite& site,
                       const ListingTexts& texts, CORBA::Long count, CORBA::Long& returned,
                       CORBA::Long& available, Call call)
{
    return runSequenced(record, callsequence, site.szWho, nullptr,
        [&](CallSequence& cs) {
            Seq* seq = nullptr;
            replayListing(cs, seq);
            cs.getLong1(&returned);
            cs.getLong2(&available);
            return seq;
        },
        [&](CallSequence& cs) {
            site.log(STS_ESDEBUG, "%s", texts.requestLog);
            checkListingCount(count);
            typename Seq::_var_type seq = new Seq(static_cast<CORBA::ULong>(count));
            seq->length(static_cast<CORBA::ULong>(count));
            std::vector<Item> items(static_cast<size_t>(count));
            int nReturned = 0;
            int nAvailable = 0;
            raiseOnFailure(call(items.data(), static_cast<int>(count), &nReturned, &nAvailable), cs, site,
                           texts.failText, texts.failFormat);
            returned = nReturned;
            available = nAvailable;
            cs.setLong1(returned);
            cs.setLong2(available);
            site.log(STS_ESDEBUG, texts.countsLog, nReturned, nAvailable);
            // Entries from the plug-in's count on are empty records, never
            // what the heap or the plug-in left there; its count is not
            // trusted past the array it was given.
            const Item empty{};
            for (int i = 0; i < count; ++i) {
                ZVS2CORBA(i < nReturned ? items[static_cast<size_t>(i)] : empty, &seq[static_cast<CORBA::ULong>(i)]);
            }
            site.log(STS_ESINFO, "%s", texts.okLog);
            recordListing(cs, seq.in());
            cs.recordCompletion(0, "ok");
            return seq._retn();
        });
}

#endif
