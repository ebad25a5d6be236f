// The ORB of a service: one omniORB instance, the number of threads that may
// run requests at once, the table of advertised names and a reactor thread
// for timers.
#ifndef KELD_PLATFORM_ORB_H
#define KELD_PLATFORM_ORB_H

#include "PeerGate.h"

#include <omniORB4/CORBA.h>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

class ACE_Reactor;

class Orb {
public:
    Orb();
    ~Orb();
    Orb(const Orb&) = delete;
    Orb& operator=(const Orb&) = delete;

    // Initialises the ORB from the -ORB... words of argv (the form
    // "-ORBListenEndPoints iiop://host:port" is translated); consumes them.
    // Without an endpoint option the ORB listens on port 10001, and without
    // -ORBgiopMaxMsgSize it takes messages up to kDefaultMaxMessageBytes
    // (OrbArguments.h) instead of the ORB's own 2 MiB.  A bad
    // option or an endpoint that cannot be opened raises a system exception;
    // so does a TLS endpoint before useTlsTransport (TlsTransport.h).
    void init(int& argc, char** argv);
    // The same from words already taken out of a command line.
    void init(const std::string& program, const std::vector<std::string>& orbWords);
    bool initialised() const;
    // The -ORB options that init passed over because the ORB does not know
    // them ("-ORBDottedDecimalAddresses 1"), for the service to warn about.
    const std::vector<std::string>& passedOverOptions() const;
    // Why the ORB refused to start, for the operator: the exception and
    // the ORB's own last messages ("Failed to bind to address ... Address
    // in use?", "unknown option ...").
    static std::string describeFailure(const CORBA::SystemException& e);

    // Lets check decide on every connection accepted from now on, before
    // any request is read from it; after init and before activate.  Taken
    // out again by destroy.
    void admitPeers(PeerGate::Check check);

    // The largest message the ORB takes or sends, in bytes; after init.
    static unsigned long maxMessageBytes();
    // The most payload one message may carry: the largest message less
    // room for the GIOP and request headers.
    static unsigned long maxPayloadBytes();
    // Called on an ORB thread, with the client's endpoint
    // ("giop:tcp:10.1.2.3:40022"), each time the ORB refuses a request or
    // a reply larger than maxMessageBytes.  The ORB then answers the client
    // with a GIOP MessageError and closes that connection, so the call fails
    // at the client with COMM_FAILURE; other connections go on.  Taken out
    // again by destroy.  Relies on the ORB's own message about it, which
    // -ORBtraceLevel 0 silences.
    using OversizeReport = std::function<void(const std::string& peer)>;
    void reportOversizedMessages(OversizeReport report);

    CORBA::ORB_ptr getOrb() const;            // not duplicated
    int getThreadCount() const;
    void setThreadCount(int count);           // bounds concurrently running requests

    // Makes obj resolvable as corbaloc::HOST:PORT/key while it stays active
    // where it is; advertising a key again replaces the earlier object.
    void advertiseObject(const std::string& key, CORBA::Object* obj);

    // Lets requests in: activates the managers of the root POA and of the
    // POA that holds the advertised names.
    void activate();

    // Stops taking requests and waits up to grace for those running to end,
    // so that the process can end without pulling anything from under a
    // servant.  True when none runs any more; false when some still did
    // when the grace ran out (a plug-in call that hangs): they go on, and
    // the process had better end without touching what they use.  Calls
    // that arrive from now on fail at the client.  Not from an upcall.
    bool drainRequests(std::chrono::milliseconds grace);

    ACE_Reactor* getReactor() const;          // runs on its own thread once started
    void startReactor();
    void stopReactor();

    void shutdown(bool waitForCompletion);
    void destroy();

private:
    PortableServer::POA_ptr namesPoa();

    struct Impl;
    Impl* m_impl;
};

#endif
