// What every object serving sequenced calls holds: the POA it lives in, the
// proxy log and the record of its calls, so that a retried call finds the
// answer it already got.
#ifndef KELD_PROXY_SEQUENCEDSERVANT_H
#define KELD_PROXY_SEQUENCEDSERVANT_H

#include "CallSequence.h"
#include "ServantSite.h"
#include "SessionId.h"
#include "sts_api.h"

#include <omniORB4/CORBA.h>

class ProxyLogger;

template <typename Skeleton>
class SequencedServant : public virtual Skeleton {
public:
    PortableServer::POA_ptr _default_POA() override { return PortableServer::POA::_duplicate(m_vobjPOA); }
    CallSequence& getCallSequence() { return m_CallSeq; }

protected:
    SequencedServant(PortableServer::POA_ptr poa, ProxyLogger* plog)
        : m_vobjPOA(PortableServer::POA::_duplicate(poa)), m_plog(plog), m_CallSeq(plog)
    {
    }

    PortableServer::POA_var m_vobjPOA;
    ProxyLogger* m_plog;
    CallSequence m_CallSeq;
};

// A servant that a storage server makes for its client (an LSU, an image,
// a list): it keeps a copy of the server's session definition for its log
// lines and storage calls, and holds the session id that copy points at.
// It holds no reference to its parent: closing the server leaves it alone.
template <typename Skeleton>
class SessionServant : public SequencedServant<Skeleton> {
protected:
    SessionServant(PortableServer::POA_ptr poa, ProxyLogger* plog, const sts_session_def_t& sd)
        : SequencedServant<Skeleton>(poa, plog), m_sd(sd), m_sessionId(sd.sd_id)
    {
        m_sd.sd_id = m_sessionId.c_str();
    }

    // Where this servant's lines come from, for the shared patterns.
    ServantSite site(const char* szWho) const { return {this->m_plog, &m_sd, szWho}; }

    sts_session_def_t m_sd;
    SessionId m_sessionId;
};

#endif
