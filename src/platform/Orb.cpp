#include "Orb.h"

#include "ConcurrencyGate.h"
#include "ForwardingServant.h"
#include "OrbArguments.h"
#include "ReactorThread.h"

#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <vector>

struct Orb::Impl {
    CORBA::ORB_var orb;
    // omniORB's POA whose object keys are the bare object ids, which is what
    // makes corbaloc::host:port/<key> work.
    PortableServer::POA_var namesPoa;
    std::mutex namesMutex;
    ReactorThread reactor;
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
    std::vector<std::string> words;
    try {
        words = translateOrbArguments(orbWords);
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "%s\n", e.what());
        throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
    }
    words.insert(words.begin(), program);
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    int argc = static_cast<int>(words.size());
    // Registered before the ORB can take a request, so no upcall escapes it.
    ConcurrencyGate::upcalls();
    m_impl->orb = CORBA::ORB_init(argc, argv.data());
}

bool Orb::initialised() const
{
    return !CORBA::is_nil(m_impl->orb);
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

void Orb::drainRequests()
{
    if (!initialised()) return;
    std::vector<PortableServer::POAManager_var> managers;
    {
        std::lock_guard<std::mutex> lock(m_impl->namesMutex);
        managers.push_back(namesPoa()->the_POAManager());
    }
    CORBA::Object_var ref = m_impl->orb->resolve_initial_references("RootPOA");
    PortableServer::POA_var root = PortableServer::POA::_narrow(ref);
    managers.push_back(root->the_POAManager());
    for (PortableServer::POAManager_var& manager : managers) {
        try {
            manager->deactivate(false, true);   // waits for the requests in progress
        } catch (const PortableServer::POAManager::AdapterInactive&) {
            // Already deactivated: nothing runs there.
        }
    }
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
    m_impl->namesPoa = PortableServer::POA::_nil();
    CORBA::ORB_var orb = m_impl->orb._retn();
    orb->destroy();
}
