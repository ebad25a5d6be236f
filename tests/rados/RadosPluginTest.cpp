// The RADOS plug-in on the run's one-node cluster, reached through our
// storage framework directly and through a running service with the
// remote plug-in, as the disk plug-in's tests reach theirs: both routes
// must give the same results, numbers included.  Each test has a server
// of its own (its index and LSU namespaces are apart from the others').
// The configuration faults and a crashed writer use the direct route.
#include "RadosStore.h"
#include "RemoteTestSupport.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace remotetest;

namespace {

const std::uint64_t kObjectSize = 64 * 1024;   // the smallest stripe object: images span many

std::string clusterConf()
{
    const char* conf = std::getenv("KELD_CEPH_CONF");
    return conf != nullptr ? conf : "";
}

// A server name no other test of this run uses.
std::string freshName()
{
    static std::atomic<int> next{0};
    return "t" + std::to_string(getpid()) + "-" + std::to_string(next++);
}

std::string radosTool(const std::string& root, const std::string& args, int* status = nullptr)
{
    std::string out;
    const int rc = runTool("KELDV_ROOT=" + root + " " KELD_RADOS_TOOL " " + args, &out);
    if (status != nullptr) *status = rc;
    return out;
}

// The objects of one namespace of the test pool, counted by listing it
// (the plug-in never lists; the test checks what it left behind).
size_t objectsIn(const std::string& ns)
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
            while (rados_nobjects_list_next(list, &oid, nullptr, nullptr) == 0) ++count;
            rados_nobjects_list_close(list);
        }
    }
    if (io != nullptr) rados_ioctx_destroy(io);
    if (cluster != nullptr) rados_shutdown(cluster);
    return count;
}

class Rados : public ::testing::Test {
protected:
    virtual Route route() const { return Route::Direct; }

    void SetUp() override
    {
        ASSERT_FALSE(clusterConf().empty()) << "KELD_CEPH_CONF names no cluster: the rados_cluster fixture did not run";
        writeConfig(name, "ceph_conf = " + clusterConf() + "\npool = keld\nobject_size = " +
                              std::to_string(kObjectSize) + "\n");
        int status = -1;
        const std::string out = radosTool(root.path(), "lsu create " + server + " lsu0", &status);
        ASSERT_EQ(0, status) << out;
        if (route() == Route::ThroughService) {
            service.start();
            std::snprintf(sd.sd_proxy, sizeof(sd.sd_proxy), "%s", service.hop().c_str());
        }
        ASSERT_EQ(0, stsm_init(11, (root.path() + "/lib").c_str(), &api));
        sd.sd_id = "rados-test";
        sd.sd_log = [](const char*, const char* msg, sts_severity_t) { logged() += std::string(msg) + "\n"; };
        logged().clear();
        ASSERT_EQ(0, api->stsa_open_session(&sd, &ssn));
        ASSERT_EQ(0, api->stsa_open_server(ssn, server.c_str(), nullptr, "", &svh)) << logged();
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

    static std::string& logged()
    {
        static std::string lines;
        return lines;
    }
    void writeConfig(const std::string& server, const std::string& text)
    {
        mkdir((root.path() + "/keldrive/rados").c_str(), 0755);
        root.writeFile("keldrive/rados/" + server + ".conf", text);
    }

    static sts_image_def_t def(const char* base)
    {
        sts_image_def_t d = {};
        std::strcpy(d.img_basename, base);
        std::strcpy(d.img_date, "20261123");
        std::strcpy(d.img_fulldate, "20261123T0101");
        return d;
    }
    sts_handle_t create(const char* base)
    {
        sts_handle_t h = nullptr;
        const sts_image_def_t d = def(base);
        EXPECT_EQ(0, api->stsa_create_image(&lsu, &d, 0, &h));
        return h;
    }
    sts_handle_t open(const char* base, int mode)
    {
        sts_handle_t h = nullptr;
        const sts_image_def_t d = def(base);
        EXPECT_EQ(0, api->stsa_open_image(&lsu, &d, mode, &h));
        return h;
    }
    void write(sts_handle_t h, const std::string& data, sts_uint64_t off)
    {
        sts_uint64_t done = 0;
        ASSERT_EQ(0, api->stsa_write_image(h, nullptr, const_cast<char*>(data.data()), data.size(), off, &done));
        ASSERT_EQ(data.size(), done);
    }
    std::string read(sts_handle_t h, sts_uint64_t len, sts_uint64_t off)
    {
        std::string buf(len, '#');   // not zeros: a gap must read as zeros by itself
        sts_uint64_t done = 0;
        EXPECT_EQ(0, api->stsa_read_image(h, &buf[0], len, off, &done));
        buf.resize(done);
        return buf;
    }
    sts_image_info_t info(const char* base, int expect = 0)
    {
        sts_image_info_t i = {};
        const sts_image_def_t d = def(base);
        EXPECT_EQ(expect, api->stsa_get_image_prop_byname(&lsu, &d, &i)) << base;
        return i;
    }

    // The service's root is the tests' root: the configuration files are
    // where both the service and this process look for them.
    Service service;
    keldtest::TempRoot& root = service.root();
    std::string name = freshName();
    std::string server = "Rados:" + name;
    sts_api_t* api = nullptr;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_lsu_t lsu = {};
};

class RadosConformance : public Rados, public ::testing::WithParamInterface<Route> {
protected:
    Route route() const override { return GetParam(); }
};

// The LSU the tool made; images written at decreasing offsets, read, listed
// and deleted; a refused create or write changes nothing.
TEST_P(RadosConformance, ImagesAreWrittenReadListedAndDeleted)
{
    sts_handle_t list = nullptr;
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, nullptr, &list));
    sts_lsu_name_t lname;
    ASSERT_EQ(0, api->stsa_list_lsu(list, &lname));
    EXPECT_STREQ("lsu0", lname.sln_name);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_lsu(list, &lname));
    api->stsa_close_handle(list, 0);
    sts_lsu_name_t missing = {};
    std::strcpy(missing.sln_name, "missing");
    EXPECT_EQ(STS_ENO_MORE, api->stsa_find_lsu(svh, &missing, &lname));
    sts_server_info_t sinfo;
    EXPECT_EQ(RADOS_ENOENT, api->stsa_get_server_prop_byname(&sd, "Rados:nobody-here", &sinfo));
    ASSERT_EQ(0, api->stsa_get_server_prop(svh, &sinfo));
    EXPECT_EQ(server, sinfo.srv_server);

    sts_handle_t h = create("backup1");
    write(h, "world", 6);
    write(h, "hello ", 0);
    const std::string meta = "catalog";
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image_meta(h, const_cast<char*>(meta.data()), meta.size(), 0, &done));
    EXPECT_EQ(0, api->stsa_flush(h));
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_INCOMPLETE), info("backup1").imo_status);
    EXPECT_EQ(11u, info("backup1").imo_size);   // the flush told the header
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_COMPLETE), info("backup1").imo_status);

    h = open("backup1", RADOS_OPEN_READ);
    EXPECT_EQ("hello world", read(h, 100, 0));   // across the end
    EXPECT_EQ("world", read(h, 5, 6));
    EXPECT_EQ("", read(h, 5, 11));
    std::string m(16, '\0');
    ASSERT_EQ(0, api->stsa_read_image_meta(h, &m[0], m.size(), 0, &done));
    EXPECT_EQ(meta, m.substr(0, done));
    EXPECT_EQ(RADOS_EREADONLY, api->stsa_write_image(h, nullptr, const_cast<char*>("x"), 1, 0, &done));
    sts_image_info_t i;
    ASSERT_EQ(0, api->stsa_get_image_prop(h, &i));
    EXPECT_EQ(11u, i.imo_size);
    EXPECT_STREQ("20261123T0101", i.imo_def.img_fulldate);
    api->stsa_close_handle(h, 0);
    api->stsa_close_handle(create("other"), 0);

    ASSERT_EQ(0, api->stsa_open_image_list(&lsu, 0, &list));
    std::string names;
    sts_image_def_t listed;
    int rc = 0;
    while ((rc = api->stsa_list_image(list, &listed)) == 0) names += std::string(listed.img_basename) + "@" + listed.img_date + " ";
    EXPECT_EQ(STS_ENO_MORE, rc);
    EXPECT_EQ("backup1@20261123 other@20261123 ", names);
    api->stsa_close_handle(list, 0);
    const sts_image_def_t d = def("backup1");
    sts_uint32_t group = 0;
    ASSERT_EQ(0, api->stsa_get_image_group_byname(&lsu, &d, &group));
    EXPECT_EQ(1u, group);

    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &linfo));
    EXPECT_EQ(2u, linfo.lsu_images);
    EXPECT_EQ(11u, linfo.lsu_used);

    // An LSU's own quota is its capacity; a label finds it.
    int status = -1;
    radosTool(root.path(), "lsu create " + server + " lsu1 --quota 1000000", &status);
    ASSERT_EQ(0, status);
    sts_lsu_t lsu1 = lsuOf(svh, "lsu1");
    char label[] = "weekly";
    ASSERT_EQ(0, api->stsa_label_lsu(&lsu1, label));
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu1, &linfo));
    EXPECT_EQ(1000000u, linfo.lsu_capacity);
    EXPECT_STREQ("weekly", linfo.lsu_def.sld_label);
    EXPECT_EQ(0u, linfo.lsu_images);
    std::strcpy(missing.sln_name, "weekly");
    ASSERT_EQ(0, api->stsa_find_lsu(svh, &missing, &lname));
    EXPECT_STREQ("lsu1", lname.sln_name);
    EXPECT_EQ("lsu0\t\t0\nlsu1\tweekly\t1000000\n", radosTool(root.path(), "lsu list " + server, &status));

    EXPECT_EQ(RADOS_EEXIST, api->stsa_create_image(&lsu, &d, 0, &list));
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_COMPLETE), info("backup1").imo_status);   // not marked by the refusal
    EXPECT_EQ(RADOS_EBUSY, api->stsa_delete_lsu(&lsu));   // it holds images
    EXPECT_EQ(0, api->stsa_delete_image(&lsu, &d, 0));
    info("backup1", RADOS_ENOENT);
    EXPECT_EQ(RADOS_ENOENT, api->stsa_delete_image(&lsu, &d, 0));
}

// An image over many stripe objects: writes at decreasing offsets, a gap
// that reads as zeros, a retried write that changes nothing, reads across
// object boundaries and the end; its objects go with it.
TEST_P(RadosConformance, ImagesSpanStripeObjects)
{
    const std::string a(kObjectSize + 100, 'a');
    const std::string b(2 * kObjectSize, 'b');
    sts_handle_t h = create("big");
    write(h, a, 4 * kObjectSize - 50);   // the last objects first; the third is never written
    write(h, b, 0);
    write(h, b, 0);                      // sent again after a lost reply
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    const sts_uint64_t size = 5 * kObjectSize + 50;
    EXPECT_EQ(size, info("big").imo_size);

    h = open("big", RADOS_OPEN_READ);
    const std::string whole = read(h, size + 4096, 0);
    ASSERT_EQ(size, whole.size());
    EXPECT_EQ(b, whole.substr(0, b.size()));
    EXPECT_EQ(std::string(2 * kObjectSize - 50, '\0'), whole.substr(b.size(), 2 * kObjectSize - 50));
    EXPECT_EQ(a, whole.substr(4 * kObjectSize - 50));
    EXPECT_EQ("bb", read(h, 2, kObjectSize - 1));   // across a boundary
    EXPECT_EQ(std::string(10, 'a'), read(h, 20, size - 10));
    api->stsa_close_handle(h, 0);
    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &linfo));
    EXPECT_EQ(size, linfo.lsu_used);

    const sts_image_def_t d = def("big");
    ASSERT_EQ(0, api->stsa_delete_image(&lsu, &d, 0));
    EXPECT_EQ(1u, objectsIn(name + "/lsu0"));   // the LSU's index only
    EXPECT_EQ(0, api->stsa_delete_lsu(&lsu));
    int status = -1;
    EXPECT_EQ("", radosTool(root.path(), "lsu list " + server, &status));
    EXPECT_EQ(0, status);
}

TEST_P(RadosConformance, BadNamesModesAndExtentsChangeNothing)
{
    sts_handle_t h = nullptr;
    sts_image_def_t escape = def("../x");
    EXPECT_EQ(RADOS_EINVAL, api->stsa_create_image(&lsu, &escape, 0, &h));
    sts_image_def_t empty = def("");
    EXPECT_EQ(RADOS_EINVAL, api->stsa_create_image(&lsu, &empty, 0, &h));
    const sts_image_def_t ok = def("fine");
    sts_lsu_t nolsu = lsuOf(svh, "nolsu");
    EXPECT_EQ(RADOS_ENOENT, api->stsa_create_image(&nolsu, &ok, 0, &h));
    sts_lsu_t outside = lsuOf(svh, "..");
    EXPECT_EQ(RADOS_EINVAL, api->stsa_create_image(&outside, &ok, 0, &h));
    EXPECT_EQ(RADOS_EINVAL, api->stsa_open_image(&lsu, &ok, 7, &h));
    EXPECT_EQ(RADOS_ENOENT, api->stsa_open_image(&lsu, &ok, RADOS_OPEN_READ, &h));
    sts_handle_t other = nullptr;
    EXPECT_EQ(RADOS_ENOENT, api->stsa_open_server(ssn, "Rados:..", nullptr, "", &other));

    h = create("limits");
    sts_uint64_t done = 0;
    EXPECT_EQ(RADOS_EINVAL, api->stsa_write_image(h, nullptr, const_cast<char*>("x"), 1, RADOS_MAX_EXTENT, &done));
    api->stsa_close_handle(h, 0);
    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &linfo));
    EXPECT_EQ(1u, linfo.lsu_images);
    EXPECT_EQ(0u, linfo.lsu_used);
    EXPECT_EQ(0u, info("limits").imo_size);
}

TEST_P(RadosConformance, TwoThreadsWriteTwoImages)
{
    auto writer = [&](const char* base, char fill) {
        sts_handle_t h = create(base);
        const std::string block(65536, fill);
        for (int i = 0; i < 16; ++i) write(h, block, static_cast<sts_uint64_t>(i) * block.size());
        EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    };
    std::thread ta(writer, "ta", 'a');
    std::thread tb(writer, "tb", 'b');
    ta.join();
    tb.join();
    sts_handle_t h = open("tb", RADOS_OPEN_READ);
    EXPECT_EQ(std::string(65536, 'b'), read(h, 65536, 15 * 65536));
    api->stsa_close_handle(h, 0);
}

INSTANTIATE_TEST_SUITE_P(Direct, RadosConformance, ::testing::Values(Route::Direct));
INSTANTIATE_TEST_SUITE_P(ThroughService, RadosConformance, ::testing::Values(Route::ThroughService));

// A service that dies while it writes an image leaves it incomplete, with
// the size of its last flush, and a delete leaves nothing of it behind.
TEST_F(Rados, ImageOfADeadWriterIsIncomplete)
{
    service.start();
    sts_session_def_t proxied = sd;
    std::snprintf(proxied.sd_proxy, sizeof(proxied.sd_proxy), "%s", service.hop().c_str());
    sts_handle_t session = nullptr;
    ASSERT_EQ(0, api->stsa_open_session(&proxied, &session));
    sts_handle_t remote = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(session, server.c_str(), nullptr, "", &remote));
    sts_lsu_t remoteLsu = lsuOf(remote, "lsu0");
    sts_handle_t h = nullptr;
    const sts_image_def_t d = def("crashed");
    ASSERT_EQ(0, api->stsa_create_image(&remoteLsu, &d, 0, &h));
    write(h, "crash", 0);
    ASSERT_EQ(0, api->stsa_flush(h));
    write(h, "later", 3 * kObjectSize);   // after the flush: the header has not seen this size
    service.kill();

    const sts_image_info_t i = info("crashed");
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_INCOMPLETE), i.imo_status);
    EXPECT_EQ(5u, i.imo_size);
    api->stsa_close_handle(h, 0);   // the service is gone: the close fails, nothing else
    api->stsa_close_handle(remote, 0);
    api->stsa_close_handle(session, 0);
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_INCOMPLETE), info("crashed").imo_status);
    // Its delete finds every object it wrote, the one past the known size too.
    ASSERT_EQ(0, api->stsa_delete_image(&lsu, &d, 0));
    EXPECT_EQ(1u, objectsIn(name + "/lsu0"));   // the LSU's index only
}

// Each fault of a server's configuration fails the open with a number of
// the plug-in and a log line naming the server and the cause (file and
// line, cluster address or pool); none of them takes long.
TEST_F(Rados, BadConfigurationNamesServerAndCause)
{
    const std::string conf = "ceph_conf = " + clusterConf() + "\n";
    const std::string closedPort = root.path() + "/closed.conf";
    root.writeFile("closed.conf", "[global]\nmon host = v2:127.0.0.1:" + std::to_string(keldtest::freePort()) + "\n");
    struct Case {
        const char* what;
        std::string text;
        int number;
        std::string cause;
    };
    const std::vector<Case> cases = {
        {"no ceph_conf", "pool = keld\n", RADOS_ECONFIG, "ceph_conf is missing"},
        {"no pool", conf, RADOS_ECONFIG, "pool is missing"},
        {"relative ceph_conf", "ceph_conf = ceph.conf\npool = keld\n", RADOS_ECONFIG, "line 1: ceph_conf must be an absolute path"},
        {"unknown key", conf + "pool = keld\ncolour = blue\n", RADOS_ECONFIG, "line 3: unknown key \"colour\""},
        {"no equals sign", conf + "pool keld\n", RADOS_ECONFIG, "line 2: \"pool keld\" is not a \"key = value\" line"},
        {"twice", conf + "pool = keld\npool = keld\n", RADOS_ECONFIG, "line 3: pool is given twice"},
        {"object size", conf + "pool = keld\nobject_size = 12x\n", RADOS_ECONFIG, "line 3: object_size must be"},
        {"lock seconds", conf + "pool = keld\nlock_seconds = 0\n", RADOS_ECONFIG, "line 3: lock_seconds must be"},
        {"client", conf + "pool = keld\nclient = a.b\n", RADOS_ECONFIG, "line 3: client \"a.b\" is not a client id"},
        {"unreadable ceph_conf", "ceph_conf = /nonexistent/ceph.conf\npool = keld\n", RADOS_ECONFIG,
         "cannot read ceph_conf /nonexistent/ceph.conf"},
        {"pool missing", conf + "pool = nothere\n", RADOS_ENOPOOL, "pool \"nothere\""},
        {"cluster down", "ceph_conf = " + closedPort + "\npool = keld\n", RADOS_ECONNECT,
         "cannot connect to the cluster at v2:127.0.0.1:"},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string bad = "bad" + std::to_string(n++);
        writeConfig(bad, c.text);
        logged().clear();
        sts_handle_t h = nullptr;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.number, api->stsa_open_server(ssn, ("Rados:" + bad).c_str(), nullptr, "", &h)) << c.what;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << c.what;
        EXPECT_NE(std::string::npos, logged().find("Rados:" + bad)) << c.what << ": " << logged();
        EXPECT_NE(std::string::npos, logged().find(c.cause)) << c.what << ": " << logged();
        if (c.number == RADOS_ECONFIG && c.cause.find("line") != std::string::npos) {
            EXPECT_NE(std::string::npos, logged().find("keldrive/rados/" + bad + ".conf line")) << logged();
        }
    }
    sts_handle_t h = nullptr;
    EXPECT_EQ(RADOS_ENOENT, api->stsa_open_server(ssn, "Rados:absent", nullptr, "", &h));
    EXPECT_NE(std::string::npos, logged().find("absent.conf")) << logged();

    // The tool refuses the same way, and misuse ends it with 2.
    int status = -1;
    EXPECT_NE(std::string::npos, radosTool(root.path(), "lsu list Rados:bad1", &status).find("pool is missing"));
    EXPECT_EQ(1, status);
    radosTool(root.path(), "lsu create " + server, &status);
    EXPECT_EQ(2, status);
    radosTool(root.path(), "lsu create Disk:x lsu1", &status);
    EXPECT_EQ(2, status);
    EXPECT_NE(std::string::npos, radosTool(root.path(), "lsu create " + server + " lsu0", &status).find("exists already"));
    EXPECT_EQ(1, status);
}

} // namespace
