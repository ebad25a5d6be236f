#include "OrbService.h"

#include "OrbArguments.h"
#include "ServiceNotify.h"
#include "StopWaiter.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace {

const char* const kCodeSetOption = "-ORBnativeCharCodeSet";

bool hasOption(const std::vector<std::string>& words, const char* option)
{
    for (size_t i = 0; i < words.size(); i += 2)
        if (words[i] == option) return true;
    return false;
}

// "giop:tcp:127.0.0.1:10001 giop:ssl::10443", for the service manager's
// status line.
std::string listenEndpoints(const std::vector<std::string>& orbWords)
{
    std::string endpoints;
    try {
        const std::vector<std::string> words = translateOrbArguments(orbWords);
        for (size_t i = 0; i + 1 < words.size(); i += 2)
            if (words[i].rfind("-ORBendPoint", 0) == 0) endpoints += (endpoints.empty() ? "" : " ") + words[i + 1];
    } catch (const std::exception&) {
        // The ORB took these words already; nothing to add to its verdict.
    }
    return endpoints;
}

} // namespace

OrbService::OrbService(const std::string& serviceName, unsigned long waitHint, Log** /*log*/,
                       bool consoleMode, const std::string& description, bool /*interactive*/,
                       unsigned long /*maxArgs*/, ACE_Timer_Queue* /*timerQueue*/)
    : m_serviceName(serviceName),
      m_description(description),
      m_consoleMode(consoleMode),
      m_waitHint(waitHint),
      m_program(serviceName),
      m_stopWaiter(nullptr)
{
    // Before any ORB thread exists: every thread made from here on inherits
    // the blocked signal, and only the stop thread takes it.
    StopWaiter::blockStopSignal();
    m_stopWaiter = new StopWaiter;
}

OrbService::~OrbService()
{
    delete m_stopWaiter;
}

void OrbService::setOrbArguments(int& argc, char** argv)
{
    if (argc > 0 && argv[0] != nullptr) m_program = argv[0];
    std::vector<std::string> words = extractOrbArguments(argc, argv);
    m_orbWords.insert(m_orbWords.end(), words.begin(), words.end());
}

void OrbService::startOrb()
{
    std::vector<std::string> words = m_orbWords;
    if (isUTF8CharCodeSetEnabled() && !hasOption(words, kCodeSetOption)) {
        words.push_back(kCodeSetOption);
        words.push_back("UTF-8");
    }
    m_orb.init(m_program, words);
}

void OrbService::startServing()
{
    m_orb.startReactor();
    m_stopWaiter->start([this] { onStopRequest(); }, [this] { doStopAgain(); });
}

void OrbService::onStopRequest()
{
    ServiceNotify::stopping("stopping: waiting for the work in flight");
    doStop();
    // doStop normally ends the process; if it comes back, so does run().
    m_orb.shutdown(false);
}

void OrbService::exitProcess(int status)
{
    // The main thread leaves orb->run() and waits for this thread in
    // StopWaiter::finish(), so the ORB is ours alone to take down.
    m_orb.stopReactor();
    m_orb.shutdown(true);
    std::exit(status);
}

void OrbService::endProcessNow(int status)
{
    std::quick_exit(status);
}

void OrbService::serve()
{
    doRun();
    // The endpoints listen since init and the objects are bound: calls are
    // served from here on, on the ORB's threads.
    ServiceNotify::ready("serving on " + listenEndpoints(m_orbWords));
    m_orb.getOrb()->run();
    // A client's shutdown ends run() without the stop thread.
    ServiceNotify::stopping("stopping: the service was shut down");
}

int OrbService::run(bool wait)
{
    if (!doShouldStart()) return 0;
    startOrb();
    try {
        doPreInit(wait);
        doInit();
        m_orb.activate();
        startServing();
        serve();
    } catch (...) {
        m_stopWaiter->finish();
        m_orb.stopReactor();
        m_orb.destroy();
        throw;
    }
    m_stopWaiter->finish();
    fini();
    doExit();
    m_orb.stopReactor();
    m_orb.destroy();
    return 0;
}

void OrbService::stopByEvent(bool wait)
{
    m_stopWaiter->request();
    if (wait && !m_stopWaiter->onWaiterThread())
        waitForFullStop(ACE_Time_Value(static_cast<time_t>(m_waitHint)));
}

void OrbService::notify(NotifySource* source, int /*event*/)
{
    setNotified(source, nullptr);
}

Orb* OrbService::getOrb()
{
    return &m_orb;
}

void OrbService::doPreInit(bool) {}
void OrbService::doInit() {}
int OrbService::doRun() { return 0; }
void OrbService::doStop() {}
void OrbService::doExit() {}
void OrbService::doStopAgain() { endProcessNow(0); }
bool OrbService::doShouldStart() { return true; }
void OrbService::doDump(int) {}
void OrbService::doReconfig() {}
bool OrbService::isUTF8CharCodeSetEnabled() { return true; }
int OrbService::fini() { return 0; }

bool OrbService::waitForFullStop(const ACE_Time_Value& timeout)
{
    return m_stopWaiter->waitDone(std::chrono::milliseconds(timeout.msec()));
}
