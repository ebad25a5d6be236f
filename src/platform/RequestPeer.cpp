#include "RequestPeer.h"

#include "BoundedCopy.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/omniInterceptors.h>

#include <mutex>

namespace {

typedef omni::omniInterceptors::serverReceiveRequest_T::info_T ReceiveInfo;

// Room for the longest address text ("giop:ssl:[IPv6]:port"); kept in fixed
// buffers so that a request costs no allocation.
const size_t kPeerText = 96;

// Set when a request arrives, taken by the upcall that follows it.
thread_local char t_arrived[kPeerText];
// The peer of the upcall running on this thread, null outside one.
thread_local const char* t_current = nullptr;

CORBA::Boolean noteArrival(ReceiveInfo& info)
{
    boundedCopy(t_arrived, info.peeraddress(), sizeof(t_arrived));
    return true;
}

// The current peer for the length of the upcall, restored after it even
// when the servant throws.
class UpcallPeer {
public:
    UpcallPeer() : m_outer(t_current)
    {
        if (t_arrived[0] != '\0') {
            boundedCopy(m_peer, t_arrived, sizeof(m_peer));
            t_arrived[0] = '\0';
        } else {
            boundedCopy(m_peer, m_outer, sizeof(m_peer));   // in-process: the outer call's peer
        }
        t_current = m_peer;
    }
    ~UpcallPeer() { t_current = m_outer; }
    UpcallPeer(const UpcallPeer&) = delete;
    UpcallPeer& operator=(const UpcallPeer&) = delete;

private:
    const char* m_outer;
    char m_peer[kPeerText];
};

void upcallWithPeer(omniCallDescriptor* call, omniServant* servant)
{
    UpcallPeer peer;
    call->interceptedCall(servant);
}

} // namespace

namespace RequestPeer {

void install()
{
    static std::once_flag installed;
    std::call_once(installed, [] {
        omniORB::getInterceptors()->serverReceiveRequest.add(noteArrival);
        omniCallDescriptor::addInterceptor(upcallWithPeer);
    });
}

std::string current()
{
    return t_current != nullptr ? t_current : "";
}

} // namespace RequestPeer
