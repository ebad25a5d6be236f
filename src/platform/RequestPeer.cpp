#include "RequestPeer.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/omniInterceptors.h>

#include <mutex>

namespace {

typedef omni::omniInterceptors::serverReceiveRequest_T::info_T ReceiveInfo;

// The request this thread serves: set as each request arrives, before its
// upcall, and kept until the next one.  Only a pointer is kept, so that a
// request costs one store; the ORB is asked for the connection's address
// only when someone wants it, which is rare.  The ORB's threads run
// nothing but requests, so whenever one asks, this is its request's; a
// thread that never took a request (and a call from it) has none.
thread_local omni::GIOP_S* t_request = nullptr;

CORBA::Boolean noteArrival(ReceiveInfo& info)
{
    t_request = &info.giop_s;
    return true;
}

} // namespace

namespace RequestPeer {

void install()
{
    static std::once_flag installed;
    std::call_once(installed, [] { omniORB::getInterceptors()->serverReceiveRequest.add(noteArrival); });
}

std::string current()
{
    if (t_request == nullptr) return "";
    ReceiveInfo request(*t_request);
    const char* peer = request.peeraddress();
    return peer != nullptr ? peer : "";
}

} // namespace RequestPeer
