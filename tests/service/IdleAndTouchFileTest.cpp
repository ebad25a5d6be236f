// The idle decision and the touch files, driven directly: no ORB runs and
// no minute-long waits.
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

class ServiceFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        root = std::make_unique<keldtest::TempRoot>(true, false);
        bReceivedRequest = false;
        copy_extent_count = 0;
        nActiveJobCounter = 0;
        alive_retry_attempt = 0;
        bTimeout = false;
    }

    std::unique_ptr<ProxyV9SVC> makeService(bool timer = false)
    {
        static char name[] = "keldpxy";
        static char* argv[] = {name, nullptr};
        return std::make_unique<ProxyV9SVC>(1, argv, &logger, true, timer, 60, "ProxyV9SVC", false);
    }

    void touch(const char* name, const char* content)
    {
        root->writeFile(std::string("keldrive/logs/") + name, content);
    }

    std::unique_ptr<keldtest::TempRoot> root;
    ProxyLogger logger{1};
};

TEST_F(ServiceFixture, ThreadNumberTouchFile)
{
    auto svc = makeService();
    EXPECT_EQ(30, svc->getThreadNumberFromTouchFile());
    EXPECT_NE(std::string::npos, root->readLog().find("don't find touch file"));

    touch("PROXY_SERVER_THREAD_NUMBER", "many\n");
    EXPECT_EQ(30, svc->getThreadNumberFromTouchFile());
    EXPECT_NE(std::string::npos,
              root->readLog().find("cannot read line in touch file, use default thread_number 30"));

    touch("PROXY_SERVER_THREAD_NUMBER", "0\n");
    EXPECT_EQ(30, svc->getThreadNumberFromTouchFile());
    EXPECT_NE(std::string::npos,
              root->readLog().find("[ERROR][dummy][getThreadNumberFromTouchFile]thread_number in touch file is invalid, use default 30"));

    touch("PROXY_SERVER_THREAD_NUMBER", "1\n");
    EXPECT_EQ(1, svc->getThreadNumberFromTouchFile());
    touch("PROXY_SERVER_THREAD_NUMBER", "500");
    EXPECT_EQ(500, svc->getThreadNumberFromTouchFile());
}

TEST_F(ServiceFixture, TimeoutTouchFile)
{
    auto svc = makeService();
    EXPECT_EQ(0, svc->getTimeoutValueFromTouchFile());
    EXPECT_NE(std::string::npos, root->readLog().find("didn't find touch file"));

    touch("KELDPXY_TIMEOUT", "\n");
    EXPECT_EQ(0, svc->getTimeoutValueFromTouchFile());
    EXPECT_NE(std::string::npos, root->readLog().find("cannot read line in touch file, return 0"));

    touch("KELDPXY_TIMEOUT", "-1\n");
    EXPECT_EQ(0, svc->getTimeoutValueFromTouchFile());
    EXPECT_NE(std::string::npos,
              root->readLog().find("[ERROR][dummy][getTimeoutValue]timeout value in touch file is invalid, return 0"));

    touch("KELDPXY_TIMEOUT", "10\n");
    EXPECT_EQ(10, svc->getTimeoutValueFromTouchFile());
}

TEST_F(ServiceFixture, ActiveJobKeepsTwentyTicksThenStops)
{
    auto svc = makeService();
    nActiveJobCounter = 1;
    for (int tick = 0; tick < 20; ++tick) {
        svc->handle_timeout(ACE_Time_Value::zero, nullptr);
        ASSERT_FALSE(bTimeout) << "stopped early at tick " << tick;
    }
    const std::string log = root->readLog();
    EXPECT_NE(std::string::npos, log.find("retry 0 of 20"));
    EXPECT_NE(std::string::npos, log.find("retry 19 of 20"));
    svc->handle_timeout(ACE_Time_Value::zero, nullptr);
    EXPECT_TRUE(bTimeout);
}

TEST_F(ServiceFixture, RequestOrCopyRestoresTheRetries)
{
    auto svc = makeService();
    nActiveJobCounter = 1;
    for (int tick = 0; tick < 15; ++tick) svc->handle_timeout(ACE_Time_Value::zero, nullptr);
    bReceivedRequest = true;
    svc->handle_timeout(ACE_Time_Value::zero, nullptr);
    EXPECT_FALSE(bReceivedRequest);
    EXPECT_EQ(0, alive_retry_attempt);

    copy_extent_count = 1;
    for (int tick = 0; tick < 30; ++tick) svc->handle_timeout(ACE_Time_Value::zero, nullptr);
    EXPECT_FALSE(bTimeout);
    copy_extent_count = 0;
}

TEST_F(ServiceFixture, NoJobStopsAtFirstIdleTick)
{
    auto svc = makeService();
    svc->handle_timeout(ACE_Time_Value::zero, nullptr);
    EXPECT_TRUE(bTimeout);
    EXPECT_NE(std::string::npos,
              root->readLog().find("there is no request, no active job running and no ongoging copy extent operation, stop proxy service"));
}

} // namespace
