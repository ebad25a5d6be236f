// Who sent the request a thread is serving.  omniORB's serverReceiveRequest
// interceptor sees each request on the thread that then runs its upcall;
// the connection's address is asked of the ORB for that request when a
// servant wants it.  A call a servant makes to another object of this
// process is on behalf of the same peer; a call from a thread that is not
// the ORB's has none.
#ifndef KELD_PLATFORM_REQUESTPEER_H
#define KELD_PLATFORM_REQUESTPEER_H

#include <string>

namespace RequestPeer {

// Starts recording; after the ORB is initialised and before it takes
// requests.  Stays for the life of the process; a second call does nothing.
void install();

// The ORB's text for the peer of the call this thread is serving
// ("giop:tcp:10.1.2.3:40312"), empty when there is none.
std::string current();

} // namespace RequestPeer

#endif
