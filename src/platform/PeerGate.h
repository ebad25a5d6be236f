// Admission at connection time: one check, installed on omniORB's
// serverAcceptConnection interceptor, sees every connection the ORB accepts
// (on TCP at once, on SSL after the handshake) before any request is read
// from it.  A refused connection is closed; the client sees a failed call.
#ifndef KELD_PLATFORM_PEERGATE_H
#define KELD_PLATFORM_PEERGATE_H

#include "PeerEvaluator.h"

#include <functional>
#include <string>

namespace PeerGate {

// addr is the peer's socket address, empty when the ORB's text for the peer
// (in peer, "giop:tcp:10.1.2.3:40312") is not a TCP or SSL address.  True
// admits.  An exception from the check refuses.
typedef std::function<bool(const PeerAddr& addr, const std::string& peer)> Check;

// Installs check after the ORB is initialised and before it takes
// connections; replaces an earlier one.
void install(Check check);
// Takes the check out again: from here on every connection is accepted.
void remove();

// Connections refused so far by this process.
unsigned long long refusedConnections();

// "giop:tcp:127.0.0.1:4000" or "giop:ssl:[::1]:4000" into socket address
// octets; false (out untouched) for anything else.
bool parsePeerAddress(const std::string& peer, PeerAddr& out);

} // namespace PeerGate

#endif
