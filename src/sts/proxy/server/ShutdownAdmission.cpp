#include "ShutdownAdmission.h"

#include "PeerGate.h"
#include "ProxyLogger.h"
#include "RequestPeer.h"
#include "ServantSupport.h"

void ShutdownAdmission::admitCaller(ProxyLogger* plog, const char* szWho)
{
    const std::string peer = RequestPeer::current();
    PeerAddr octets;
    if (PeerGate::parsePeerAddress(peer, octets)) {
        ACE_INET_Addr addr;
        addr.set_addr(octets.get_buffer(), static_cast<int>(octets.length()));
        if (m_servers.isInServerListCached(addr)) return;
    }
    plog->logMsg(nullptr, szWho, STS_ESWARN,
                 "refused to shut the service down for %s, which is not a server named in %s; "
                 "keldpxy -stop stops it on its own host",
                 peer.empty() ? "a caller without an address" : peer.c_str(), SentraNetParse::defaultPath().c_str());
    refuseOperation();
}
