// Who may connect, seen from outside: a real keldpxy on 127.0.0.1 with a
// temporary root, peer admission switched on in its master configuration,
// and clients in processes of their own (admission_probe), over plain IIOP
// and over TLS with certificates made by scripts/make-certs.sh.
#include "Shell.h"
#include "TestSupport.h"

#include <ace/INET_Addr.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

// The name the service will find for 127.0.0.1: the same lookup, with the
// same room for the name.
std::string loopbackName()
{
    ACE_INET_Addr loopback(static_cast<u_short>(0), "127.0.0.1");
    char host[65] = {0};
    return loopback.get_host_name(host, sizeof(host)) == 0 ? host : "";
}

// getString through a probe at port; over TLS when certDir is given: a
// directory of make-certs.sh output whose client identity is used, trusting
// trustDir's CA.  Its exit status, its output in out.
int call(int port, std::string& out, const std::string& certDir = "", const std::string& trustDir = "")
{
    const std::string key = std::to_string(port) + "/Proxy.StorageServerManager";
    if (certDir.empty()) return shell(std::string(KELD_PROBE_PATH) + " corbaloc::127.0.0.1:" + key, &out);
    return shell(std::string(KELD_PROBE_PATH) + " corbaloc:ssliop:127.0.0.1:" + key + " " + certDir + "/client.crt " +
                     certDir + "/client.key " + (trustDir.empty() ? certDir : trustDir) + "/ca.crt",
                 &out);
}

// A start is refused without the client database or with TLS files that do
// not load.  Once started, a stranger is refused at connection over either
// transport, and admitted when the operator makes it a client while the
// service runs; TLS also refuses plain IIOP and certificates of another
// authority.
TEST(Admission, StrangersRefusedOverPlainAndTlsUntilTheOperatorAddsThem)
{
    keldtest::TempRoot root;
    auto logHas = [&](const std::string& text) { return root.readLog().find(text) != std::string::npos; };
    auto configure = [&](const std::string& conf) { root.writeFile("keldrive/keldrive.conf", conf); };
    const int port = keldtest::freePort(), tlsPort = keldtest::freePort();
    const std::vector<std::string> plainOnly = {"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)};
    configure("PEER_ADMISSION = 1\n");
    EXPECT_NE(0, keldtest::runKeldpxy(plainOnly, 20s));
    EXPECT_TRUE(logHas("peer admission is on but the client database cannot be loaded: " + root.path() +
                       "/lib/libKdbMT.so: cannot open shared object file")) << root.readLog();
    configure("TLS_CERTIFICATE = /nonexistent/server.crt\nTLS_PRIVATE_KEY = /nonexistent/server.key\n");
    EXPECT_NE(0, keldtest::runKeldpxy(plainOnly, 20s));
    EXPECT_TRUE(logHas("the TLS transport cannot start: TLS certificate /nonexistent/server.crt")) << root.readLog();

    const std::string name = loopbackName(), tls = root.path() + "/keldrive/tls", otherCa = root.path() + "/other-ca";
    ASSERT_FALSE(name.empty());
    ASSERT_EQ(0, shell(std::string(KELD_MAKE_CERTS) + " " + tls + " localhost"));
    ASSERT_EQ(0, shell(std::string(KELD_MAKE_CERTS) + " " + otherCa + " localhost"));
    ASSERT_EQ(0, ::symlink(KELD_KDB_PATH, (root.path() + "/lib/libKdbMT.so").c_str()));
    configure("PEER_ADMISSION = 1\nTLS_CERTIFICATE = tls/server.crt\nTLS_PRIVATE_KEY = tls/server.key\nTLS_CA_FILE = tls/ca.crt\n");
    keldtest::Child service(keldtest::keldpxyPath(), {"-start", "-ORBListenEndPoints",
                                                      keldtest::endpointArg(port) + " ssliop://127.0.0.1:" + std::to_string(tlsPort)});
    ASSERT_TRUE(keldtest::waitFor([&] { return logHas("succeed to advertise object EventChannelManager"); }, 20s)) << root.readLog();
    EXPECT_TRUE(logHas("clients need a certificate signed by " + tls + "/ca.crt"));

    std::string out;
    EXPECT_EQ(1, call(port, out)) << out;
    EXPECT_TRUE(logHas("refused connection from giop:tcp:127.0.0.1:")) << root.readLog();
    EXPECT_EQ(1, call(tlsPort, out, tls)) << out;
    EXPECT_TRUE(logHas("refused connection from giop:ssl:127.0.0.1:")) << root.readLog();
    EXPECT_FALSE(logHas("ZVS_VERSION")) << "no refused call reaches a servant";

    ASSERT_EQ(0, shell(std::string(KELDV_CLIENTS_PATH) + " add " + name));
    EXPECT_EQ(0, call(port, out)) << out;
    EXPECT_EQ("ZVS_VERSION=13\n", out);
    setenv("KELD_PROBE_IMAGE", "1", 1);
    EXPECT_EQ(0, call(tlsPort, out, tls)) << out;
    unsetenv("KELD_PROBE_IMAGE");
    EXPECT_EQ("ZVS_VERSION=13\nimage round trip ok\n", out);

    EXPECT_EQ(1, call(tlsPort, out)) << "plain IIOP to the TLS port: " << out;
    EXPECT_EQ(1, call(tlsPort, out, otherCa, tls)) << "another authority: " << out;
    EXPECT_TRUE(service.running());
}

} // namespace
