// The small operator tools read their command lines alike: --help prints
// the usage and succeeds, and a line that cannot be used says why on
// standard error and exits 2, touching nothing.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The exit status of a shell command line; what it prints is dropped.
int exitStatus(const std::string& command)
{
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Tool {
    const char* path;
    const char* subcommand;       // one the usage lists
    const char* missingArgument;  // a command line short of one argument...
    const char* argumentName;     // ...and the name the error gives it
};

std::ostream& operator<<(std::ostream& out, const Tool& tool)
{
    return out << tool.path;
}

class OperatorTool : public ::testing::TestWithParam<Tool> {
protected:
    keldtest::TempRoot root{false, false};
    std::string out, err;

    // The tool's exit status; its standard output and error in out and err.
    int run(const std::string& args)
    {
        const std::string outPath = root.path() + "/tool.out", errPath = root.path() + "/tool.err";
        const int status =
            std::system((std::string(GetParam().path) + " " + args + " >" + outPath + " 2>" + errPath).c_str());
        out = fileText(outPath);
        err = fileText(errPath);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    static std::string fileText(const std::string& path)
    {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
};

TEST_P(OperatorTool, HelpSucceedsAndMisuseExitsTwoWithTheReason)
{
    const Tool& tool = GetParam();
    EXPECT_EQ(0, run("--help"));
    EXPECT_NE(std::string::npos, out.find("Usage:")) << out;
    EXPECT_NE(std::string::npos, out.find(tool.subcommand)) << out;
    EXPECT_EQ("", err);

    EXPECT_EQ(2, run(""));
    EXPECT_NE(std::string::npos, err.find("subcommand")) << err;
    EXPECT_NE(std::string::npos, err.find("--help")) << "the error points at the usage: " << err;
    EXPECT_EQ(2, run("frobnicate"));
    EXPECT_NE(std::string::npos, err.find("frobnicate")) << err;
    EXPECT_EQ(2, run(tool.missingArgument));
    EXPECT_NE(std::string::npos, err.find(tool.argumentName)) << err;
    EXPECT_EQ(2, run(std::string(tool.missingArgument) + " --no-such-option"));
    EXPECT_EQ("", out) << "nothing was done";
}

INSTANTIATE_TEST_SUITE_P(
    EveryTool, OperatorTool,
    ::testing::Values(Tool{KELDV_CLIENTS_PATH, "remove", "add", "HOST"},
                      Tool{KELD_DISK_CONFIG_TOOL, "set", "set Disk:somewhere", "FILE"},
                      Tool{KELD_DISK_SNAPSHOT_TOOL, "delete", "create lsu0", "NAME"},
                      Tool{KELDV_SHMEM_TOOL, "hold", "hold", "NAME"},
                      Tool{KELD_RADOS_TOOL, "snapshot", "lsu create Rados:somewhere", "LSU"}));

// A negative size is a misuse, refused before anything is made (it would
// otherwise leave an empty shared-memory LSU behind, or wrap to the largest
// RADOS quota).
TEST(OperatorToolSizes, ANegativeSizeIsRefusedAndMakesNothing)
{
    const std::string shmem = KELDV_SHMEM_TOOL, name = "t" + std::to_string(getpid()) + "_sized";
    EXPECT_EQ(2, exitStatus(shmem + " create " + name + " -1"));
    struct stat st;
    if (::stat(("/dev/shm/keldv_shmem_lsu." + name).c_str(), &st) == 0) {
        ADD_FAILURE() << "a refused size made an LSU";
        exitStatus(shmem + " remove " + name);
    }

    // Refused by the command line, naming the option: the server's
    // configuration is never read.
    const std::string rados = std::string(KELD_RADOS_TOOL) + " lsu create Rados:somewhere lsu0 --quota -1";
    EXPECT_EQ(2, exitStatus(rados));
    EXPECT_EQ(0, exitStatus(rados + " 2>&1 | grep -q -- --quota"));
}

} // namespace
