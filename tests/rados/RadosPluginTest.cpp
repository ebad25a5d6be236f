// The RADOS plug-in on the run's one-node cluster, reached through our
// storage framework directly and through a running service with the
// remote plug-in.  The plug-ins' conformance suite runs on it both ways
// (PluginConformance.h); here is what only a RADOS server has: its
// configuration faults, quotas, a crashed writer and the objects left
// behind.  Each test has a server of its own (its index and LSU namespaces
// are apart from the others').
#include "PluginConformance.h"
#include "RadosStore.h"
#include "RemoteTestSupport.h"

#include <algorithm>
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
using conformance::Conformance;

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

// One namespace of the test pool through a connection of the test's own,
// read as a snapshot saw it when one is given: what the plug-in left there
// (the plug-in never lists objects; the test does).
class PoolView {
public:
    explicit PoolView(const std::string& ns, std::uint64_t snapshot = 0)
    {
        if (rados_create(&m_cluster, "admin") == 0 && rados_conf_read_file(m_cluster, clusterConf().c_str()) == 0 &&
            rados_connect(m_cluster) == 0 && rados_ioctx_create(m_cluster, "keld", &m_io) == 0) {
            rados_ioctx_set_namespace(m_io, ns.c_str());
            if (snapshot != 0) rados_ioctx_snap_set_read(m_io, snapshot);
        }
        EXPECT_NE(nullptr, m_io) << "cannot reach the test pool";
    }
    ~PoolView()
    {
        if (m_io != nullptr) rados_ioctx_destroy(m_io);
        if (m_cluster != nullptr) rados_shutdown(m_cluster);
    }
    PoolView(const PoolView&) = delete;
    PoolView& operator=(const PoolView&) = delete;

    size_t objects() const
    {
        size_t count = 0;
        rados_list_ctx_t list = nullptr;
        if (m_io != nullptr && rados_nobjects_list_open(m_io, &list) == 0) {
            const char* oid = nullptr;
            while (rados_nobjects_list_next(list, &oid, nullptr, nullptr) == 0) ++count;
            rados_nobjects_list_close(list);
        }
        return count;
    }
    bool exists(const std::string& oid) const
    {
        std::uint64_t size = 0;
        time_t mtime = 0;
        return m_io != nullptr && rados_stat(m_io, oid.c_str(), &size, &mtime) == 0;
    }
    std::string read(const std::string& oid, size_t len) const
    {
        std::string data(len, '\0');
        const int got = m_io != nullptr ? rados_read(m_io, oid.c_str(), &data[0], len, 0) : -1;
        return data.substr(0, got > 0 ? static_cast<size_t>(got) : 0);
    }
    void mark(const std::string& oid, const std::string& value) const
    {
        ASSERT_EQ(0, rados_setxattr(m_io, oid.c_str(), "test.origin", value.data(), value.size())) << oid;
    }
    // The mark an object carries, "" when none.
    std::string markOf(const std::string& oid) const
    {
        char value[64] = {0};
        const int n = m_io != nullptr ? rados_getxattr(m_io, oid.c_str(), "test.origin", value, sizeof(value)) : -1;
        return n > 0 ? std::string(value, static_cast<size_t>(n)) : "";
    }

private:
    rados_t m_cluster = nullptr;
    rados_ioctx_t m_io = nullptr;
};

size_t objectsIn(const std::string& ns)
{
    return PoolView(ns).objects();
}

class Rados : public ::testing::Test, protected ImageCalls {
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

    // The service's root is the tests' root: the configuration files are
    // where both the service and this process look for them.
    Service service;
    keldtest::TempRoot& root = service.root();
    std::string name = freshName();
    std::string server = "Rados:" + name;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
};

// The RADOS plug-in as the conformance suite sees it: each test a server
// of its own on the run's cluster.
void writeServerConfig(keldtest::TempRoot& root, const std::string& name, const std::string& text)
{
    mkdir((root.path() + "/keldrive/rados").c_str(), 0755);
    root.writeFile("keldrive/rados/" + name + ".conf", text);
}

std::string prepareRados(keldtest::TempRoot& root)
{
    const std::string name = freshName();
    writeServerConfig(root, name, "ceph_conf = " + clusterConf() + "\npool = keld\nobject_size = " +
                                      std::to_string(kObjectSize) + "\n");
    int status = -1;
    const std::string out = radosTool(root.path(), "lsu create Rados:" + name + " lsu0", &status);
    EXPECT_EQ(0, status) << out;
    return status == 0 ? "Rados:" + name : "";
}

int addRadosLsu(keldtest::TempRoot& root, const std::string& server, const std::string& lsu)
{
    int status = -1;
    radosTool(root.path(), "lsu create " + server + " " + lsu, &status);
    return status;
}

int radosSnapshotTool(keldtest::TempRoot& root, const std::string& server, const std::string& command,
                      const std::string& rest, std::string* out)
{
    int status = -1;
    const std::string text = radosTool(root.path(), "snapshot " + command + " " + server + " " + rest, &status);
    if (out != nullptr) *out = text;
    return status;
}

// A snapshot's volume names its pool, namespace and id: "keld/NAME/LSU@ID".
std::string radosSnapshotData(const sts_snap_info_t& snapshot, const std::string& image)
{
    const std::string where = snapshot.sno_snap_vol_spec.v.v_device.dv_device_path;
    const size_t slash = where.find('/');
    const size_t at = where.rfind('@');
    if (slash == std::string::npos || at == std::string::npos) return "";
    rados_t cluster = nullptr;
    rados_ioctx_t io = nullptr;
    std::string data(kObjectSize, '\0');
    int got = -1;
    if (rados_create(&cluster, "admin") == 0 && rados_conf_read_file(cluster, clusterConf().c_str()) == 0 &&
        rados_connect(cluster) == 0 && rados_ioctx_create(cluster, where.substr(0, slash).c_str(), &io) == 0) {
        rados_ioctx_set_namespace(io, where.substr(slash + 1, at - slash - 1).c_str());
        rados_ioctx_snap_set_read(io, std::strtoull(where.c_str() + at + 1, nullptr, 10));
        got = rados_read(io, radosstore::dataObject(image, 0).c_str(), &data[0], data.size(), 0);
    }
    if (io != nullptr) rados_ioctx_destroy(io);
    if (cluster != nullptr) rados_shutdown(cluster);
    return data.substr(0, got > 0 ? static_cast<size_t>(got) : 0);
}

const conformance::Plugin radosPlugin = {"Rados:", RADOS_ENOENT, RADOS_EEXIST, RADOS_EBUSY, RADOS_EINVAL,
                                         RADOS_EREADONLY, RADOS_OPEN_READ, RADOS_OPEN_WRITE, RADOS_MAX_EXTENT,
                                         prepareRados, addRadosLsu, radosSnapshotTool, radosSnapshotData};

INSTANTIATE_TEST_SUITE_P(Rados, Conformance, ::testing::ValuesIn(conformance::bothRoutes(radosPlugin)),
                         conformance::routeName);

// An LSU's own quota is its capacity, the tool lists it with its label;
// a deleted image and a deleted LSU leave no object behind.
TEST_F(Rados, QuotasListingAndNothingLeftBehind)
{
    int status = -1;
    radosTool(root.path(), "lsu create " + server + " lsu1 --quota 1000000", &status);
    ASSERT_EQ(0, status);
    sts_lsu_t lsu1 = lsuOf(svh, "lsu1");
    char label[] = "weekly";
    ASSERT_EQ(0, api->stsa_label_lsu(&lsu1, label));
    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu1, &linfo));
    EXPECT_EQ(1000000u, linfo.lsu_capacity);
    EXPECT_EQ("lsu0\t\t0\nlsu1\tweekly\t1000000\n", radosTool(root.path(), "lsu list " + server, &status));

    sts_handle_t h = create("big");
    write(h, std::string(2 * kObjectSize, 'b'), 3 * kObjectSize);
    api->stsa_close_handle(h, 0);
    const sts_image_def_t d = def("big");
    ASSERT_EQ(0, api->stsa_delete_image(&lsu, &d, 0));
    EXPECT_EQ(1u, objectsIn(name + "/lsu0"));   // the LSU's index only
    EXPECT_EQ(0, api->stsa_delete_lsu(&lsu));
    EXPECT_EQ(0u, objectsIn(name + "/lsu0"));
    EXPECT_EQ("lsu1\tweekly\t1000000\n", radosTool(root.path(), "lsu list " + server, &status));
}

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

// The plug-in over the service, as a client reaches it.
class RadosThroughService : public Rados {
protected:
    Route route() const override { return Route::ThroughService; }
};

// Bytes no two objects of an image share at the same place.
std::string patterned(size_t len)
{
    std::string bytes(len, '\0');
    for (size_t i = 0; i < len; ++i) bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    return bytes;
}

std::string imageName(const char* base)
{
    return std::string(base) + "@20261123@20261123T0101";
}

// A copy whose extents line up on their objects copies the whole objects
// between its ends inside the cluster: the copies carry their source
// objects' own xattrs, which bytes written by the plug-in never do.  The
// partial objects at both ends, a source object never written (a hole),
// a snapshot of the target and an extraction all keep their bytes exact.
TEST_F(RadosThroughService, AlignedCopiesMoveWholeObjectsInsideTheCluster)
{
    const std::uint64_t os = kObjectSize;
    // The source: objects 0-1 and 3-4 written, 2 a hole, 5 partly.
    std::string source = patterned(5 * os + 1000);
    std::fill(source.begin() + 2 * os, source.begin() + 3 * os, '\0');
    sts_handle_t src = create("src");
    write(src, source.substr(0, 2 * os), 0);
    write(src, source.substr(3 * os), 3 * os);
    ASSERT_EQ(0, api->stsa_flush(src));   // its objects are there to be marked
    const PoolView pool(name + "/lsu0");
    for (std::uint64_t i : {0, 1, 3, 4, 5}) pool.mark(radosstore::dataObject(imageName("src"), i), std::to_string(i));

    // The target holds other bytes everywhere, kept by a snapshot.
    const std::string old(6 * os, 'o');
    sts_handle_t dst = create("dst");
    write(dst, old, 0);
    ASSERT_EQ(0, api->stsa_flush(dst));   // before the snapshot
    int status = -1;
    const std::string out = radosTool(root.path(), "snapshot create " + server + " lsu0 before", &status);
    ASSERT_EQ(0, status) << out;

    // Object 0 alone first: the copy is the first write after the snapshot.
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_copy_extent(dst, 0, src, 0, os, 0, &done)) << logged();
    // [100, 4 os + 600) of the source onto os + 100: a head of os - 100
    // bytes, source objects 1-3 onto target objects 2-4, a tail of 600.
    const std::uint64_t len = 4 * os + 500;
    ASSERT_EQ(0, api->stsa_copy_extent(dst, os + 100, src, 100, len, 0, &done)) << logged();
    ASSERT_EQ(len, done);
    const std::string expected =
        source.substr(0, os) + old.substr(os, 100) + source.substr(100, len) + old.substr(os + 100 + len);
    EXPECT_TRUE(expected == read(dst, 6 * os, 0)) << "the copy's bytes differ";

    const std::string target = imageName("dst");
    EXPECT_EQ("0", pool.markOf(radosstore::dataObject(target, 0)));
    EXPECT_EQ("1", pool.markOf(radosstore::dataObject(target, 2)));
    EXPECT_EQ("3", pool.markOf(radosstore::dataObject(target, 4)));
    EXPECT_FALSE(pool.exists(radosstore::dataObject(target, 3))) << "a hole copied onto an object leaves none";
    for (std::uint64_t end : {1, 5}) {
        EXPECT_EQ("", pool.markOf(radosstore::dataObject(target, end))) << "object " << end << " is partial";
    }
    sts_ioctl_fscp_info_t copied = {};
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_FSCP_INFO, &copied));
    EXPECT_EQ(os + len, copied.totalbytescopied);

    // The snapshot still reads the old bytes of every object the copy reached.
    sts_snap_def_t before = {};
    std::strcpy(before.sd_snap_name, "before");
    sts_snap_info_t snapshot = {};
    ASSERT_EQ(0, api->stsa_get_snap_prop_byname(&lsu, &before, &snapshot));
    const std::string volume = snapshot.sno_snap_vol_spec.v.v_device.dv_device_path;
    const PoolView then(name + "/lsu0", std::strtoull(volume.c_str() + volume.rfind('@') + 1, nullptr, 10));
    for (std::uint64_t i = 0; i <= 5; ++i) {
        EXPECT_TRUE(old.substr(0, os) == then.read(radosstore::dataObject(target, i), os)) << "object " << i;
    }

    // Extracted into another LSU, the target reads the same, its hole too.
    radosTool(root.path(), "lsu create " + server + " lsu1", &status);
    ASSERT_EQ(0, status);
    sts_lsu_t lsu1 = lsuOf(svh, "lsu1");
    ASSERT_EQ(0, api->stsa_extract_files(dst, &lsu1.stl_lsu_name, 0)) << logged();
    api->stsa_close_handle(dst, 0);
    api->stsa_close_handle(src, 0);
    sts_handle_t extracted = nullptr;
    const sts_image_def_t d = def("dst");
    ASSERT_EQ(0, api->stsa_open_image(&lsu1, &d, RADOS_OPEN_READ, &extracted));
    EXPECT_TRUE(expected == read(extracted, 6 * os, 0)) << "the extracted bytes differ";
    EXPECT_FALSE(PoolView(name + "/lsu1").exists(radosstore::dataObject(target, 3)));
    api->stsa_close_handle(extracted, 0);
}

} // namespace
