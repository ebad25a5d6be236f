#include "RemoteSession.h"

#include "HopProbe.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "RemotePlugin.h"
#include "RemoteRuntime.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

namespace {

const char* const OUT_OF_ORDER_TEXT = "out of order call sequence";

// Manager references and the manager's records, kept for the life of the
// process (the service keeps its records per session id as long), and
// never destroyed: at exit the ORB may be gone before static destructors
// would release the references.
std::mutex g_registryLock;
auto& g_managers = *new std::map<std::string, API::StorageServerManager_var>;
auto& g_managerNumbers = *new std::map<std::string, std::shared_ptr<CallNumbers>>;

// The manager at a hop; raises what the ORB raises for an unusable address.
API::StorageServerManager_ptr managerAt(const HopAddress& hop, bool tls)
{
    std::lock_guard<std::mutex> guard(g_registryLock);
    API::StorageServerManager_var& ref = g_managers[hop.managerLocation(tls)];
    if (CORBA::is_nil(ref)) {
        CORBA::Object_var obj = remote::orb()->string_to_object(hop.managerLocation(tls).c_str());
        // Unchecked: the first real call finds out whether the hop answers,
        // and that call is resent like any other.
        ref = API::StorageServerManager::_unchecked_narrow(obj);
        remote::prepare(ref);
    }
    return API::StorageServerManager::_duplicate(ref);
}

std::shared_ptr<CallNumbers> managerNumbersFor(const std::string& hop, const std::string& id)
{
    std::lock_guard<std::mutex> guard(g_registryLock);
    std::shared_ptr<CallNumbers>& numbers = g_managerNumbers[hop + '\n' + id];
    if (!numbers) numbers = std::make_shared<CallNumbers>(true);
    return numbers;
}

bool hopNumber(int code)
{
    return code >= REMOTE_EHOP && code <= REMOTE_EHOP_LAST;
}

// A hop's number one hop further from the client, while there is room.
bool passesOn(int code)
{
    return hopNumber(code) && REMOTE_EHOP_PLACE(code) < 99;
}

} // namespace

int RemoteSession::open(const sts_session_def_t& sd, std::shared_ptr<RemoteSession>& out)
{
    static const char* szWho = "RemoteSession::open";
    std::shared_ptr<RemoteSession> s(new RemoteSession);
    s->m_sd = sd;
    s->m_hasId = sd.sd_id != nullptr;
    s->m_id = s->m_hasId ? sd.sd_id : "";
    s->m_sd.sd_id = s->m_hasId ? s->m_id.c_str() : nullptr;
    s->m_chain.assign(sd.sd_proxy, strnlen(sd.sd_proxy, sizeof(sd.sd_proxy)));

    HopAddress hop;
    if (!firstHop(s->m_chain, hop)) {
        remote::log().logMsg(s->definition(), szWho, STS_ESERROR,
                             "the first hop of the proxy chain \"%s\" is not host[:port]", s->m_chain.c_str());
        return REMOTE_EBADPROXY;
    }
    s->m_hop = hop;
    s->m_hopText = hop.text();
    if (CORBA::is_nil(remote::orb())) return REMOTE_ESYSTEM;
    const bool tls = remote::settings().tls;
    if (tls && !remote::tlsProblem().empty()) {
        remote::log().logMsg(s->definition(), szWho, STS_ESERROR, "proxy hop %s cannot be reached over TLS: %s",
                             s->m_hopText.c_str(), remote::tlsProblem().c_str());
        return REMOTE_ETLS;
    }
    try {
        s->m_manager = managerAt(hop, tls);
    } catch (const CORBA::Exception& e) {
        remote::log().logMsg(s->definition(), szWho, STS_ESERROR, "proxy hop %s is no usable address: %s",
                             s->m_hopText.c_str(), e._name());
        return REMOTE_EBADPROXY;
    }
    s->m_managerNumbers = managerNumbersFor(s->m_hopText, s->m_id);
    out = s;
    return 0;
}

API::SessionDefinition RemoteSession::contractDefinition() const
{
    API::SessionDefinition ssd;
    ZVS2CORBA(m_sd, &ssd);
    return ssd;
}

CallOutcome RemoteSession::call(CallNumbers* numbers, const char* who, Resend resend,
                                const std::function<int(API::UInt64)>& fn) const
{
    std::unique_lock<std::mutex> held;
    if (numbers != nullptr) held = numbers->hold();
    API::UInt64 seq = numbers != nullptr ? numbers->next() : 0;
    bool movedToClock = false;
    for (int attempt = 1;; ++attempt) {
        Lost lost = Lost::REPLY;
        const char* what = "";
        bool didNotRun = false;   // the ORB knows the call never ran
        try {
            CallOutcome done;
            done.code = fn(seq);
            return done;
        } catch (const API::STSError_val& e) {
            return fromService(who, e.stsErrorNo, e.errorMsg, true, e.bytesReturned);
        } catch (const API::STSError& e) {
            const bool tossed = e.stsErrorNo == STS_ESEQUENCE && e.errorMsg.in() != nullptr &&
                                std::strcmp(e.errorMsg, OUT_OF_ORDER_TEXT) == 0;
            if (tossed && numbers != nullptr && numbers->movesToClockOnToss() && !movedToClock) {
                numbers->moveToClock();
                seq = numbers->next();
                movedToClock = true;
                remote::log().logMsg(definition(), who, STS_ESWARN,
                                     "%s tossed the number as out of order; sending it again as %llu",
                                     m_hopText.c_str(), static_cast<unsigned long long>(seq));
                --attempt;
                continue;
            }
            return fromService(who, e.stsErrorNo, e.errorMsg, false, 0);
        } catch (const CORBA::TRANSIENT& e) {
            lost = Lost::UNREACHABLE;
            what = "TRANSIENT";
            didNotRun = e.completed() == CORBA::COMPLETED_NO;
        } catch (const CORBA::COMM_FAILURE& e) {
            // Closed while the call was still arriving: most often a message
            // larger than the hop accepts.
            lost = e.minor() == omni::COMM_FAILURE_MarshalArguments ? Lost::SENDING : Lost::REPLY;
            what = "COMM_FAILURE";
            didNotRun = e.completed() == CORBA::COMPLETED_NO;
        } catch (const CORBA::TIMEOUT&) {
            what = "TIMEOUT";
        } catch (const CORBA::SystemException& e) {
            return refusedByOrb(who, e);
        }
        // A call that must not run twice still goes again when it never ran.
        const int tries = resend == Resend::Safe || didNotRun ? remote::settings().retryTries : 1;
        if (attempt >= tries) return gaveUp(who, lost, what, attempt);
        remote::log().logMsg(definition(), who, STS_ESWARN,
                             "the reply from %s was lost (%s); sending call %llu again, try %d of %d",
                             m_hopText.c_str(), what, static_cast<unsigned long long>(seq), attempt + 1, tries);
        remote::pauseBeforeTry(attempt);
    }
}

// The service's answer.  A hop number from further on counts one hop more
// from here.
CallOutcome RemoteSession::fromService(const char* who, int code, const char* text, bool withBytes,
                                       std::uint64_t bytes) const
{
    CallOutcome o;
    o.code = code;
    o.withBytes = withBytes;
    o.bytes = bytes;
    if (passesOn(code)) {
        o.code = code + 1;
        const std::string cause = hopCauseText(static_cast<HopCause>(REMOTE_EHOP_CAUSE(code)), m_hopText);
        remote::log().logMsg(definition(), who, STS_ESERROR, "proxy hop %s cannot be reached: %s (chain %s)",
                             hopName(REMOTE_EHOP_PLACE(o.code)).c_str(), cause.c_str(), m_chain.c_str());
    } else {
        remote::log().logMsg(definition(), who, STS_ESDEBUG, "%s answered %d: %s", m_hopText.c_str(), code,
                             text != nullptr ? text : "");
    }
    return o;
}

// What a plain connection finds out decides: a hop that turns it away (or
// takes it and closes it at once) cannot be reached, whatever the last try
// saw; one that keeps it lost the call on the way.
CallOutcome RemoteSession::gaveUp(const char* who, Lost lost, const char* what, int tries) const
{
    CallOutcome o;
    const HopCause cause = probeHop(m_hop);
    if (cause != HopCause::Unknown) lost = Lost::UNREACHABLE;
    switch (lost) {
    case Lost::UNREACHABLE:
        o.code = REMOTE_EHOP + 100 * static_cast<int>(cause);
        remote::log().logMsg(definition(), who, STS_ESERROR,
                             "proxy hop %s cannot be reached: %s (chain %s; %s, %d tries)", m_hopText.c_str(),
                             hopCauseText(cause).c_str(), m_chain.c_str(), what, tries);
        break;
    case Lost::SENDING:
        o.code = REMOTE_ESEND;
        remote::log().logMsg(definition(), who, STS_ESERROR,
                             "proxy hop %s closed the connection %d times while the call arrived: a message larger "
                             "than it accepts? (max_transfer is %llu)",
                             m_hopText.c_str(), tries, static_cast<unsigned long long>(remote::transferLimit()));
        break;
    case Lost::REPLY:
        o.code = REMOTE_ELOST;
        remote::log().logMsg(definition(), who, STS_ESERROR, "the reply from proxy hop %s was lost %d times (%s)",
                             m_hopText.c_str(), tries, what);
        break;
    }
    return o;
}

CallOutcome RemoteSession::refusedByOrb(const char* who, const CORBA::SystemException& e) const
{
    CallOutcome o;
    if (dynamic_cast<const CORBA::OBJECT_NOT_EXIST*>(&e) != nullptr) {
        o.code = REMOTE_ENOOBJECT;
    } else if (dynamic_cast<const CORBA::NO_IMPLEMENT*>(&e) != nullptr) {
        o.code = STS_ENOT_SUPPORTED;
    } else {
        o.code = REMOTE_ESYSTEM;
    }
    remote::log().logMsg(definition(), who, STS_ESERROR, "proxy hop %s refused the call: %s (minor %lu)",
                         m_hopText.c_str(), e._name(), static_cast<unsigned long>(e.minor()));
    return o;
}

std::string RemoteSession::hopName(int distance) const
{
    const std::vector<std::string> hops = chainHops(m_chain);
    if (distance >= 0 && static_cast<size_t>(distance) < hops.size()) return hops[static_cast<size_t>(distance)];
    return "number " + std::to_string(distance + 1);
}

int RemoteSession::publicKey(API::Bytes_var& key) const
{
    return call(nullptr, "RemoteSession::publicKey", Resend::Safe, [&](API::UInt64) {
               key = m_manager->getPublicKey();
               return 0;
           }).code;
}

int RemoteSession::encrypt(const sts_cred_t* cred, API::Credential& out) const
{
    out.len = 0;
    out.type = 0;
    out.cert.length(0);
    if (cred == nullptr) return 0;
    API::Bytes_var key;
    const int nErr = publicKey(key);
    if (nErr != 0) return nErr;
    if (ZVS2CORBA(key, *cred, &out) != 0) {
        remote::log().logMsg(definition(), "RemoteSession::encrypt", STS_ESERROR,
                             "the credential cannot be encrypted under the key of %s", m_hopText.c_str());
        return REMOTE_ECREDENTIAL;
    }
    return 0;
}

int RemoteSession::encrypt(const sts_host_t* hosts, int count, API::STSHostSeq& out) const
{
    out.length(0);
    if (hosts == nullptr || count <= 0) return 0;
    API::Bytes_var key;
    const int nErr = publicKey(key);
    if (nErr != 0) return nErr;
    out.length(static_cast<CORBA::ULong>(count));
    for (int i = 0; i < count; ++i) {
        ZVS2CORBA(key, hosts[i], &out[static_cast<CORBA::ULong>(i)]);
        if (hosts[i].sh_cred.cr_len > 0 && out[static_cast<CORBA::ULong>(i)].sh_cred.cert.length() == 0) {
            return REMOTE_ECREDENTIAL;
        }
    }
    return 0;
}
