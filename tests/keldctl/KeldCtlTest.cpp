// keldctl as an operator runs it: a backup and restore of a file (from a
// file and from a pipe, to a file and to a pipe), listings for scripts,
// failures that leave nothing behind and say why; directly on a temporary
// root, and through a service on that root.
#include "RemoteTestSupport.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <thread>

using namespace remotetest;
using namespace std::chrono_literals;
using nlohmann::json;

namespace {

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The checksum keldctl printed ("sha256 <hex>  ...").
std::string printedSum(const std::string& text)
{
    const size_t at = text.find("sha256 ");
    return at == std::string::npos ? "" : text.substr(at + 7, 64);
}

struct Outcome {
    int status;
    std::string out, err;
};

class KeldCtl : public ::testing::TestWithParam<Route> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, std::system(("mkdir -p " + work).c_str()));
        if (GetParam() == Route::ThroughService) {
            service.start();
            proxy = "--proxy " + service.hop() + " ";
        }
    }
    void TearDown() override
    {
        if (GetParam() == Route::ThroughService) {
            EXPECT_EQ(0, service.stop());
        }
    }

    // keldctl with these arguments (and the route's --proxy) through the
    // shell, so that redirections work; stdout and stderr are kept apart.
    Outcome keldctl(const std::string& args)
    {
        const std::string out = work + "/.out", err = work + "/.err";
        const int raw = std::system(("cd " + work + " && " KELDCTL_PATH " " + proxy + args + " >" + out + " 2>" + err).c_str());
        return Outcome{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
    }
    json keldctlJson(const std::string& args)
    {
        const Outcome r = keldctl("--json " + args);
        EXPECT_EQ(0, r.status) << r.err;
        return json::parse(r.out);   // throws, and fails the test, when it does not parse
    }
    bool leftovers()
    {
        const std::filesystem::directory_iterator all(work), end;
        return std::any_of(all, end,
                           [](const auto& e) { return e.path().filename().string().find(".keldctl-") != std::string::npos; });
    }

    Service service;   // its root is the tests' root
    std::string work = service.root().path() + "/work";
    std::string proxy;
    std::string server = diskServer();
};

TEST_P(KeldCtl, BacksUpAndRestoresFilesAndPipesByteForByte)
{
    // 5 MiB and a bit, in 1 MiB transfers: the last one is short.
    std::string data(5 * 1024 * 1024 + 4097, '\0');
    std::mt19937 gen(7);
    for (char& c : data) c = static_cast<char>(gen());
    std::ofstream(work + "/src.bin", std::ios::binary) << data;
    std::string sum;
    ASSERT_EQ(0, runTool("sha256sum " + work + "/src.bin", &sum));
    sum.resize(64);

    Outcome r = keldctl("--transfer-size 1M put src.bin " + server + " lsu0");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum, printedSum(r.out)) << r.out;
    EXPECT_EQ("", r.err);   // no progress bar off a terminal
    r = keldctl("put - " + server + " lsu0 piped < src.bin");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum, printedSum(r.out));
    const json images = keldctlJson("images " + server + " lsu0");
    ASSERT_EQ(2u, images.size()) << images.dump();
    for (const json& image : images) {
        EXPECT_EQ(data.size(), image["size"].get<size_t>());
        EXPECT_EQ("complete", image["status"]);
    }

    r = keldctl("get " + server + " lsu0 src.bin restored.bin");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum, printedSum(r.out));
    EXPECT_TRUE(slurp(work + "/restored.bin") == data);
    r = keldctl("get " + server + " lsu0 piped -");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum, printedSum(r.err));   // standard output carries the data
    EXPECT_TRUE(r.out == data);

    EXPECT_EQ("piped", keldctlJson("info " + server + " lsu0 piped")["base"]);
    EXPECT_EQ(0, keldctl("rm " + server + " lsu0 piped").status);
    EXPECT_EQ(1, keldctlJson("lsus " + server)[0]["images"].get<int>());
    EXPECT_EQ(server, keldctlJson("servers")[0]["server"]);
    EXPECT_EQ(std::vector<std::string>{"lsu0"}, keldctlJson("info " + server)["lsus"].get<std::vector<std::string>>());

    // The service's own log, followed while another command runs there;
    // without a proxy there is no service to follow.
    if (proxy.empty()) {
        EXPECT_EQ(1, keldctl("log " + server).status);
        return;
    }
    FILE* follower = popen((KELDCTL_PATH " " + proxy + "log " + server + " --for 3").c_str(), "r");
    std::this_thread::sleep_for(1s);   // its mailbox opens at its first poll
    EXPECT_EQ(0, keldctl("info " + server).status);
    std::string followed;
    char chunk[4096];
    while (size_t n = std::fread(chunk, 1, sizeof(chunk), follower)) followed.append(chunk, n);
    EXPECT_EQ(0, pclose(follower));
    EXPECT_NE(std::string::npos, followed.find("StorageServerManagerImpl::openServer")) << followed;
}

TEST_P(KeldCtl, FailuresSayWhyInOneLineAndLeaveNothingBehind)
{
    std::ofstream(work + "/target.bin") << "the old content";
    const std::pair<std::string, std::string> cases[] = {
        {"get " + server + " lsu0 missing target.bin", "2060013"},
        {"get Disk:nobody-here lsu0 x target.bin", "2062001"},
        {"images " + server + " nolsu", "2062001"},
        {"put target.bin " + server + " lsu0 ../escape", "2062006"},
    };
    for (const auto& c : cases) {
        const Outcome r = keldctl(c.first);
        EXPECT_EQ(1, r.status) << c.first;
        EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << c.first << ": " << r.err;
        EXPECT_EQ(0u, r.err.find("keldctl: ")) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(" failed: " + c.second + " ")) << r.err;
    }
    EXPECT_EQ(2, keldctl("get " + server).status);   // a command line that cannot be used
    EXPECT_EQ(1, keldctl("put - " + server + " lsu0").status);   // a pipe needs an image name
    EXPECT_EQ(0u, keldctlJson("images " + server + " lsu0").size());   // the refused put left nothing

    // A restore stopped half-way leaves the target as it was and no
    // temporary file.
    ASSERT_EQ(0, std::system(("head -c 67108864 /dev/zero > " + work + "/big.bin").c_str()));
    ASSERT_EQ(0, keldctl("put big.bin " + server + " lsu0").status);
    std::vector<std::string> args{"--transfer-size", "4096", "get", server, "lsu0", "big.bin", work + "/target.bin"};
    if (!proxy.empty()) args.insert(args.begin(), {"--proxy", service.hop()});
    keldtest::Child get(KELDCTL_PATH, args, {}, work + "/.get-err");
    keldtest::waitFor([&] { return leftovers(); }, 20s);
    get.signal(SIGTERM);
    EXPECT_EQ(1, get.wait(20s));
    EXPECT_NE(std::string::npos, slurp(work + "/.get-err").find("interrupted"));
    EXPECT_EQ("the old content", slurp(work + "/target.bin"));
    EXPECT_FALSE(leftovers());
}

INSTANTIATE_TEST_SUITE_P(Direct, KeldCtl, ::testing::Values(Route::Direct));
INSTANTIATE_TEST_SUITE_P(ThroughService, KeldCtl, ::testing::Values(Route::ThroughService));

} // namespace
