// The texts the remote plug-in reads: hops of a proxy chain and its
// settings file.
#include "HopAddress.h"
#include "RemoteSettings.h"

#include <gtest/gtest.h>

namespace {

TEST(RemoteTexts, TheFirstHopOfAChain)
{
    HopAddress hop;
    ASSERT_TRUE(firstHop("proxy-a#proxy-b:2000#c", hop));
    EXPECT_EQ("corbaloc::proxy-a:10001/Proxy.StorageServerManager", hop.managerLocation());
    ASSERT_TRUE(firstHop("10.0.0.7:2000", hop));
    EXPECT_EQ(2000u, hop.port);
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
}

} // namespace
