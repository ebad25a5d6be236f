// Work in flight keeps the service: a long copy and announced jobs hold a
// stop by signal 15 until they end, and a client's cleanup of a session
// waits while a call still counts on it.  But nothing holds a stop for
// ever: a call stuck in the plug-in gets a grace, a second stop ends the
// service at once, and the jobs of a client that went away end with its
// session.  Over IIOP against the stand-in plug-in, which holds a copy or
// an image open as long as a test asks.
#include "ServiceClient.h"
#include "sts_types.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

class WorkInFlight : public ServiceFixture {
protected:
    // settings: lines of the master configuration.
    void startService(const std::string& settings = "") { startWithFaultPlugin({}, "VERBOSE = 5\n" + settings); }

    // Runs keldpxy -stop to its end; its exit status, its standard error in errors.
    int stopCommand(std::string& errors) const
    {
        const std::string path = root.path() + "/stop.err";
        const int status = Child(keldpxyPath(), {"-stop"}, {}, path).wait(60s);
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        errors = text.str();
        return status;
    }

    bool logOrder(const std::string& first, const std::string& then) const
    {
        const std::string log = root.readLog();
        const size_t a = log.find(first);
        return a != std::string::npos && log.find(then, a) != std::string::npos;
    }
    bool logSoon(const std::string& text) const
    {
        return waitFor([&] { return logHas(text); }, 10s);
    }
};

TEST_F(WorkInFlight, SignalDuringALongCopyWaitsForItThenExitsZero)
{
    startService();
    API::StorageServer_var server = openFault(1, "copier");
    API::Image_var target = server->createImageV13(2, "lsu", imageDefinition("target"), 0);
    API::Image_var source = server->createImageV13(3, "lsu", imageDefinition("source"), 0);
    faultControl("KELD_FAULT_COPY_DELAY_MS=3000\n");
    API::UInt64 copied = 0;
    std::thread copier([&] { EXPECT_NO_THROW(target->copyExtentV12(1, 0, source, 0, 65536, 0, copied)); });
    EXPECT_TRUE(logSoon("before called into sts_copy_extent for image source, copy counter is 1"));
    service->signal(SIGTERM);
    EXPECT_TRUE(logSoon("copy extent count is 1, active job is 0"));
    copier.join();   // the reply still comes while the stop waits
    EXPECT_EQ(65536u, copied);
    EXPECT_EQ(0, service->wait(20s));
    EXPECT_TRUE(logOrder("sts_copy_extent returned, copy counter is 0", "it is safe to stop proxy server now"));
}

TEST_F(WorkInFlight, JobCountersCountARetryOnceHaveNoFloorAndHoldTheStop)
{
    startService();
    API::StorageServer_var server = openFault(1, "jobs");
    for (int attempt = 0; attempt < 2; ++attempt) server->increaseJobCounterV12(2);
    EXPECT_EQ(1u, logCount("there are [1] active jobs"));
    for (int attempt = 0; attempt < 2; ++attempt) server->decreaseJobCounterV12(3);
    EXPECT_EQ(1u, logCount("still have [0] active jobs"));
    // No floor: -1, 0, 1, so that one decrease lets the stop go on.
    server->decreaseJobCounterV12(4);
    server->increaseJobCounterV12(5);
    server->increaseJobCounterV12(6);
    service->signal(SIGTERM);
    EXPECT_TRUE(logSoon("copy extent count is 0, active job is 1"));
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(service->running()) << "the stop waits for the job";
    server->decreaseJobCounterV12(7);
    EXPECT_EQ(0, service->wait(20s));
}

TEST_F(WorkInFlight, CleanupClosesAnIdleSessionAndWaitsForAnOpenInFlight)
{
    startService();
    API::StorageServer_var idle = openFault(1, "idle-job");
    API::StorageServer_var busy = openFault(1, "busy-job");
    // A server opened for cleanup only does the cleaning.
    API::StorageServer_var shell = ssm->openServerV12(1, session("cleaner"), "Fault:test", noCredential(), "", 1);

    shell->cleanupSessionV12(1, "idle-job");
    EXPECT_TRUE(logHas("succeed to close one session handle for id idle-job"));
    // The close path records nothing: its retry answers the unknown exception.
    EXPECT_TRUE(raises(STS_ESEQUENCE, [&] { shell->cleanupSessionV12(1, "idle-job"); }, "unknown exception"));
    shell->cleanupSessionV12(2, "idle-job");
    EXPECT_TRUE(logHas("there is no session handle associated with id idle-job, break"));

    // An open of an image holds the session's counter for 2.5 s: the
    // cleanup waits in one-second rounds and closes after it.
    faultControl("KELD_FAULT_IMAGE_DELAY_MS=2500\n");
    API::Image_var image;
    std::thread opener([&] { EXPECT_NO_THROW(image = busy->openImageV13(2, "lsu", imageDefinition("slow"), kOpenRead)); });
    EXPECT_TRUE(logSoon("counter for session id busy-job is 1"));
    const auto began = std::chrono::steady_clock::now();
    shell->cleanupSessionV12(3, "busy-job");
    EXPECT_GE(std::chrono::steady_clock::now() - began, 1s);
    opener.join();
    EXPECT_FALSE(CORBA::is_nil(image));
    EXPECT_TRUE(logHas("session handle of busy-job is used for other threads, counter(1), do not close it, retry 1 of 180"));
    EXPECT_TRUE(logOrder("delete counter for session id busy-job, now it is 0",
                         "no thread is using session handle of busy-job, now it is safe to close"));
    EXPECT_TRUE(logHas("succeed to close one session handle for id busy-job"));
}

// An image on a mount that hangs: the open never comes back from the
// plug-in.  The stop gives it the grace and ends the service without it;
// keldpxy -stop waits for that end and has nothing to report.
TEST_F(WorkInFlight, ACallStuckInThePluginHoldsTheStopOnlyForTheGrace)
{
    startService("STOP_GRACE_SECONDS = 2\nSTOP_COMMAND_WAIT_SECONDS = 30\n");
    API::StorageServer_var server = openFault(1, "stuck");
    faultControl("KELD_FAULT_IMAGE_DELAY_MS=3600000\n");
    std::thread caller([&] {
        EXPECT_TRUE(raisesSystem([&] { server->openImageV13(2, "lsu", imageDefinition("hung"), kOpenRead); }));
    });
    EXPECT_TRUE(logSoon("counter for session id stuck is 1"));
    const std::string pidFile = root.path() + "/keldrive/logs/keldpxy." + std::to_string(service->pid()) + ".pid";
    std::string errors;
    EXPECT_EQ(0, stopCommand(errors));
    EXPECT_EQ(std::string::npos, errors.find("still running")) << errors;
    EXPECT_EQ(0, service->wait(0s)) << "ended before the stop command returned";
    caller.join();
    EXPECT_TRUE(logHas("1 call(s) still running 2 seconds after the stop began to wait for them"));
    EXPECT_NE(0, access(pidFile.c_str(), F_OK));
}

// A service held by a job: keldpxy -stop says so on standard error, and a
// second keldpxy -stop ends the service at once.
TEST_F(WorkInFlight, TheStopCommandTellsOfAWaitingServiceAndASecondStopEndsIt)
{
    startService("STOP_COMMAND_WAIT_SECONDS = 1\n");
    API::StorageServer_var server = openFault(1, "held");
    server->increaseJobCounterV12(2);
    std::string errors;
    EXPECT_EQ(0, stopCommand(errors));
    EXPECT_NE(std::string::npos, errors.find("proxy service " + std::to_string(service->pid()) +
                                             " is still running 1 s after the stop signal")) << errors;
    EXPECT_TRUE(logSoon("copy extent count is 0, active job is 1"));
    EXPECT_TRUE(service->running());
    root.writeFile("keldrive/keldrive.conf", "STOP_COMMAND_WAIT_SECONDS = 30\n");   // for the second command
    EXPECT_EQ(0, stopCommand(errors));
    EXPECT_EQ(std::string::npos, errors.find("still running")) << errors;
    EXPECT_EQ(0, service->wait(0s));
    EXPECT_TRUE(logHas("stop signal received again while stopping: the service ends at once, 0 call(s) running"));
}

// One client is cleaned up by another, one falls silent: the jobs of both
// end, with a warning each, and the silent one's late report of its end
// does not count twice.  A client back at work holds a stop until it falls
// silent again.
TEST_F(WorkInFlight, TheJobsOfAClientThatWentAwayEndWithItsCleanupOrItsSilence)
{
    startService("JOB_IDLE_SECONDS = 3\n");
    API::StorageServer_var gone = openFault(1, "gone");
    API::StorageServer_var quiet = openFault(1, "quiet");
    API::StorageServer_var shell = ssm->openServerV12(1, session("cleaner"), "Fault:test", noCredential(), "", 1);
    gone->increaseJobCounterV12(2);
    quiet->increaseJobCounterV12(2);
    shell->cleanupSessionV12(1, "gone");
    EXPECT_TRUE(logHas("session gone is cleaned up: its 1 active job(s) end, 1 remain"));
    // A session whose calls all go to its image keeps its job however long.
    API::StorageServer_var busy = openFault(1, "busy");
    busy->increaseJobCounterV12(2);
    API::Image_var image = busy->createImageV13(3, "lsu", imageDefinition("busy"), 0);
    const auto quietEnded = [&] { return logHas("session quiet has made no call"); };
    std::chrono::steady_clock::time_point until = std::chrono::steady_clock::time_point::max();
    for (API::UInt64 seq = 1; std::chrono::steady_clock::now() < until; ++seq) {
        ASSERT_LT(seq, 200u);
        API::UInt64 written = 0;
        image->writeImageV12(seq, API::Bytes(), 0, 0, written);
        std::this_thread::sleep_for(100ms);
        // Two sweeps past the one that ended the quiet session's job.
        if (until == std::chrono::steady_clock::time_point::max() && quietEnded()) {
            until = std::chrono::steady_clock::now() + 2500ms;
        }
    }
    EXPECT_EQ(0u, logCount("session busy has made no call"));
    busy->decreaseJobCounterV12(4);
    EXPECT_TRUE(logHas("session quiet has made no call for 3 seconds: its 1 active job(s) end, 1 remain"));
    quiet->decreaseJobCounterV12(3);
    EXPECT_TRUE(logHas("still have [0] active jobs"));

    quiet->increaseJobCounterV12(4);
    service->signal(SIGTERM);
    EXPECT_TRUE(logSoon("copy extent count is 0, active job is 1"));
    EXPECT_EQ(0, service->wait(30s));
    EXPECT_EQ(2u, logCount("session quiet has made no call for 3 seconds"));
    EXPECT_EQ(0u, logCount("session gone has made no call"));
}

} // namespace
