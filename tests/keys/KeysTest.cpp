#include "ProxyKeyMgr.h"

#include "KeysTestSupport.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace {

// Every test starts from a fresh pair and leaves no instance behind.
class KeyMgrTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mgr = ProxyKeyMgr::getInstance(1024);
        ASSERT_NE(nullptr, mgr);
    }
    void TearDown() override { ProxyKeyMgr::destroy(); }

    int encrypt(const ByteVec& clear, ByteVec& cipher)
    {
        cipher.assign((clear.size() / 86 + 1) * 128, 0);
        const int n = mgr->doPublicEncrypt(static_cast<int>(clear.size()),
                                           reinterpret_cast<const char*>(clear.data()),
                                           cipher.data());
        cipher.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return n;
    }

    ProxyKeyMgr* mgr = nullptr;
};

TEST_F(KeyMgrTest, OneInstanceAndOneKeyWhateverSizeIsAsked)
{
    const ByteVec key = publicKeyOf(mgr);
    EXPECT_EQ(mgr, ProxyKeyMgr::getInstance(2048));
    EXPECT_EQ(key, publicKeyOf(ProxyKeyMgr::getInstance(1024)));
    EXPECT_EQ(128, mgr->getRSASize());
}

TEST_F(KeyMgrTest, DestroyGivesANewPairOnNextUse)
{
    const ByteVec oldKey = publicKeyOf(mgr);
    ByteVec cipher;
    ASSERT_EQ(128, encrypt(pattern(20), cipher));

    ProxyKeyMgr::destroy();
    mgr = ProxyKeyMgr::getInstance(1024);
    ASSERT_NE(nullptr, mgr);
    EXPECT_NE(oldKey, publicKeyOf(mgr));
    EXPECT_EQ(128, mgr->getRSASize());
    ByteVec clear;
    EXPECT_EQ(-1, decryptWith(mgr, cipher, clear)) << "the old key's text must not open";
}

TEST_F(KeyMgrTest, PublicKeyIsDerRsaPublicKeyOf1024BitsAndExponent65537)
{
    const ByteVec der = publicKeyOf(mgr);
    // SEQUENCE { INTEGER n, INTEGER e }: 140 bytes for 1024 bits, where a
    // SubjectPublicKeyInfo would have 162.
    ASSERT_EQ(140u, der.size());
    EXPECT_EQ(0x30, der[0]);
    const ByteVec tail = {0x02, 0x03, 0x01, 0x00, 0x01};
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), der.end() - 5));

    EVP_PKEY* key = nullptr;
    OSSL_DECODER_CTX* dctx = OSSL_DECODER_CTX_new_for_pkey(
        &key, "DER", "type-specific", "RSA", EVP_PKEY_PUBLIC_KEY, nullptr, nullptr);
    ASSERT_NE(nullptr, dctx);
    const unsigned char* p = der.data();
    size_t left = der.size();
    ASSERT_EQ(1, OSSL_DECODER_from_data(dctx, &p, &left));
    OSSL_DECODER_CTX_free(dctx);
    EXPECT_EQ(0u, left);
    EXPECT_EQ(1024, EVP_PKEY_get_bits(key));
    BIGNUM* e = nullptr;
    ASSERT_EQ(1, EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &e));
    EXPECT_EQ(65537u, BN_get_word(e));
    BN_free(e);
    EVP_PKEY_free(key);
}

TEST_F(KeyMgrTest, EncryptCutsPiecesOf86BytesIntoBlocksOf128AndDecryptJoinsThem)
{
    const struct {
        size_t clear;
        int cipher;
    } cases[] = {{0, 0}, {1, 128}, {86, 128}, {87, 256}, {172, 256}, {173, 384}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.clear);
        const ByteVec clear = pattern(c.clear);
        ByteVec cipher, back;
        ASSERT_EQ(c.cipher, encrypt(clear, cipher));
        ASSERT_EQ(static_cast<int>(c.clear), decryptWith(mgr, cipher, back));
        EXPECT_EQ(clear, back);
    }
}

TEST_F(KeyMgrTest, DecryptWritesNoMoreThanTheClearText)
{
    ByteVec cipher;
    ASSERT_EQ(128, encrypt(pattern(86), cipher));
    ByteVec out(128, 0xEE);
    EXPECT_EQ(86, mgr->doPrivateDecrypt(128, cipher.data(), reinterpret_cast<char*>(out.data()), out.size()));
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 86, pattern(86).begin()));
    EXPECT_EQ(ByteVec(42, 0xEE), ByteVec(out.begin() + 86, out.end()));
}

TEST_F(KeyMgrTest, PartialBlockGivesMinusThreeAfterTheWholeOnes)
{
    ByteVec cipher;
    ASSERT_EQ(128, encrypt(pattern(50), cipher));
    cipher.push_back(0);
    ByteVec out(256, 0);
    EXPECT_EQ(-3, mgr->doPrivateDecrypt(129, cipher.data(), reinterpret_cast<char*>(out.data()), out.size()));
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 50, pattern(50).begin()))
        << "the whole block before the rest is already decrypted";
}

TEST_F(KeyMgrTest, ClearTextLongerThanTheTargetIsRefusedUnwritten)
{
    ByteVec cipher;
    ASSERT_EQ(256, encrypt(pattern(172), cipher));
    ByteVec out(100, 0xEE);
    EXPECT_EQ(-4, mgr->doPrivateDecrypt(256, cipher.data(), reinterpret_cast<char*>(out.data()), 90));
    EXPECT_EQ(ByteVec(14, 0xEE), ByteVec(out.begin() + 86, out.end())) << "nothing past the room given";
}

TEST_F(KeyMgrTest, AlteredBlockGivesMinusOne)
{
    ByteVec cipher, clear;
    ASSERT_EQ(256, encrypt(pattern(100), cipher));
    cipher[200] ^= 0x40;
    EXPECT_EQ(-1, decryptWith(mgr, cipher, clear));
}

TEST_F(KeyMgrTest, EncryptsForAPeerWithItsDerKey)
{
    const ByteVec peerKey = publicKeyOf(mgr);
    const ByteVec clear = pattern(100);
    ByteVec cipher(256, 0), back;
    ASSERT_EQ(256, ProxyKeyMgr::doPublicEncryptWithKey(
                       static_cast<int>(peerKey.size()), peerKey.data(), 100,
                       reinterpret_cast<const char*>(clear.data()), cipher.data()));
    ASSERT_EQ(100, decryptWith(mgr, cipher, back));
    EXPECT_EQ(clear, back);
}

TEST(KeyMgrWithoutKey, NullOrUndecodableKeyGivesMinusTwo)
{
    unsigned char buf[256] = {0};
    const char text[] = "secret";
    EXPECT_EQ(-2, ProxyKeyMgr::Encrypt(nullptr, 6, reinterpret_cast<const unsigned char*>(text), buf));
    EXPECT_EQ(-2, ProxyKeyMgr::Decrypt(nullptr, 128, buf, buf, sizeof(buf)));
    const unsigned char garbage[] = {0x30, 0x03, 0x02, 0x01};
    EXPECT_EQ(-2, ProxyKeyMgr::doPublicEncryptWithKey(sizeof(garbage), garbage, 6, text, buf));
    EXPECT_EQ(-2, ProxyKeyMgr::doPublicEncryptWithKey(0, nullptr, 6, text, buf));
}

TEST(KeyMgrWithoutKey, PeerKeyTooSmallForAnyPayloadFailsInsteadOfLooping)
{
    const ByteVec tiny = tinyRsaPublicKeyDer();
    unsigned char buf[256] = {0};
    testing::internal::CaptureStdout();
    const int n = ProxyKeyMgr::doPublicEncryptWithKey(static_cast<int>(tiny.size()), tiny.data(),
                                                      6, "secret", buf);
    EXPECT_EQ("public encrypt error!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(-1, n);
}

TEST(KeyMgrHex, DigitValues)
{
    const std::string digits = "0123456789abcdefABCDEF";
    for (size_t i = 0; i < digits.size(); ++i) {
        EXPECT_EQ(static_cast<int>(i < 16 ? i : i - 6), ProxyKeyMgr::c2i(digits[i]));
    }
    for (char c : {'g', 'G', '/', ':', '@', '`', ' ', '\0'}) EXPECT_EQ(-1, ProxyKeyMgr::c2i(c)) << c;
}

TEST(KeyMgrHex, BytesAsUpperCaseTextWithoutTerminator)
{
    const unsigned char bytes[] = {0xAB, 0x01};
    char text[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
    testing::internal::CaptureStdout();
    EXPECT_EQ(4, ProxyKeyMgr::uc2c(2, bytes, text));
    const std::string trace = testing::internal::GetCapturedStdout();
    EXPECT_EQ("AB01x", std::string(text, 5));
    EXPECT_NE(std::string::npos, trace.find("CONTENT[AB01]\n")) << trace;

    testing::internal::CaptureStdout();
    ProxyKeyMgr::print_uc_buf(bytes, 2);
    EXPECT_EQ("[AB01]", testing::internal::GetCapturedStdout());
}

TEST(KeyMgrHex, EveryByteSurvivesTextAndBack)
{
    ByteVec bytes(256);
    for (int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(i);
    std::string text(512, '\0');
    ByteVec back(256, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(512, ProxyKeyMgr::uc2c(256, bytes.data(), &text[0]));
    EXPECT_EQ(256, ProxyKeyMgr::c2uc(512, text.c_str(), back.data()));
    EXPECT_EQ(bytes, back);
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    ByteVec lower(256, 0);
    EXPECT_EQ(256, ProxyKeyMgr::c2uc(513, text.c_str(), lower.data())) << "an odd digit is left";
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(bytes, lower);
}

} // namespace
