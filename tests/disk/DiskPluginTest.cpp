// The disk plug-in in a fresh install root, reached through our storage
// framework either directly or through a running service: a keldpxy on the
// same root and the remote plug-in, with the service as sd_proxy.  The
// plug-ins' conformance suite runs on it both ways (PluginConformance.h);
// what only a disk server has (credentials, its configuration text, its
// files) is tested here, the configuration text, the operator's tools and
// crashes on the direct Disk fixture.
#include "DiskStore.h"
#include "PluginConformance.h"
#include "RemoteTestSupport.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace remotetest;
using conformance::Conformance;

namespace {

// The disk plug-in as the conformance suite sees it.
std::string prepareDisk(keldtest::TempRoot&)
{
    return diskServer();   // made with lsu0 at its first open
}

int addDiskLsu(keldtest::TempRoot& root, const std::string& server, const std::string& lsu)
{
    return runTool("KELDV_ROOT=" + root.path() + " " KELD_DISK_LSU_SCRIPT " create " + server + " " + lsu);
}

int diskSnapshotTool(keldtest::TempRoot& root, const std::string& server, const std::string& command,
                     const std::string& rest, std::string* out)
{
    return runTool("KELDV_ROOT=" + root.path() + " " KELD_DISK_SNAPSHOT_TOOL " " + command + " " + server + " " + rest, out);
}

std::string fileBytes(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A snapshot's volume is its directory.
std::string diskSnapshotData(const sts_snap_info_t& snapshot, const std::string& image)
{
    return fileBytes(std::string(snapshot.sno_snap_vol_spec.v.v_device.dv_device_path) + "/images/" + image + ".img");
}

const conformance::Plugin diskPlugin = {"Disk:", DISK_ENOENT, DISK_EEXIST, DISK_EBUSY, DISK_EINVAL, DISK_EREADONLY,
                                        DISK_OPEN_READ, DISK_OPEN_WRITE, DISK_MAX_EXTENT, prepareDisk, addDiskLsu,
                                        diskSnapshotTool, diskSnapshotData};

INSTANTIATE_TEST_SUITE_P(Disk, Conformance, ::testing::ValuesIn(conformance::bothRoutes(diskPlugin)),
                         conformance::routeName);

// What only a disk server has, both ways.
class DiskRoutes : public conformance::Conformance {
};

INSTANTIATE_TEST_SUITE_P(Disk, DiskRoutes, ::testing::ValuesIn(conformance::bothRoutes(diskPlugin)),
                         conformance::routeName);


class Disk : public ::testing::Test, protected ImageCalls {
protected:
    virtual Route route() const { return Route::Direct; }

    // The framework, a session (through the service when there is one) and
    // the default server.
    void SetUp() override
    {
        if (route() == Route::ThroughService) {
            service.start();
            std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "%s", service.hop().c_str());
        }
        ASSERT_EQ(0, stsm_init(11, (root.path() + "/lib").c_str(), &api));
        sd.sd_id = "disk-test";
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, server.c_str(), nullptr, "", &svh));
        lsu = lsuOf(svh, "lsu0");
    }
    void TearDown() override
    {
        if (api != nullptr) {
            if (svh != nullptr) api->stsa_close_handle(svh, 0);
            if (ssn != nullptr) api->stsa_close_handle(ssn, 0);
            EXPECT_EQ(0, stsm_terminate());
        }
        if (route() == Route::ThroughService) {
            EXPECT_EQ(0, service.stop()) << "the service did not end cleanly";
        }
    }

    // The service's root is the tests' root: the disk plug-in's files stay
    // where the tests and the operator's tools look for them.
    Service service;
    keldtest::TempRoot& root = service.root();
    std::string server = diskServer();
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
};

// The value of the credential line, or "".
std::string credentialLine(const std::string& config)
{
    const size_t at = config.find("credential = ");
    return at == std::string::npos ? "" : config.substr(at, config.find('\n', at) - at);
}

// A file size limit for this process while it lives; the signal a write
// past it would raise is ignored meanwhile.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit lower = m_old;
        lower.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lower);
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_old{};
    void (*m_oldHandler)(int) = SIG_DFL;
};

// The file system takes part of a write (the file size limit stops it):
// the plug-in answers busy with the count it wrote, the caller sends the
// rest, and the image holds every byte once.
TEST_F(Disk, AShortWriteAnswersBusyWithItsCount)
{
    std::string data(4096, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i % 23);
    sts_handle_t h = create("short");
    sts_uint64_t done = 0;
    {
        const FileSizeLimit limit(1000);
        EXPECT_EQ(STS_EBUSY_AGAIN, api->stsa_write_image(h, nullptr, &data[0], data.size(), 0, &done));
    }
    EXPECT_EQ(1000u, done);
    write(h, data.substr(1000), 1000);
    ASSERT_EQ(0, api->stsa_close_handle(h, 0));
    h = open("short", DISK_OPEN_READ);
    EXPECT_EQ(data, read(h, 8192, 0));
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
}

// A writer process that dies with the image open leaves it incomplete.
TEST_F(Disk, HalfWrittenImageIsIncompleteAfterACrash)
{
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        sts_handle_t h = nullptr;
        const sts_image_def_t d = def("crashed");
        sts_uint64_t done = 0;
        const bool written = api->stsa_create_image(&lsu, &d, 0, &h) == 0 &&
                             api->stsa_write_image(h, nullptr, const_cast<char*>("crash"), 5, 0, &done) == 0;
        _exit(written ? 0 : 1);
    }
    int exitStatus = -1;
    ASSERT_TRUE(waitpid(writer, &exitStatus, 0) == writer && WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0);
    EXPECT_EQ(DISK_IMAGE_INCOMPLETE, status("crashed"));
}

TEST_P(DiskRoutes, CredentialIsRequiredWhereConfiguredAndNeverStoredOrLogged)
{
    sts_cred_t cred = {};
    std::strcpy(cred.cr_cert, "pass-phrase");
    cred.cr_len = 11;
    sts_host_t host = {};
    std::strcpy(host.sh_name, "h1");
    sts_handle_t made = nullptr;
    ASSERT_EQ(0, api->stsa_create_server(ssn, "Disk:vault", &cred, "", &host, 1, &made));
    api->stsa_close_handle(made, 0);
    EXPECT_EQ(DISK_EEXIST, api->stsa_create_server(ssn, "Disk:vault", &cred, "", &host, 1, &made));

    sts_handle_t h = nullptr;
    EXPECT_EQ(DISK_ECRED, api->stsa_open_server(ssn, "Disk:vault", nullptr, "", &h));
    sts_cred_t wrong = cred;
    wrong.cr_cert[0] = 'P';
    EXPECT_EQ(DISK_ECRED, api->stsa_open_server(ssn, "Disk:vault", &wrong, "", &h));
    ASSERT_EQ(0, api->stsa_open_server(ssn, "Disk:vault", &cred, "", &h));
    // What was kept is the client's very credential: the operator's tool,
    // which opens the server directly, is let in with it.
    std::string shown;
    EXPECT_EQ(0, runTool("KELDV_DISK_CREDENTIAL=pass-phrase " KELD_DISK_CONFIG_TOOL " get Disk:vault", &shown)) << shown;
    char config[16];
    sts_uint32_t needed = 0;
    EXPECT_EQ(STS_EBUFFER_SMALL, api->stsa_get_server_config(h, config, sizeof(config), &needed));
    std::string full(needed, '\0');
    ASSERT_EQ(0, api->stsa_get_server_config(h, &full[0], needed, &needed));
    EXPECT_EQ(std::string::npos, full.find("pass-phrase"));   // only a salted hash is kept
    EXPECT_NE(std::string::npos, full.find("host = h1"));
    api->stsa_close_handle(h, 0);
    EXPECT_EQ(std::string::npos, root.readLog().find("pass-phrase"));
}

TEST_F(Disk, ConfigurationTextIsCheckedWholeAndKeepsTheCredential)
{
    sts_cred_t cred = {};
    std::strcpy(cred.cr_cert, "pass-phrase");
    cred.cr_len = 11;
    sts_handle_t h = nullptr;
    ASSERT_EQ(0, api->stsa_create_server(ssn, "Disk:vault", &cred, "", nullptr, 0, &h));
    auto config = [&] {
        char text[4096];
        sts_uint32_t needed = 0;
        EXPECT_EQ(0, api->stsa_get_server_config(h, text, sizeof(text), &needed));
        return std::string(text);
    };
    const std::string before = config();
    char msg[128];

    // Each refusal names its line and leaves the stored text as it was.
    for (const char* text : {"host = a\nno equals sign\n", "colour = blue\n", "max_connections = 0\n",
                             "max_connections = 12x\n", "stream_format = sixteen-chars-xx\n", "host = ../up\n",
                             "host = two words\n", "stream_format = a\nstream_format = b\n", "credential = 00:00\n"}) {
        std::memset(msg, 0, sizeof(msg));
        EXPECT_EQ(DISK_EINVAL, api->stsa_set_server_config(h, text, msg, sizeof(msg))) << text;
        EXPECT_EQ(0, std::strncmp(msg, "line ", 5)) << text << " -> " << msg;
        EXPECT_EQ(before, config());
    }
    EXPECT_EQ(DISK_EINVAL, api->stsa_set_server_config(h, std::string(70000, '#').c_str(), msg, sizeof(msg)));
    char tiny[8];
    EXPECT_EQ(DISK_EINVAL, api->stsa_set_server_config(h, "colour = blue", tiny, sizeof(tiny)));
    EXPECT_EQ(7u, std::strlen(tiny));   // a short message buffer is cut, not overrun

    // An edit without the credential line keeps it; the server reports the new settings.
    ASSERT_EQ(0, api->stsa_set_server_config(h, "# edited\nhost = h2\nstream_format = tar\nmax_connections = 8", msg, sizeof(msg)));
    const std::string after = config();
    EXPECT_EQ(0u, after.find("# edited\nhost = h2\nstream_format = tar\nmax_connections = 8\ncredential = "));
    EXPECT_FALSE(credentialLine(before).empty());
    EXPECT_EQ(credentialLine(before), credentialLine(after));
    sts_server_info_t info;
    ASSERT_EQ(0, api->stsa_get_server_prop(h, &info));
    EXPECT_STREQ("tar", info.srv_sth[0]);
    EXPECT_EQ(8u, info.srv_maxconnect);
    api->stsa_close_handle(h, 0);
    EXPECT_EQ(DISK_ECRED, api->stsa_open_server(ssn, "Disk:vault", nullptr, "", &h));
    ASSERT_EQ(0, api->stsa_open_server(ssn, "Disk:vault", &cred, "", &h));
    api->stsa_close_handle(h, 0);
    EXPECT_EQ(STSP_EBADHANDLE, api->stsa_set_server_config(ssn, "", msg, sizeof(msg)));

    // A file edited by hand behind the check: a bad number reports the default.
    root.writeFile("keldrive/storage/vault/server.conf", "max_connections = lots\n");
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(nullptr, "Disk:vault", &info));
    EXPECT_EQ(64u, info.srv_maxconnect);

    // The operator's tool replaces the default server's text whole or not at all.
    std::string out;
    const std::string tool = KELD_DISK_CONFIG_TOOL;
    EXPECT_EQ(0, runTool("printf 'host = h9\\nmax_connections = 3\\n' | " + tool + " set " + server + " -", &out)) << out;
    EXPECT_EQ(1, runTool("echo 'colour = blue' | " + tool + " set -", &out));
    EXPECT_NE(std::string::npos, out.find("line 1: unknown setting \"colour\"")) << out;
    EXPECT_EQ(1, runTool(tool + " get Disk:nowhere", &out));
    EXPECT_EQ(2, runTool(tool + " set </dev/null", &out));
    EXPECT_EQ(0, runTool(tool + " get", &out));
    EXPECT_EQ("host = h9\nmax_connections = 3\n", out);
}

// Opens the default server from 12 threads at the moment start; returns
// how many opens failed.
int openDefaultServerFromThreads(std::chrono::steady_clock::time_point start)
{
    sts_api_t* api = nullptr;
    sts_handle_t ssn = nullptr;
    sts_session_def_t sd = {};
    if (stsm_init(11, (std::string(std::getenv("KELDV_ROOT")) + "/lib").c_str(), &api) != 0 ||
        api->stsa_open_session(&sd, &ssn) != 0) {
        return 1;
    }
    std::atomic<int> failed{0};
    std::vector<std::thread> openers;
    for (int i = 0; i < 12; ++i) {
        openers.emplace_back([&] {
            std::this_thread::sleep_until(start);
            sts_handle_t h = nullptr;
            if (api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &h) != 0) ++failed;
            else api->stsa_close_handle(h, 0);
        });
    }
    for (std::thread& t : openers) t.join();
    api->stsa_close_handle(ssn, 0);
    stsm_terminate();
    return failed;
}

// Two processes of many threads open the default server of a fresh root at
// the same moment: every open finds it, in every round, and no half-built
// copy is left.
TEST(DiskFirstOpen, ConcurrentFirstOpensOfAFreshRootAllSucceed)
{
    for (int round = 0; round < 10; ++round) {
        keldtest::TempRoot root;
        const auto start = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
        const pid_t other = fork();
        ASSERT_GE(other, 0);
        if (other == 0) _exit(openDefaultServerFromThreads(start) == 0 ? 0 : 1);
        EXPECT_EQ(0, openDefaultServerFromThreads(start)) << "round " << round;
        int status = 0;
        waitpid(other, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "round " << round;
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(root.path() + "/keldrive/storage")) {
            names.push_back(e.path().filename());
        }
        ASSERT_EQ(std::vector<std::string>{hostName()}, names) << "round " << round;
    }
}

// A snapshot a crash left half made (under its hidden name) goes at the
// next take; the storage API never sees it.
TEST_F(Disk, AHalfSnapshotOfACrashGoesAtTheNextTake)
{
    const std::string leftover = root.path() + "/keldrive/storage/" + hostName() + "/lsus/lsu0/snapshots/.crashed.x";
    ASSERT_EQ(0, std::system(("mkdir -p " + leftover + "/images").c_str()));
    ASSERT_EQ(0, runTool(KELD_DISK_SNAPSHOT_TOOL " create lsu0 s1"));
    EXPECT_NE(0, access(leftover.c_str(), F_OK));
    std::string out;
    EXPECT_EQ(0, runTool(KELD_DISK_SNAPSHOT_TOOL " list lsu0", &out));
    EXPECT_EQ(0u, out.find("s1\t")) << out;
    EXPECT_EQ(std::string::npos, out.find("crashed")) << out;
}

} // namespace
