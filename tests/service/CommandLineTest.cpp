#include "CommandLine.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

// Owns a writable argv for one parse and keeps what is left of it.
struct Parsed {
    explicit Parsed(std::vector<std::string> words)
        : storage(std::move(words))
    {
        storage.insert(storage.begin(), "keldpxy");
        for (std::string& s : storage) argv.push_back(&s[0]);
        argv.push_back(nullptr);
        argc = static_cast<int>(storage.size());
        cl = parseCommandLine(argc, argv.data());
    }

    std::vector<std::string> remaining() const
    {
        return std::vector<std::string>(argv.begin(), argv.begin() + argc);
    }

    std::vector<std::string> storage;
    std::vector<char*> argv;
    int argc = 0;
    CommandLine cl;
};

TEST(CommandLine, NoArgumentStartsWithoutTimer)
{
    Parsed p({});
    EXPECT_TRUE(p.cl.isStart);
    EXPECT_FALSE(p.cl.bTimer);
    EXPECT_EQ(0, p.cl.interval);
    EXPECT_STREQ("ProxyV9SVC", p.cl.serviceName);
    EXPECT_FALSE(p.cl.consoleMode);
}

TEST(CommandLine, ExitTakesMinutes)
{
    Parsed p({"-start", "-exit", "30"});
    EXPECT_TRUE(p.cl.isStart);
    EXPECT_TRUE(p.cl.bTimer);
    EXPECT_EQ(1800, p.cl.interval);
}

TEST(CommandLine, ExitWithoutValueOrFollowedByOptionKeepsZero)
{
    Parsed alone({"-exit"});
    EXPECT_TRUE(alone.cl.bTimer);
    EXPECT_EQ(0, alone.cl.interval);
    EXPECT_FALSE(alone.cl.isStart);

    // "-start" is taken as the value of -exit and then stepped over.
    Parsed swallowed({"-exit", "-start"});
    EXPECT_TRUE(swallowed.cl.bTimer);
    EXPECT_EQ(0, swallowed.cl.interval);
    EXPECT_FALSE(swallowed.cl.isStart);
}

TEST(CommandLine, ModesAndFlagsSelectNothingOnTheirOwn)
{
    Parsed unknown({"foo"});
    EXPECT_FALSE(unknown.cl.isStart);
    EXPECT_FALSE(unknown.cl.isStop);
    EXPECT_FALSE(unknown.cl.bCleanup);

    Parsed install({"-installservice", "-removeservice"});
    EXPECT_TRUE(install.cl.install);
    EXPECT_TRUE(install.cl.remove);
    EXPECT_FALSE(install.cl.isStart);
}

TEST(CommandLine, StartAndStopBothSet)
{
    Parsed p({"-start", "-stop"});
    EXPECT_TRUE(p.cl.isStart);
    EXPECT_TRUE(p.cl.isStop);

    Parsed t({"-terminate"});
    EXPECT_TRUE(t.cl.isStop);
}

TEST(CommandLine, CleanupTakesTheName)
{
    Parsed p({"-stop", "-cleanup", "lsu_a"});
    EXPECT_TRUE(p.cl.isStop);
    EXPECT_TRUE(p.cl.bCleanup);
    EXPECT_STREQ("lsu_a", p.cl.lsuname);

    Parsed last({"-cleanup"});
    EXPECT_TRUE(last.cl.bCleanup);
    EXPECT_STREQ("", last.cl.lsuname);
}

TEST(CommandLine, OverlongNamesAreCut)
{
    Parsed p({"-cleanup", std::string(2000, 'x'), "-servicename", std::string(300, 'y')});
    EXPECT_EQ(1023u, std::string(p.cl.lsuname).size());
    EXPECT_EQ(127u, std::string(p.cl.serviceName).size());
    EXPECT_TRUE(p.cl.consoleMode);
}

TEST(CommandLine, CaseInsensitiveWholeWords)
{
    Parsed upper({"-STOP", "-Start"});
    EXPECT_TRUE(upper.cl.isStop);
    EXPECT_TRUE(upper.cl.isStart);

    Parsed longer({"-stopnow", "-started"});
    EXPECT_FALSE(longer.cl.isStop);
    EXPECT_FALSE(longer.cl.isStart);
}

TEST(CommandLine, OrbOptionsSurviveInOrder)
{
    Parsed p({"-start", "-ORBListenEndPoints", "iiop://127.0.0.1:10001", "-exit", "5",
              "-ORBtraceLevel", "1"});
    EXPECT_EQ(300, p.cl.interval);
    const std::vector<std::string> left = p.remaining();
    // Consumed option words leave; values and unknown words stay in order.
    const std::vector<std::string> expected = {"keldpxy", "-start", "-ORBListenEndPoints",
                                               "iiop://127.0.0.1:10001", "5",
                                               "-ORBtraceLevel", "1"};
    EXPECT_EQ(expected, left);
}

} // namespace
