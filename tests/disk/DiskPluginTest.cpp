// The disk plug-in in a fresh install root, reached through our storage
// framework either directly or through a running service: a keldpxy on the
// same root and the remote plug-in, with the service as sd_proxy.  The
// storage-API tests run both ways (Conformance) and must give the same
// results, numbers included; the configuration text, the operator's tools
// and crashes use the direct Disk fixture.
#include "DiskStore.h"
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

namespace {

class Disk : public ::testing::Test {
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

    static sts_image_def_t def(const char* base, const char* date = "20261123")
    {
        sts_image_def_t d = {};
        std::strcpy(d.img_basename, base);
        std::strcpy(d.img_date, date);
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
        std::string buf(len, '\0');
        sts_uint64_t done = 0;
        EXPECT_EQ(0, api->stsa_read_image(h, &buf[0], len, off, &done));
        buf.resize(done);
        return buf;
    }
    sts_uint32_t status(const char* base)
    {
        sts_image_info_t info;
        const sts_image_def_t d = def(base);
        EXPECT_EQ(0, api->stsa_get_image_prop_byname(&lsu, &d, &info));
        return info.imo_status;
    }

    // The service's root is the tests' root: the disk plug-in's files stay
    // where the tests and the operator's tools look for them.
    Service service;
    keldtest::TempRoot& root = service.root();
    std::string server = diskServer();
    sts_api_t* api = nullptr;
    sts_session_def_t sd = {};
    sts_handle_t ssn = nullptr;
    sts_handle_t svh = nullptr;
    sts_lsu_t lsu = {};
};

// Snapshots are taken by the operator's tool.
int snapshotTool(const std::string& args, std::string* out = nullptr)
{
    return runTool(KELD_DISK_SNAPSHOT_TOOL " " + args, out);
}

std::string fileBytes(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

sts_snap_def_t snap(const char* name)
{
    sts_snap_def_t d = {};
    std::snprintf(d.sd_snap_name, sizeof(d.sd_snap_name), "%s", name);
    return d;
}

// The storage-API tests, run directly and through a service.
class Conformance : public Disk, public ::testing::WithParamInterface<Route> {
protected:
    Route route() const override { return GetParam(); }
    void take(const char* name) { ASSERT_EQ(0, snapshotTool("create lsu0 " + std::string(name))) << name; }
    sts_handle_t openChanges(const char* base, const char* diff, int expect = 0)
    {
        const sts_snap_def_t b = snap(base);
        const sts_snap_def_t d = snap(diff);
        sts_volume_spec_t vol = {};
        sts_handle_t h = nullptr;
        EXPECT_EQ(expect, api->stsa_open_snap_change_list(&lsu, &b, &d, &vol, 0, &h)) << base << " " << diff;
        return h;
    }
    // The whole walk, one entry a call, ended by STS_ENO_MORE: each entry as its
    // base name, '+' added, '*' modified or '-' deleted, and its size.
    std::string changes(const char* base, const char* diff, std::vector<std::string> patterns = {})
    {
        std::vector<sts_pathname_t> filter(patterns.size());
        for (size_t i = 0; i < patterns.size(); ++i) std::snprintf(filter[i], sizeof(filter[i]), "%s", patterns[i].c_str());
        sts_handle_t h = openChanges(base, diff);
        std::string out;
        sts_file_attr_t attr;
        int rc = 0;
        while ((rc = api->stsa_list_file(h, static_cast<sts_uint32_t>(filter.size()), filter.data(), &attr)) == 0) {
            const std::string name = attr.object_name;
            const std::string base = name.substr(0, name.find('@'));
            EXPECT_EQ(file(base.c_str()), name);
            EXPECT_EQ(STS_DIFF_OBJECT_FILE, attr.object_type);
            out += (out.empty() ? "" : " ") + base + "+-*"[attr.object_state] + std::to_string(attr.object_size);
        }
        EXPECT_EQ(STS_ENO_MORE, rc);
        EXPECT_EQ(0, api->stsa_close_snap_change_list(h));
        return out;
    }
    void closedImage(const char* base, const std::string& data)
    {
        sts_handle_t h = create(base);
        write(h, data, 0);
        ASSERT_EQ(0, api->stsa_close_handle(h, 0));
    }
    static std::string file(const char* base) { return std::string(base) + "@20261123@20261123T0101"; }
};

// The value of the credential line, or "".
std::string credentialLine(const std::string& config)
{
    const size_t at = config.find("credential = ");
    return at == std::string::npos ? "" : config.substr(at, config.find('\n', at) - at);
}

// A fresh root's one server and LSU; images written at offsets, read,
// copied, listed and deleted.
TEST_P(Conformance, ImagesAreWrittenReadCopiedListedAndDeleted)
{
    sts_handle_t list = nullptr;
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, nullptr, &list));
    sts_lsu_name_t name;
    ASSERT_EQ(0, api->stsa_list_lsu(list, &name));
    EXPECT_STREQ("lsu0", name.sln_name);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_lsu(list, &name));
    api->stsa_close_handle(list, 0);
    sts_lsu_name_t missing = {};
    std::strcpy(missing.sln_name, "missing");
    EXPECT_EQ(STS_ENO_MORE, api->stsa_find_lsu(svh, &missing, &name));   // a result, not an error
    sts_server_info_t sinfo;
    EXPECT_EQ(DISK_ENOENT, api->stsa_get_server_prop_byname(&sd, "Disk:nobody-here", &sinfo));

    sts_handle_t h = create("backup1");
    write(h, "world", 6);
    write(h, "hello ", 0);
    const std::string meta = "catalog";
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image_meta(h, const_cast<char*>(meta.data()), meta.size(), 0, &done));
    EXPECT_EQ(0, api->stsa_flush(h));
    EXPECT_EQ(DISK_IMAGE_INCOMPLETE, status("backup1"));
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    EXPECT_EQ(DISK_IMAGE_COMPLETE, status("backup1"));

    h = open("backup1", DISK_OPEN_READ);
    EXPECT_EQ("hello world", read(h, 100, 0));
    EXPECT_EQ("world", read(h, 5, 6));
    std::string m(16, '\0');
    ASSERT_EQ(0, api->stsa_read_image_meta(h, &m[0], m.size(), 0, &done));
    EXPECT_EQ(meta, m.substr(0, done));
    EXPECT_EQ(DISK_EREADONLY, api->stsa_write_image(h, nullptr, const_cast<char*>("x"), 1, 0, &done));
    sts_image_info_t info;
    ASSERT_EQ(0, api->stsa_get_image_prop(h, &info));
    EXPECT_EQ(11u, info.imo_size);   // the refused write changed nothing
    sts_handle_t dst = create("dst");
    ASSERT_EQ(0, api->stsa_copy_extent(dst, 0, h, 2, 5, 0, &done));
    EXPECT_EQ(5u, done);
    ASSERT_EQ(0, api->stsa_include_in_image(dst, 5, h, 0, 2, &done));
    EXPECT_EQ("llo whe", read(dst, 100, 0));
    api->stsa_close_handle(dst, 0);
    api->stsa_close_handle(h, 0);

    ASSERT_EQ(0, api->stsa_open_image_list(&lsu, 0, &list));
    std::string names;
    sts_image_def_t listed;
    int rc = 0;
    while ((rc = api->stsa_list_image(list, &listed)) == 0) names += std::string(listed.img_basename) + "@" + listed.img_date + " ";
    EXPECT_EQ(STS_ENO_MORE, rc);
    EXPECT_EQ("backup1@20261123 dst@20261123 ", names);
    api->stsa_close_handle(list, 0);

    const sts_image_def_t d = def("backup1");
    EXPECT_EQ(DISK_EEXIST, api->stsa_create_image(&lsu, &d, 0, &list));
    EXPECT_EQ(DISK_IMAGE_COMPLETE, status("backup1"));   // the refused create did not mark it
    EXPECT_EQ(0, api->stsa_delete_image(&lsu, &d, 0));
    EXPECT_EQ(DISK_ENOENT, api->stsa_get_image_prop_byname(&lsu, &d, &info));
}

TEST_P(Conformance, BadNamesAndExtentsChangeNothing)
{
    sts_handle_t h = nullptr;
    sts_image_def_t escape = def("../x");
    EXPECT_EQ(DISK_EINVAL, api->stsa_create_image(&lsu, &escape, 0, &h));
    sts_image_def_t slash = def("a", "2026/11/23");
    EXPECT_EQ(DISK_EINVAL, api->stsa_create_image(&lsu, &slash, 0, &h));
    sts_lsu_t outside = lsuOf(svh, "..");
    const sts_image_def_t ok = def("fine");
    EXPECT_EQ(DISK_EINVAL, api->stsa_create_image(&outside, &ok, 0, &h));
    sts_handle_t other = nullptr;
    EXPECT_EQ(DISK_ENOENT, api->stsa_open_server(ssn, "Disk:..", nullptr, "", &other));
    EXPECT_EQ(DISK_EINVAL, api->stsa_open_image(&lsu, &ok, 7, &h));

    h = create("limits");
    sts_uint64_t done = 0;
    EXPECT_EQ(DISK_EINVAL, api->stsa_write_image(h, nullptr, const_cast<char*>("x"), 1, DISK_MAX_EXTENT, &done));
    api->stsa_close_handle(h, 0);
    sts_lsu_info_t info;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &info));
    EXPECT_EQ(1u, info.lsu_images);
    EXPECT_EQ(0u, info.lsu_used);
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

TEST_P(Conformance, CredentialIsRequiredWhereConfiguredAndNeverStoredOrLogged)
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

// Controls and LSU administration, each with a payload of its own shape.
TEST_P(Conformance, ControlsAndLsuAdministrationCarryTheirPayloads)
{
    sts_ioctl_restore_cntl_t cntl = {};
    cntl.fragnum = 7;
    std::strcpy(cntl.client, "client-a");
    ASSERT_EQ(0, api->stsa_ioctl(svh, DISK_IOCTL_SET_RESTORE_CNTL, &cntl));
    sts_ioctl_restore_cntl_t back;
    ASSERT_EQ(0, api->stsa_ioctl(svh, DISK_IOCTL_GET_RESTORE_CNTL, &back));
    EXPECT_EQ(7, back.fragnum);
    EXPECT_STREQ("client-a", back.client);
    sts_ioctl_get_lsu_unique_id_t id = {};
    id.lsu = lsu;
    ASSERT_EQ(0, api->stsa_ioctl(svh, DISK_IOCTL_GET_LSU_UNIQUE_ID, &id));
    EXPECT_EQ(32u, std::strlen(id.unique_id));
    int unknown = 0;
    EXPECT_EQ(STS_ENOT_SUPPORTED, api->stsa_ioctl(svh, 99999, &unknown));

    sts_handle_t lh = nullptr;
    ASSERT_EQ(0, api->stsa_open_lsu(&lsu, &lh));
    sts_lsu_pool_t pool = {};
    std::strcpy(pool.lp_name.sln_name, "fast");
    pool.lp_priority = 3;
    ASSERT_EQ(0, api->stsa_add_pool_lsu(lh, &pool));
    sts_lsu_pool_t pools[4];
    int ret = 0, total = 0;
    ASSERT_EQ(0, api->stsa_get_pool_lsu(lh, pools, 4, &ret, &total));
    ASSERT_EQ(1, ret);
    EXPECT_STREQ("fast", pools[0].lp_name.sln_name);
    EXPECT_EQ(3u, pools[0].lp_priority);
    sts_storel_t elements[2];
    ASSERT_EQ(0, api->stsa_get_storel(svh, elements, 2, &ret, &total));
    ASSERT_EQ(1, ret);
    sts_storel_info_t einfo;
    ASSERT_EQ(0, api->stsa_get_storel_prop(svh, elements[0].ste_devname, &einfo));
    EXPECT_STREQ("lsu0", einfo.sti_owner.sln_name);
    EXPECT_EQ(0, api->stsa_alloc_lsu(lh, &elements[0]));
    api->stsa_close_handle(lh, 0);
    sts_lsu_name_t mounted;
    EXPECT_EQ(0, api->stsa_mount_lsu(&lsu, "/export/lsu0", 0, "", &mounted));
    EXPECT_STREQ("lsu0", mounted.sln_name);
    EXPECT_EQ(DISK_EBUSY, api->stsa_mount_lsu(&lsu, "/other", 0, "", &mounted));
    EXPECT_EQ(0, api->stsa_activate_lsu(&sd, &lsu, 1));
}

TEST_P(Conformance, ExtractIntoAnotherLsuAndDeleteFiles)
{
    ASSERT_EQ(0, std::system(("KELDV_ROOT=" + root.path() + " " KELD_DISK_LSU_SCRIPT " create " + server +
                              " lsu1 >/dev/null").c_str()));
    sts_handle_t h = create("keep");
    write(h, "payload", 0);
    sts_lsu_name_t other = {};
    std::strcpy(other.sln_name, "lsu1");
    ASSERT_EQ(0, api->stsa_extract_files(h, &other, 0));
    api->stsa_close_handle(create("gone"), 0);
    const char* names[] = {"gone@20261123@20261123T0101", "absent@x@y"};
    EXPECT_EQ(0, api->stsa_delete_files(h, names, 2));
    const char* self[] = {"keep@20261123@20261123T0101"};
    EXPECT_EQ(DISK_EBUSY, api->stsa_delete_files(h, self, 1));
    api->stsa_close_handle(h, 0);

    sts_image_info_t info;
    const sts_image_def_t goneDef = def("gone");
    EXPECT_EQ(DISK_ENOENT, api->stsa_get_image_prop_byname(&lsu, &goneDef, &info));
    const sts_lsu_t lsu1 = lsuOf(svh, "lsu1");
    const sts_image_def_t keepDef = def("keep");
    ASSERT_EQ(0, api->stsa_get_image_prop_byname(&lsu1, &keepDef, &info));
    EXPECT_EQ(7u, info.imo_size);
    EXPECT_EQ(DISK_IMAGE_COMPLETE, info.imo_status);
}

TEST_P(Conformance, TwoThreadsWriteTwoImages)
{
    auto writer = [&](const char* base, char fill) {
        sts_handle_t h = create(base);
        const std::string block(65536, fill);
        for (int i = 0; i < 32; ++i) write(h, block, static_cast<sts_uint64_t>(i) * block.size());
        EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    };
    std::thread a(writer, "ta", 'a');
    std::thread b(writer, "tb", 'b');
    a.join();
    b.join();
    sts_handle_t h = open("tb", DISK_OPEN_READ);
    EXPECT_EQ(std::string(65536, 'b'), read(h, 65536, 31 * 65536));
    api->stsa_close_handle(h, 0);
}

INSTANTIATE_TEST_SUITE_P(Direct, Conformance, ::testing::Values(Route::Direct));
INSTANTIATE_TEST_SUITE_P(ThroughService, Conformance, ::testing::Values(Route::ThroughService));

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

// The change list between two snapshots holds exactly the differences;
// the first snapshot never changes; the tool, the properties and the
// refusals of bad names around them.
TEST_P(Conformance, SnapshotChangeListsPropertiesToolAndRefusals)
{
    closedImage("kept", "unchanged");
    closedImage("edited", "old data");
    closedImage("removed", "going");
    sts_handle_t writing = create("open");   // still being written while s1 is taken
    write(writing, "half", 0);
    const std::string leftover = root.path() + "/keldrive/storage/" + hostName() + "/lsus/lsu0/snapshots/.crashed.x";
    ASSERT_EQ(0, std::system(("mkdir -p " + leftover + "/images").c_str()));
    take("s1");
    EXPECT_NE(0, access(leftover.c_str(), F_OK));   // a crash's half snapshot goes at the next take

    sts_handle_t h = open("edited", DISK_OPEN_WRITE);
    write(h, "NEW", 0);
    api->stsa_close_handle(h, 0);
    write(writing, "-and-the-rest", 4);
    api->stsa_close_handle(writing, 0);
    const sts_image_def_t gone = def("removed");
    ASSERT_EQ(0, api->stsa_delete_image(&lsu, &gone, 0));
    closedImage("added", "fresh!");
    api->stsa_close_handle(open("kept", DISK_OPEN_READ), 0);   // reading changes nothing
    take("s2");

    sts_snap_info_t info;
    const sts_snap_def_t first = snap("s1");
    ASSERT_EQ(0, api->stsa_get_snap_prop_byname(&lsu, &first, &info));
    const std::string s1 = std::string(info.sno_snap_vol_spec.v.v_device.dv_device_path) + "/images/";
    EXPECT_EQ("old data", fileBytes(s1 + file("edited") + ".img"));
    EXPECT_EQ("half", fileBytes(s1 + file("open") + ".img"));
    EXPECT_EQ(26u, info.sno_snap_size);
    EXPECT_EQ(static_cast<sts_uint32_t>(DISK_SNAPSHOT_COMPLETE), info.sno_snap_status);
    long long taken = 0;
    unsigned images = 0;
    ASSERT_EQ(2, std::sscanf(info.sno_snap_def.sd_snap_isid.is_info, "time=%lld images=%u", &taken, &images));
    EXPECT_EQ(4u, images);

    EXPECT_EQ("added+6 edited*8 open*17 removed-5", changes("s1", "s2"));   // a deleted one as the base held it
    // Filters: any pattern lets an entry through; none, nothing.
    EXPECT_EQ("added+6 removed-5", changes("s1", "s2", {"removed@*", "a*"}));
    EXPECT_EQ("", changes("s1", "s2", {"nothing*"}));
    EXPECT_EQ("added+6 edited+8 kept+9 open+17", changes("", "s2"));   // no base: everything is new
    // A closed list refuses everything, a second close included.
    h = openChanges("s1", "s2");
    sts_file_attr_t attr;
    ASSERT_EQ(0, api->stsa_list_file(h, 0, nullptr, &attr));
    ASSERT_EQ(0, api->stsa_close_snap_change_list(h));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_list_file(h, 0, nullptr, &attr));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_close_snap_change_list(h));
    h = openChanges("s1", "s2");
    EXPECT_EQ(STS_EINVAL_ARG, api->stsa_list_file(h, 1, nullptr, &attr));
    EXPECT_EQ(0, api->stsa_close_snap_change_list(h));

    std::string out;
    EXPECT_EQ(1, snapshotTool("create lsu0 s1", &out));   // exists
    EXPECT_EQ(0, snapshotTool("list " + server + " lsu0", &out));
    EXPECT_EQ(0u, out.find("s1\t20")) << out;
    EXPECT_NE(std::string::npos, out.find("\t4\t26\n")) << out;
    EXPECT_EQ(2, snapshotTool("create lsu0"));
    EXPECT_EQ(1, snapshotTool("create nolsu s"));
    for (const char* bad : {"", "../x", ".hidden", "a/b"}) {
        const sts_snap_def_t b = snap(bad);
        EXPECT_EQ(DISK_EINVAL, api->stsa_get_snap_prop_byname(&lsu, &b, &info)) << bad;
        openChanges("s1", bad, DISK_EINVAL);
        EXPECT_NE(0, snapshotTool("create lsu0 '" + std::string(bad) + "'")) << bad;
    }
    openChanges("../x", "s1", DISK_EINVAL);
    openChanges("missing", "s1", DISK_ENOENT);

    sts_volume_spec_t vol = {};
    EXPECT_EQ(STS_ECLAIM_VOLUME, api->stsa_claim_volume(svh, &vol));
    for (const char* base : {"kept", "edited", "open", "added"}) {
        const sts_image_def_t image = def(base);
        ASSERT_EQ(0, api->stsa_delete_image(&lsu, &image, 0));
    }
    EXPECT_EQ(DISK_EBUSY, api->stsa_delete_lsu(&lsu));   // the snapshots still hold it
    EXPECT_EQ(0, snapshotTool("delete lsu0 s1"));
    EXPECT_EQ(DISK_ENOENT, api->stsa_get_snap_prop_byname(&lsu, &first, &info));
    EXPECT_EQ(1, snapshotTool("delete lsu0 s1"));
    EXPECT_EQ(0, snapshotTool("delete lsu0 s2"));
    EXPECT_EQ(0, snapshotTool("list lsu0", &out));
    EXPECT_EQ("", out);
    EXPECT_EQ(0, api->stsa_delete_lsu(&lsu));
}

} // namespace
