// What every object serving sequenced calls holds: the POA it lives in, the
// proxy log and the record of its calls, so that a retried call finds the
// answer it already got.
#ifndef KELD_PROXY_SEQUENCEDSERVANT_H
#define KELD_PROXY_SEQUENCEDSERVANT_H

#include "CallSequence.h"

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

#endif
