#include "KeldvPaths.h"
#include "MasterConfig.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// Runs the reader on the test's root; its result, and its standard error in err.
int readConfig(std::string& err)
{
    ::testing::internal::CaptureStderr();
    const int rc = KD_read_master_config();
    err = ::testing::internal::GetCapturedStderr();
    return rc;
}

TEST(MasterConfig, ReadsVerboseAmongNoiseAndNamesTheLineOfABadOne)
{
    keldtest::TempRoot root(false, false);
    const std::string conf = root.path() + "/keldrive/keldrive.conf";
    std::string err;
    root.writeFile("keldrive/keldrive.conf", "# master configuration\n\n   \t\nOTHER_SETTING = something else\n"
                                             "no equals sign here\n#VERBOSE = 9\n  VERBOSE=  7   # chatty\r\nREMOTE_LOG_IDLE_SECONDS = 30\nCLOSE_RETRY_SECONDS = 5\n"
                                             "CLOSE_RETRY_SECONDS: 9\nLAST = 1");
    EXPECT_EQ(0, readConfig(err)) << err;
    EXPECT_EQ(7, get_master_config_ptr()->VERBOSE);
    EXPECT_EQ(30, get_master_config_ptr()->REMOTE_LOG_IDLE_SECONDS);
    EXPECT_EQ(5, get_master_config_ptr()->CLOSE_RETRY_SECONDS) << "a colon is no separator";
    EXPECT_EQ("", err);
    root.writeFile("keldrive/keldrive.conf", "VERBOSE = -2\n");
    EXPECT_EQ(0, readConfig(err));
    EXPECT_EQ(-2, get_master_config_ptr()->VERBOSE);
    ::unlink(conf.c_str());
    EXPECT_EQ(0, readConfig(err)) << "no file, the defaults";
    EXPECT_EQ(0, get_master_config_ptr()->VERBOSE);
    EXPECT_EQ(60, get_master_config_ptr()->CLOSE_RETRY_SECONDS);

    for (const char* bad : {"VERBOSE = high\n", "VERBOSE = 3x\n", "VERBOSE =\n", "VERBOSE = 99999999999\n",
                            "REMOTE_LOG_IDLE_SECONDS = 0\n", "REMOTE_LOG_IDLE_SECONDS = 31536001\n",
                            "CLOSE_RETRY_SECONDS = 0\n", "CLOSE_RETRY_SECONDS = 3601\n", "STOP_GRACE_SECONDS = -1\n"}) {
        root.writeFile("keldrive/keldrive.conf", std::string("# first\nOTHER = 1\n") + bad);
        EXPECT_NE(0, readConfig(err)) << bad;
        EXPECT_NE(std::string::npos, err.find(conf + ":3")) << err;
        EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    }
    ::unlink(conf.c_str());
    ASSERT_EQ(0, ::mkdir(conf.c_str(), 0755));   // unreadable, also by root
    EXPECT_NE(0, readConfig(err));
    EXPECT_NE(std::string::npos, err.find(conf)) << err;

    EXPECT_EQ(root.path() + "/lib", keldvPath("lib"));
    ::setenv("KELDV_ROOT", "", 1);
    EXPECT_EQ("/usr/keldv/keldrive/logs", keldvPath("keldrive/logs")) << "an empty root is the default one";
}

TEST(MasterConfig, TouchFileGivesItsFirstLineBoundedOrAnError)
{
    keldtest::TempRoot root(false, false);
    const std::string dir = root.path() + "/keldrive";
    auto read = [&](const char* name, char* buf, size_t size) {
        return read_AD_HOC_config_entry(dir.c_str(), name, 0, buf, size, 0, __FILE__, __LINE__);
    };
    root.writeFile("keldrive/ENTRY", "12345\r\nsecond line\n");
    char buf[16] = "untouched", small[4];
    ASSERT_EQ(0, read("ENTRY", buf, sizeof buf));
    EXPECT_STREQ("12345", buf);
    ASSERT_EQ(0, read("ENTRY", small, sizeof small));
    EXPECT_STREQ("123", small);
    EXPECT_NE(0, read("NOPE", buf, sizeof buf));
    EXPECT_NE(0, read("ENTRY", nullptr, 0));
}

} // namespace
