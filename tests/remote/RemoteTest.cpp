// The remote plug-in against real services over IIOP, this process as the
// client: a server walked through one proxy, chains of two proxies, and the
// texts the plug-in reads (hops of a chain, its settings).  The storage
// API's results through a service are pinned by the disk conformance suite
// (the hop's log control by keldctl's); these pin what the remote plug-in
// adds on its way.
#include "DiskStore.h"
#include "HopAddress.h"
#include "RemoteSettings.h"
#include "RemoteTestSupport.h"

#include "Proxy.hh"

#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

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

// Two proxies on this machine: the client reaches service a, whose own
// session goes on to service b, where the disk server is, through the remote
// plug-in installed beside it.
class Proxies : public ::testing::Test {
protected:
    void SetUp() override
    {
        // a gives up on b after two quick tries, and logs its job counts.
        a.root().writeFile("keldrive/zvsclient.conf", "retry_tries = 2\nretry_backoff_ms = 1\n");
        a.root().writeFile("keldrive/keldrive.conf", "VERBOSE = 6\n");
        a.start();
        b.start();
    }
    // a held a session onward through the plug-in: it still ends cleanly.
    void TearDown() override
    {
        EXPECT_EQ(0, a.stop());
        b.stop();
    }
    std::string chain() const { return a.hop() + "#" + b.hop(); }

    Service a;
    Service b;
};

TEST_F(Proxies, AServerOpensCarriesItsCallsAndClosesThroughOneProxy)
{
    Service& service = a;
    useTheIdElsewhere(service, "walk");
    Client client("max_transfer = 4096\n");   // metadata goes in pieces
    sts_api_t* api = client.api();
    sts_handle_t ssn = client.session(service.hop(), "walk");

    sts_server_info_t info;
    ASSERT_EQ(0, api->stsa_get_server_prop_byname(stsp_session_def(ssn), diskServer().c_str(), &info));
    EXPECT_EQ(diskServer(), info.srv_server);
    // The manager tossed the plug-in's first number; the plug-in moved on to the clock.
    EXPECT_NE(std::string::npos, client.lines().find("tossed the number as out of order")) << client.lines();
    EXPECT_EQ(DISK_ENOENT, api->stsa_get_server_prop_byname(stsp_session_def(ssn), "Disk:nobody", &info));

    sts_handle_t svh = nullptr;
    ASSERT_EQ(0, api->stsa_open_server(ssn, diskServer().c_str(), nullptr, "", &svh));
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
}

TEST_F(Proxies, AFileGoesInAndOutThroughTwoHops)
{
    Client client("max_transfer = 1048576\n");   // five pieces for the file below
    sts_api_t* api = client.api();
    sts_handle_t svh = client.server(chain(), "chained");
    // a opened its own session onward, b opened the disk server.
    EXPECT_EQ(1u, a.logCount("init object StorageServerImpl"));
    EXPECT_EQ(1u, b.logCount("init object StorageServerImpl"));

    sts_lsu_t lsu = lsuOf(svh, "lsu0");
    sts_image_def_t def = imageDef("through-two");
    sts_handle_t img = nullptr;
    ASSERT_EQ(0, api->stsa_create_image(&lsu, &def, 0, &img));
    std::vector<unsigned char> data(5 << 20);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + i / 4096);
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image(img, nullptr, data.data(), data.size(), 0, &done));
    EXPECT_EQ(data.size(), done);
    ASSERT_EQ(0, api->stsa_close_handle(img, 0));

    ASSERT_EQ(0, api->stsa_open_image(&lsu, &def, 1, &img));
    std::vector<unsigned char> back(data.size() + 4096);
    ASSERT_EQ(0, api->stsa_read_image(img, back.data(), back.size(), 0, &done));
    EXPECT_EQ(data.size(), done);   // fewer than asked: the end of the image
    back.resize(done);
    EXPECT_TRUE(back == data);
    EXPECT_EQ(0, api->stsa_close_handle(img, 0));
    EXPECT_EQ(0, api->stsa_close_handle(svh, 0));

    // The image is at b; a kept nothing.
    const std::string image = "/keldrive/storage/" + hostName() + "/lsus/lsu0/images/through-two@20260101@20260101000000.img";
    EXPECT_EQ(0, access((b.root().path() + image).c_str(), F_OK));
    EXPECT_NE(0, access((a.root().path() + image).c_str(), F_OK));
}

// Each hop that cannot be reached has its own number and line, with the
// cause; a chain whose first hop is no address is refused before any call.
TEST_F(Proxies, BadChainsAndDownHopsGiveNamedErrors)
{
    b.stop();
    const std::string nobody = "127.0.0.1:" + std::to_string(keldtest::freePort());
    Client client("retry_tries = 2\nretry_backoff_ms = 1\n");
    sts_api_t* api = client.api();
    sts_handle_t h = nullptr;
    auto open = [&](const std::string& chain) {
        return api->stsa_open_server(client.session(chain), diskServer().c_str(), nullptr, "", &h);
    };
    EXPECT_EQ(REMOTE_EBADPROXY, open("host:port"));
    EXPECT_EQ(REMOTE_EBADPROXY, open("#x"));
    const int refused = REMOTE_EHOP + 100;
    EXPECT_EQ(refused, open(nobody + "#" + a.hop()));
    EXPECT_NE(std::string::npos, client.lines().find("proxy hop " + nobody + " cannot be reached: connection refused"));
    EXPECT_EQ(refused + 1, open(chain()));
    EXPECT_NE(std::string::npos, client.lines().find("proxy hop " + b.hop() + " cannot be reached: connection refused"));
}

TEST(RemoteTexts, TheFirstHopOfAChain)
{
    HopAddress hop;
    ASSERT_TRUE(firstHop("proxy-a#proxy-b:2000#c", hop));
    EXPECT_EQ("corbaloc::proxy-a:10001/Proxy.StorageServerManager", hop.managerLocation());
    ASSERT_TRUE(firstHop("[::1]:2001#b", hop));
    EXPECT_EQ("::1", hop.host);
    EXPECT_EQ("[::1]:2001", hop.text());
    for (const char* bad : {"", "#b", ":2000", "a:", "a:0", "a:65536", "a:12x", "a:b:c", "[::1", "[::1]x", "a b"}) {
        EXPECT_FALSE(firstHop(bad, hop)) << bad;
    }
    EXPECT_EQ((std::vector<std::string>{"a", "", "b"}), chainHops("a##b"));
}

TEST(RemoteTexts, SettingsKeepTheirDefaultsAgainstBadLines)
{
    std::vector<std::string> problems;
    const RemoteSettings s = parseRemoteSettings("# comment\nretry_tries=3\nretry_backoff_ms = 50\n"
                                                 "retry_backoff_max_ms = 20\n",   // below the first pause: raised
                                                 problems);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(3, s.retryTries);
    EXPECT_EQ(50, s.retryBackoffMaxMs);
    // Below 4096, above 64 MiB, no tries, words that are no setting.
    const RemoteSettings bad = parseRemoteSettings("max_transfer = 1\nmax_transfer = 134217728\nretry_tries = 0\n"
                                                   "retry_tries = -2\ntls = yes\nspeed = 11\njust words\n",
                                                   problems);
    EXPECT_EQ(7u, problems.size());
    EXPECT_EQ(RemoteSettings().maxTransfer, bad.maxTransfer);
    EXPECT_EQ(RemoteSettings().retryTries, bad.retryTries);
    EXPECT_FALSE(bad.tls);
    EXPECT_EQ("line 7: unknown setting \"just words\"", problems.back());

    // '#' and ';' inside a value are the value's; an indented line is a
    // line of its own; a line too long to be a setting is named.
    problems.clear();
    const RemoteSettings kept = parseRemoteSettings("tls_ca_file = ca;1#x.pem\n  retry_tries = 4\n[tls]\n" +
                                                        std::string(70000, 'x') + "\nretry_tries = 5\n",
                                                    problems);
    EXPECT_EQ("ca;1#x.pem", kept.tlsCaFile);
    EXPECT_EQ(4, kept.retryTries) << "the line after too long a one is not read";
    EXPECT_EQ((std::vector<std::string>{"line 3: unknown setting \"[tls]\"", "line 4 is longer than 65536 bytes"}),
              problems);
}

} // namespace
