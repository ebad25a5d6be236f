// Who sent the request a thread is serving.  omniORB's serverReceiveRequest
// interceptor sees the connection's address on the thread that then runs
// the upcall; the upcall interceptor makes it the peer of that call for as
// long as the servant runs.  A call a servant makes to another object of
// this process is on behalf of the same peer; a call from outside any
// request has none.
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
