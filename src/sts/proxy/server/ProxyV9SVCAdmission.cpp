// Who may reach the service, and over what: the TLS transport and the peer
// admission evaluator, both switched on in the master configuration.
#include "ProxyV9SVC.h"

#include "MasterConfig.h"
#include "ProxyEvaluator.h"
#include "ProxyLogger.h"
#include "SentraNetParse.h"
#include "TlsTransport.h"

#include <cstdio>

void ProxyV9SVC::refuseStart(const char* szWho, const std::string& text)
{
    m_plog->logMsg(nullptr, szWho, STS_ESERROR, "%s", text.c_str());
    std::fprintf(stderr, "keldpxy: %s\n", text.c_str());
    throw CORBA::INV_OBJREF(0, CORBA::COMPLETED_NO);
}

bool ProxyV9SVC::doShouldStart()
{
    prepareTls("ProxyV9SVC::prepareTls");
    prepareMetrics("ProxyV9SVC::prepareMetrics");
    return true;
}

void ProxyV9SVC::prepareTls(const char* szWho)
{
    const MasterConfig* cfg = get_master_config_ptr();
    TlsSettings tls;
    tls.certificate = cfg->TLS_CERTIFICATE;
    tls.privateKey = cfg->TLS_PRIVATE_KEY;
    tls.caFile = cfg->TLS_CA_FILE;
    if (!tls.enabled()) return;
    const std::string problem = useTlsTransport(tls);
    if (!problem.empty()) refuseStart(szWho, "the TLS transport cannot start: " + problem);
    if (tls.caFile.empty()) {
        m_plog->logMsg(nullptr, szWho, STS_ESINFO,
                       "TLS transport ready with certificate %s; clients are not asked for a certificate",
                       tls.certificate.c_str());
    } else {
        m_plog->logMsg(nullptr, szWho, STS_ESINFO,
                       "TLS transport ready with certificate %s; clients need a certificate signed by %s",
                       tls.certificate.c_str(), tls.caFile.c_str());
    }
}

void ProxyV9SVC::installPeerAdmission(const char* szWho)
{
    if (get_master_config_ptr()->PEER_ADMISSION == 0) return;
    try {
        m_evaluator = std::make_shared<InsecureProxyServerEvaluator>();
    } catch (const char* text) {
        refuseStart(szWho, std::string("peer admission is on but the client database cannot be loaded: ") +
                               text);
    }
    std::shared_ptr<InsecureProxyServerEvaluator> evaluator = m_evaluator;
    ProxyLogger* plog = m_plog;
    getOrb()->admitPeers([evaluator, plog](const PeerAddr& addr, const std::string& peer) {
        // An address the transport could not give is nobody we know.
        if (addr.length() != 0 && evaluator->allow_peer(addr)) return true;
        plog->logMsg(nullptr, "ProxyV9SVC::admitPeer", STS_ESWARN,
                     "refused connection from %s: neither a known server nor a client",
                     peer.c_str());
        return false;
    });
    m_plog->logMsg(nullptr, szWho, STS_ESINFO,
                   "peer admission is on: known servers from %s, clients from the client database",
                   SentraNetParse::defaultPath().c_str());
}
