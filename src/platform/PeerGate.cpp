#include "PeerGate.h"

#include <omniORB4/omniInterceptors.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <netinet/in.h>

namespace {

typedef omni::omniInterceptors::serverAcceptConnection_T::info_T AcceptInfo;

std::mutex gs_gateMutex;
std::shared_ptr<const PeerGate::Check> gs_check;
bool gs_interceptorAdded = false;
std::atomic<unsigned long long> gs_refused{0};

std::shared_ptr<const PeerGate::Check> currentCheck()
{
    std::lock_guard<std::mutex> lock(gs_gateMutex);
    return gs_check;
}

template <typename SockAddr>
void copyOctets(const SockAddr& sa, PeerAddr& out)
{
    out.length(sizeof(sa));
    std::memcpy(out.get_buffer(), &sa, sizeof(sa));
}

CORBA::Boolean acceptConnection(AcceptInfo& info)
{
    std::shared_ptr<const PeerGate::Check> check = currentCheck();
    if (!check) return true;
    const char* text = info.peeraddress();
    const std::string peer = text != nullptr ? text : "";
    PeerAddr addr;
    PeerGate::parsePeerAddress(peer, addr);
    bool admitted = false;
    try {
        admitted = (*check)(addr, peer);
    } catch (...) {
        admitted = false;
    }
    if (!admitted) {
        gs_refused.fetch_add(1, std::memory_order_relaxed);
        info.reject = 1;
        info.why = "peer not admitted";
    }
    // Later interceptors, if any, still run; the rejection stands.
    return true;
}

} // namespace

namespace PeerGate {

void install(Check check)
{
    std::lock_guard<std::mutex> lock(gs_gateMutex);
    gs_check = std::make_shared<const Check>(std::move(check));
    if (!gs_interceptorAdded) {
        omniORB::getInterceptors()->serverAcceptConnection.add(acceptConnection);
        gs_interceptorAdded = true;
    }
}

void remove()
{
    std::lock_guard<std::mutex> lock(gs_gateMutex);
    gs_check.reset();
    if (gs_interceptorAdded) {
        omniORB::getInterceptors()->serverAcceptConnection.remove(acceptConnection);
        gs_interceptorAdded = false;
    }
}

unsigned long long refusedConnections()
{
    return gs_refused.load(std::memory_order_relaxed);
}

bool parsePeerAddress(const std::string& peer, PeerAddr& out)
{
    static const char* const kSchemes[] = {"giop:tcp:", "giop:ssl:"};
    std::string rest;
    for (const char* scheme : kSchemes) {
        if (peer.compare(0, std::strlen(scheme), scheme) == 0) rest = peer.substr(std::strlen(scheme));
    }
    const size_t colon = rest.rfind(':');
    if (rest.empty() || colon == std::string::npos || colon + 1 >= rest.size()) return false;
    std::string host = rest.substr(0, colon);
    const std::string portText = rest.substr(colon + 1);
    if (portText.find_first_not_of("0123456789") != std::string::npos || portText.size() > 5) return false;
    const unsigned long port = std::stoul(portText);
    if (port > 65535) return false;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        sockaddr_in6 in6{};
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &in6.sin6_addr) != 1) return false;
        copyOctets(in6, out);
        return true;
    }
    sockaddr_in in4{};
    in4.sin_family = AF_INET;
    in4.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &in4.sin_addr) != 1) return false;
    copyOctets(in4, out);
    return true;
}

} // namespace PeerGate
