// Who may connect: a peer is admitted when it is a known server of the
// product's domain (SentraNetParse, by address, with no lookup) or a host
// that the client database knows.  The database library is loaded from
// <root>/lib/libKdbMT.so when the evaluator is made.
//
// Hosts found to be clients are remembered for the life of the evaluator, so
// a client's later connections cost no query; a host removed from the
// database afterwards stays admitted until the service restarts.  Refusals
// are never remembered: a client added later is admitted at its next try.
#ifndef KELD_PROXY_PROXYEVALUATOR_H
#define KELD_PROXY_PROXYEVALUATOR_H

#include "PeerEvaluator.h"
#include "SentraNetParse.h"
#include "kdb_client.h"

#include <ace/Thread_Mutex.h>
#include <set>
#include <string>

typedef int (*DBInitClientRec)(client_rec*, int);
typedef int (*DBGetClient)(client_rec*, const char*);
typedef void (*DBClientFree)(client_rec*);

class InsecureProxyServerEvaluator : public InsecureServerEvaluator {
public:
    // Throws the dlerror() text, as a const char*, when the library or one
    // of its entry points is missing.  The text stays valid on the throwing
    // thread until that thread makes another evaluator.
    InsecureProxyServerEvaluator();
    ~InsecureProxyServerEvaluator() override;

    // May run on any thread of the transport.
    CORBA::Boolean extraPeerCheck(const PeerAddr& addr) override;

    bool isInClientList(const std::string& host);   // cached
    bool isClient(const std::string& host);         // asks the database

private:
    void* m_vdbHandle = nullptr;
    DBInitClientRec m_initClientRec = nullptr;
    DBGetClient m_getClient = nullptr;
    DBClientFree m_clientFree = nullptr;
    ACE_Thread_Mutex m_mutex;   // guards m_cachedHosts only, never held across a query
    SentraNetParse SentraParser;
    std::set<std::string> m_cachedHosts;
};

#endif
