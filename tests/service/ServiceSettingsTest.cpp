// What the service is told to do and for how long: the command line, the
// touch files and the idle decision, driven directly (no ORB runs and no
// minute-long waits).
#include "CommandLine.h"
#include "ProxyLogger.h"
#include "ProxyV9SVC.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

// Parses "keldpxy" and words; left receives what stays in the vector.
CommandLine parse(Words words, Words* left = nullptr)
{
    words.insert(words.begin(), "keldpxy");
    std::vector<char*> argv;
    for (std::string& s : words) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    int argc = static_cast<int>(words.size());
    const CommandLine cl = parseCommandLine(argc, argv.data());
    if (left != nullptr) left->assign(argv.begin(), argv.begin() + argc);
    return cl;
}

// The parts of a parse that select what the service does, as one text.
std::string selected(const CommandLine& cl)
{
    std::string text;
    if (cl.isStart) text += " start";
    if (cl.isStop) text += " stop";
    if (cl.install) text += " install";
    if (cl.remove) text += " remove";
    if (cl.bTimer) text += " exit=" + std::to_string(cl.interval);
    if (cl.bCleanup) text += " cleanup=" + std::string(cl.lsuname);
    if (cl.consoleMode) text += " console=" + std::string(cl.serviceName);
    return text.empty() ? text : text.substr(1);
}

TEST(CommandLine, WholeWordsInAnyCaseSelectTheMode)
{
    const struct {
        Words words;
        const char* selected;
    } cases[] = {
        {{}, "start"},
        {{"-start", "-exit", "30"}, "start exit=1800"},
        {{"-exit", "99999999"}, "exit=31536000"},   // a year at most, never wrapped
        {{"-exit"}, "exit=0"},
        {{"-exit", "-start"}, "exit=0"},            // taken as the value of -exit
        {{"foo"}, ""},
        {{"-installservice", "-removeservice"}, "install remove"},
        {{"-STOP", "-Start"}, "start stop"},
        {{"-stopnow", "-started"}, ""},
        {{"-terminate"}, "stop"},
        {{"-stop", "-cleanup", "lsu_a"}, "stop cleanup=lsu_a"},
        {{"-cleanup"}, "cleanup="},
        {{"-servicename", "svc"}, "console=svc"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.selected, selected(parse(c.words))) << ::testing::PrintToString(c.words);
    EXPECT_STREQ("ProxyV9SVC", parse({}).serviceName);
}

TEST(CommandLine, OverlongNamesAreCutAndOtherWordsStayInOrder)
{
    const CommandLine cl = parse({"-cleanup", std::string(2000, 'x'), "-servicename", std::string(300, 'y')});
    EXPECT_EQ(1023u, std::string(cl.lsuname).size());
    EXPECT_EQ(127u, std::string(cl.serviceName).size());

    Words left;
    EXPECT_EQ(300, parse({"-start", "-ORBListenEndPoints", "iiop://127.0.0.1:10001", "-exit", "5", "-ORBtraceLevel", "1"},
                         &left).interval);
    // Consumed option words leave; values and unknown words stay in order.
    EXPECT_EQ((Words{"keldpxy", "-start", "-ORBListenEndPoints", "iiop://127.0.0.1:10001", "5", "-ORBtraceLevel", "1"}),
              left);
}

class Idle : public ::testing::Test {
protected:
    void SetUp() override
    {
        bReceivedRequest = false;
        copy_extent_count = 0;
        nActiveJobCounter = 0;
        alive_retry_attempt = 0;
        bTimeout = false;
    }
    void TearDown() override { SetUp(); }
    void tick(int times = 1)
    {
        for (int i = 0; i < times; ++i) svc.handle_timeout(ACE_Time_Value::zero, nullptr);
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }

    keldtest::TempRoot root{true, false};
    ProxyLogger logger{1};
    char name[8] = "keldpxy";
    char* argv[2] = {name, nullptr};
    ProxyV9SVC svc{1, argv, &logger, true, false, 60, "ProxyV9SVC", false};
};

TEST_F(Idle, TouchFilesGiveTheirNumberOrTheDefault)
{
    const struct {
        const char* content;
        int threads, minutes;
    } cases[] = {{nullptr, 30, 0}, {"many\n", 30, 0}, {"\n", 30, 0}, {"0\n", 30, 0},
                 {"-1\n", 30, 0}, {"1\n", 1, 1},     {"500", 500, 500}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content == nullptr ? "no file" : c.content);
        if (c.content != nullptr) {   // the first case has no files yet
            root.writeFile("keldrive/logs/PROXY_SERVER_THREAD_NUMBER", c.content);
            root.writeFile("keldrive/logs/KELDPXY_TIMEOUT", c.content);
        }
        EXPECT_EQ(c.threads, svc.getThreadNumberFromTouchFile());
        EXPECT_EQ(c.minutes, svc.getTimeoutValueFromTouchFile());
    }
    EXPECT_TRUE(logHas("[ERROR][dummy][getThreadNumberFromTouchFile]thread_number in touch file is invalid, use default 30"));
}

// No work stops at the first idle tick; an active job holds the service for
// twenty ticks, and a request or a running copy gives them back.
TEST_F(Idle, ActiveJobKeepsTwentyTicksAndWorkRestoresThem)
{
    tick();
    EXPECT_TRUE(bTimeout);
    EXPECT_TRUE(logHas("there is no request, no active job running and no ongoging copy extent operation, stop proxy service"));
    bTimeout = false;

    nActiveJobCounter = 1;
    copy_extent_count = 1;
    tick(30);
    EXPECT_FALSE(bTimeout);
    copy_extent_count = 0;
    tick(15);
    bReceivedRequest = true;
    tick();
    EXPECT_FALSE(bReceivedRequest);
    EXPECT_EQ(0, alive_retry_attempt);
    for (int t = 0; t < 20; ++t) {
        tick();
        ASSERT_FALSE(bTimeout) << "stopped early at tick " << t;
    }
    EXPECT_TRUE(logHas("retry 19 of 20"));
    tick();
    EXPECT_TRUE(bTimeout);
}

} // namespace
