// Connections to clusters, shared by the servers configured alike, and the
// small object operations every part of the store builds on.
#include "RadosStore.h"

#include "RadosImageLock.h"

#include <cerrno>
#include <cstring>
#include <mutex>

namespace radosstore {

namespace {

// A cluster that does not answer fails a connect in seconds rather than
// librados' five minutes, and an operation in a minute rather than never.
const char* const CONNECT_SECONDS = "10";
const char* const OPERATION_SECONDS = "60";
// Omap entries fetched a round trip.
const std::uint64_t OMAP_BATCH = 1000;

std::mutex g_connectionsLock;
std::map<std::string, std::weak_ptr<Cluster>> g_connections;   // guarded by g_connectionsLock

std::string connectionKey(const ServerConfig& c)
{
    return c.cephConf + '\n' + c.client + '\n' + c.keyring + '\n' + c.pool;
}

std::string monitorsOf(rados_t cluster)
{
    char hosts[1024] = {0};
    if (rados_conf_get(cluster, "mon_host", hosts, sizeof(hosts) - 1) != 0 || hosts[0] == '\0') return "(none)";
    return hosts;
}

// The client set up from the configuration, not yet connected.
int configure(rados_t cluster, const ServerConfig& config, std::string& why)
{
    int rc = rados_conf_read_file(cluster, config.cephConf.c_str());
    if (rc != 0) {
        why = "cannot read ceph_conf " + config.cephConf + ": " + std::strerror(-rc);
        return rc;
    }
    if (!config.keyring.empty()) rc = rados_conf_set(cluster, "keyring", config.keyring.c_str());
    if (rc == 0) rc = rados_conf_set(cluster, "client_mount_timeout", CONNECT_SECONDS);
    if (rc == 0) rc = rados_conf_set(cluster, "rados_mon_op_timeout", OPERATION_SECONDS);
    if (rc == 0) rc = rados_conf_set(cluster, "rados_osd_op_timeout", OPERATION_SECONDS);
    if (rc != 0) why = std::string("cannot set up the cluster client: ") + std::strerror(-rc);
    return rc;
}

// A client of the cluster, connected.  0, or a number with error naming
// the server and the cause.
int openClient(const ServerConfig& config, rados_t& out, std::string& error)
{
    const std::string server = std::string(SERVER_PREFIX) + config.name;
    rados_t cluster = nullptr;
    int rc = rados_create2(&cluster, "ceph", ("client." + config.client).c_str(), 0);
    if (rc != 0) {
        error = server + ": cannot make a cluster client for client." + config.client + ": " + std::strerror(-rc);
        return RADOS_ECONFIG;
    }
    std::string why;
    if (configure(cluster, config, why) != 0) {
        rados_shutdown(cluster);
        error = server + " (" + config.file + "): " + why;
        return RADOS_ECONFIG;
    }
    rc = rados_connect(cluster);
    if (rc != 0) {
        error = server + ": cannot connect to the cluster at " + monitorsOf(cluster) + " (ceph_conf " +
                config.cephConf + ") as client." + config.client + ": " + std::strerror(-rc);
        rados_shutdown(cluster);
        return RADOS_ECONNECT;
    }
    out = cluster;
    return 0;
}

int connectNew(const ServerConfig& config, std::shared_ptr<Cluster>& out, std::string& error)
{
    const std::string server = std::string(SERVER_PREFIX) + config.name;
    rados_t cluster = nullptr;
    int rc = openClient(config, cluster, error);
    if (rc != 0) return rc;
    rados_ioctx_t pool = nullptr;
    rc = rados_ioctx_create(cluster, config.pool.c_str(), &pool);
    if (rc != 0) {
        error = server + ": pool \"" + config.pool + "\" (" + config.file + ") " +
                (rc == -ENOENT ? std::string("is not in the cluster") : std::string("cannot be opened: ") + std::strerror(-rc)) +
                " at " + monitorsOf(cluster);
        rados_shutdown(cluster);
        return rc == -ENOENT ? RADOS_ENOPOOL : RADOS_ECONNECT;
    }
    rados_t control = nullptr;
    rc = openClient(config, control, error);
    if (rc != 0) {
        rados_ioctx_destroy(pool);
        rados_shutdown(cluster);
        return rc;
    }
    out = std::make_shared<Cluster>(cluster, control, pool);
    return 0;
}

} // namespace

Cluster::Cluster(rados_t cluster, rados_t control, rados_ioctx_t pool)
    : m_cluster(cluster), m_control(control), m_pool(pool), m_locks(std::make_unique<WriteLocks>(*this))
{
}

Cluster::~Cluster()
{
    m_locks.reset();   // its renewals use the connection
    rados_ioctx_destroy(m_pool);
    rados_shutdown(m_control);
    rados_shutdown(m_cluster);
}

rados_ioctx_t Cluster::openNamespace(const std::string& ns, Route route) const
{
    rados_ioctx_t io = nullptr;
    const rados_t client = route == Route::CONTROL ? m_control : m_cluster;
    if (rados_ioctx_create2(client, rados_ioctx_get_id(m_pool), &io) != 0) return nullptr;
    rados_ioctx_set_namespace(io, ns.c_str());
    return io;
}

int connect(const ServerConfig& config, std::shared_ptr<Cluster>& out, std::string& error)
{
    // One connect at a time: a second open of the same server waits for the
    // first one's connection instead of making its own.
    std::lock_guard<std::mutex> hold(g_connectionsLock);
    std::weak_ptr<Cluster>& shared = g_connections[connectionKey(config)];
    out = shared.lock();
    if (out) return 0;
    const int rc = connectNew(config, out, error);
    if (rc == 0) shared = out;
    return rc;
}

int numberOf(int radosResult)
{
    switch (-radosResult) {
    case 0: return 0;
    case ENOENT: return RADOS_ENOENT;
    case EEXIST: return RADOS_EEXIST;
    case ENOSPC:
    case EDQUOT: return RADOS_ENOSPC;
    case ETIMEDOUT:
    case ENOTCONN:
    case ESHUTDOWN: return RADOS_ECONNECT;
    case EBUSY: return RADOS_EBUSY;
    default: return RADOS_EIO;
    }
}

int omapUpdate(rados_ioctx_t io, const std::string& oid, const std::map<std::string, std::string>& set,
               const std::vector<std::string>& remove)
{
    std::vector<const char*> keys, values, removed;
    std::vector<size_t> keyLengths, valueLengths, removedLengths;
    for (const auto& [key, value] : set) {
        keys.push_back(key.data());
        keyLengths.push_back(key.size());
        values.push_back(value.data());
        valueLengths.push_back(value.size());
    }
    for (const std::string& key : remove) {
        removed.push_back(key.data());
        removedLengths.push_back(key.size());
    }
    rados_write_op_t op = rados_create_write_op();
    if (!keys.empty()) {
        rados_write_op_omap_set2(op, keys.data(), values.data(), keyLengths.data(), valueLengths.data(), keys.size());
    }
    if (!removed.empty()) rados_write_op_omap_rm_keys2(op, removed.data(), removedLengths.data(), removed.size());
    const int rc = rados_write_op_operate(op, io, oid.c_str(), nullptr, 0);
    rados_release_write_op(op);
    return rc;
}

int omapWithPrefix(rados_ioctx_t io, const std::string& oid, const std::string& prefix,
                   std::map<std::string, std::string>& out)
{
    std::string after;
    for (unsigned char more = 1; more;) {
        rados_read_op_t op = rados_create_read_op();
        rados_omap_iter_t it = nullptr;
        int prval = 0;
        more = 0;
        rados_read_op_omap_get_vals2(op, after.c_str(), prefix.c_str(), OMAP_BATCH, &it, &more, &prval);
        int rc = rados_read_op_operate(op, io, oid.c_str(), 0);
        if (rc == 0) rc = prval;
        if (rc == 0) {
            char *key = nullptr, *value = nullptr;
            size_t keyLength = 0, valueLength = 0;
            while (rados_omap_get_next2(it, &key, &value, &keyLength, &valueLength) == 0 && key != nullptr) {
                after.assign(key, keyLength);
                out[after] = std::string(value != nullptr ? value : "", valueLength);
            }
        }
        if (it != nullptr) rados_omap_get_end(it);
        rados_release_read_op(op);
        if (rc == -ENOENT) return 0;   // no index yet: nothing in it
        if (rc != 0) return rc;
    }
    return 0;
}

int omapValue(rados_ioctx_t io, const std::string& oid, const std::string& key, std::string& value)
{
    rados_read_op_t op = rados_create_read_op();
    rados_omap_iter_t it = nullptr;
    int prval = 0;
    const char* keys[] = {key.c_str()};
    const size_t lengths[] = {key.size()};
    rados_read_op_omap_get_vals_by_keys2(op, keys, 1, lengths, &it, &prval);
    int rc = rados_read_op_operate(op, io, oid.c_str(), 0);
    if (rc == 0) rc = prval;
    if (rc == 0) {
        char *k = nullptr, *v = nullptr;
        size_t kl = 0, vl = 0;
        rc = rados_omap_get_next2(it, &k, &v, &kl, &vl) == 0 && k != nullptr ? 0 : -ENOENT;
        if (rc == 0) value.assign(v != nullptr ? v : "", vl);
    }
    if (it != nullptr) rados_omap_get_end(it);
    rados_release_read_op(op);
    return rc;
}

} // namespace radosstore
