// Two services on one cluster, as on two hosts that have the same
// keldrive/rados/NAME.conf: each its own install root and port, both
// serving the same Rados:NAME.  What one backs up the other lists and
// restores; an image open for writing through either is refused to every
// other writer, never to readers; a writer that dies holds the image only
// until its lease runs out.  keldctl works on such a server directly (it
// loads the plug-in itself, a third user of the cluster) and through a
// service.
#include "RadosStore.h"
#include "RemoteTestSupport.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace remotetest;
using namespace std::chrono_literals;
using nlohmann::json;

namespace {

const unsigned kLockSeconds = 3;

std::string clusterConf()
{
    const char* conf = std::getenv("KELD_CEPH_CONF");
    return conf != nullptr ? conf : "";
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void spit(const std::string& path, const std::string& data)
{
    std::ofstream(path, std::ios::binary) << data;
}

std::string randomBytes(size_t n, unsigned seed)
{
    std::string data(n, '\0');
    std::mt19937 gen(seed);
    for (char& c : data) c = static_cast<char>(gen());
    return data;
}

// The checksum of keldctl's result line ("<hex>  FILE", as sha256sum prints).
std::string printedSum(const std::string& text)
{
    const size_t end = text.find("  ");
    return end == 64 ? text.substr(0, 64) : "";
}

struct Outcome {
    int status;
    std::string out, err;
};

// The data objects in one namespace of the test pool, counted by listing it
// (the plug-in never lists; the test looks at what a put has written).
size_t dataObjectsIn(const std::string& ns)
{
    rados_t cluster = nullptr;
    rados_ioctx_t io = nullptr;
    size_t count = 0;
    if (rados_create(&cluster, "admin") == 0 && rados_conf_read_file(cluster, clusterConf().c_str()) == 0 &&
        rados_connect(cluster) == 0 && rados_ioctx_create(cluster, "keld", &io) == 0) {
        rados_ioctx_set_namespace(io, ns.c_str());
        rados_list_ctx_t list = nullptr;
        if (rados_nobjects_list_open(io, &list) == 0) {
            const char* oid = nullptr;
            while (rados_nobjects_list_next(list, &oid, nullptr, nullptr) == 0) {
                if (std::string(oid).rfind("data.", 0) == 0) ++count;
            }
            rados_nobjects_list_close(list);
        }
    }
    if (io != nullptr) rados_ioctx_destroy(io);
    if (cluster != nullptr) rados_shutdown(cluster);
    return count;
}

// A server name no other test of this run uses.
std::string freshName()
{
    static int next = 0;
    return "two" + std::to_string(getpid()) + "-" + std::to_string(next++);
}

class TwoServices : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(clusterConf().empty()) << "KELD_CEPH_CONF names no cluster: the rados_cluster fixture did not run";
        const std::string conf = "ceph_conf = " + clusterConf() + "\npool = keld\nobject_size = 4194304\nlock_seconds = " +
                                 std::to_string(kLockSeconds) + "\n";
        for (const keldtest::TempRoot* root : {&a.root(), &b.root(), &tool}) {
            mkdir((root->path() + "/keldrive/rados").c_str(), 0755);
            root->writeFile("keldrive/rados/" + name + ".conf", conf);
        }
        std::string out;
        ASSERT_EQ(0, runTool("KELDV_ROOT=" + a.root().path() + " " KELD_RADOS_TOOL " lsu create " + server + " lsu0", &out))
            << out;
        a.start();
        b.start();
    }
    void TearDown() override
    {
        // The client's servers and sessions end before the services do: an
        // open one is a job a service waits for.
        for (sts_handle_t svh : servers) client->api()->stsa_close_handle(svh, 0);
        client.reset();
        for (Service* s : {&a, &b}) {
            if (s->running()) {
                EXPECT_EQ(0, s->stop()) << "a service did not end cleanly";
            }
        }
    }

    // keldctl with these arguments on the tool's root (its plug-ins and the
    // server's configuration), run in that root so that files are its own.
    Outcome keldctl(const std::string& args) const
    {
        const std::string dir = tool.path(), out = dir + "/.out", err = dir + "/.err";
        const int raw = std::system(("cd " + dir + " && KELDV_ROOT=" + dir + " " KELDCTL_PATH " " + args + " >" + out +
                                     " 2>" + err)
                                        .c_str());
        return Outcome{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(out), slurp(err)};
    }
    std::string via(const Service& s) const { return "--proxy " + s.hop() + " "; }
    // The images of lsu0 as keldctl lists them through a route.
    json images(const std::string& route) const
    {
        const Outcome r = keldctl(route + "--json images " + server + " lsu0");
        EXPECT_EQ(0, r.status) << r.err;
        return r.status == 0 ? json::parse(r.out) : json::array();
    }

    // This process as a storage client of a service, for what keldctl has no
    // command for: opening an existing image for writing.
    sts_handle_t serverThrough(const Service& s)
    {
        sts_handle_t svh = nullptr;
        EXPECT_EQ(0, client->api()->stsa_open_server(client->session(s.hop()), server.c_str(), nullptr, "", &svh))
            << client->lines();
        servers.push_back(svh);
        return svh;
    }
    int openImage(sts_handle_t svh, const sts_image_def_t& def, int mode, sts_handle_t* h)
    {
        const sts_lsu_t lsu = lsuOf(svh, "lsu0");
        return client->api()->stsa_open_image(&lsu, &def, mode, h);
    }
    static sts_image_def_t defOf(const std::string& fullName)
    {
        sts_image_def_t def = {};
        const size_t at = fullName.find('@'), at2 = fullName.find('@', at + 1);
        std::snprintf(def.img_basename, sizeof(def.img_basename), "%s", fullName.substr(0, at).c_str());
        std::snprintf(def.img_date, sizeof(def.img_date), "%s", fullName.substr(at + 1, at2 - at - 1).c_str());
        std::snprintf(def.img_fulldate, sizeof(def.img_fulldate), "%s", fullName.substr(at2 + 1).c_str());
        return def;
    }

    std::string name = freshName();
    std::string server = "Rados:" + name;
    Service a, b;
    keldtest::TempRoot tool{false, true};   // keldctl's install root
    std::vector<sts_handle_t> servers;
    std::unique_ptr<Client> client = std::make_unique<Client>();   // made last: its root is this process's
};

// A backup through A is listed, described and restored byte-exact through
// B.  While A has it open for writing, every other writer is refused as
// busy, through B and through A alike, for longer than one lease (A renews
// it), and B's log names the holder; readers go on.  Once A closes it, B
// may write it.
TEST_F(TwoServices, WhatOneBacksUpTheOtherRestoresAndOneWriterAtATime)
{
    const std::string data = randomBytes(9 * 1024 * 1024 + 123, 7);   // three stripe objects
    spit(tool.path() + "/backup.bin", data);
    const Outcome put = keldctl(via(a) + "put backup.bin " + server + " lsu0 backup");
    ASSERT_EQ(0, put.status) << put.err;

    const json listed = images(via(b));
    ASSERT_EQ(1u, listed.size()) << listed;
    EXPECT_EQ("complete", listed[0]["state"]);
    EXPECT_EQ(data.size(), listed[0]["size"]);
    const std::string image = listed[0]["image"];
    Outcome r = keldctl(via(b) + "--json info " + server + " lsu0 " + image);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("complete", json::parse(r.out)["state"]);
    r = keldctl(via(b) + "get " + server + " lsu0 backup restored.bin");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(printedSum(put.out + put.err), printedSum(r.out + r.err));
    EXPECT_TRUE(slurp(tool.path() + "/restored.bin") == data) << "the restore through B differs";

    const sts_image_def_t def = defOf(image);
    sts_handle_t svA = serverThrough(a), svB = serverThrough(b);
    sts_handle_t writer = nullptr, other = nullptr;
    ASSERT_EQ(0, openImage(svA, def, RADOS_OPEN_WRITE, &writer)) << client->lines();
    EXPECT_EQ(RADOS_EBUSY, openImage(svB, def, RADOS_OPEN_WRITE, &other));
    EXPECT_EQ(RADOS_EBUSY, openImage(svA, def, RADOS_OPEN_WRITE, &other));   // a second open in the same service
    EXPECT_NE(std::string::npos, b.log().find("image " + image + " of " + server + "/lsu0 is open for writing by " +
                                              hostName() + " pid "))
        << b.log();

    // Readers are not held up, through keldctl or the API.
    r = keldctl(via(b) + "get --allow-incomplete " + server + " lsu0 " + image + " during.bin");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(slurp(tool.path() + "/during.bin") == data);
    sts_handle_t reader = nullptr;
    ASSERT_EQ(0, openImage(svB, def, RADOS_OPEN_READ, &reader));
    std::string head(16, '\0');
    sts_uint64_t done = 0;
    EXPECT_EQ(0, client->api()->stsa_read_image(reader, &head[0], head.size(), 0, &done));
    EXPECT_EQ(data.substr(0, 16), head);
    client->api()->stsa_close_handle(reader, 0);

    // Past one lease the lock is still A's: it was renewed.
    std::this_thread::sleep_for(std::chrono::seconds(kLockSeconds + 2));
    EXPECT_EQ(RADOS_EBUSY, openImage(svB, def, RADOS_OPEN_WRITE, &other));
    EXPECT_EQ(0, client->api()->stsa_write_image(writer, nullptr, const_cast<char*>(data.data()), 4096, 0, &done));
    EXPECT_EQ(0, client->api()->stsa_close_handle(writer, 0)) << client->lines();
    EXPECT_EQ("complete", images(via(b))[0]["state"]);

    ASSERT_EQ(0, openImage(svB, def, RADOS_OPEN_WRITE, &other)) << client->lines();
    EXPECT_EQ(0, client->api()->stsa_close_handle(other, 0));
}

// A service killed in the middle of a 256 MiB put leaves the image listed
// as incomplete through the other; its lock refuses a writer through the
// other until the lease runs out, and then the image opens for writing.
TEST_F(TwoServices, KilledWriterHoldsTheImageOnlyUntilItsLeaseRunsOut)
{
    const std::string file = tool.path() + "/big.bin";
    {
        std::ofstream out(file, std::ios::binary);
        const std::string block = randomBytes(1024 * 1024, 3);
        for (int i = 0; i < 256; ++i) out << char(i) << block.substr(1);
    }
    sts_handle_t svB = serverThrough(b);
    keldtest::Child put(KELDCTL_PATH, {"--proxy", a.hop(), "put", file, server, "lsu0", "big"},
                        {"KELDV_ROOT=" + tool.path()}, tool.path() + "/put.err");
    ASSERT_TRUE(keldtest::waitFor([&] { return dataObjectsIn(name + "/lsu0") >= 2; }, 60s))
        << "the put wrote nothing: " << slurp(tool.path() + "/put.err");
    const json writing = images(via(b));
    ASSERT_EQ(1u, writing.size()) << writing;
    const std::string image = writing[0]["image"];
    ASSERT_TRUE(put.running()) << "the put ended before the kill: make the file larger";
    a.kill();

    const sts_image_def_t def = defOf(image);
    sts_handle_t h = nullptr;
    EXPECT_EQ(RADOS_EBUSY, openImage(svB, def, RADOS_OPEN_WRITE, &h)) << "the dead writer's lease is still running";
    const json after = images(via(b));
    ASSERT_EQ(1u, after.size());
    EXPECT_EQ("incomplete", after[0]["state"]);
    Outcome r = keldctl(via(b) + "get " + server + " lsu0 big restored.bin");
    EXPECT_EQ(1, r.status) << "an incomplete image restores only when asked for";

    int refusals = 0;
    EXPECT_TRUE(keldtest::waitFor([&] {
        const int rc = openImage(svB, def, RADOS_OPEN_WRITE, &h);
        refusals += rc == RADOS_EBUSY;
        return rc == 0;
    }, 30s)) << client->lines();
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(0, client->api()->stsa_close_handle(h, 0));
    // The put fails: unreachable (4) when its retry finds the service gone,
    // failed (1) when the kill cut a call short.
    const int putStatus = put.wait(60s);
    EXPECT_TRUE(putStatus == 4 || putStatus == 1) << putStatus << ": " << slurp(tool.path() + "/put.err");

    r = keldctl(via(b) + "rm " + server + " lsu0 " + image);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(0u, images(via(b)).size());
    EXPECT_EQ(0u, dataObjectsIn(name + "/lsu0"));
}

// keldctl's commands on a Rados: server, with it loading the plug-in itself
// and through a service, the same results either way.
TEST_F(TwoServices, KeldctlWorksOnRadosDirectlyAndThroughAService)
{
    const std::string data = randomBytes(5 * 1024 * 1024 + 7, 11);
    spit(tool.path() + "/file.bin", data);
    const std::string snapshotTool = "KELDV_ROOT=" + a.root().path() + " " KELD_RADOS_TOOL " snapshot ";
    std::string out;
    ASSERT_EQ(0, runTool(snapshotTool + "create " + server + " lsu0 weekly", &out)) << out;
    for (const std::string& route : {std::string(""), via(a)}) {
        SCOPED_TRACE(route.empty() ? "direct" : route);
        Outcome r = keldctl(route + "put file.bin " + server + " lsu0 file");
        ASSERT_EQ(0, r.status) << r.err;
        const std::string sum = printedSum(r.out);
        EXPECT_EQ(64u, sum.size()) << r.out;

        r = keldctl(route + "--json servers " + server);
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.out.find(server)) << r.out;
        r = keldctl(route + "--json lsus " + server);
        ASSERT_EQ(0, r.status) << r.err;
        const json lsus = json::parse(r.out);
        ASSERT_EQ(1u, lsus.size()) << lsus;
        EXPECT_EQ("lsu0", lsus[0]["lsu"]);
        EXPECT_EQ(1, lsus[0]["images"]);
        EXPECT_EQ(data.size(), lsus[0]["used"]);
        const json listed = images(route);
        ASSERT_EQ(1u, listed.size());
        EXPECT_EQ("complete", listed[0]["state"]);
        r = keldctl(route + "--json info " + server);
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(server, json::parse(r.out)["server"]);
        r = keldctl(route + "--json info " + server + " lsu0");
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(data.size(), json::parse(r.out)["used"]);
        r = keldctl(route + "--json info " + server + " lsu0 file");
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(data.size(), json::parse(r.out)["size"]);

        r = keldctl(route + "get " + server + " lsu0 file back.bin");
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(sum, printedSum(r.out));
        EXPECT_TRUE(slurp(tool.path() + "/back.bin") == data);

        // The snapshot taken with the plug-in's tool (before the put: no
        // images in it) reads the same either way; an unknown one is "not found".
        r = keldctl(route + "--json snapshot info " + server + " lsu0 weekly");
        EXPECT_EQ(0, r.status) << r.out << r.err;
        EXPECT_NE(std::string::npos, r.out.find("weekly")) << r.out;
        r = keldctl(route + "snapshot info " + server + " lsu0 monthly");
        EXPECT_EQ(3, r.status) << r.out << r.err;
        EXPECT_NE(std::string::npos, r.err.find("no such")) << r.err;

        r = keldctl(route + "rm " + server + " lsu0 file");
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ(0u, images(route).size());
    }
    EXPECT_EQ(0, runTool(snapshotTool + "delete " + server + " lsu0 weekly", &out)) << out;
}

} // namespace
