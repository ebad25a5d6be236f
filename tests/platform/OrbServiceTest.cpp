// The framework seen from a client: the service runs as a child process
// (platform_probe_server) and this test process is its remote client, with an
// ORB of its own.  The ways a service stops or fails to start are pinned
// through keldpxy itself (tests/service, tests/entry).
#include "PlatformProbe.hh"
#include "ServiceClient.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

using namespace std::chrono_literals;

namespace {

// platform_probe_server (see ProbeServer.cpp) on a loopback port, with its
// event log.
struct Probe {
    explicit Probe(int threads, int port = keldtest::freePort())
        : port(port),
          child(PROBE_SERVER_PATH, {root.path() + "/events", std::to_string(threads), "-ORBListenEndPoints",
                                    keldtest::endpointArg(port)})
    {
    }
    ~Probe() { child.signal(SIGKILL); }

    PlatformProbe::Sleeper_ptr sleeper() const
    {
        CORBA::Object_var ref = keldtest::clientOrb()->string_to_object(keldtest::corbaloc(port, "Probe.Sleeper").c_str());
        return PlatformProbe::Sleeper::_narrow(ref);
    }
    std::string events() const
    {
        std::stringstream text;
        text << std::ifstream(root.path() + "/events").rdbuf();
        return text.str();
    }
    bool waitForEvent(const std::string& line) const
    {
        return keldtest::waitFor([&] { return ("\n" + events()).find("\n" + line + "\n") != std::string::npos; }, 15s);
    }
    bool started() const { return waitForEvent("doRun"); }

    keldtest::TempRoot root{false, false};
    int port;
    keldtest::Child child;
};

// Two calls of sleepMs(400) on two connections at the same moment: how long
// both took together, in milliseconds.
long twoConcurrentSleeps(const Probe& probe)
{
    PlatformProbe::Sleeper_var first = probe.sleeper(), second = probe.sleeper();
    first->ping();   // both connected before the clock starts
    second->ping();
    const auto start = std::chrono::steady_clock::now();
    std::thread other([&] { second->sleepMs(400); });
    first->sleepMs(400);
    other.join();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

TEST(OrbService, ServesTheAdvertisedObjectWithTheThreadsItWasGiven)
{
    Probe wide(30), narrow(1);
    ASSERT_TRUE(wide.started() && narrow.started()) << wide.events() << narrow.events();

    PlatformProbe::Sleeper_var sleeper = wide.sleeper();
    EXPECT_EQ(wide.child.pid(), sleeper->ping());

    EXPECT_LT(twoConcurrentSleeps(wide), 700);
    EXPECT_EQ(2, sleeper->peakConcurrency());
    EXPECT_GE(twoConcurrentSleeps(narrow), 750);
    PlatformProbe::Sleeper_var one = narrow.sleeper();
    EXPECT_EQ(1, one->peakConcurrency());
}

// Signal 15 runs doStop on a thread of its own, and the ORB goes on answering
// until it returns; then run() comes back through fini and doExit.
TEST(OrbService, SignalFifteenRunsDoStopWhileRequestsAreServed)
{
    Probe probe(30);
    ASSERT_TRUE(probe.started()) << probe.events();
    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    ASSERT_EQ(0, ::kill(probe.child.pid(), SIGTERM));
    ASSERT_TRUE(probe.waitForEvent("doStop thread=other")) << probe.events();
    sleeper->sleepMs(50);
    EXPECT_EQ(probe.child.pid(), sleeper->ping());
    EXPECT_EQ(0, probe.child.wait(15s));
    EXPECT_EQ("doPreInit\ndoInit\ndoRun\ndoStop thread=other\nping\ndoStop end\nfini\ndoExit\nrun returned 0\n",
              probe.events());
}

} // namespace
