// One proxied session as the remote plug-in holds it: the session
// definition, the chain, the first hop's manager, and the one way every
// remote call is made (numbering, resending a lost call, turning the answer
// into the storage API's result).
#ifndef KELD_CLIENT_REMOTESESSION_H
#define KELD_CLIENT_REMOTESESSION_H

#include "CallNumbers.h"
#include "HopAddress.h"
#include "sts_api.h"

#include "Proxy.hh"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// A remote call's answer as the storage API sees it: the operation's
// result (0, or what it returned, or the error's number) and, for an
// STSError_val, its byte count.
struct CallOutcome {
    int code = 0;
    bool withBytes = false;
    std::uint64_t bytes = 0;
};

// Whether a call whose reply was lost may be sent again: numbered calls
// always, unnumbered ones when running them twice does no harm.
enum class Resend { Safe, Never };

class RemoteSession {
public:
    // The session of definition sd at the first hop of its sd_proxy; 0, or
    // REMOTE_EBADPROXY, REMOTE_ETLS, REMOTE_ESYSTEM (the ORB cannot start).
    static int open(const sts_session_def_t& sd, std::shared_ptr<RemoteSession>& out);

    RemoteSession(const RemoteSession&) = delete;
    RemoteSession& operator=(const RemoteSession&) = delete;

    // The definition lines are logged under (its sd_log, sd_flags, sd_id).
    const sts_session_def_t* definition() const { return &m_sd; }
    // What the service is sent: the whole chain, the id, the flags.
    API::SessionDefinition contractDefinition() const;
    API::StorageServerManager_ptr manager() const { return m_manager.in(); }
    // The manager's record for this session id at this hop.
    CallNumbers& managerNumbers() const { return *m_managerNumbers; }
    const std::string& hopText() const { return m_hopText; }

    // One call: fn(number) runs the remote operation and returns its
    // result.  numbers null: an unnumbered call (fn gets 0).
    CallOutcome call(CallNumbers* numbers, const char* who, Resend resend,
                     const std::function<int(API::UInt64)>& fn) const;

    // The credential (null: none) or the hosts' credentials encrypted under
    // the hop's current public key; 0 or a number.
    int encrypt(const sts_cred_t* cred, API::Credential& out) const;
    int encrypt(const sts_host_t* hosts, int count, API::STSHostSeq& out) const;

private:
    RemoteSession() = default;

    int publicKey(API::Bytes_var& key) const;
    CallOutcome fromService(const char* who, int code, const char* text, bool withBytes,
                            std::uint64_t bytes) const;
    // How the last try of a call failed.
    enum class Lost { REPLY, SENDING, UNREACHABLE };
    CallOutcome gaveUp(const char* who, Lost lost, const char* what, int tries) const;
    CallOutcome refusedByOrb(const char* who, const CORBA::SystemException& e) const;
    // The hop `distance` hops on from this session's first one, as written.
    std::string hopName(int distance) const;

    sts_session_def_t m_sd{};
    std::string m_id;
    bool m_hasId = false;
    std::string m_chain;
    HopAddress m_hop;
    std::string m_hopText;
    API::StorageServerManager_var m_manager;
    std::shared_ptr<CallNumbers> m_managerNumbers;
};

#endif
