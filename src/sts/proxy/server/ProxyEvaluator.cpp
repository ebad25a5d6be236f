#include "ProxyEvaluator.h"

#include "KeldvPaths.h"

#include <ace/Guard_T.h>
#include <ace/INET_Addr.h>
#include <cstdio>
#include <dlfcn.h>

namespace {

// Room for a host name of 64 characters; a longer one fails the lookup.
const size_t HOST_NAME_BUFFER = 65;

// The message outlives dlclose and later dl calls: the catcher reads it on
// this thread.
thread_local char tl_loadError[512];

[[noreturn]] void throwLoadError(void* handle)
{
    const char* text = ::dlerror();
    std::snprintf(tl_loadError, sizeof(tl_loadError), "%s",
                  text != nullptr ? text : "cannot load the client database");
    if (handle != nullptr) ::dlclose(handle);
    throw static_cast<const char*>(tl_loadError);
}

template <typename Fn>
Fn entryPoint(void* handle, const char* name)
{
    ::dlerror();
    void* symbol = ::dlsym(handle, name);
    if (symbol == nullptr) throwLoadError(handle);
    return reinterpret_cast<Fn>(symbol);
}

// A listener on every address sees an IPv4 peer as ::ffff:a.b.c.d, a form
// the hosts file and most resolvers do not name: the lookup asks for the
// IPv4 address itself.
ACE_INET_Addr unmapped(const ACE_INET_Addr& addr)
{
    if (addr.get_type() != AF_INET6 || !addr.is_ipv4_mapped_ipv6()) return addr;
    ACE_INET_Addr ipv4;
    ipv4.set(addr.get_port_number(), addr.get_ip_address());
    return ipv4;
}

} // namespace

InsecureProxyServerEvaluator::InsecureProxyServerEvaluator() : InsecureServerEvaluator(false)
{
    const std::string library = keldvPath("lib/libKdbMT.so");
    m_vdbHandle = ::dlopen(library.c_str(), RTLD_LAZY);
    if (m_vdbHandle == nullptr) throwLoadError(nullptr);
    m_initClientRec = entryPoint<DBInitClientRec>(m_vdbHandle, "db_initCLIENT_REC");
    m_getClient = entryPoint<DBGetClient>(m_vdbHandle, "db_getCLIENT");
    m_clientFree = entryPoint<DBClientFree>(m_vdbHandle, "db_CLIENTfree");
}

InsecureProxyServerEvaluator::~InsecureProxyServerEvaluator()
{
    if (m_vdbHandle != nullptr) ::dlclose(m_vdbHandle);
}

CORBA::Boolean InsecureProxyServerEvaluator::extraPeerCheck(const PeerAddr& addr)
{
    ACE_INET_Addr inet;
    inet.set_addr(addr.get_buffer(), static_cast<int>(addr.length()));
    // A known server is admitted before any lookup or query.
    if (SentraParser.isInServerListCached(inet)) return true;
    char host[HOST_NAME_BUFFER] = {0};
    if (unmapped(inet).get_host_name(host, sizeof(host)) < 0) return false;
    return isInClientList(host);
}

bool InsecureProxyServerEvaluator::isInClientList(const std::string& host)
{
    {
        ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
        if (m_cachedHosts.count(host) != 0) return true;
    }
    // Two threads may both ask for one new host; the set makes that harmless.
    if (!isClient(host)) return false;
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    m_cachedHosts.insert(host);
    return true;
}

bool InsecureProxyServerEvaluator::isClient(const std::string& host)
{
    client_rec rec;
    m_initClientRec(&rec, KDB_QUERY_BY_NAME);
    bool known = m_getClient(&rec, host.c_str()) == 0;
    if (!known) {
        // The short name, before the first point (the whole name again
        // when it has none).
        const std::string shortName = host.substr(0, host.find('.'));
        known = m_getClient(&rec, shortName.c_str()) == 0;
    }
    m_clientFree(&rec);
    return known;
}
