// The TLS transport: omniORB's SSL transport (libomnisslTP4) with this
// process's certificate, key and trusted authorities.  It lives in a module
// of its own, lib/libkeld_tls.so beside the executable's bin directory, that
// is loaded only when TLS is wanted: the transport then stays out of every
// process that does not use it.  TLS endpoints are "giop:ssl:HOST:PORT".
#ifndef KELD_PLATFORM_TLSTRANSPORT_H
#define KELD_PLATFORM_TLSTRANSPORT_H

#include <string>
#include <vector>

struct TlsSettings {
    std::string certificate;   // PEM: this process's certificate, then its chain
    std::string privateKey;    // PEM, unencrypted
    std::string caFile;        // PEM authorities; empty: peers are not asked for a certificate

    bool enabled() const { return !certificate.empty() || !privateKey.empty() || !caFile.empty(); }
};

// Loads the module and gives the transport these settings; before ORB_init,
// once per process.  With a CA file a peer must show a certificate that the
// CA signed, or its handshake fails.  Returns "" on success, else why not
// (a file that cannot be read, a key that does not match, a missing module).
std::string useTlsTransport(const TlsSettings& settings);
// Same, with the module at an explicit path.
std::string useTlsTransport(const TlsSettings& settings, const std::string& modulePath);
bool tlsTransportInUse();

// Throws std::invalid_argument when orbWords ask for a "giop:ssl:" endpoint
// and the transport is not in use.
void refuseSslWithoutTls(const std::vector<std::string>& orbWords);

#endif
