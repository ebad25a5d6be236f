// Sessions and servers through one proxy: a keldpxy with the disk plug-in,
// this process as the client through the remote plug-in.
#include "GiopRelay.h"
#include "RemoteTestSupport.h"

#include "Proxy.hh"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

using namespace remotetest;
using namespace std::chrono_literals;
namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

class RemoteSessions : public ::testing::Test {
protected:
    void TearDown() override { service.stop(); }

    Service service;
};

TEST_F(RemoteSessions, AServerOpensAndClosesThroughTheProxy)
{
    service.start();
    Client client;
    sts_api_t* api = client.api();
    sts_handle_t ssn = client.session(service.hop(), "open-close");

    sts_server_info_t info;
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(stsp_session_def(ssn), diskServer().c_str(), &info));
    EXPECT_EQ(diskServer(), info.srv_server);
    EXPECT_EQ(2062001, api->stsa_get_server_prop_byname(stsp_session_def(ssn), "Disk:nobody", &info));

    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &svh));
    ASSERT_NE(nullptr, svh->owner);
    EXPECT_STREQ("remote", svh->owner->name);
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
    EXPECT_EQ(1u, service.logCount("init object StorageServerImpl"));
    EXPECT_EQ(1u, service.logCount("starting: StorageServerImpl::closeServer"));
    EXPECT_NE(std::string::npos, service.log().find("[open-close]"));   // the session id travelled
}

TEST_F(RemoteSessions, LsusAndServerPropertiesComeThroughTheProxy)
{
    service.start();
    Client client;
    sts_api_t* api = client.api();
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(client.session(service.hop()), diskServer().c_str(), nullptr, "", &svh));
    sts_server_info_t info;
    ASSERT_EQ(0, api->stsa_get_server_prop(svh, &info));
    EXPECT_EQ(diskServer(), info.srv_server);

    // The disk server's one LSU, listed through the proxy.
    sts_handle_t list = nullptr;
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, nullptr, &list));
    sts_lsu_name_t name;
    EXPECT_EQ(0, api->stsa_list_lsu(list, &name));
    EXPECT_STREQ("lsu0", name.sln_name);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_lsu(list, &name));
    EXPECT_EQ(0, api->stsa_close_handle(list, 0));
    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_lsu_info_t lsuInfo;
    EXPECT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &lsuInfo));
    EXPECT_STREQ("lsu0", lsuInfo.lsu_def.sld_name.sln_name);
    sts_lsu_name_t wanted = {};
    std::strcpy(wanted.sln_name, "missing");
    EXPECT_EQ(STS_ENO_MORE, api->stsa_find_lsu(svh, &wanted, &name));   // a result, not an error

    // A configuration buffer that is too small tells the length needed.
    sts_uint32_t needed = 0;
    EXPECT_EQ(STS_EBUFFER_SMALL, api->stsa_get_server_config(svh, nullptr, 0, &needed));
    EXPECT_GT(needed, 0u);

    // Controls, each with its own payload on the wire.
    sts_ioctl_restore_cntl_t cntl = {};
    cntl.fragnum = 7;
    std::strcpy(cntl.client, "client-7");
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_SET_RESTORE_CNTL, &cntl));
    sts_ioctl_restore_cntl_t back = {};
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_RESTORE_CNTL, &back));
    EXPECT_EQ(7, back.fragnum);
    EXPECT_STREQ("client-7", back.client);
    sts_ioctl_get_lsu_unique_id_t id = {};
    std::strcpy(id.lsu.stl_lsu_name.sln_name, "lsu0");
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_LSU_UNIQUE_ID, &id));
    EXPECT_NE('\0', id.unique_id[0]);
    sts_ioctl_ddup_stats_info_t stats = {};
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_DDUP_STATS, &stats));
    EXPECT_EQ(0, std::strncmp(stats.ds_msg, "images ", 7));
    EXPECT_EQ(STS_ENOT_SUPPORTED, api->stsa_ioctl(svh, 12345, &stats));   // no contract operation carries it
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
}

// Images beyond their data: metadata, copies between two images at the
// service, properties and the image list.
TEST_F(RemoteSessions, ImagesCopyListAndCarryMetadataThroughTheProxy)
{
    service.start();
    Client client("max_transfer = 4096\n");   // metadata in pieces too
    sts_api_t* api = client.api();
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(client.session(service.hop(), "images"), diskServer().c_str(), nullptr, "", &svh));
    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t srcDef = imageDef("source");
    sts_image_def_t dstDef = imageDef("target");
    sts_handle_t src = nullptr;
    sts_handle_t dst = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &srcDef, 0, &src));
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &dstDef, 0, &dst));
    std::string data(10000, 'd');
    std::string meta(9000, 'm');
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image(src, nullptr, &data[0], data.size(), 0, &done));
    ASSERT_EQ(0, api->stsa_write_image_meta(src, &meta[0], meta.size(), 0, &done));
    EXPECT_EQ(meta.size(), done);
    ASSERT_EQ(0, api->stsa_copy_extent(dst, 0, src, 0, data.size(), 0, &done));
    EXPECT_EQ(data.size(), done);
    ASSERT_EQ(0, api->stsa_include_in_image(dst, data.size(), src, 0, 100, &done));
    EXPECT_EQ(100u, done);

    std::string back(meta.size() + 10, '\0');
    ASSERT_EQ(0, api->stsa_read_image_meta(src, &back[0], back.size(), 0, &done));
    EXPECT_EQ(meta, back.substr(0, done));
    sts_image_info_t info;
    ASSERT_EQ(0, api->stsa_get_image_prop(dst, &info));
    EXPECT_EQ(data.size() + 100, info.imo_size);
    EXPECT_STREQ("target", info.imo_def.img_basename);
    EXPECT_EQ(0, api->stsa_close_handle(src, 0));
    EXPECT_EQ(0, api->stsa_close_handle(dst, 0));

    sts_handle_t list = nullptr;
    ASSERT_EQ(0, api->stsa_open_image_list(&lsu, 0, &list));
    std::string names;
    sts_image_def_t listed;
    int rc = 0;
    while ((rc = api->stsa_list_image(list, &listed)) == 0) names += std::string(listed.img_basename) + " ";
    EXPECT_EQ(STS_ENO_MORE, rc);
    EXPECT_EQ("source target ", names);
    EXPECT_EQ(0, api->stsa_close_handle(list, 0));
    EXPECT_EQ(0, api->stsa_delete_image(&lsu, &srcDef, 0));
    EXPECT_EQ(2062001, api->stsa_get_image_prop_byname(&lsu, &srcDef, &info));   // the disk plug-in's "no such image"
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
}

// An image written through the proxy, a snapshot taken at the service, and
// the snapshot and its change list read back through the proxy.
TEST_F(RemoteSessions, SnapshotsAndTheirChangeListsComeThroughTheProxy)
{
    service.start();
    Client client;
    sts_api_t* api = client.api();
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(client.session(service.hop(), "snap"), diskServer().c_str(), nullptr, "", &svh));
    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t def = imageDef("snapped");
    sts_handle_t img = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &def, 0, &img));
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image(img, nullptr, const_cast<char*>("twelve bytes"), 12, 0, &done));
    ASSERT_EQ(0, api->stsa_close_handle(img, 0));
    ASSERT_EQ(0, std::system(("KELDV_ROOT='" + service.root().path() + "' " KELD_DISK_SNAPSHOT_TOOL
                              " create lsu0 s1 >/dev/null").c_str()));

    sts_snap_def_t s1 = {};
    std::strcpy(s1.sd_snap_name, "s1");
    sts_snap_info_t info;
    ASSERT_EQ(0, api->stsa_get_snap_prop_byname(&lsu, &s1, &info));
    EXPECT_STREQ("s1", info.sno_snap_def.sd_snap_name);
    EXPECT_EQ(12u, info.sno_snap_size);
    EXPECT_NE(nullptr, std::strstr(info.sno_snap_vol_spec.v.v_device.dv_device_path, "s1"));

    sts_snap_def_t none = {};
    sts_volume_spec_t volume = {};
    sts_handle_t changes = nullptr;
    ASSERT_EQ(0, api->stsa_open_snap_change_list(&lsu, &none, &s1, &volume, 0, &changes));
    sts_pathname_t filter[1];
    std::strcpy(filter[0], "snapped@*");
    sts_file_attr_t attr;
    ASSERT_EQ(0, api->stsa_list_file(changes, 1, filter, &attr));
    EXPECT_EQ(0, std::strncmp(attr.object_name, "snapped@", 8));
    EXPECT_EQ(STS_DIFF_OBJECT_STATE_ADDED, attr.object_state);
    EXPECT_EQ(12u, attr.object_size);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_file(changes, 1, filter, &attr));   // the end, as an error
    EXPECT_EQ(0, api->stsa_close_snap_change_list(changes));
    EXPECT_EQ(STS_ECLAIM_VOLUME, api->stsa_claim_volume(svh, &volume));   // an answer, not an error
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
}

// The service does not end itself as idle while a client's server is open.
TEST_F(RemoteSessions, AnOpenServerIsAJobAtTheHop)
{
    service.root().writeFile("keldrive/keldrive.conf", "VERBOSE = 6\n");
    service.start();
    Client client;
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, client.api()->stsa_open_server(client.session(service.hop(), "job"), diskServer().c_str(), nullptr,
                                                "", &svh));
    EXPECT_NE(std::string::npos, service.log().find("there are [1] active jobs"));
    EXPECT_EQ(0, client.api()->stsa_close_handle(svh, 0));
    EXPECT_NE(std::string::npos, service.log().find("still have [0] active jobs"));
}

TEST_F(RemoteSessions, ACredentialTravelsEncryptedUnderTheHopsKey)
{
    service.start();
    Client client;
    sts_api_t* api = client.api();
    sts_handle_t ssn = client.session(service.hop(), "vault");
    // Creating a server needs the storage library loaded at the service: an
    // open server keeps it.
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &svh));

    sts_cred_t cred = {};
    std::strcpy(cred.cr_cert, "open sesame");
    cred.cr_len = static_cast<sts_uint32_t>(std::strlen(cred.cr_cert));
    sts_handle_t made = nullptr;
    ASSERT_EQ(0, api->stsa_create_server(ssn, "Disk:vault", &cred, "", nullptr, 0, &made));
    EXPECT_EQ(0, api->stsa_close_handle(made, 0));

    sts_cred_t wrong = cred;
    wrong.cr_cert[0] = 'O';
    sts_handle_t h = nullptr;
    EXPECT_EQ(2062005, api->stsa_open_server(ssn, "Disk:vault", &wrong, "", &h));   // the disk plug-in's refusal
    ASSERT_EQ(0, api->stsa_open_server(ssn, "Disk:vault", &cred, "", &h));
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
    EXPECT_EQ(std::string::npos, service.log().find("open sesame"));
}

TEST_F(RemoteSessions, ABadChainAndADownHopGiveNamedErrors)
{
    service.start();
    const int nobody = keldtest::freePort();
    Client client("retry_tries = 2\nretry_backoff_ms = 1\n");
    sts_api_t* api = client.api();
    sts_handle_t h = nullptr;

    EXPECT_EQ(REMOTE_EBADPROXY, api->stsa_open_server(client.session("host:port"), diskServer().c_str(), nullptr, "", &h));
    EXPECT_EQ(REMOTE_EBADPROXY, api->stsa_open_server(client.session("#x"), diskServer().c_str(), nullptr, "", &h));

    const std::string down = "127.0.0.1:" + std::to_string(nobody);
    EXPECT_EQ(REMOTE_EHOP, api->stsa_open_server(client.session(down + "#" + service.hop()), diskServer().c_str(),
                                                 nullptr, "", &h));
    EXPECT_NE(std::string::npos, client.lines().find("proxy hop " + down + " cannot be reached"));
}

TEST_F(RemoteSessions, TheHopsOwnLogComesThroughAControl)
{
    service.start();
    Client client;
    sts_api_t* api = client.api();
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(client.session(service.hop(), "log"), diskServer().c_str(), nullptr, "", &svh));

    remote_log_line_t line;
    int rc = api->stsa_ioctl(svh, REMOTE_IOCTL_REMOTE_LOG, &line);   // opens the mailbox
    EXPECT_TRUE(rc == 0 || rc == STS_ENO_EVENT) << rc;
    sts_server_info_t info;
    const sts_session_def_t* sd = stsp_session_def(client.session(service.hop(), "log"));
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(sd, diskServer().c_str(), &info));   // the service logs this
    bool seen = false;
    for (int i = 0; i < 200 && !seen; ++i) {
        rc = api->stsa_ioctl(svh, REMOTE_IOCTL_REMOTE_LOG, &line);
        if (rc == STS_ENO_EVENT) std::this_thread::sleep_for(10ms);
        seen = rc == 0 && std::strstr(line.rl_line, "starting: StorageServerManagerImpl::getServerPropByName") != nullptr;
    }
    EXPECT_TRUE(seen);
    EXPECT_EQ(0, std::strncmp(line.rl_origin, "remote log from storage server:", 31));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
}

// The relay drops every third reply: each open and close still happens
// once at the service, answered from its record when resent.
TEST_F(RemoteSessions, LostRepliesOfOpensAndClosesAreAnsweredFromTheRecord)
{
    // The service names the relay in its references, so that every call,
    // not just the first to the manager, goes through it.
    GiopRelay relay(service.port(), 3);
    service.start({"-ORBendPointPublish", "giop:tcp:127.0.0.1:" + std::to_string(relay.port())});
    Client client("retry_backoff_ms = 1\n");
    sts_api_t* api = client.api();
    sts_handle_t ssn = client.session("127.0.0.1:" + std::to_string(relay.port()), "lossy");
    const int rounds = 20;
    for (int i = 0; i < rounds; ++i) {
        sts_handle_t svh = nullptr;
        ASSERT_EQ(0, api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &svh)) << i;
        sts_server_info_t info;
        ASSERT_EQ(0, api->stsa_get_server_prop_byname(stsp_session_def(ssn), diskServer().c_str(), &info)) << i;
        ASSERT_EQ(0, api->stsa_close_handle(svh, 0)) << i;
    }
    EXPECT_GE(relay.dropped(), static_cast<unsigned long>(rounds));
    EXPECT_EQ(static_cast<size_t>(rounds), service.logCount("init object StorageServerImpl"));
    EXPECT_EQ(static_cast<size_t>(rounds), service.logCount("starting: StorageServerImpl::closeServer"));
    EXPECT_GT(service.logCount("hit retry"), 0u);
    EXPECT_NE(std::string::npos, client.lines().find("was lost (COMM_FAILURE)"));
}

// Another process used this session id with the service before and got
// further in its numbers: the manager tosses the plug-in's first number,
// and the plug-in moves on to the clock.
TEST_F(RemoteSessions, ASessionIdUsedBeforeGoesOnAboveTheClock)
{
    service.start();
    int argc = 1;
    static char name[] = "test";
    static char* argv[] = {name, nullptr};
    CORBA::ORB_var orb = CORBA::ORB_init(argc, argv);
    CORBA::Object_var obj = orb->string_to_object(keldtest::corbaloc(service.port(), "Proxy.StorageServerManager").c_str());
    API::StorageServerManager_var ssm = API::StorageServerManager::_narrow(obj);
    API::SessionDefinition ssd;
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup("reused");
    ssd.flags = 0;
    API::ServerInformation_var info;
    ssm->getServerPropByNameV12(1000000, ssd, diskServer().c_str(), info);

    Client client;
    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, client.api()->stsa_open_server(client.session(service.hop(), "reused"), diskServer().c_str(),
                                                nullptr, "", &svh));
    EXPECT_EQ(0, client.api()->stsa_close_handle(svh, 0));
    EXPECT_NE(std::string::npos, client.lines().find("tossed the number as out of order"));
}

} // namespace
