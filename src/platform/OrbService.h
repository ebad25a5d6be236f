// Service framework: owns the ORB, the process's stop signal and the run
// loop; a service fills the virtual hooks.
//
// run(): initialise the ORB -> doPreInit -> doInit -> activate the root POA
// manager -> start the reactor and the stop thread -> doRun -> serve until the
// ORB is shut down -> fini -> doExit, then return.
//
// Stop: signal 15, or stopByEvent(), wakes a dedicated stop thread which calls
// doStop().  Requests go on being served while doStop sleeps; doStop is
// expected to end the process itself.
#ifndef KELD_PLATFORM_ORBSERVICE_H
#define KELD_PLATFORM_ORBSERVICE_H

#include "Notifier.h"
#include "Orb.h"

#include <ace/Time_Value.h>
#include <ace/Timer_Queue.h>
#include <string>

class Log;

class OrbService : public Notifier {
public:
    OrbService(const std::string& serviceName, unsigned long waitHint, Log** log,
               bool consoleMode, const std::string& description, bool interactive,
               unsigned long maxArgs, ACE_Timer_Queue* timerQueue);
    ~OrbService() override;

    // Hands the ORB its -ORB... options; the words it consumes leave argv.
    void setOrbArguments(int& argc, char** argv);

    // Serves until the ORB is shut down; returns 0 then.  Exceptions from
    // doInit and from ORB start-up reach the caller.
    int run(bool wait);

    // Asks for a stop from inside the process (the idle timer): doStop then
    // runs on the stop thread.
    void stopByEvent(bool wait);

    virtual void notify(NotifySource* source, int event);
    virtual Orb* getOrb();

    const std::string& serviceName() const { return m_serviceName; }
    const std::string& description() const { return m_description; }
    bool consoleMode() const { return m_consoleMode; }

protected:
    virtual void doPreInit(bool wait);
    virtual void doInit();
    virtual int doRun();
    virtual void doStop();
    virtual void doExit();
    virtual bool doShouldStart();
    virtual void doDump(int level);
    virtual void doReconfig();
    virtual bool isUTF8CharCodeSetEnabled();
    virtual int fini();
    virtual bool waitForFullStop(const ACE_Time_Value& timeout);

private:
    struct StopThread;
    std::string m_serviceName;
    std::string m_description;
    bool m_consoleMode;
    Orb m_orb;
    int m_argc = 0;
    int* m_pArgc = nullptr;
    char** m_argv = nullptr;
    StopThread* m_stopThread = nullptr;
};

#endif
