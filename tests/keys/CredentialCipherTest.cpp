#include "CredentialCipher.h"

#include "KeysTestSupport.h"
#include "ProxyKeyMgr.h"

#include <gtest/gtest.h>

namespace {

class CredentialCipherTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mgr = ProxyKeyMgr::getInstance(1024);
        ASSERT_NE(nullptr, mgr);
    }
    void TearDown() override { ProxyKeyMgr::destroy(); }

    ProxyKeyMgr* mgr = nullptr;
};

TEST_F(CredentialCipherTest, ServiceDecryptsWhatTheClientEncrypts)
{
    CredentialCipher cipher(publicKeyOf(mgr));
    ASSERT_EQ(CredentialCipher::OK, cipher.status());
    EXPECT_EQ(128u, cipher.blockSize());
    EXPECT_EQ(86u, cipher.pieceSize());
    const struct {
        size_t clear;
        size_t cipher;
    } cases[] = {{1, 128}, {86, 128}, {87, 256}, {300, 512}, {1024, 1536}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.clear);
        const ByteVec clear = pattern(c.clear);
        ByteVec wire, back;
        ASSERT_EQ(CredentialCipher::OK, cipher.encrypt(clear, wire));
        EXPECT_EQ(c.cipher, wire.size());
        EXPECT_EQ(c.cipher, cipher.encryptedLength(c.clear));
        ASSERT_EQ(static_cast<int>(c.clear), decryptWith(mgr, wire, back));
        EXPECT_EQ(clear, back);
    }
}

TEST_F(CredentialCipherTest, EmptyCertificateGivesNoBlock)
{
    ByteVec wire(3, 1);
    EXPECT_EQ(CredentialCipher::OK, CredentialCipher::encrypt(publicKeyOf(mgr), ByteVec(), wire));
    EXPECT_TRUE(wire.empty());
}

TEST_F(CredentialCipherTest, RefusesWhatIsNotTheServiceKey)
{
    ByteVec trailing = publicKeyOf(mgr);
    trailing.push_back(0);
    ByteVec truncated = publicKeyOf(mgr);
    truncated.pop_back();
    const ByteVec keys[] = {ByteVec(), pattern(140), trailing, truncated, tinyRsaPublicKeyDer()};
    for (const ByteVec& key : keys) {
        SCOPED_TRACE(key.size());
        CredentialCipher cipher(key);
        EXPECT_EQ(CredentialCipher::BAD_KEY, cipher.status());
        EXPECT_EQ(0u, cipher.blockSize());
        ByteVec wire(5, 1);
        EXPECT_EQ(CredentialCipher::BAD_KEY, cipher.encrypt(pattern(10), wire));
        EXPECT_TRUE(wire.empty());
    }
}

} // namespace
