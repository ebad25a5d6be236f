#include "Orb.h"

#include "ConcurrencyGate.h"
#include "ForwardingServant.h"
#include "OrbArguments.h"
#include "ReactorThread.h"
#include "RequestPeer.h"
#include "TlsTransport.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <deque>
#include <future>
#include <map>
#include <omniORB4/internal/orbOptions.h>
#include <sstream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

std::string lowerCase(std::string s)
{
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The ORB's own last messages: they go to standard error as before and are
// kept, so that a start that fails can say why.  Never destroyed: ORB
// threads may still log while the process ends.
struct OrbMessages {
    std::mutex mutex;
    std::deque<std::string> last;
    Orb::OversizeReport reportOversized;
};
OrbMessages& orbMessages()
{
    static OrbMessages* messages = new OrbMessages;
    return *messages;
}
const size_t kKeptMessages = 8;

// The ORB's word for a message over its limit, in the line it writes when it
// gives up the connection:  "To endpoint: giop:tcp:127.0.0.1:51086. System
// exception MARSHAL(NO,MARSHAL_MessageSizeExceedLimitOnServer) while
// (un)marshalling. Send GIOP 1.2 MessageError."  A request too large to take
// says ...OnServer, a reply too large to send ...OnClient.  With
// -ORBtraceExceptions the ORB also writes a "throw MARSHAL from ..." line,
// which names no peer and is not counted.
bool isOversizeRefusal(const std::string& line, std::string& peer)
{
    static const std::string kPeer = "To endpoint: ";
    if (line.find("MARSHAL_MessageSizeExceedLimit") == std::string::npos) return false;
    const size_t from = line.find(kPeer);
    if (from == std::string::npos) return false;
    const size_t start = from + kPeer.size();
    const size_t end = line.find(". ", start);
    peer = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
    return true;
}

// "2024-05-01 12:00:00.123456", the ORB's own form of a time stamp.  The
// ORB's logger would take it from localtime(), whose one static result two
// logging threads overwrite under each other; localtime_r has a buffer per
// call.
std::string timeStamp()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[40];
    const size_t n = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + n, sizeof(text) - n, ".%06ld", static_cast<long>(now.tv_nsec / 1000));
    return text;
}

// The ORB writes "omniORB: (n) text", n the thread (left out under
// -ORBtraceThreadId 0): the head up to the text, and the text.
void splitOrbLine(const std::string& line, std::string& head, std::string& body)
{
    static const std::string kOrb = "omniORB: ";
    size_t at = 0;
    if (line.compare(0, kOrb.size(), kOrb) == 0) {
        at = kOrb.size();
        const size_t close = line.find(") ", at);
        if (line.compare(at, 1, "(") == 0 && close != std::string::npos) at = close + 2;
    }
    head = line.substr(0, at);
    body = line.substr(at);
}

void keepOrbMessage(const char* text)
{
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    std::string head, body;
    splitOrbLine(line, head, body);
    std::fprintf(stderr, "%s%s: %s\n", head.c_str(), timeStamp().c_str(), body.c_str());
    OrbMessages& messages = orbMessages();
    Orb::OversizeReport report;
    {
        std::lock_guard<std::mutex> lock(messages.mutex);
        messages.last.push_back(body);
        if (messages.last.size() > kKeptMessages) messages.last.pop_front();
        report = messages.reportOversized;
    }
    std::string peer;
    if (report && isOversizeRefusal(body, peer)) report(peer);
}

void setOversizeReport(Orb::OversizeReport report)
{
    OrbMessages& messages = orbMessages();
    std::lock_guard<std::mutex> lock(messages.mutex);
    messages.reportOversized = std::move(report);
}

// The ORB's spelling of each option it takes on the command line.
std::string orbSpellingOf(const std::string& option)
{
    static const std::map<std::string, std::string> known = [] {
        std::map<std::string, std::string> spellings;
        CORBA::StringSeq_var usage = omni::orbOptions::singleton().usageArgv();
        for (CORBA::ULong i = 0; i < usage->length(); ++i) {
            std::istringstream line(static_cast<const char*>(usage[i]));
            std::string word;
            if (line >> word && word.compare(0, 4, "-ORB") == 0) spellings[lowerCase(word)] = word;
        }
        return spellings;
    }();
    auto it = known.find(lowerCase(option));
    return it != known.end() ? it->second : std::string();
}

} // namespace

struct Orb::Impl {
    CORBA::ORB_var orb;
    // omniORB's POA whose object keys are the bare object ids, which is what
    // makes corbaloc::host:port/<key> work.
    PortableServer::POA_var namesPoa;
    std::mutex namesMutex;
    ReactorThread reactor;
    std::vector<std::string> passedOver;
};

Orb::Orb() : m_impl(new Impl) {}

Orb::~Orb()
{
    try {
        stopReactor();
        destroy();
    } catch (...) {
        // A destructor has no one to report to; the ORB is gone either way.
    }
    delete m_impl;
}

void Orb::init(int& argc, char** argv)
{
    std::string program = argc > 0 && argv[0] != nullptr ? argv[0] : "";
    init(program, extractOrbArguments(argc, argv));
}

void Orb::init(const std::string& program, const std::vector<std::string>& orbWords)
{
    omniORB::setLogFunction(keepOrbMessage);
    omniORB::traceTime = 0;   // keepOrbMessage stamps the time itself
    std::vector<std::string> words;
    try {
        words = keepKnownOptions(translateOrbArguments(orbWords), orbSpellingOf, m_impl->passedOver);
        refuseSslWithoutTls(words);
    } catch (const std::invalid_argument& e) {
        keepOrbMessage((std::string(e.what()) + "\n").c_str());
        throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
    }
    words.insert(words.begin(), program);
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    int argc = static_cast<int>(words.size());
    // Registered before the ORB can take a request, so no upcall escapes it.
    ConcurrencyGate::upcalls();
    // Defaults of this service that the command line still overrides.
    // Nothing here asks for PortableServer::Current: every servant lives in
    // a POA with unique ids and names its own default POA, so a reference
    // is found without it, and keeping it cost each upcall about 6 % of a
    // trivial call's server time from 30 threads.
    const std::string maxMessage = std::to_string(kDefaultMaxMessageBytes);
    const char* defaults[][2] = {{"giopMaxMsgSize", maxMessage.c_str()},
                                 {"strictIIOP", "0"},
                                 {"traceTime", "0"},
                                 {"supportCurrent", "0"},
                                 {nullptr, nullptr}};
    m_impl->orb = CORBA::ORB_init(argc, argv.data(), "omniORB4", defaults);
    // Whatever the command line said: the lines get their time all the same.
    omniORB::traceTime = 0;
    RequestPeer::install();
}

bool Orb::initialised() const
{
    return !CORBA::is_nil(m_impl->orb);
}

const std::vector<std::string>& Orb::passedOverOptions() const
{
    return m_impl->passedOver;
}

std::string Orb::describeFailure(const CORBA::SystemException& e)
{
    std::string reason = e._name();
    if (e.NP_minorString() != nullptr) reason += std::string(" (") + e.NP_minorString() + ")";
    OrbMessages& messages = orbMessages();
    std::lock_guard<std::mutex> lock(messages.mutex);
    for (const std::string& line : messages.last) reason += "; " + line;
    return reason;
}

unsigned long Orb::maxMessageBytes()
{
    return omniORB::giopMaxMsgSize();
}

unsigned long Orb::maxPayloadBytes()
{
    const unsigned long kHeaderRoom = 64 * 1024;
    const unsigned long limit = maxMessageBytes();
    return limit > kHeaderRoom ? limit - kHeaderRoom : 0;
}

void Orb::reportOversizedMessages(OversizeReport report)
{
    setOversizeReport(std::move(report));
}

void Orb::admitPeers(PeerGate::Check check)
{
    PeerGate::install(std::move(check));
}

CORBA::ORB_ptr Orb::getOrb() const
{
    return m_impl->orb.in();
}

int Orb::getThreadCount() const
{
    return ConcurrencyGate::upcalls().limit();
}

void Orb::setThreadCount(int count)
{
    ConcurrencyGate::upcalls().setLimit(count);
}

PortableServer::POA_ptr Orb::namesPoa()
{
    if (CORBA::is_nil(m_impl->namesPoa)) {
        CORBA::Object_var ref = m_impl->orb->resolve_initial_references("omniINSPOA");
        m_impl->namesPoa = PortableServer::POA::_narrow(ref);
    }
    return m_impl->namesPoa.in();
}

void Orb::advertiseObject(const std::string& key, CORBA::Object* obj)
{
    if (!initialised() || CORBA::is_nil(obj)) throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
    std::lock_guard<std::mutex> lock(m_impl->namesMutex);
    PortableServer::POA_ptr poa = namesPoa();
    PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(key.c_str());
    try {
        poa->deactivate_object(id.in());
    } catch (const PortableServer::POA::ObjectNotActive&) {
        // First advertisement under this key.
    }
    PortableServer::ServantBase_var forwarder = new ForwardingServant(obj);
    poa->activate_object_with_id(id.in(), forwarder.in());
}

void Orb::activate()
{
    CORBA::Object_var ref = m_impl->orb->resolve_initial_references("RootPOA");
    PortableServer::POA_var root = PortableServer::POA::_narrow(ref);
    PortableServer::POAManager_var rootManager = root->the_POAManager();
    rootManager->activate();
    std::lock_guard<std::mutex> lock(m_impl->namesMutex);
    PortableServer::POAManager_var namesManager = namesPoa()->the_POAManager();
    namesManager->activate();
}

bool Orb::drainRequests(std::chrono::milliseconds grace)
{
    if (!initialised()) return true;
    std::vector<PortableServer::POAManager_var> managers;
    {
        std::lock_guard<std::mutex> lock(m_impl->namesMutex);
        managers.push_back(namesPoa()->the_POAManager());
    }
    CORBA::Object_var ref = m_impl->orb->resolve_initial_references("RootPOA");
    PortableServer::POA_var root = PortableServer::POA::_narrow(ref);
    managers.push_back(root->the_POAManager());
    // The ORB waits for the requests in progress without a limit; it does
    // so on a thread of its own, which a call that never returns leaves
    // waiting until the process ends.
    auto drained = std::make_shared<std::promise<void>>();
    std::future<void> done = drained->get_future();
    std::thread([managers = std::move(managers), drained]() mutable {
        for (PortableServer::POAManager_var& manager : managers) {
            try {
                manager->deactivate(false, true);
            } catch (const CORBA::Exception&) {
                // Already deactivated (nothing runs there), or the ORB is going.
            }
        }
        managers.clear();   // before the caller may go on to take the ORB down
        drained->set_value();
    }).detach();
    return done.wait_for(grace) == std::future_status::ready;
}

ACE_Reactor* Orb::getReactor() const
{
    return m_impl->reactor.reactor();
}

void Orb::startReactor()
{
    m_impl->reactor.start();
}

void Orb::stopReactor()
{
    m_impl->reactor.stop();
}

void Orb::shutdown(bool waitForCompletion)
{
    if (initialised()) m_impl->orb->shutdown(waitForCompletion);
}

void Orb::destroy()
{
    if (!initialised()) return;
    PeerGate::remove();
    setOversizeReport(nullptr);
    m_impl->namesPoa = PortableServer::POA::_nil();
    CORBA::ORB_var orb = m_impl->orb._retn();
    orb->destroy();
}
