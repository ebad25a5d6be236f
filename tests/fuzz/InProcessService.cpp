#include "InProcessService.h"

#include "FuzzSupport.h"
#include "Orb.h"
#include "ProxyKeyMgr.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "SessionManager.h"
#include "StorageServerManagerImpl.h"
#include "StsLibrary.h"

#include <omniORB4/IIOP.h>
#include <omniORB4/omniIOR.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <unistd.h>

namespace keldfuzz {

namespace {

namespace fs = std::filesystem;

const char* const kSessionId = "fuzz";
const char* const kLsu = "lsu0";

API::SessionDefinition fuzzSession()
{
    API::SessionDefinition ssd = API::SessionDefinition();
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(kSessionId);
    return ssd;
}

API::ImageDefinitionV13 fixtureImage()
{
    API::ImageDefinitionV13 imd = API::ImageDefinitionV13();
    imd.base_name = CORBA::string_dup("fuzz");
    return imd;
}

std::string diskServerName()
{
    char host[256] = {0};
    gethostname(host, sizeof(host) - 1);
    return std::string("Disk:") + host;
}

// The install root: the disk plug-in alone, an empty storage directory
// and the service's log switched on.
void layOutRoot(const std::string& root)
{
    fs::create_directories(root + "/lib/stsplugins");
    fs::create_directories(root + "/keldrive/storage");
    fs::create_directories(root + "/keldrive/logs/keldpxy");
    fs::create_symlink(KELD_DISK_PLUGIN, root + "/lib/stsplugins/libsts_disk.so");
}

// Every entry of a directory goes, the directory stays; truncate keeps
// files that the service holds open.
void emptyDirectory(const std::string& dir, bool truncate)
{
    std::error_code ignored;
    for (const fs::directory_entry& e : fs::directory_iterator(dir, ignored)) {
        if (truncate) {
            fs::resize_file(e.path(), 0, ignored);
        } else {
            fs::remove_all(e.path(), ignored);
        }
    }
}

// Where a reference to an object of this process points: its object key
// and the port the ORB listens on.
struct Address {
    std::string key;
    int port = 0;
};

Address addressOf(CORBA::Object_ptr object)
{
    Address address;
    omniIOR* ior = object->_PR_getobj()->_getIOR();
    const IOP::TaggedProfileList& profiles = ior->iopProfiles();
    for (CORBA::ULong i = 0; i < profiles.length() && address.key.empty(); ++i) {
        if (profiles[i].tag != IOP::TAG_INTERNET_IOP) continue;
        IIOP::ProfileBody body;
        IIOP::unmarshalProfile(profiles[i], body);
        address.key.assign(reinterpret_cast<const char*>(body.object_key.get_buffer()), body.object_key.length());
        address.port = body.address.port;
    }
    ior->release();
    FUZZ_CHECK(!address.key.empty() && address.port != 0);
    return address;
}

// Closes object with close when it is an Interface; false when it is not.
template <typename Interface, typename Close>
bool closeAs(CORBA::Object_ptr object, Close close)
{
    try {
        typename Interface::_var_type typed = Interface::_narrow(object);
        if (CORBA::is_nil(typed)) return false;
        close(typed.in());
    } catch (const CORBA::Exception&) {
        // Closing twice, or after the input closed it, may fail: the
        // service's answer to that is not what this harness checks.
    }
    return true;
}

} // namespace

struct InProcessService::Parts {
    Orb orb;
    ProxyLogger log{1};
    SessionManager sessions{&log};
    API::StorageServerManager_var manager;
    API::StorageServer_var server;
    API::Image_var image;
};

InProcessService& InProcessService::instance()
{
    static InProcessService* service = [] {
        auto* made = new InProcessService;
        // The closes are calls into this process's servants, which run on
        // the caller's thread; at exit the main thread's thread-local
        // state is already gone, so a thread of its own makes them.
        std::atexit([] { std::thread([] { delete service; }).join(); });
        return made;
    }();
    return *service;
}

InProcessService::InProcessService() : m_parts(new Parts)
{
    layOutRoot(scratchRoot());
    VERBOSE = 6;   // every log line is formatted and written
    FUZZ_CHECK(ProxyKeyMgr::getInstance(1024) != nullptr);
    setLogmLogger(&m_parts->log);

    // It serves 127.0.0.1 only, on a port of the system's choosing, and
    // connects nowhere: no reference a request carries can be followed, nor
    // its host name looked up.  The fixture's own calls need no connection.
    m_parts->orb.init("fuzz_servant_request",
                      {"-ORBendPoint", "giop:tcp:127.0.0.1:", "-ORBclientTransportRule", "* none"});
    CORBA::Object_var rootRef = m_parts->orb.getOrb()->resolve_initial_references("RootPOA");
    PortableServer::POA_var root = PortableServer::POA::_narrow(rootRef);
    PortableServer::ServantBase_var manager =
        new StorageServerManagerImpl(m_parts->orb.getOrb(), root, &m_parts->log, &m_parts->sessions);
    CORBA::Object_var managerRef = root->servant_to_reference(manager.in());
    m_parts->manager = API::StorageServerManager::_narrow(managerRef);
    m_parts->orb.activate();

    // One use of the storage library for the whole run: the plug-in stays
    // loaded while fixtures come and go.
    FUZZ_CHECK(initStorageLibrary() == 0);
    openFixture();
}

InProcessService::~InProcessService()
{
    closeFixture();
    m_parts->manager = API::StorageServerManager::_nil();
    m_parts->orb.shutdown(true);
    m_parts->orb.destroy();
    terminateStorageLibrary(&m_parts->log, nullptr, "InProcessService", "FUZZ!WRONG");
    ProxyKeyMgr::destroy();
}

void InProcessService::openFixture()
{
    try {
        m_parts->server = m_parts->manager->openServerV12(0, fuzzSession(), diskServerName().c_str(),
                                                          API::Credential(), "", 0);
        m_parts->image = m_parts->server->createImageV13(0, kLsu, fixtureImage(), 0);
    } catch (const CORBA::Exception& e) {
        std::fprintf(stderr, "the fixture's server and image cannot be opened: %s\n", e._name());
        std::abort();
    }
    const Address server = addressOf(m_parts->server);
    m_serverKey = server.key;
    m_port = server.port;
    m_imageKey = addressOf(m_parts->image).key;
}

void InProcessService::closeFixture()
{
    closeReturned(m_parts->image);
    if (!CORBA::is_nil(m_parts->server)) {
        try {
            m_parts->manager->closeServerV12(0, fuzzSession(), m_parts->server);
        } catch (const CORBA::Exception&) {
            // An input may have closed it already.
        }
    }
    m_parts->image = API::Image::_nil();
    m_parts->server = API::StorageServer::_nil();
}

void InProcessService::renew()
{
    closeFixture();
    emptyDirectory(scratchRoot() + "/keldrive/storage", false);
    emptyDirectory(scratchRoot() + "/keldrive/logs/keldpxy", true);
    openFixture();
}

void InProcessService::closeReturned(CORBA::Object_ptr object)
{
    if (CORBA::is_nil(object)) return;
    if (closeAs<API::Image>(object, [](API::Image_ptr o) { o->closeImageV12(0, 0, 0); })) return;
    if (closeAs<API::ImageList>(object, [](API::ImageList_ptr o) { o->closeImageListV12(0); })) return;
    if (closeAs<API::LsuList>(object, [](API::LsuList_ptr o) { o->closeLsuListV12(0); })) return;
    if (closeAs<API::Lsu>(object, [](API::Lsu_ptr o) { o->closeLsuV12(0); })) return;
    if (closeAs<API::FileList>(object, [](API::FileList_ptr o) { o->closeSnapChangeListV11(); })) return;
    closeAs<API::StorageServer>(object, [](API::StorageServer_ptr o) { o->closeServerV12(0); });
}

} // namespace keldfuzz
