// The framework seen from a client: the service runs as a child process
// (platform_probe_server) and this test process is its remote client, with an
// ORB of its own.
#include "ProbeProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

size_t countLines(const std::string& text, const std::string& line)
{
    size_t n = 0;
    std::string padded = "\n" + text;
    for (size_t pos = padded.find("\n" + line + "\n"); pos != std::string::npos;
         pos = padded.find("\n" + line + "\n", pos + 1))
        ++n;
    return n;
}

// True when the lines appear in this order.
bool inOrder(const std::string& text, std::initializer_list<const char*> lines)
{
    size_t pos = 0;
    for (const char* line : lines) {
        pos = text.find(std::string(line) + "\n", pos);
        if (pos == std::string::npos) return false;
    }
    return true;
}

// Two calls of sleepMs(ms) on two connections at the same moment; the wall
// time both took together.
long twoConcurrentSleeps(const ProbeProcess& probe, int ms)
{
    PlatformProbe::Sleeper_var first = probe.sleeper();
    PlatformProbe::Sleeper_var second = probe.sleeper();
    first->ping();
    second->ping();
    auto start = Clock::now();
    std::thread other([&] { second->sleepMs(ms); });
    first->sleepMs(ms);
    other.join();
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

#define ASSERT_STARTED(probe) ASSERT_TRUE((probe).waitForEvent("doRun")) << (probe).events()

TEST(OrbServiceTest, AdvertisedObjectReachesRealServantThroughCorbaloc)
{
    ProbeProcess probe("return", 30);
    ASSERT_STARTED(probe);

    CORBA::Object_var raw = clientOrb()->string_to_object(probe.corbaloc().c_str());
    EXPECT_TRUE(raw->_is_a("IDL:PlatformProbe/Sleeper:1.0"));
    EXPECT_FALSE(raw->_is_a("IDL:omg.org/CosNaming/NamingContext:1.0"));
    EXPECT_FALSE(raw->_non_existent());

    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    ASSERT_FALSE(CORBA::is_nil(sleeper));
    EXPECT_EQ(probe.pid(), sleeper->ping());

    std::string unknown = "corbaloc::127.0.0.1:" + std::to_string(probe.port()) + "/No.Such";
    CORBA::Object_var missing = clientOrb()->string_to_object(unknown.c_str());
    EXPECT_TRUE(missing->_non_existent());

    std::string events = probe.events();
    EXPECT_EQ(1u, countLines(events, "doInit")) << events;
    EXPECT_TRUE(inOrder(events, {"doPreInit", "doInit", "doRun"})) << events;
}

TEST(OrbServiceTest, ReactorRunsTimersScheduledBeforeItStarted)
{
    ProbeProcess probe("return", 30);
    ASSERT_STARTED(probe);
    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (sleeper->timerTicks() < 3 && Clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(50));
    EXPECT_GE(sleeper->timerTicks(), 3);
}

TEST(OrbServiceTest, ThreadCountBoundsConcurrentRequests)
{
    ProbeProcess probe("return", 1);
    ASSERT_STARTED(probe);
    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    EXPECT_EQ(1, sleeper->threadCount());

    long serial = twoConcurrentSleeps(probe, 400);
    EXPECT_EQ(1, sleeper->peakConcurrency());
    EXPECT_GE(serial, 750);

    sleeper->setThreadCount(4);
    sleeper->resetPeak();
    EXPECT_EQ(4, sleeper->threadCount());
    long parallel = twoConcurrentSleeps(probe, 400);
    EXPECT_EQ(2, sleeper->peakConcurrency());
    EXPECT_LT(parallel, 700);
}

TEST(OrbServiceTest, ClientShutdownEndsRunWithoutDoStop)
{
    ProbeProcess probe("return", 30);
    ASSERT_STARTED(probe);
    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    sleeper->shutdown();
    EXPECT_EQ(0, probe.waitExit());
    std::string events = probe.events();
    EXPECT_TRUE(inOrder(events, {"doRun", "fini", "doExit", "run returned 0"})) << events;
    EXPECT_EQ(std::string::npos, events.find("doStop")) << events;
}

TEST(OrbServiceTest, SignalFifteenRunsDoStopWhileRequestsAreServed)
{
    ProbeProcess probe("return", 30);
    ASSERT_STARTED(probe);
    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    sleeper->ping();

    ASSERT_EQ(0, ::kill(probe.pid(), SIGTERM));
    ASSERT_TRUE(probe.waitForEvent("doStop thread=other")) << probe.events();
    // doStop sleeps; the ORB must keep answering meanwhile.
    sleeper->sleepMs(50);
    EXPECT_EQ(probe.pid(), sleeper->ping());

    EXPECT_EQ(0, probe.waitExit());
    std::string events = probe.events();
    EXPECT_TRUE(inOrder(events, {"doStop thread=other", "ping", "doStop end", "fini", "doExit",
                                 "run returned 0"}))
        << events;
}

TEST(OrbServiceTest, StopByEventRunsDoStopOnStopThreadThatMayExit)
{
    ProbeProcess probe("exit", 30);
    ASSERT_STARTED(probe);
    PlatformProbe::Sleeper_var sleeper = probe.sleeper();
    sleeper->requestStop();
    ASSERT_TRUE(probe.waitForEvent("doStop thread=other")) << probe.events();
    EXPECT_EQ(probe.pid(), sleeper->ping());

    EXPECT_EQ(0, probe.waitExit());
    std::string events = probe.events();
    EXPECT_TRUE(inOrder(events, {"doStop thread=other", "ping", "doStop exit"})) << events;
    EXPECT_EQ(std::string::npos, events.find("run returned")) << events;
}

TEST(OrbServiceTest, SecondInstanceOnTheSamePortFailsWithSystemException)
{
    ProbeProcess first("return", 30);
    ASSERT_STARTED(first);
    ProbeProcess second("return", 30, first.port());
    EXPECT_EQ(255, second.waitExit());
    std::string events = second.events();
    EXPECT_NE(std::string::npos, events.find("start failed: ")) << events;
    EXPECT_EQ(std::string::npos, events.find("doRun")) << events;
    // The first one is untouched.
    PlatformProbe::Sleeper_var sleeper = first.sleeper();
    EXPECT_EQ(first.pid(), sleeper->ping());
}

TEST(OrbServiceTest, FailureInDoInitReachesTheCaller)
{
    ProbeProcess probe("failinit", 30);
    EXPECT_EQ(255, probe.waitExit());
    std::string events = probe.events();
    EXPECT_TRUE(inOrder(events, {"doInit", "start failed: INV_OBJREF"})) << events;
    EXPECT_EQ(std::string::npos, events.find("doRun")) << events;
}

} // namespace
