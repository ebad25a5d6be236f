// keldctl as an operator runs it: a backup and restore of a file (from a
// file and from a pipe, to a file and to a pipe), listings for scripts,
// failures that leave nothing behind and say why, puts cut short that never
// restore as whole backups; directly on a temporary root, and through a
// service on that root.  Then writes the service takes in part, and hops
// that cannot be reached, each named by its address and the cause.
#include "DiskStore.h"
#include "RemoteTestSupport.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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

// The checksum of the line keldctl printed first ("<hex>  FILE", as sha256sum).
std::string printedSum(const std::string& text)
{
    const size_t gap = text.find("  ");
    return gap == 64 ? text.substr(0, 64) : "";
}

struct Outcome {
    int status;
    std::string out, err;
};

// keldctl with these arguments, run in dir through the shell so that
// redirections work (env: NAME=VALUE settings for it); stdout and stderr
// are kept apart.
Outcome runKeldctl(const std::string& dir, const std::string& args, const std::string& env = "")
{
    const std::string out = dir + "/.out", err = dir + "/.err";
    const int raw = std::system(("cd " + dir + " && " + env + " " KELDCTL_PATH " " + args + " >" + out + " 2>" + err).c_str());
    return Outcome{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
}

std::string randomBytes(size_t n, unsigned seed)
{
    std::string data(n, '\0');
    std::mt19937 gen(seed);
    for (char& c : data) c = static_cast<char>(gen());
    return data;
}

// A pipe that is a child's standard input, held open here until end(), as
// a program feeding keldctl would hold it.
class Feed {
public:
    Feed()
    {
        if (pipe2(m_fds, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        fcntl(m_fds[1], F_SETFL, O_NONBLOCK);
    }
    ~Feed()
    {
        close(m_fds[0]);
        end();
    }
    int readEnd() const { return m_fds[0]; }
    // False when the reader took too little of it in time.
    bool send(const std::string& data)
    {
        size_t sent = 0;
        keldtest::waitFor([&] {
            const ssize_t n = write(m_fds[1], data.data() + sent, data.size() - sent);
            if (n > 0) sent += static_cast<size_t>(n);
            return sent == data.size();
        }, 20s);
        return sent == data.size();
    }
    void end()
    {
        if (m_fds[1] >= 0) close(m_fds[1]);
        m_fds[1] = -1;
    }

private:
    int m_fds[2];
};

// keldctl put - into IMAGE, reading from the feed, its stderr in errPath.
std::unique_ptr<keldtest::Child> startPut(const std::string& proxy, const std::string& image, const Feed& feed,
                                          const std::string& errPath)
{
    std::vector<std::string> args{"put", "-", diskServer(), "lsu0", image};
    if (!proxy.empty()) args.insert(args.begin(), {"--proxy", proxy});
    return std::make_unique<keldtest::Child>(KELDCTL_PATH, args, std::vector<std::string>{}, errPath, feed.readEnd());
}

// Bytes of the image's data file on the disk server of root, -1 when none.
long long storedBytes(const std::string& root, const std::string& image)
{
    struct stat st;
    const std::string path = root + "/keldrive/storage/" + hostName() + "/lsus/lsu0/images/" + image + ".img";
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// Feeds one transfer (1 MiB) and waits until it is stored: the put then
// waits on its input for the next one, with nothing of it read yet.
bool midway(Feed& feed, const std::string& root, const std::string& image)
{
    return feed.send(randomBytes(1 << 20, 3)) &&
           keldtest::waitFor([&] { return storedBytes(root, image) >= (1 << 20); }, 20s);
}

// The state each image of the listing is in, by name.
std::map<std::string, std::string> states(const json& images)
{
    std::map<std::string, std::string> out;
    for (const json& image : images) out[image["image"]] = image["state"];
    return out;
}

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
        if (service.running()) {
            EXPECT_EQ(0, service.stop());
        }
    }

    // keldctl with these arguments and the route's --proxy.
    Outcome keldctl(const std::string& args) { return runKeldctl(work, proxy + args); }
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
    const std::string data = randomBytes(5 * 1024 * 1024 + 4097, 7);
    std::ofstream(work + "/src.bin", std::ios::binary) << data;
    std::string sum;
    ASSERT_EQ(0, runTool("sha256sum " + work + "/src.bin", &sum));
    sum.resize(64);

    Outcome r = keldctl("--transfer-size 1M put src.bin " + server + " lsu0");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum + "  src.bin\n", r.out);
    // The rest on standard error, and no progress bar off a terminal.
    EXPECT_EQ(0u, r.err.find("keldctl: " + std::to_string(data.size()) + " bytes  " + server + "/lsu0/src.bin@")) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find('\r')) << r.err;
    r = keldctl("put - " + server + " lsu0 piped < src.bin");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum, printedSum(r.out));
    const json images = keldctlJson("images " + server + " lsu0");
    ASSERT_EQ(2u, images.size()) << images.dump();
    for (const json& image : images) {
        EXPECT_EQ(data.size(), image["size"].get<size_t>());
        EXPECT_EQ("complete", image["state"]);
    }

    r = keldctl("get " + server + " lsu0 src.bin restored.bin");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum, printedSum(r.out));
    EXPECT_TRUE(slurp(work + "/restored.bin") == data);
    r = keldctl("get " + server + " lsu0 piped -");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(0u, r.err.find(sum + "  -\n")) << r.err;   // standard output carries the data
    EXPECT_TRUE(r.out == data);

    EXPECT_EQ("piped", keldctlJson("info " + server + " lsu0 piped")["base"]);
    EXPECT_EQ(0, keldctl("rm " + server + " lsu0 piped").status);
    EXPECT_EQ(1, keldctlJson("lsus " + server)[0]["images"].get<int>());
    // Every server the plug-ins serve in the root, a second disk server
    // among them, each asked at the far end through a proxy.
    std::filesystem::create_directories(service.root().path() + "/keldrive/storage/second");
    service.root().writeFile("keldrive/storage/second/server.conf", "# server Disk:second\n");
    std::vector<std::string> listed;
    for (const json& each : keldctlJson("servers")) listed.push_back(each["server"]);
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ((std::vector<std::string>{"Disk:second", server, "ShMem:" + hostName()}), listed);
    EXPECT_EQ(std::vector<std::string>{"lsu0"}, keldctlJson("info " + server)["lsus"].get<std::vector<std::string>>());

    // The service's own log, followed while another command runs there;
    // without a proxy there is no service to follow.
    if (proxy.empty()) {
        EXPECT_EQ(2, keldctl("log " + server).status);
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
    // The numbers of the service, and the disk plug-in's with its own words;
    // what does not exist exits 3.
    struct Case {
        std::string args, said;
        int status;
    };
    const Case cases[] = {
        {"get " + server + " lsu0 missing target.bin", std::to_string(STS_ENO_MORE) + " not found (or end of list)", 3},
        {"get Disk:nobody-here lsu0 x target.bin", std::to_string(DISK_ENOENT) + " no such server, LSU, image or snapshot", 3},
        {"images " + server + " nolsu", std::to_string(DISK_ENOENT) + " no such server, LSU, image or snapshot", 3},
        {"put target.bin " + server + " lsu0 ../escape", std::to_string(DISK_EINVAL) + " bad argument (name, offset or mode)", 1},
    };
    for (const Case& c : cases) {
        const Outcome r = keldctl(c.args);
        EXPECT_EQ(c.status, r.status) << c.args;
        EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << c.args << ": " << r.err;
        EXPECT_EQ(0u, r.err.find("keldctl: ")) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(" failed: " + c.said)) << r.err;
        // The same as one JSON object for scripts.
        const json error = json::parse(keldctl("--json " + c.args).err);
        EXPECT_EQ(c.status, error["status"]) << error.dump();
        EXPECT_EQ(c.status == 3 ? "not found" : "failed", error["kind"]);
        EXPECT_NE(std::string::npos, error["error"].get<std::string>().find(" failed: " + c.said)) << error.dump();
        EXPECT_EQ(c.said, std::to_string(error["number"].get<int>()) + " " + error["meaning"].get<std::string>());
    }
    EXPECT_EQ(2, keldctl("get " + server).status);   // a command line that cannot be used
    EXPECT_EQ(2, keldctl("put - " + server + " lsu0").status);   // a pipe needs an image name
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
    EXPECT_EQ(128 + SIGTERM, get.wait(20s));
    EXPECT_NE(std::string::npos, slurp(work + "/.get-err").find("interrupted"));
    EXPECT_EQ("the old content", slurp(work + "/target.bin"));
    EXPECT_FALSE(leftovers());
}

// A killed put leaves an incomplete image, newer than the last whole one:
// get by base name restores the whole one, the incomplete one only when
// named and asked for, and rm --incomplete clears it.  Ctrl-C while a put
// waits on its pipe (the program feeding it stops too) removes its image.
TEST_P(KeldCtl, APutCutShortNeverRestoresAsAWholeBackup)
{
    const std::string whole = "base@20260101@20260101T000000", killed = "base@20260102@20260102T000000",
                      stopped = "base@20260103@20260103T000000";
    std::ofstream(work + "/whole.bin", std::ios::binary) << randomBytes(3 << 20, 11);
    std::string sum;
    ASSERT_EQ(0, runTool("sha256sum " + work + "/whole.bin", &sum));
    ASSERT_EQ(0, keldctl("put whole.bin " + server + " lsu0 " + whole).status);

    const std::string hop = proxy.empty() ? "" : service.hop();
    {
        Feed feed;
        auto put = startPut(hop, killed, feed, work + "/.killed-err");
        ASSERT_TRUE(midway(feed, service.root().path(), killed));
        put->signal(SIGKILL);
        EXPECT_EQ(-2, put->wait(20s));
    }
    EXPECT_EQ((std::map<std::string, std::string>{{whole, "complete"}, {killed, "incomplete"}}),
              states(keldctlJson("images " + server + " lsu0")));

    Outcome r = keldctl("get " + server + " lsu0 base restored.bin");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(sum.substr(0, 64), printedSum(r.out));
    r = keldctl("get " + server + " lsu0 " + killed + " fragment.bin");
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("is incomplete")) << r.err;
    EXPECT_NE(0, access((work + "/fragment.bin").c_str(), F_OK));
    r = keldctl("get --allow-incomplete " + server + " lsu0 " + killed + " fragment.bin");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(1u << 20, slurp(work + "/fragment.bin").size());

    {
        Feed feed;
        auto put = startPut(hop, stopped, feed, work + "/.stopped-err");
        ASSERT_TRUE(midway(feed, service.root().path(), stopped));
        put->signal(SIGINT);
        feed.end();
        EXPECT_EQ(130, put->wait(20s));
        EXPECT_EQ("keldctl: interrupted\n", slurp(work + "/.stopped-err"));
    }
    EXPECT_EQ(-1, storedBytes(service.root().path(), stopped));

    r = keldctl("rm --incomplete " + server + " lsu0");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("removed " + server + "/lsu0/" + killed + "\n", r.out);
    EXPECT_EQ((std::map<std::string, std::string>{{whole, "complete"}}), states(keldctlJson("images " + server + " lsu0")));
    EXPECT_EQ(2, keldctl("rm --incomplete " + server + " lsu0 " + whole).status);   // one or the other

    // The killed put's job is still counted at the service, whose stop
    // waits for it: the service goes the hard way.
    service.kill();
}

INSTANTIATE_TEST_SUITE_P(Direct, KeldCtl, ::testing::Values(Route::Direct));
INSTANTIATE_TEST_SUITE_P(ThroughService, KeldCtl, ::testing::Values(Route::ThroughService));

// FNV-1a, as the stand-in plug-in logs the bytes of a write.
std::string digest(const std::string& bytes)
{
    std::uint32_t h = 2166136261u;
    for (unsigned char c : bytes) h = (h ^ c) * 16777619u;
    char hex[9];
    std::snprintf(hex, sizeof(hex), "%08x", static_cast<unsigned>(h));
    return hex;
}

// A service whose plug-in takes at most 1000 bytes a write, once saying so
// with success, once with busy: either way each write goes on with the
// bytes where the last one stopped, and keldctl reports every byte.
TEST(KeldCtlPartialWrites, EachWriteGoesOnFromWhereTheServiceStopped)
{
    Service service;
    const std::string faults = service.root().path();
    service.root().usePluginsFrom(KELD_FAULT_PLUGIN_DIR);
    service.start({}, "", {"KELD_FAULT_PREFIX=Fault:", "KELD_FAULT_CALLS=" + faults + "/fault.calls",
                           "KELD_FAULT_CONTROL=" + faults + "/fault.control"});
    const keldtest::TempRoot client;   // made last: keldctl's root, with the remote plug-in
    const std::string data = randomBytes(2500, 5);
    std::ofstream(client.path() + "/data.bin", std::ios::binary) << data;
    std::string want;
    for (size_t off : {0, 1000, 2000}) {
        want += "write " + std::to_string(data.size() - off) + " " + std::to_string(off) + " " +
                digest(data.substr(off)) + "\n";
    }

    for (const std::string& answer : {std::string("0:1000"), std::to_string(STS_EBUSY_AGAIN) + ":1000"}) {
        service.root().writeFile("fault.control", "KELD_FAULT_TRANSFER=" + answer + "\n");
        service.root().writeFile("fault.calls", "");
        const Outcome r = runKeldctl(client.path(), "--proxy " + service.hop() + " put data.bin Fault:x lsu0 data");
        ASSERT_EQ(0, r.status) << answer << ": " << r.err;
        EXPECT_EQ(0u, r.err.find("keldctl: 2500 bytes  ")) << r.err;
        std::istringstream calls(slurp(faults + "/fault.calls"));
        std::string writes;
        for (std::string line; std::getline(calls, line);) {
            if (line.compare(0, 6, "write ") == 0) writes += line + "\n";
        }
        EXPECT_EQ(want, writes) << answer;
    }
}

// The first hop refusing connections, the second hop, a service whose peer
// admission turns this host away, and a service that dies during a put:
// what it wrote is left incomplete, never complete, and rm --incomplete
// removes it.
TEST(KeldCtlHops, HopsThatCannotBeReachedAreNamedByAddressAndCause)
{
    Service refusing;
    refusing.root().writeFile("keldrive/keldrive.conf", "PEER_ADMISSION = 1\n");
    ASSERT_EQ(0, symlink(KELD_KDB_PATH, (refusing.root().path() + "/lib/libKdbMT.so").c_str()));
    refusing.start();
    Service service;   // made last: its root is keldctl's
    service.root().writeFile("keldrive/zvsclient.conf", "retry_tries = 2\nretry_backoff_ms = 1\n");
    service.start();
    const std::string dir = service.root().path(), server = diskServer();
    const std::string closed = "127.0.0.1:" + std::to_string(keldtest::freePort());

    Outcome r = runKeldctl(dir, "--proxy '" + service.hop() + "#" + closed + "' lsus " + server);
    EXPECT_EQ(4, r.status);
    EXPECT_NE(std::string::npos, r.err.find(" proxy hop 2 (" + closed + ") cannot be reached: connection refused\n"))
        << r.err;
    r = runKeldctl(dir, "--proxy " + refusing.hop() + " lsus " + server);
    EXPECT_EQ(4, r.status);
    EXPECT_NE(std::string::npos, r.err.find(" proxy hop 1 (" + refusing.hop() + ") cannot be reached: the service closed "
                                            "the connection at once; peer admission may be refusing this host\n"))
        << r.err;

    Feed feed;
    const std::string image = "dying@20260101@20260101T000000";
    auto put = startPut(service.hop(), image, feed, dir + "/.put-err");
    ASSERT_TRUE(midway(feed, dir, image));
    service.kill();
    feed.end();
    EXPECT_EQ(4, put->wait(60s));
    const std::string err = slurp(dir + "/.put-err");
    EXPECT_NE(std::string::npos, err.find(" proxy hop 1 (" + service.hop() + ") cannot be reached: connection refused\n"))
        << err;
    EXPECT_NE(std::string::npos, err.find(image + " is left incomplete")) << err;

    r = runKeldctl(dir, "--json images " + server + " lsu0");
    EXPECT_EQ((std::map<std::string, std::string>{{image, "incomplete"}}), states(json::parse(r.out))) << r.err;
    EXPECT_EQ("removed " + server + "/lsu0/" + image + "\n", runKeldctl(dir, "rm --incomplete " + server + " lsu0").out);
}

// An HTTP endpoint on 127.0.0.1 answering /healthz with the code set, as
// the service's metrics endpoint does.
class HealthEndpoint {
public:
    HealthEndpoint()
    {
        m_server.Get("/healthz", [this](const httplib::Request&, httplib::Response& res) {
            res.status = m_code;
            res.set_content(m_code == 200 ? "ok\n" : "unhealthy\n", "text/plain");
        });
        m_port = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
    }
    ~HealthEndpoint()
    {
        m_server.stop();
        m_thread.join();
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(m_port); }
    void answer(int code) { m_code = code; }

private:
    httplib::Server m_server;
    std::atomic<int> m_code{200};
    int m_port = 0;
    std::thread m_thread;
};

// keldctl's conventions against a running service: --version, help with the
// global options and the forms of arguments, a mistyped command named with
// the closest one, KELDCTL_PROXY and KELDCTL_METRICS, status, the exit
// status and JSON object of each kind of failure, and result lines that
// sha256sum -c reads back.
TEST(KeldCtlConventions, StatusExitStatusesJsonErrorsAndChecksumLines)
{
    Service service;
    service.start();
    const std::string dir = service.root().path(), server = diskServer(), hop = service.hop();
    const std::string closed = "127.0.0.1:" + std::to_string(keldtest::freePort());
    const size_t none = std::string::npos;

    Outcome r = runKeldctl(dir, "--version");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("keldctl ")) << r.out;
    r = runKeldctl(dir, "get --help");
    EXPECT_EQ(0, r.status);
    for (const char* shown : {"--proxy", "KELDCTL_PROXY", "--json", "SERVER: ", "Disk:HOST", "IMAGE: ", "base@date@fulldate"}) {
        EXPECT_NE(none, r.out.find(shown)) << shown << " is not in\n" << r.out;
    }

    // A mistyped command, after options and below `snapshot` too; in JSON
    // mode CLI11's own refusals are JSON as well.
    r = runKeldctl(dir, "-q --transfer-size 4096 putt a b c");
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("keldctl: unknown command \"putt\"; did you mean \"put\"?\n", r.err);
    json error = json::parse(runKeldctl(dir, "--json snapshot dif " + server + " lsu0 a b").err);
    EXPECT_EQ(2, error["status"]);
    EXPECT_EQ("usage", error["kind"]);
    EXPECT_NE(none, error["error"].get<std::string>().find("did you mean \"diff\"?")) << error.dump();
    r = runKeldctl(dir, "--json get " + server);
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(2, json::parse(r.err)["status"]);

    // The service, named by KELDCTL_PROXY unless --proxy names another.
    r = runKeldctl(dir, "status", "KELDCTL_PROXY=" + hop);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("proxy:    " + hop + " up\ncontract: 13 (ZVS_VERSION=13)\nmetrics:  not asked\n", r.out);
    r = runKeldctl(dir, "--proxy " + hop + " status", "KELDCTL_PROXY=" + closed);
    EXPECT_EQ(0, r.status) << r.out;
    r = runKeldctl(dir, "status", "KELDCTL_PROXY=" + closed);
    EXPECT_EQ(4, r.status);
    EXPECT_EQ("proxy:    " + closed + " down: cannot be reached: connection refused\ncontract: unknown\nmetrics:  not asked\n", r.out);
    EXPECT_EQ(2, runKeldctl(dir, "status").status);   // no service named

    // Its health, when asked: 200 is up, 503 a failure, none unreachable.
    HealthEndpoint health;
    const json status = json::parse(runKeldctl(dir, "--json --proxy " + hop + " status --metrics " + health.address()).out);
    EXPECT_EQ(true, status["up"]);
    EXPECT_EQ(13, status["contract"]);
    EXPECT_EQ(200, status["metrics"]["status"]);
    EXPECT_EQ("ok", status["metrics"]["healthz"]);
    health.answer(503);
    r = runKeldctl(dir, "--proxy " + hop + " status", "KELDCTL_METRICS=" + health.address());
    EXPECT_EQ(1, r.status);
    EXPECT_NE(none, r.out.find("metrics:  " + health.address() + " /healthz 503 unhealthy\n")) << r.out;
    EXPECT_EQ(4, runKeldctl(dir, "--proxy " + hop + " status --metrics " + closed).status);

    // What does not exist, and a proxy that cannot be reached, as JSON.
    error = json::parse(runKeldctl(dir, "--json --proxy " + hop + " info Nowhere:x").err);
    EXPECT_EQ(3, error["status"]) << error.dump();
    EXPECT_EQ("not found", error["kind"]);
    r = runKeldctl(dir, "--json --proxy " + closed + " lsus " + server);
    EXPECT_EQ(4, r.status);
    error = json::parse(r.err);
    EXPECT_EQ(4, error["status"]);
    EXPECT_EQ("unreachable", error["kind"]);
    EXPECT_EQ("proxy hop 1 (" + closed + ") cannot be reached: connection refused", error["meaning"]);

    // The result lines check against the files, a name sha256sum escapes too.
    std::ofstream(dir + "/odd\\name.bin", std::ios::binary) << randomBytes(70000, 9);
    ASSERT_EQ(0, runTool("cd " + dir + " && " KELDCTL_PATH " --proxy " + hop + " put 'odd\\name.bin' " + server +
                         " lsu0 odd >put.sum && sha256sum -c put.sum"));
    ASSERT_EQ(0, runTool("cd " + dir + " && " KELDCTL_PATH " --proxy " + hop + " get " + server +
                         " lsu0 odd restored.bin >get.sum && sha256sum -c get.sum"));
    EXPECT_EQ(0u, slurp(dir + "/put.sum").find("\\")) << slurp(dir + "/put.sum");
}

} // namespace
