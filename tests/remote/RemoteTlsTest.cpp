// A hop reached over TLS, with a client certificate signed by the
// authority the service trusts.  A test program of its own: the plug-in
// starts this process's ORB with TLS as its only transport.
#include "RemoteTestSupport.h"

#include <cstdlib>
#include <gtest/gtest.h>

using namespace remotetest;

namespace {

TEST(RemoteTls, AHopServedOverTlsIsReachedWithTheClientsCertificate)
{
    Service service;
    const std::string certs = service.root().path() + "/keldrive/tls";
    ASSERT_EQ(0, std::system((std::string(KELD_MAKE_CERTS) + " '" + certs + "' localhost >/dev/null 2>&1").c_str()));
    service.root().writeFile("keldrive/keldrive.conf", "TLS_CERTIFICATE = tls/server.crt\n"
                                                       "TLS_PRIVATE_KEY = tls/server.key\n"
                                                       "TLS_CA_FILE = tls/ca.crt\n");
    const int tlsPort = keldtest::freePort();
    service.start({}, "ssliop://127.0.0.1:" + std::to_string(tlsPort));

    Client client("retry_tries = 2\n"
                  "tls = on\n"
                  "tls_certificate_file = " + certs + "/client.crt\n"
                  "tls_key_file = " + certs + "/client.key\n"
                  "tls_ca_file = " + certs + "/ca.crt\n");
    sts_api_t* api = client.api();
    EXPECT_EQ(0, api->stsa_close_handle(client.server("127.0.0.1:" + std::to_string(tlsPort), "over-tls"), 0));
    EXPECT_NE(std::string::npos, service.log().find("clients need a certificate signed by"));

    // The plain port does not speak TLS, and the client speaks nothing else.
    sts_handle_t svh = nullptr;
    EXPECT_EQ(REMOTE_EHOP, api->stsa_open_server(client.session(service.hop()), diskServer().c_str(), nullptr, "", &svh));
    EXPECT_EQ(0, service.stop());
}

} // namespace
