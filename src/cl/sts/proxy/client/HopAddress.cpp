#include "HopAddress.h"

#include <cstdlib>

namespace {

const unsigned DEFAULT_PORT = 10001;

bool parsePort(const std::string& text, unsigned& port)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    const unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
    if (v == 0 || v > 65535) return false;
    port = static_cast<unsigned>(v);
    return true;
}

bool validHost(const std::string& host)
{
    return !host.empty() && host.find_first_of(" \t/@#") == std::string::npos;
}

} // namespace

std::string HopAddress::text() const
{
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string HopAddress::managerLocation(bool tls) const
{
    return std::string(tls ? "corbaloc:ssliop:" : "corbaloc::") + text() + "/Proxy.StorageServerManager";
}

std::vector<std::string> chainHops(const std::string& chain)
{
    std::vector<std::string> hops;
    size_t from = 0;
    for (;;) {
        const size_t hash = chain.find('#', from);
        hops.push_back(chain.substr(from, hash == std::string::npos ? std::string::npos : hash - from));
        if (hash == std::string::npos) return hops;
        from = hash + 1;
    }
}

bool firstHop(const std::string& chain, HopAddress& out)
{
    const std::string hop = chainHops(chain).front();
    HopAddress a;
    a.port = DEFAULT_PORT;
    if (!hop.empty() && hop[0] == '[') {
        const size_t close = hop.find(']');
        if (close == std::string::npos) return false;
        a.host = hop.substr(1, close - 1);
        const std::string rest = hop.substr(close + 1);
        if (!rest.empty() && (rest[0] != ':' || !parsePort(rest.substr(1), a.port))) return false;
    } else {
        const size_t colon = hop.find(':');
        a.host = hop.substr(0, colon);
        if (colon != std::string::npos && !parsePort(hop.substr(colon + 1), a.port)) return false;
    }
    if (!validHost(a.host)) return false;
    out = a;
    return true;
}
