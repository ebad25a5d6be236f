// The service's log: files numbered per day that a restart continues and
// that roll at their limit, the layout of a line, the session's filter, and
// a directory that may come and go.
#include "ProxyLogger.h"
#include "TestSupport.h"

#include <ace/OS_NS_Thread.h>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string readFile(const std::string& path)
{
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// Each case writes under its own prefix: the writer keeps its state across
// calls and reselects the file only when directory or prefix change.
TEST(LogFiles, NumberOneStartsADayARestartContinuesAnUnbrokenRunNarrowedAndFilesRollAtTheLimit)
{
    keldtest::TempRoot root{true, false};
    const std::string dir = root.logDir();
    const auto file = [&](const std::string& prefix, int n) {
        char name[64];
        std::snprintf(name, sizeof(name), "%s_%05d.log", prefix.c_str(), n);
        return dir + "/" + name;
    };
    const auto make = [&](const std::string& prefix, int n, const std::string& content = "old\n") {
        std::ofstream(file(prefix, n)) << content;
    };
    log_msg(dir.c_str(), "110126", 1 << 20, "one\n");
    EXPECT_EQ("one\n", readFile(file("110126", 1)));

    make("110226", 1);
    make("110226", 2);
    make("110226", 3, "third\n");
    ASSERT_EQ(0, ::chmod(file("110226", 3).c_str(), 0666));   // as an older version left it
    log_msg(dir.c_str(), "110226", 1 << 20, "next\n");
    EXPECT_EQ("third\nnext\n", readFile(file("110226", 3)));
    struct stat st;
    ASSERT_EQ(0, ::stat(file("110226", 3).c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777) << "narrowed: the owner's and the group's only";

    // A gap breaks the run: writing goes on in number one.
    make("110426", 1);
    make("110426", 3);
    log_msg(dir.c_str(), "110426", 1 << 20, "b\n");
    EXPECT_EQ("old\nb\n", readFile(file("110426", 1)));
    EXPECT_EQ("old\n", readFile(file("110426", 3)));

    // The size of an existing file counts from the restart on.
    make("110526", 1, std::string(90, 'x'));
    log_msg(dir.c_str(), "110526", 100, "0123456789\n");   // 90 < 100: still file 1
    log_msg(dir.c_str(), "110526", 100, "second\n");       // 101 >= 100: file 2
    EXPECT_EQ(std::string(90, 'x') + "0123456789\n", readFile(file("110526", 1)));
    EXPECT_EQ("second\n", readFile(file("110526", 2)));
}

TEST(LogLines, LayoutSessionFilterOverlongTextCallbacksAndADirectoryThatComesAndGoes)
{
    keldtest::TempRoot root{true, false};
    ProxyLogger log{1};
    sts_session_def_t sd = {};
    sd.sd_id = "sess-1";
    sd.sd_flags = 8;   // errors only
    log.logMsg(&sd, "Who::what", STS_ESERROR, "value %d", 42);
    log.logMsg(&sd, "w", STS_ESWARN, "dropped warning");
    log.logMsg(nullptr, "main", STS_ESDEBUG, "no session");
    log.logMsg(nullptr, "w", STS_ESINFO, "%s", std::string(3000, 'z').c_str());
    log.logMsg(nullptr, "w", STS_ESINFO, "tail");
    setCorelibLogger(&log);
    log_corelib("client-9", "100% done", STS_ESDEBUG);
    setPluginLogger(&log);
    logm_plugin(nullptr, "from plugin", STS_ESWARN);
    setCorelibLogger(nullptr);
    setPluginLogger(nullptr);

    const std::string text = root.readLog();
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"(\d\d:\d\d:\d\d\.\d{3}\[\d+\.\d+\]\[ERROR\]\[sess-1\]\[Who::what\]value 42\n)")));
    EXPECT_EQ(std::string::npos, text.find("dropped"));
    EXPECT_NE(std::string::npos, text.find("[DEBUG][dummy][main]no session\n")) << "no session: no filter";
    // An overlong text is cut without its newline: the next line continues on it.
    const size_t tail = text.find("[INFO][dummy][w]tail");
    ASSERT_NE(std::string::npos, tail);
    EXPECT_NE('\n', text[text.rfind('z', tail) + 1]);
    EXPECT_NE(std::string::npos, text.find("[DEBUG][client-9][log_corelib]100% done"));
    EXPECT_NE(std::string::npos, text.find("[WARN][dummy][logm_plugin]from plugin"));

    // Removing the directory silences the log, recreating it resumes it.
    log.logMsg(nullptr, "w", STS_ESINFO, "before");
    ASSERT_EQ(0, std::system(("mv '" + root.logDir() + "' '" + root.logDir() + ".off'").c_str()));
    log.logMsg(nullptr, "w", STS_ESINFO, "while off");
    ASSERT_EQ(0, std::system(("mv '" + root.logDir() + ".off' '" + root.logDir() + "'").c_str()));
    log.logMsg(nullptr, "w", STS_ESINFO, "after");
    const std::string later = root.readLog();
    EXPECT_EQ(std::string::npos, later.find("while off"));
    EXPECT_NE(std::string::npos, later.find("before"));
    EXPECT_NE(std::string::npos, later.find("after"));

    keldtest::TempRoot silent{false, false};
    log.logMsg(nullptr, "w", STS_ESERROR, "nowhere");
    struct stat st;
    EXPECT_NE(0, ::stat(silent.logDir().c_str(), &st)) << "no directory, no file";
}

// The line the layout "%s[%ld.%u]%s[%s][%s]" + text gives in a buffer of
// 1024, with the stamp the written line carries: the prefix and the text
// are each cut by snprintf, and the newline is added only while the line
// stays short of the room left after taking the prefix off twice.
std::string printfLine(const std::string& stamp, long pid, const char* sev, const std::string& session,
                       const std::string& who, const std::string& text)
{
    char line[1024] = {0};
    std::snprintf(line, 1023, "%s[%ld.%u]%s[%s][%s]", stamp.c_str(), pid, static_cast<unsigned>(ACE_OS::thr_self()),
                  sev, session.c_str(), who.c_str());
    const size_t where = std::strlen(line);
    std::snprintf(line + where, 1023 - where, "%s", text.c_str());
    const size_t room = 1023 - where > where ? 1023 - 2 * where : 0;
    std::string out = line;
    if (!out.empty() && out.back() != '\n' && out.size() + 1 < room) out += '\n';
    return out;
}

std::string localText(time_t t, const char* format)
{
    struct tm local;
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof(text), format, &local);
    return text;
}

// Lines are read back one write at a time: each case logs into a fresh root,
// so the file holds exactly what was written.
TEST(LogLines, EachLineIsTheFormattedLayoutToTheByteInTheFileOfTodayAndAForkedChildWritesItsOwnNumber)
{
    keldtest::TempRoot root{true, false};
    ProxyLogger log{1};
    sts_session_def_t sd = {};
    const std::string session(40, 's');
    sd.sd_id = session.c_str();
    sd.sd_flags = 15;
    const std::string longSession(700, 'S'), longWho(700, 'W');
    struct Case {
        std::string session, who, text;
    };
    const std::vector<Case> cases = {
        {session, "ImageImpl::writeImage", "sts_write_image succeeds, length of buffer is 65536"},
        {session, "w", std::string(600, 'x')},   // newline: short of the room
        {session, "w", std::string(950, 'y')},   // text cut, no newline
        {longSession, longWho, "lost"},          // the prefix alone fills the line
    };
    const time_t before = time(nullptr);
    std::string expected;
    for (const Case& c : cases) {
        sts_session_def_t lineSd = sd;
        lineSd.sd_id = c.session.c_str();
        log.logMsg(&lineSd, c.who.c_str(), STS_ESDEBUG, "%s", c.text.c_str());
    }
    const time_t after = time(nullptr);
    const std::string written = root.readLog();

    // Every line starts with its own stamp; the stamps are of this run.
    size_t at = 0;
    for (const Case& c : cases) {
        ASSERT_LT(at + 12, written.size());
        const std::string stamp = written.substr(at, 12);
        const std::string clock = stamp.substr(0, 8);
        EXPECT_TRUE(clock == localText(before, "%H:%M:%S") || clock == localText(after, "%H:%M:%S")) << stamp;
        EXPECT_TRUE(std::regex_match(stamp.substr(8), std::regex(R"(\.\d{3})"))) << stamp;
        const std::string line = printfLine(stamp, static_cast<long>(getpid()), "[DEBUG]", c.session, c.who, c.text);
        EXPECT_EQ(line, written.substr(at, line.size()));
        at += line.size();
    }
    EXPECT_EQ(written.size(), at);

    // The file is named by the local date, MMDDYY.
    const std::string name = localText(after, "%m%d%y") + "_00001.log";
    struct stat st;
    EXPECT_EQ(0, ::stat((root.logDir() + "/" + name).c_str(), &st)) << name;

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        log.logMsg(nullptr, "child", STS_ESINFO, "from the child");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    log.logMsg(nullptr, "parent", STS_ESINFO, "from the parent");
    log.logMsg(nullptr, nullptr, STS_ESINFO, "no origin");
    const std::string both = root.readLog();
    EXPECT_NE(std::string::npos, both.find("[INFO][dummy][(null)]no origin\n")) << "a null origin as printf shows it";
    EXPECT_NE(std::string::npos, both.find("[" + std::to_string(child) + "."))
        << "the child's line carries the child's number";
    EXPECT_TRUE(std::regex_search(both, std::regex(R"(\[)" + std::to_string(getpid()) + R"(\.\d+\]\[INFO\]\[dummy\]\[parent\]from the parent\n)")));
}

} // namespace
