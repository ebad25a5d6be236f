#include "TlsTransport.h"

#include "tls/TlsModule.h"

#include <climits>
#include <dlfcn.h>
#include <stdexcept>
#include <unistd.h>

namespace {

bool gs_tlsInUse = false;

// <directory of the executable>/../lib/libkeld_tls.so
std::string defaultModulePath()
{
    char exe[PATH_MAX] = {0};
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    std::string path = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("./x");
    const size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    return dir + "/../lib/" KELD_TLS_MODULE;
}

} // namespace

std::string useTlsTransport(const TlsSettings& settings)
{
    return useTlsTransport(settings, defaultModulePath());
}

std::string useTlsTransport(const TlsSettings& settings, const std::string& modulePath)
{
    if (settings.certificate.empty()) return "no TLS certificate is given";
    if (settings.privateKey.empty()) return "no TLS private key is given";
    // Global: the transport's own symbols must be seen by the ORB.
    void* module = ::dlopen(modulePath.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (module == nullptr) return std::string("TLS transport module: ") + ::dlerror();
    auto use = reinterpret_cast<KeldTlsUse>(::dlsym(module, KELD_TLS_USE));
    if (use == nullptr) return std::string("TLS transport module: ") + ::dlerror();
    char error[512] = {0};
    if (use(settings.certificate.c_str(), settings.privateKey.c_str(), settings.caFile.c_str(),
            error, sizeof(error)) != 0)
        return error;
    // The module stays loaded: the ORB keeps using what it registered.
    gs_tlsInUse = true;
    return "";
}

bool tlsTransportInUse()
{
    return gs_tlsInUse;
}

void refuseSslWithoutTls(const std::vector<std::string>& orbWords)
{
    if (gs_tlsInUse) return;
    for (const std::string& word : orbWords)
        if (word.compare(0, 9, "giop:ssl:") == 0)
            throw std::invalid_argument("endpoint " + word +
                                        " needs the TLS transport: a certificate and a private key");
}
