// What every object serving sequenced calls holds: the POA it lives in, the
// proxy log and the record of its calls, so that a retried call finds the
// answer it already got.
#ifndef KELD_PROXY_SEQUENCEDSERVANT_H
#define KELD_PROXY_SEQUENCEDSERVANT_H

#include "CallSequence.h"
#include "Metrics.h"
#include "ServantGate.h"
#include "ServantSite.h"
#include "SessionId.h"
#include "sts_api.h"

#include <omniORB4/CORBA.h>

#include <functional>
#include <memory>

class ProxyLogger;

// A hold that keeps a servant alive for as long as it lives (a reference
// count the POA does not own), and counts it among the open objects of its
// kind meanwhile: the hold lives exactly while the servant's handle is open.
inline std::shared_ptr<void> holdServant(PortableServer::ServantBase* servant, ObjectKind kind)
{
    servant->_add_ref();
    MetricGauge* open = &ServiceMetrics::process().openObjects(kind);
    open->add(1);
    return std::shared_ptr<void>(servant, [open](void* s) {
        open->add(-1);
        static_cast<PortableServer::ServantBase*>(s)->_remove_ref();
    });
}

// The kind of object each servant skeleton serves.
inline ObjectKind objectKindOf(const POA_API::StorageServer*) { return ObjectKind::kServer; }
inline ObjectKind objectKindOf(const POA_API::Lsu*) { return ObjectKind::kLsu; }
inline ObjectKind objectKindOf(const POA_API::LsuList*) { return ObjectKind::kLsuList; }
inline ObjectKind objectKindOf(const POA_API::Image*) { return ObjectKind::kImage; }
inline ObjectKind objectKindOf(const POA_API::ImageList*) { return ObjectKind::kImageList; }

// The gate guards the plug-in handle the servant owns (ServantGate.h); the
// record lets each call through it.
template <typename Skeleton>
class SequencedServant : public virtual Skeleton {
public:
    PortableServer::POA_ptr _default_POA() override { return PortableServer::POA::_duplicate(m_vobjPOA); }
    CallSequence& getCallSequence() { return m_CallSeq; }
    ServantGate& gate() { return *m_gate; }

protected:
    // The servant opened its handle: abandon closes it if its server goes
    // first (ServantGate::keepOpen).
    void keepOpen(std::function<void()> abandon)
    {
        m_gate->keepOpen(holdServant(this, objectKindOf(static_cast<const Skeleton*>(this))), std::move(abandon));
    }

    SequencedServant(PortableServer::POA_ptr poa, ProxyLogger* plog,
                     std::shared_ptr<ServantGate> parentGate = nullptr)
        : m_vobjPOA(PortableServer::POA::_duplicate(poa)),
          m_plog(plog),
          m_gate(std::make_shared<ServantGate>(std::move(parentGate))),
          m_CallSeq(plog)
    {
        m_CallSeq.setGate(m_gate.get());
    }

    PortableServer::POA_var m_vobjPOA;
    ProxyLogger* m_plog;
    std::shared_ptr<ServantGate> m_gate;
    CallSequence m_CallSeq;
};

// What a child servant keeps of the server that made it: the server handle
// for its storage calls, and the server's gate, which each of its calls
// passes first.
struct ServerLink {
    sts_server_handle_t handle = nullptr;
    std::shared_ptr<ServantGate> gate;
};

// A servant that a storage server makes for its client (an LSU, an image,
// a list): it keeps a copy of the server's session definition for its log
// lines and storage calls, and holds the session id that copy points at.
// It holds no reference to its parent servant, only to the parent's gate:
// once the server is closed, the child answers so and its handle is closed
// by the server's close (see ServantGate.h).
template <typename Skeleton>
class SessionServant : public SequencedServant<Skeleton> {
protected:
    SessionServant(PortableServer::POA_ptr poa, ProxyLogger* plog, const sts_session_def_t& sd,
                   const ServerLink& server)
        : SequencedServant<Skeleton>(poa, plog, server.gate), m_sd(sd), m_sessionId(sd.sd_id)
    {
        m_sd.sd_id = m_sessionId.c_str();
        if (server.gate != nullptr) server.gate->adopt(this->m_gate);
    }

    // Where this servant's lines come from, for the shared patterns.
    ServantSite site(const char* szWho) const { return {this->m_plog, &m_sd, szWho}; }

    sts_session_def_t m_sd;
    SessionId m_sessionId;
};

#endif
