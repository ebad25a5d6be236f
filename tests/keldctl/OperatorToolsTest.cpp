// The small operator tools read their command lines alike: --help prints
// the usage and succeeds, and a line that cannot be used says why on
// standard error and exits 2, touching nothing.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/wait.h>

namespace {

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
                      Tool{KELDV_SHMEM_TOOL, "hold", "hold", "NAME"}));

} // namespace
