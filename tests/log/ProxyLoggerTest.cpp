#include "ProxyLogger.h"
#include "TestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>

namespace {

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Each case writes under its own prefix: the writer keeps its state across
// calls and reselects the file only when directory or prefix change.
class LogFiles : public ::testing::Test {
protected:
    keldtest::TempRoot root{true, false};
    std::string dir = root.logDir();

    std::string file(const std::string& prefix, int n) const
    {
        char name[64];
        std::snprintf(name, sizeof(name), "%s_%05d.log", prefix.c_str(), n);
        return dir + "/" + name;
    }
    void make(const std::string& prefix, int n, const std::string& content = "old\n") const
    {
        std::ofstream(file(prefix, n)) << content;
    }
};

TEST_F(LogFiles, FirstLineOfTheDayOpensNumberOne)
{
    log_msg(dir.c_str(), "110126", 1 << 20, "one\n");
    EXPECT_EQ("one\n", readFile(file("110126", 1)));
}

TEST_F(LogFiles, RestartContinuesInTheLastOfAnUnbrokenRun)
{
    make("110226", 1);
    make("110226", 2);
    make("110226", 3, "third\n");
    log_msg(dir.c_str(), "110226", 1 << 20, "next\n");
    EXPECT_EQ("third\nnext\n", readFile(file("110226", 3)));
}

TEST_F(LogFiles, RestartWithOnlyNumberOneOrAGapContinuesInOne)
{
    make("110326", 1);
    log_msg(dir.c_str(), "110326", 1 << 20, "a\n");
    EXPECT_EQ("old\na\n", readFile(file("110326", 1)));

    make("110426", 1);
    make("110426", 3);
    log_msg(dir.c_str(), "110426", 1 << 20, "b\n");
    EXPECT_EQ("old\nb\n", readFile(file("110426", 1)));
    EXPECT_EQ("old\n", readFile(file("110426", 3)));
}

TEST_F(LogFiles, RollsToTheNextNumberOnceTheLimitIsReached)
{
    // The size of an existing file counts from the restart on.
    make("110526", 1, std::string(90, 'x'));
    log_msg(dir.c_str(), "110526", 100, "0123456789\n");   // 90 < 100: still file 1
    log_msg(dir.c_str(), "110526", 100, "second\n");       // 101 >= 100: file 2
    EXPECT_EQ(std::string(90, 'x') + "0123456789\n", readFile(file("110526", 1)));
    EXPECT_EQ("second\n", readFile(file("110526", 2)));
}

class LogLines : public ::testing::Test {
protected:
    keldtest::TempRoot root{true, false};
    ProxyLogger log{1};
};

TEST_F(LogLines, LineLayout)
{
    sts_session_def_t sd = {};
    sd.sd_id = "sess-1";
    sd.sd_flags = 15;
    log.logMsg(&sd, "Who::what", STS_ESERROR, "value %d", 42);
    log.logMsg(nullptr, "main", STS_ESDEBUG, "no session");
    const std::string text = root.readLog();
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"(\d\d:\d\d:\d\d\.\d{3}\[\d+\.\d+\]\[ERROR\]\[sess-1\]\[Who::what\]value 42\n)")));
    EXPECT_NE(std::string::npos, text.find("[DEBUG][dummy][main]no session\n"));
}

TEST_F(LogLines, SessionFlagsFilterAndNullSessionAlwaysPasses)
{
    sts_session_def_t sd = {};
    sd.sd_id = "s";
    sd.sd_flags = 8;   // errors only
    log.logMsg(&sd, "w", STS_ESWARN, "dropped warning");
    log.logMsg(&sd, "w", STS_ESDEBUG, "dropped debug");
    log.logMsg(&sd, "w", STS_ESERROR, "kept error");
    log.logMsg(nullptr, "w", STS_ESDEBUG, "kept debug");
    const std::string text = root.readLog();
    EXPECT_EQ(std::string::npos, text.find("dropped"));
    EXPECT_NE(std::string::npos, text.find("kept error"));
    EXPECT_NE(std::string::npos, text.find("kept debug"));
}

TEST_F(LogLines, RemovingTheDirectorySilencesAndRecreatingResumes)
{
    log.logMsg(nullptr, "w", STS_ESINFO, "before");
    const std::string before = root.readLog();
    ASSERT_EQ(0, std::system(("mv '" + root.logDir() + "' '" + root.logDir() + ".off'").c_str()));
    log.logMsg(nullptr, "w", STS_ESINFO, "while off");
    ASSERT_EQ(0, std::system(("mv '" + root.logDir() + ".off' '" + root.logDir() + "'").c_str()));
    log.logMsg(nullptr, "w", STS_ESINFO, "after");
    const std::string text = root.readLog();
    EXPECT_EQ(std::string::npos, text.find("while off"));
    EXPECT_NE(std::string::npos, text.find("before"));
    EXPECT_NE(std::string::npos, text.find("after"));
}

TEST_F(LogLines, NoDirectoryNoFile)
{
    keldtest::TempRoot silent{false, false};
    log.logMsg(nullptr, "w", STS_ESERROR, "nowhere");
    EXPECT_FALSE(exists(silent.logDir()));
}

TEST_F(LogLines, OverlongTextIsCutWithoutNewline)
{
    log.logMsg(nullptr, "w", STS_ESINFO, "%s", std::string(3000, 'z').c_str());
    log.logMsg(nullptr, "w", STS_ESINFO, "tail");
    const std::string text = root.readLog();
    EXPECT_LT(text.find('z'), text.size());
    // The next line continues on the cut one.
    EXPECT_NE(std::string::npos, text.find("zzz" + std::string()));
    const size_t tail = text.find("[INFO][dummy][w]tail");
    ASSERT_NE(std::string::npos, tail);
    EXPECT_NE('\n', text[text.rfind('z', tail) + 1]);
}

TEST(DebugFlags, LevelsToBits)
{
    const struct { int level; sts_uint32_t bits; } table[] = {
        {0, 8}, {1, 8}, {2, 12}, {3, 14}, {4, 14}, {5, 15}, {6, 15}, {7, 8}, {-1, 8}};
    for (const auto& row : table) {
        sts_uint32_t flags = 0x200 | 0x5;   // high bits stay, low four are replaced
        sts_set_debug_flags(&flags, row.level);
        EXPECT_EQ(0x200u | row.bits, flags) << "level " << row.level;
    }
}

TEST(LogCallbacks, CorelibLinesCarryTheIdAndPassAnyFilter)
{
    keldtest::TempRoot root{true, false};
    ProxyLogger log{1};
    setCorelibLogger(&log);
    log_corelib("client-9", "100% done", STS_ESDEBUG);
    setPluginLogger(&log);
    logm_plugin(nullptr, "from plugin", STS_ESWARN);
    const std::string text = root.readLog();
    EXPECT_NE(std::string::npos, text.find("[DEBUG][client-9][log_corelib]100% done"));
    EXPECT_NE(std::string::npos, text.find("[WARN][dummy][logm_plugin]from plugin"));
    setCorelibLogger(nullptr);
    setPluginLogger(nullptr);
}

} // namespace
