// Service framework: owns the ORB, the process's stop signal and the run
// loop; a service fills the virtual hooks.
//
// run(): initialise the ORB -> doPreInit -> doInit -> activate the root POA
// manager -> start the reactor and the stop thread -> doRun -> serve until the
// ORB is shut down -> fini -> doExit -> stop the reactor, destroy the ORB,
// return 0.
//
// Stop: signal 15, or stopByEvent(), wakes a dedicated stop thread which calls
// doStop().  Requests go on being served while doStop sleeps; doStop is
// expected to end the process itself.  Should it return, the ORB is shut down
// and run() returns.  Signal 15 again while doStop runs calls doStopAgain(),
// which ends the process at once.
#ifndef KELD_PLATFORM_ORBSERVICE_H
#define KELD_PLATFORM_ORBSERVICE_H

#include "Notifier.h"
#include "Orb.h"

#include <ace/Time_Value.h>
#include <ace/Timer_Queue.h>
#include <string>
#include <vector>

class Log;
class StopWaiter;

class OrbService : public Notifier {
public:
    // Blocks signal 15 in the constructing thread, so that threads started
    // later (the ORB's among them) leave it to the stop thread.  waitHint is
    // how many seconds stopByEvent(true) waits for the stop to complete; log,
    // interactive, maxArgs and timerQueue are accepted and not used.
    OrbService(const std::string& serviceName, unsigned long waitHint, Log** log,
               bool consoleMode, const std::string& description, bool interactive,
               unsigned long maxArgs, ACE_Timer_Queue* timerQueue);
    ~OrbService() override;
    OrbService(const OrbService&) = delete;
    OrbService& operator=(const OrbService&) = delete;

    // Takes the -ORB... words (each with its value) out of argv for the ORB;
    // argc shrinks accordingly, the other words stay in their order.
    void setOrbArguments(int& argc, char** argv);

    // Serves until the ORB is shut down; returns 0 then, and 0 at once when
    // doShouldStart() says no.  System exceptions from ORB start-up and any
    // exception from doPreInit or doInit reach the caller.
    int run(bool wait);

    // Asks for a stop from inside the process (the idle timer): doStop then
    // runs on the stop thread.  With wait, returns once waitForFullStop does.
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
    // True: the ORB's native character code set is UTF-8.
    virtual bool isUTF8CharCodeSetEnabled();
    virtual int fini();
    // Signal 15 came again while doStop runs (on another thread, which it
    // does not wait for): ends the process at once.
    virtual void doStopAgain();
    // Ends the process from the stop thread with the given status, once the
    // ORB is shut down and the reactor stopped: no ORB thread serves while
    // the process's static objects are destroyed.
    [[noreturn]] void exitProcess(int status);
    // Ends the process now, from any thread, with calls possibly still
    // running: no static object is destroyed under them, and only the
    // at_quick_exit handlers run.
    [[noreturn]] static void endProcessNow(int status);
    // Waits up to timeout for doStop to return; true when it did.
    virtual bool waitForFullStop(const ACE_Time_Value& timeout);

private:
    void startOrb();
    void startServing();
    void serve();
    void onStopRequest();

    std::string m_serviceName;
    std::string m_description;
    bool m_consoleMode;
    unsigned long m_waitHint;
    Orb m_orb;
    std::string m_program;
    std::vector<std::string> m_orbWords;
    StopWaiter* m_stopWaiter;
};

#endif
