// The test cluster seen through librados' C interface, as the RADOS plug-in
// will see it: an object and omap keys written and read back, and a cluster
// that is not there failing the connect within seconds.
#include <rados/librados.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>
#include <unistd.h>

#include "TestSupport.h"

namespace {

// Short enough that a missing monitor or OSD fails a test in seconds rather
// than after librados' own five minutes (connect) or never (operations).
constexpr const char* kTimeoutSeconds = "5";
constexpr const char* kPool = "keld";

// A connected client; every call returns librados' negative errno.
class RadosClient {
public:
    RadosClient()
    {
        if (rados_create(&m_cluster, "admin") != 0) m_cluster = nullptr;
    }
    ~RadosClient()
    {
        if (m_io) rados_ioctx_destroy(m_io);
        if (m_cluster) rados_shutdown(m_cluster);
    }
    RadosClient(const RadosClient&) = delete;
    RadosClient& operator=(const RadosClient&) = delete;

    int connect(const std::string& confPath)
    {
        if (!m_cluster) return -ENOMEM;
        int rc = rados_conf_read_file(m_cluster, confPath.c_str());
        for (const char* option : {"client_mount_timeout", "rados_mon_op_timeout", "rados_osd_op_timeout"}) {
            if (rc == 0) rc = rados_conf_set(m_cluster, option, kTimeoutSeconds);
        }
        if (rc == 0) rc = rados_connect(m_cluster);
        if (rc == 0) rc = rados_ioctx_create(m_cluster, kPool, &m_io);
        return rc;
    }

    rados_ioctx_t io() const { return m_io; }

private:
    rados_t m_cluster = nullptr;
    rados_ioctx_t m_io = nullptr;
};

std::string clusterConf()
{
    const char* conf = std::getenv("KELD_CEPH_CONF");
    return conf ? conf : "";
}

int setOmap(rados_ioctx_t io, const char* oid, const std::map<std::string, std::string>& entries)
{
    std::vector<const char*> keys, values;
    std::vector<size_t> keyLengths, valueLengths;
    for (const auto& [key, value] : entries) {
        keys.push_back(key.data());
        keyLengths.push_back(key.size());
        values.push_back(value.data());
        valueLengths.push_back(value.size());
    }
    rados_write_op_t op = rados_create_write_op();
    rados_write_op_omap_set2(op, keys.data(), values.data(), keyLengths.data(), valueLengths.data(), keys.size());
    int rc = rados_write_op_operate(op, io, oid, nullptr, 0);
    rados_release_write_op(op);
    return rc;
}

// The values of the keys asked for that the object has.
std::map<std::string, std::string> omapValues(rados_ioctx_t io, const char* oid, const std::vector<std::string>& wanted)
{
    std::vector<const char*> keys;
    std::vector<size_t> keyLengths;
    for (const auto& key : wanted) {
        keys.push_back(key.data());
        keyLengths.push_back(key.size());
    }
    rados_read_op_t op = rados_create_read_op();
    rados_omap_iter_t iter = nullptr;
    int keysRc = 0;
    rados_read_op_omap_get_vals_by_keys2(op, keys.data(), keys.size(), keyLengths.data(), &iter, &keysRc);
    int rc = rados_read_op_operate(op, io, oid, 0);
    std::map<std::string, std::string> found;
    if (rc == 0 && keysRc == 0) {
        char *key, *value;
        size_t keyLength, valueLength;
        while (rados_omap_get_next2(iter, &key, &value, &keyLength, &valueLength) == 0 && key)
            found.emplace(std::string(key, keyLength), std::string(value, valueLength));
    }
    if (iter) rados_omap_get_end(iter);
    rados_release_read_op(op);
    return found;
}

TEST(RadosCluster, ObjectDataAndOmapKeysRoundTrip)
{
    std::string conf = clusterConf();
    ASSERT_FALSE(conf.empty()) << "KELD_CEPH_CONF names no cluster (ctest starts one as fixture rados_cluster)";
    RadosClient client;
    ASSERT_EQ(client.connect(conf), 0);
    rados_ioctx_t io = client.io();
    const char* oid = "smoke-image";

    const std::string data("image\0data", 10);
    ASSERT_EQ(rados_write_full(io, oid, data.data(), data.size()), 0);
    std::string back(64, '\0');
    int got = rados_read(io, oid, back.data(), back.size(), 0);
    ASSERT_EQ(got, static_cast<int>(data.size()));
    EXPECT_EQ(back.substr(0, got), data);

    ASSERT_EQ(setOmap(io, oid, {{"size", "10"}, {"state", std::string("done\0", 5)}}), 0);
    std::map<std::string, std::string> expected{{"state", std::string("done\0", 5)}};
    EXPECT_EQ(omapValues(io, oid, {"state", "absent"}), expected);

    ASSERT_EQ(rados_remove(io, oid), 0);
    EXPECT_EQ(rados_read(io, oid, back.data(), back.size(), 0), -ENOENT);
}

// A configuration like the cluster's but whose monitor port nothing listens
// on; the key is well formed and never checked.
std::string writeUnreachableConf(const std::string& dir)
{
    std::ofstream(dir + "/keyring") << "[client.admin]\n\tkey = AQDgSAdrDPqZDBAAFTYFjRjqzRONZUiJsklV2g==\n";
    std::ofstream(dir + "/ceph.conf") << "[global]\n"
                                      << "mon host = v2:127.0.0.1:" << keldtest::freePort() << "\n"
                                      << "keyring = " << dir << "/keyring\n"
                                      << "log file = " << dir << "/client.log\n"
                                      << "admin socket = \n";
    return dir + "/ceph.conf";
}

TEST(RadosUnreachable, ConnectFailsWithinTheTimeout)
{
    char dirTemplate[] = "/tmp/keld-rados-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    std::string dir = dirTemplate;

    auto start = std::chrono::steady_clock::now();
    RadosClient client;
    EXPECT_EQ(client.connect(writeUnreachableConf(dir)), -ETIMEDOUT);
    // Five seconds asked for; the bound only tells them from librados' own
    // five minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));

    for (const char* file : {"/keyring", "/ceph.conf", "/client.log"}) std::remove((dir + file).c_str());
    rmdir(dir.c_str());
}

} // namespace
