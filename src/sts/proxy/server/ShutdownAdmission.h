// Who may shut the service down from afar: only the servers of the
// product's domain, named in keldrive/servers (the list peer admission
// reads, read again when it changes).  Anyone else who reaches the port
// would otherwise cut off every other client's backups.  Loopback is not
// implied: on the service's own host the stop is `keldpxy -stop`.
#ifndef KELD_PROXY_SHUTDOWNADMISSION_H
#define KELD_PROXY_SHUTDOWNADMISSION_H

#include "SentraNetParse.h"

class ProxyLogger;

class ShutdownAdmission {
public:
    // Returns when the peer of the request this thread serves is a known
    // server.  Otherwise logs a warning naming the peer and raises STSError
    // 2060016 "operation not supported", as for an operation not served.
    void admitCaller(ProxyLogger* plog, const char* szWho);

private:
    SentraNetParse m_servers;
};

#endif
