// The hops of a proxy chain "hop#hop#...", each "host", "host:port" or
// "[v6addr]:port"; the port is 10001 when left out.
#ifndef KELD_CLIENT_HOPADDRESS_H
#define KELD_CLIENT_HOPADDRESS_H

#include <string>
#include <vector>

struct HopAddress {
    std::string host;     // without brackets
    unsigned port = 10001;

    // "host:port", the form used in log lines and as a key.
    std::string text() const;
    // corbaloc::host:port/Proxy.StorageServerManager, or over TLS
    // corbaloc:ssliop:host:port/Proxy.StorageServerManager
    std::string managerLocation(bool tls = false) const;
};

// The hops of a chain as written, empty ones included ("a##b" gives a, "", b).
std::vector<std::string> chainHops(const std::string& chain);

// Parses the first hop of chain; false when it is not host[:port].
bool firstHop(const std::string& chain, HopAddress& out);

#endif
