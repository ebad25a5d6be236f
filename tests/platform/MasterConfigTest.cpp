#include "KeldvPaths.h"
#include "MasterConfig.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A temporary install root, set as KELDV_ROOT for the length of a test.
class TempRoot : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/platform_root_XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(tmpl));
        m_root = tmpl;
        ::mkdir((m_root + "/keldrive").c_str(), 0755);
        ::setenv("KELDV_ROOT", m_root.c_str(), 1);
    }
    void TearDown() override
    {
        ::unsetenv("KELDV_ROOT");
        std::string cmd = "rm -rf '" + m_root + "'";
        EXPECT_EQ(0, std::system(cmd.c_str()));
    }
    std::string confPath() const { return m_root + "/keldrive/keldrive.conf"; }
    void writeConf(const std::string& text) const { std::ofstream(confPath()) << text; }

    // Runs the reader and returns what it wrote to stderr.
    int readConfig(std::string& stderrText) const
    {
        ::testing::internal::CaptureStderr();
        int rc = KD_read_master_config();
        stderrText = ::testing::internal::GetCapturedStderr();
        return rc;
    }

    std::string m_root;
};

TEST_F(TempRoot, RootComesFromEnvironmentUnlessEmpty)
{
    EXPECT_EQ(m_root, keldvRoot());
    EXPECT_EQ(m_root + "/lib", keldvPath("lib"));
    ::setenv("KELDV_ROOT", "", 1);
    EXPECT_EQ("/usr/keldv", keldvRoot());
    EXPECT_EQ("/usr/keldv/keldrive/logs", keldvPath("keldrive/logs"));
    ::unsetenv("KELDV_ROOT");
    EXPECT_EQ("/usr/keldv", keldvRoot());
}

TEST_F(TempRoot, MissingFileGivesDefaults)
{
    writeConf("VERBOSE = 4\n");
    std::string err;
    ASSERT_EQ(0, readConfig(err));
    ASSERT_EQ(4, get_master_config_ptr()->VERBOSE);
    ::unlink(confPath().c_str());
    EXPECT_EQ(0, readConfig(err));
    EXPECT_EQ(0, get_master_config_ptr()->VERBOSE);
    EXPECT_EQ("", err);
}

TEST_F(TempRoot, CommentsBlanksAndUnknownNamesAreIgnored)
{
    writeConf("# master configuration\n"
              "\n"
              "   \t\n"
              "OTHER_SETTING = something else\n"
              "no equals sign here\n"
              "#VERBOSE = 9\n"
              "  VERBOSE=  7   # chatty\r\n"
              "LAST = 1");
    std::string err;
    EXPECT_EQ(0, readConfig(err)) << err;
    EXPECT_EQ(7, get_master_config_ptr()->VERBOSE);
    EXPECT_EQ("", err);
}

TEST_F(TempRoot, NegativeVerboseIsAnInteger)
{
    writeConf("VERBOSE = -2\n");
    std::string err;
    EXPECT_EQ(0, readConfig(err));
    EXPECT_EQ(-2, get_master_config_ptr()->VERBOSE);
}

TEST_F(TempRoot, BadVerboseFailsNamingFileAndLine)
{
    for (const char* bad : {"VERBOSE = high\n", "VERBOSE = 3x\n", "VERBOSE =\n",
                            "VERBOSE = 99999999999\n"}) {
        writeConf(std::string("# first\nOTHER = 1\n") + bad);
        std::string err;
        EXPECT_NE(0, readConfig(err)) << bad;
        EXPECT_NE(std::string::npos, err.find(confPath() + ":3")) << err;
        EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    }
}

TEST_F(TempRoot, UnreadableFileFails)
{
    // A directory in place of the file cannot be read, also by root.
    ASSERT_EQ(0, ::mkdir(confPath().c_str(), 0755));
    std::string err;
    EXPECT_NE(0, readConfig(err));
    EXPECT_NE(std::string::npos, err.find(confPath())) << err;
}

TEST_F(TempRoot, TouchFileFirstLineIsBoundedAndWithoutNewline)
{
    std::string dir = m_root + "/keldrive";
    std::ofstream(dir + "/ENTRY") << "12345\r\nsecond line\n";
    char buf[16];
    ASSERT_EQ(0, read_AD_HOC_config_entry(dir.c_str(), "ENTRY", 0, buf, sizeof buf, 0, __FILE__,
                                          __LINE__));
    EXPECT_STREQ("12345", buf);

    char small[4];
    ASSERT_EQ(0, read_AD_HOC_config_entry(dir.c_str(), "ENTRY", 0, small, sizeof small, 0,
                                          __FILE__, __LINE__));
    EXPECT_STREQ("123", small);

    std::ofstream(dir + "/EMPTY");
    ASSERT_EQ(0, read_AD_HOC_config_entry(dir.c_str(), "EMPTY", 0, buf, sizeof buf, 0, __FILE__,
                                          __LINE__));
    EXPECT_STREQ("", buf);
}

TEST_F(TempRoot, TouchFileMissingOrUnreadableIsReported)
{
    std::string dir = m_root + "/keldrive";
    char buf[16] = "untouched";
    EXPECT_NE(0, read_AD_HOC_config_entry(dir.c_str(), "NOPE", 0, buf, sizeof buf, 0, __FILE__,
                                          __LINE__));
    ASSERT_EQ(0, ::mkdir((dir + "/ADIR").c_str(), 0755));
    EXPECT_NE(0, read_AD_HOC_config_entry(dir.c_str(), "ADIR", 0, buf, sizeof buf, 0, __FILE__,
                                          __LINE__));
    EXPECT_NE(0, read_AD_HOC_config_entry(dir.c_str(), "NOPE", 0, nullptr, 0, 0, __FILE__,
                                          __LINE__));
}

} // namespace
