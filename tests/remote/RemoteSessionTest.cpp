// A server walked through one proxy: a keldpxy with the disk plug-in, this
// process as the client through the remote plug-in.  The storage API's
// results through a service are pinned by the disk conformance suite (the
// hop's log control by keldctl's); this walk pins what the remote plug-in
// adds on its way.
#include "RemoteTestSupport.h"

#include "Proxy.hh"

#include <cstring>
#include <gtest/gtest.h>

using namespace remotetest;
namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

namespace {

// Another process used this session id with the service and got as far as a
// high call number.
void useTheIdElsewhere(const Service& service, const char* id)
{
    int argc = 1;
    static char name[] = "test";
    static char* argv[] = {name, nullptr};
    CORBA::ORB_var orb = CORBA::ORB_init(argc, argv);
    CORBA::Object_var obj = orb->string_to_object(keldtest::corbaloc(service.port(), "Proxy.StorageServerManager").c_str());
    API::SessionDefinition ssd;
    ssd.proxy = CORBA::string_dup("");
    ssd.id = CORBA::string_dup(id);
    ssd.flags = 0;
    API::ServerInformation_var info;
    API::StorageServerManager::_narrow(obj)->getServerPropByNameV12(1000000, ssd, diskServer().c_str(), info);
}

TEST(RemoteSessions, AServerOpensCarriesItsCallsAndClosesThroughTheProxy)
{
    Service service;
    service.root().writeFile("keldrive/keldrive.conf", "VERBOSE = 6\n");   // job counts are logged
    service.start();
    useTheIdElsewhere(service, "walk");
    Client client("max_transfer = 4096\n");   // metadata goes in pieces
    sts_api_t* api = client.api();
    sts_handle_t ssn = client.session(service.hop(), "walk");

    sts_server_info_t info;
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(stsp_session_def(ssn), diskServer().c_str(), &info));
    EXPECT_EQ(diskServer(), info.srv_server);
    // The manager tossed the plug-in's first number; the plug-in moved on to the clock.
    EXPECT_NE(std::string::npos, client.lines().find("tossed the number as out of order")) << client.lines();
    EXPECT_EQ(2062001, api->stsa_get_server_prop_byname(stsp_session_def(ssn), "Disk:nobody", &info));

    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &svh));
    EXPECT_STREQ("remote", svh->owner->name);
    EXPECT_NE(std::string::npos, service.log().find("[walk]"));   // the session id travelled
    EXPECT_EQ(1u, service.logCount("there are [1] active jobs"));   // the service does not end as idle
    ASSERT_EQ(0, api->stsa_get_server_prop(svh, &info));
    EXPECT_EQ(diskServer(), info.srv_server);

    // Metadata larger than one transfer, written and read back in pieces.
    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t def = imageDef("meta");
    sts_handle_t img = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &def, 0, &img));
    std::string meta(9000, 'm');
    for (size_t i = 0; i < meta.size(); ++i) meta[i] = static_cast<char>('a' + i % 23);
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image_meta(img, &meta[0], meta.size(), 0, &done));
    EXPECT_EQ(meta.size(), done);
    std::string back(meta.size() + 10, '\0');
    ASSERT_EQ(0, api->stsa_read_image_meta(img, &back[0], back.size(), 0, &done));
    EXPECT_EQ(meta, back.substr(0, done));
    EXPECT_EQ(0, api->stsa_close_handle(img, 0));

    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));
    EXPECT_EQ(1u, service.logCount("init object StorageServerImpl"));
    EXPECT_EQ(1u, service.logCount("starting: StorageServerImpl::closeServer"));
    EXPECT_EQ(1u, service.logCount("still have [0] active jobs"));
    EXPECT_EQ(0, service.stop());
}

} // namespace
