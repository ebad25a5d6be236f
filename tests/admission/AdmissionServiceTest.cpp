// Who may connect, seen from outside: a real keldpxy on 127.0.0.1 with a
// temporary root, peer admission switched on in its master configuration,
// and clients in processes of their own (admission_probe), over plain IIOP
// and over TLS with certificates made by scripts/make-certs.sh.
#include "TestSupport.h"

#include <ace/INET_Addr.h>
#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

Outcome run(const std::string& command)
{
    Outcome o;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 256> chunk;
    while (fgets(chunk.data(), chunk.size(), pipe) != nullptr) o.output += chunk.data();
    const int status = pclose(pipe);
    o.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return o;
}

// The name the service will find for 127.0.0.1: the same lookup, with the
// same room for the name.
std::string loopbackName()
{
    ACE_INET_Addr loopback(static_cast<u_short>(0), "127.0.0.1");
    char host[65] = {0};
    return loopback.get_host_name(host, sizeof(host)) == 0 ? host : "";
}

class Admission : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::symlink(KELD_KDB_PATH, (root.path() + "/lib/libKdbMT.so").c_str());
    }
    void configure(const std::string& conf) { root.writeFile("keldrive/keldrive.conf", conf); }
    void start(const std::string& endpoints)
    {
        service = std::make_unique<keldtest::Child>(
            keldtest::keldpxyPath(), std::vector<std::string>{"-start", "-ORBListenEndPoints", endpoints});
        ASSERT_TRUE(keldtest::waitFor([&] { return logHas("succeed to advertise object EventChannelManager"); }, 20s))
            << root.readLog();
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }
    // getString through a probe; "" for plain IIOP, else a directory of
    // make-certs.sh output whose client identity is used, trusting trustDir's CA.
    Outcome call(const std::string& corbaloc, const std::string& certDir = "",
                 const std::string& trustDir = "")
    {
        std::string command = std::string(KELD_PROBE_PATH) + " '" + corbaloc + "'";
        if (!certDir.empty()) {
            command += " " + certDir + "/client.crt " + certDir + "/client.key " +
                       (trustDir.empty() ? certDir : trustDir) + "/ca.crt";
        }
        return run(command);
    }
    void clients(const std::string& args)
    {
        ASSERT_EQ(0, run(std::string(KELDV_CLIENTS_PATH) + " " + args).status);
    }
    std::string sslLoc(int p) const
    {
        return "corbaloc:ssliop:127.0.0.1:" + std::to_string(p) + "/Proxy.StorageServerManager";
    }

    keldtest::TempRoot root;
    int port = keldtest::freePort();
    std::unique_ptr<keldtest::Child> service;
};

TEST_F(Admission, StrangerRefusedAtConnectionUntilTheOperatorAddsIt)
{
    const std::string name = loopbackName();
    ASSERT_FALSE(name.empty());
    configure("PEER_ADMISSION = 1\n");
    start(keldtest::endpointArg(port));
    EXPECT_TRUE(logHas("peer admission is on"));
    const std::string loc = keldtest::corbaloc(port, "Proxy.StorageServerManager");

    const Outcome refused = call(loc);
    EXPECT_EQ(1, refused.status) << refused.output;
    EXPECT_TRUE(logHas("refused connection from giop:tcp:127.0.0.1:")) << root.readLog();
    EXPECT_FALSE(logHas("ZVS_VERSION"));

    // The host's own name, as the service finds it, made a client while
    // the service runs.
    clients("add " + name);
    const Outcome admitted = call(loc);
    EXPECT_EQ(0, admitted.status) << admitted.output;
    EXPECT_EQ("ZVS_VERSION=13\n", admitted.output);
    EXPECT_TRUE(service->running());
}

TEST_F(Admission, StartRefusedWithoutClientDatabaseOrWithBadTlsFiles)
{
    ::unlink((root.path() + "/lib/libKdbMT.so").c_str());
    configure("PEER_ADMISSION = 1\n");
    EXPECT_NE(0, keldtest::runKeldpxy({"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)}, 20s));
    EXPECT_TRUE(logHas("peer admission is on but the client database cannot be loaded: " + root.path() +
                       "/lib/libKdbMT.so: cannot open shared object file"))
        << root.readLog();

    configure("TLS_CERTIFICATE = /nonexistent/server.crt\nTLS_PRIVATE_KEY = /nonexistent/server.key\n");
    EXPECT_NE(0, keldtest::runKeldpxy({"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)}, 20s));
    EXPECT_TRUE(logHas("the TLS transport cannot start: TLS certificate /nonexistent/server.crt"))
        << root.readLog();
}

TEST_F(Admission, TlsEndpointBesidePlainWithClientCertificates)
{
    const std::string tls = root.path() + "/keldrive/tls";
    const std::string otherCa = root.path() + "/other-ca";
    ASSERT_EQ(0, run(std::string(KELD_MAKE_CERTS) + " " + tls + " localhost").status);
    ASSERT_EQ(0, run(std::string(KELD_MAKE_CERTS) + " " + otherCa + " localhost").status);
    configure("PEER_ADMISSION = 1\n"
              "TLS_CERTIFICATE = tls/server.crt\n"
              "TLS_PRIVATE_KEY = tls/server.key\n"
              "TLS_CA_FILE = tls/ca.crt\n");
    const int tlsPort = keldtest::freePort();
    start(keldtest::endpointArg(port) + " ssliop://127.0.0.1:" + std::to_string(tlsPort));
    EXPECT_TRUE(logHas("clients need a certificate signed by " + tls + "/ca.crt"));

    // A good certificate, but not a known peer: admission judges TLS
    // connections too.
    Outcome o = call(sslLoc(tlsPort), tls);
    EXPECT_EQ(1, o.status) << o.output;
    EXPECT_TRUE(logHas("refused connection from giop:ssl:127.0.0.1:")) << root.readLog();

    // Known as a server of the domain from now on.
    root.writeFile("keldrive/servers", "127.0.0.1\n");
    o = call(sslLoc(tlsPort), tls);
    EXPECT_EQ(0, o.status) << o.output;
    EXPECT_EQ("ZVS_VERSION=13\n", o.output);
    setenv("KELD_PROBE_IMAGE", "1", 1);
    o = call(sslLoc(tlsPort), tls);
    unsetenv("KELD_PROBE_IMAGE");
    EXPECT_EQ(0, o.status) << o.output;
    EXPECT_NE(std::string::npos, o.output.find("image round trip ok")) << o.output;

    // The plain endpoint stays beside it.
    o = call(keldtest::corbaloc(port, "Proxy.StorageServerManager"));
    EXPECT_EQ(0, o.status) << o.output;

    // Plain IIOP to the TLS port, and a certificate of another authority.
    o = call(keldtest::corbaloc(tlsPort, "Proxy.StorageServerManager"));
    EXPECT_EQ(1, o.status) << o.output;
    o = call(sslLoc(tlsPort), otherCa, tls);
    EXPECT_EQ(1, o.status) << o.output;
    EXPECT_TRUE(service->running());
}

} // namespace
