#include "RemoteRuntime.h"

#include "ProxyLogger.h"
#include "TlsTransport.h"
#include "tls/TlsModule.h"

#include <climits>
#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace remote {

namespace {

// Room for the message header, the operation's name and its other
// arguments next to the data.
const std::uint64_t MESSAGE_OVERHEAD = 64u << 10;
// What the plug-in asks of an ORB it starts itself: the largest transfer the
// settings allow, whatever they say now.
const std::uint64_t OWN_ORB_MESSAGE_LIMIT = (64u << 20) + MESSAGE_OVERHEAD;

std::mutex g_lock;
const stsp_plugin_t* g_self = nullptr;
RemoteSettings g_settings;
CORBA::ORB_ptr g_orb = CORBA::ORB::_nil();
bool g_ownOrb = false;
std::string g_tlsProblem = "the ORB has not started";

// libkeld_tls.so in the lib directory above this plug-in's own (the
// directory of stsplugins), found through any link to the plug-in.
std::string tlsModulePath()
{
    Dl_info self;
    char real[PATH_MAX] = {0};
    if (dladdr(reinterpret_cast<void*>(&tlsModulePath), &self) == 0 || self.dli_fname == nullptr ||
        realpath(self.dli_fname, real) == nullptr) {
        return KELD_TLS_MODULE;
    }
    std::string dir(real);
    dir.erase(dir.find_last_of('/'));
    return dir + "/../" KELD_TLS_MODULE;
}

// Before the ORB starts; "" when the TLS identity of the settings is in use.
std::string startTls()
{
    TlsSettings tls;
    tls.certificate = tlsPath(g_settings.tlsCertificateFile);
    tls.privateKey = tlsPath(g_settings.tlsKeyFile);
    tls.caFile = tlsPath(g_settings.tlsCaFile);
    return useTlsTransport(tls, tlsModulePath());
}

// A process that started its ORB with TLS has the transport's library.
bool processHasTls()
{
    void* ssl = dlopen("libomnisslTP4.so.2", RTLD_NOW | RTLD_NOLOAD);
    if (ssl != nullptr) dlclose(ssl);
    return ssl != nullptr;
}

} // namespace

ProxyLogger& log()
{
    static ProxyLogger logger(2);
    return logger;
}

void startRuntime(const stsp_plugin_t* plugin)
{
    static const char* szWho = "remote::startRuntime";
    std::vector<std::string> problems;
    RemoteSettings loaded = loadRemoteSettings(problems);
    {
        std::lock_guard<std::mutex> guard(g_lock);
        g_self = plugin;
        g_settings = loaded;
    }
    for (const std::string& p : problems) {
        log().logMsg(nullptr, szWho, STS_ESWARN, "%s: %s; the default stays", remoteSettingsPath().c_str(), p.c_str());
    }
}

const stsp_plugin_t* self()
{
    return g_self;
}

const RemoteSettings& settings()
{
    return g_settings;
}

// ORB_init hands back the process's ORB when there is one already and then
// ignores the options: a service that loads this plug-in keeps its own.
// With TLS an ORB of the plug-in's own speaks nothing else, so that no
// reference leads it back to plain IIOP.
CORBA::ORB_ptr orb()
{
    std::lock_guard<std::mutex> guard(g_lock);
    if (!CORBA::is_nil(g_orb)) return g_orb;
    bool tlsReady = false;
    if (g_settings.tls) {
        g_tlsProblem = startTls();
        tlsReady = g_tlsProblem.empty();
    }
    const std::string limit = std::to_string(OWN_ORB_MESSAGE_LIMIT);
    std::vector<const char*> argv = {"libzvsclient", "-ORBgiopMaxMsgSize", limit.c_str()};
    if (tlsReady) argv.insert(argv.end(), {"-ORBclientTransportRule", "* ssl"});
    int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    try {
        g_orb = CORBA::ORB_init(argc, const_cast<char**>(argv.data()));
    } catch (const CORBA::Exception& e) {
        log().logMsg(nullptr, "remote::orb", STS_ESERROR, "the ORB cannot start: %s", e._name());
        g_orb = CORBA::ORB::_nil();
        return g_orb;
    }
    // An ORB already running ignored the options: its limit is not ours.
    g_ownOrb = omniORB::giopMaxMsgSize() == OWN_ORB_MESSAGE_LIMIT;
    if (!g_ownOrb) {
        g_tlsProblem = processHasTls() ? "" : "this process's ORB runs without TLS; give it a TLS certificate and key";
    }
    return g_orb;
}

std::string tlsProblem()
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_tlsProblem;
}

std::uint64_t transferLimit()
{
    const std::uint64_t orbLimit = omniORB::giopMaxMsgSize();
    const std::uint64_t byOrb = orbLimit > 2 * MESSAGE_OVERHEAD ? orbLimit - MESSAGE_OVERHEAD : orbLimit / 2;
    return std::max<std::uint64_t>(1, std::min(settings().maxTransfer, byOrb));
}

void pauseBeforeTry(int attempt)
{
    const RemoteSettings& s = settings();
    long long pause = s.retryBackoffMs;
    for (int i = 1; i < attempt && pause < s.retryBackoffMaxMs; ++i) pause *= 2;
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min<long long>(pause, s.retryBackoffMaxMs)));
}

void logUnexpected(const char* who, const char* what)
{
    log().logMsg(nullptr, who, STS_ESERROR, "the call ended in %s", what);
}

namespace {

// The ORB would resend a call that failed after a location forward on its
// own, with pauses of seconds; the plug-in decides about every resend.
CORBA::Boolean noOrbResend(void*, CORBA::ULong, const CORBA::TRANSIENT&)
{
    return false;
}

} // namespace

void prepare(CORBA::Object_ptr obj)
{
    if (CORBA::is_nil(obj)) return;
    omniORB::installTransientExceptionHandler(obj, nullptr, noOrbResend);
    if (settings().callTimeoutMs > 0) {
        omniORB::setClientCallTimeout(obj, static_cast<CORBA::ULong>(settings().callTimeoutMs));
    }
}

} // namespace remote
