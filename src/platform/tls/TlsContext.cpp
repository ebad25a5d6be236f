// libkeld_tls.so: omniORB's SSL transport, given a certificate and a key in
// files of their own and an optional CA file.  Loading this module brings the
// transport in; keld_tls_use must run before ORB_init.
#include "TlsModule.h"

#include <omniORB4/CORBA.h>
#include <omniORB4/sslContext.h>

#include <cstdio>
#include <memory>
#include <openssl/err.h>
#include <string>

namespace {

std::string lastOpenSslError()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "unknown reason";
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return text;
}

struct Files {
    std::string certificate;
    std::string privateKey;
    std::string caFile;
};

// Loads the files into ctx; "" on success, else what failed.
std::string loadInto(SSL_CTX* ctx, const Files& f)
{
    ERR_clear_error();
    if (SSL_CTX_use_certificate_chain_file(ctx, f.certificate.c_str()) != 1)
        return "TLS certificate " + f.certificate + ": " + lastOpenSslError();
    if (SSL_CTX_use_PrivateKey_file(ctx, f.privateKey.c_str(), SSL_FILETYPE_PEM) != 1)
        return "TLS private key " + f.privateKey + ": " + lastOpenSslError();
    if (SSL_CTX_check_private_key(ctx) != 1)
        return "TLS private key " + f.privateKey + " does not belong to certificate " + f.certificate;
    if (!f.caFile.empty() && SSL_CTX_load_verify_locations(ctx, f.caFile.c_str(), nullptr) != 1)
        return "TLS CA file " + f.caFile + ": " + lastOpenSslError();
    return "";
}

// The transport calls the set_ hooks once, while the ORB is initialised;
// the files were proved just before.
class FileTlsContext : public sslContext {
public:
    explicit FileTlsContext(const Files& files) : m_files(files) {}

protected:
    void set_CA() override
    {
        if (m_files.caFile.empty()) return;
        if (SSL_CTX_load_verify_locations(get_SSL_CTX(), m_files.caFile.c_str(), nullptr) != 1)
            failed();
    }
    void set_certificate() override
    {
        if (SSL_CTX_use_certificate_chain_file(get_SSL_CTX(), m_files.certificate.c_str()) != 1)
            failed();
    }
    void set_privatekey() override
    {
        if (SSL_CTX_use_PrivateKey_file(get_SSL_CTX(), m_files.privateKey.c_str(),
                                        SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_check_private_key(get_SSL_CTX()) != 1)
            failed();
    }
    int set_verify_mode() override
    {
        return m_files.caFile.empty() ? SSL_VERIFY_NONE
                                      : SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
    }

private:
    // A file changed between the check and the ORB's start.
    [[noreturn]] static void failed() { throw CORBA::INITIALIZE(0, CORBA::COMPLETED_NO); }

    Files m_files;
};

} // namespace

extern "C" __attribute__((visibility("default"))) int
keld_tls_use(const char* certificate, const char* privateKey, const char* caFile, char* error,
             size_t size)
{
    const Files files{certificate, privateKey, caFile != nullptr ? caFile : ""};
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> scratch(SSL_CTX_new(TLS_method()),
                                                              SSL_CTX_free);
    std::string problem = scratch ? loadInto(scratch.get(), files)
                                  : "cannot make a TLS context: " + lastOpenSslError();
    if (!problem.empty()) {
        std::snprintf(error, size, "%s", problem.c_str());
        return -1;
    }
    // The transport keeps the context for the life of the process.
    sslContext::singleton = new FileTlsContext(files);
    return 0;
}
