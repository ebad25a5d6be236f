// The admission decision for one connection, as the transport asks for it.
// A transport hands the far end's socket address to allow_peer; evaluators
// specialise extraPeerCheck.  The transport may call from any of its threads.
#ifndef KELD_PLATFORM_PEEREVALUATOR_H
#define KELD_PLATFORM_PEEREVALUATOR_H

#include <omniORB4/CORBA.h>

// The far end of a connection: the octets of its socket address, a
// sockaddr_in or a sockaddr_in6.
typedef CORBA::OctetSeq PeerAddr;

class InsecureServerEvaluator {
public:
    // With admitEveryPeer, allow_peer says yes without asking extraPeerCheck:
    // the transport itself proves nothing about who is calling.
    explicit InsecureServerEvaluator(bool admitEveryPeer) : m_admitEveryPeer(admitEveryPeer) {}
    virtual ~InsecureServerEvaluator() = default;
    InsecureServerEvaluator(const InsecureServerEvaluator&) = delete;
    InsecureServerEvaluator& operator=(const InsecureServerEvaluator&) = delete;

    // True admits the peer.
    virtual CORBA::Boolean allow_peer(const PeerAddr& addr)
    {
        return m_admitEveryPeer || extraPeerCheck(addr);
    }
    // What a specialisation adds; this base admits everyone.
    virtual CORBA::Boolean extraPeerCheck(const PeerAddr&) { return true; }

private:
    bool m_admitEveryPeer;
};

#endif
