// Who may connect, seen from outside: a real keldpxy on 127.0.0.1 with a
// temporary root, peer admission switched on in its master configuration,
// and clients in processes of their own (admission_probe).
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
    // getString through a probe.
    Outcome call(const std::string& corbaloc)
    {
        return run(std::string(KELD_PROBE_PATH) + " '" + corbaloc + "'");
    }
    void clients(const std::string& args)
    {
        ASSERT_EQ(0, run(std::string(KELDV_CLIENTS_PATH) + " " + args).status);
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

TEST_F(Admission, StartRefusedWithoutClientDatabase)
{
    ::unlink((root.path() + "/lib/libKdbMT.so").c_str());
    configure("PEER_ADMISSION = 1\n");
    EXPECT_NE(0, keldtest::runKeldpxy({"-start", "-ORBListenEndPoints", keldtest::endpointArg(port)}, 20s));
    EXPECT_TRUE(logHas("peer admission is on but the client database cannot be loaded: " + root.path() +
                       "/lib/libKdbMT.so: cannot open shared object file"))
        << root.readLog();
}

} // namespace
