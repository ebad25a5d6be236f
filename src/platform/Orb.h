// The ORB of a service: one omniORB instance, the number of threads that may
// run requests at once, the table of advertised names and a reactor thread
// for timers.
#ifndef KELD_PLATFORM_ORB_H
#define KELD_PLATFORM_ORB_H

#include <omniORB4/CORBA.h>
#include <string>

class ACE_Reactor;

class Orb {
public:
    Orb();
    ~Orb();
    Orb(const Orb&) = delete;
    Orb& operator=(const Orb&) = delete;

    // Initialises the ORB from the -ORB... words of argv (the spec form
    // "-ORBListenEndPoints iiop://host:port" is translated); consumes them.
    // Without an endpoint option the ORB listens on port 10001.
    void init(int& argc, char** argv);

    CORBA::ORB_ptr getOrb() const;            // not duplicated
    int getThreadCount() const;
    void setThreadCount(int count);           // bounds concurrently running requests

    // Makes obj resolvable as corbaloc::HOST:PORT/key.
    void advertiseObject(const std::string& key, CORBA::Object* obj);

    ACE_Reactor* getReactor() const;          // runs on its own thread once started
    void startReactor();
    void stopReactor();

    void shutdown(bool waitForCompletion);
    void destroy();

private:
    struct Impl;
    Impl* m_impl;
};

#endif
