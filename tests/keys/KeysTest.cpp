// The service's key pair and the client's credential cipher: what a client
// encrypts the service opens, and no cipher text a client sends makes the
// service write past its buffer.
#include "CredentialCipher.h"
#include "ProxyKeyMgr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace {

using ByteVec = std::vector<unsigned char>;

// n bytes that are neither constant nor a simple count.
ByteVec pattern(size_t n)
{
    ByteVec b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i * 37 + 11);
    return b;
}

// A well-formed RSAPublicKey whose modulus has only 40 bytes, too few to
// carry any OAEP payload.
ByteVec tinyRsaPublicKeyDer()
{
    ByteVec der = {0x30, 0x2F, 0x02, 0x28, 0x7F};
    der.insert(der.end(), 38, 0xE5);
    der.insert(der.end(), {0x01, 0x02, 0x03, 0x01, 0x00, 0x01});
    return der;
}

// Every test starts from a fresh pair and leaves no instance behind.
class Keys : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(nullptr, mgr = ProxyKeyMgr::getInstance(1024)); }
    void TearDown() override { ProxyKeyMgr::destroy(); }

    ByteVec publicKey() const { return ByteVec(mgr->getPublicKey(), mgr->getPublicKey() + mgr->getPublicKeyLength()); }
    // The service's own encryption and decryption; the output is empty
    // after a failure.
    int encrypt(const ByteVec& clear, ByteVec& cipher) const
    {
        cipher.assign((clear.size() / 86 + 1) * 128, 0);
        const int n = mgr->doPublicEncrypt(static_cast<int>(clear.size()), reinterpret_cast<const char*>(clear.data()),
                                           cipher.data());
        cipher.resize(std::max(n, 0));
        return n;
    }
    int decrypt(const ByteVec& cipher, ByteVec& clear) const
    {
        clear.assign(cipher.size(), 0);
        const int n = mgr->doPrivateDecrypt(static_cast<int>(cipher.size()), cipher.data(),
                                            reinterpret_cast<char*>(clear.data()), clear.size());
        clear.resize(std::max(n, 0));
        return n;
    }

    ProxyKeyMgr* mgr = nullptr;
};

// One pair for every user until destroy makes a new one.  Its pieces of 86
// bytes go into blocks of 128, whichever side encrypts: the service itself,
// the service for a peer by its DER key, or a client.
TEST_F(Keys, EveryEncryptingSideCutsTheSameBlocksForTheOneSharedPair)
{
    const ByteVec der = publicKey();
    EXPECT_EQ(mgr, ProxyKeyMgr::getInstance(2048));
    EXPECT_EQ(128, mgr->getRSASize());
    EXPECT_EQ(140u, der.size()) << "a DER RSAPublicKey, not a SubjectPublicKeyInfo";
    CredentialCipher client(der);
    ASSERT_EQ(CredentialCipher::OK, client.status());
    const struct {
        size_t clear;
        int cipher;
    } cases[] = {{0, 0}, {1, 128}, {86, 128}, {87, 256}, {172, 256}, {173, 384}, {1024, 1536}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.clear);
        const ByteVec clear = pattern(c.clear);
        ByteVec own, forPeer(c.cipher + 128), fromClient(3, 1), back;
        ASSERT_EQ(c.cipher, encrypt(clear, own));
        ASSERT_EQ(c.cipher, ProxyKeyMgr::doPublicEncryptWithKey(static_cast<int>(der.size()), der.data(),
                                                                static_cast<int>(c.clear),
                                                                reinterpret_cast<const char*>(clear.data()), forPeer.data()));
        forPeer.resize(c.cipher);
        ASSERT_EQ(CredentialCipher::OK, client.encrypt(clear, fromClient));
        EXPECT_EQ(static_cast<size_t>(c.cipher), client.encryptedLength(c.clear));
        for (const ByteVec* cipher : {&own, &forPeer, &fromClient}) {
            ASSERT_EQ(static_cast<int>(c.clear), decrypt(*cipher, back));
            EXPECT_EQ(clear, back);
        }
    }

    ByteVec cipher, clear;
    ASSERT_EQ(128, encrypt(pattern(20), cipher));
    ProxyKeyMgr::destroy();
    ASSERT_NE(nullptr, mgr = ProxyKeyMgr::getInstance(1024));
    EXPECT_NE(der, publicKey());
    EXPECT_EQ(-1, decrypt(cipher, clear)) << "the old pair's text must not open";
}

// The sender decides the length of a cipher text: the service never trusts
// it with its own buffer.
TEST_F(Keys, DecryptRefusesBadCipherTextWithoutWritingPastItsRoom)
{
    ByteVec cipher, out(256, 0xEE);
    auto decryptInto = [&](size_t len, size_t room) {
        std::fill(out.begin(), out.end(), 0xEE);
        return mgr->doPrivateDecrypt(static_cast<int>(len), cipher.data(), reinterpret_cast<char*>(out.data()), room);
    };
    ASSERT_EQ(128, encrypt(pattern(86), cipher));
    EXPECT_EQ(86, decryptInto(128, 128));
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 86, pattern(86).begin()));
    EXPECT_EQ(ByteVec(170, 0xEE), ByteVec(out.begin() + 86, out.end())) << "no more than the clear text";

    cipher.push_back(0);   // not a whole number of blocks
    EXPECT_EQ(-3, decryptInto(129, 256));
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 86, pattern(86).begin())) << "whole blocks come first";

    ASSERT_EQ(256, encrypt(pattern(172), cipher));
    EXPECT_EQ(-4, decryptInto(256, 90));
    EXPECT_EQ(ByteVec(170, 0xEE), ByteVec(out.begin() + 86, out.end())) << "nothing past the last whole piece that fits";

    cipher[200] ^= 0x40;
    EXPECT_EQ(-1, decryptInto(256, 256));
}

TEST_F(Keys, KeysThatCannotCarryACredentialAreRefused)
{
    unsigned char buf[256] = {0};
    const char text[] = "secret";
    EXPECT_EQ(-2, ProxyKeyMgr::Encrypt(nullptr, 6, reinterpret_cast<const unsigned char*>(text), buf));
    EXPECT_EQ(-2, ProxyKeyMgr::Decrypt(nullptr, 128, buf, buf, sizeof(buf)));
    const unsigned char garbage[] = {0x30, 0x03, 0x02, 0x01};
    EXPECT_EQ(-2, ProxyKeyMgr::doPublicEncryptWithKey(sizeof(garbage), garbage, 6, text, buf));
    EXPECT_EQ(-2, ProxyKeyMgr::doPublicEncryptWithKey(0, nullptr, 6, text, buf));
    // Too small for any payload: fails instead of looping.
    const ByteVec tiny = tinyRsaPublicKeyDer();
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, ProxyKeyMgr::doPublicEncryptWithKey(static_cast<int>(tiny.size()), tiny.data(), 6, text, buf));
    EXPECT_EQ("public encrypt error!\n", testing::internal::GetCapturedStdout());

    ByteVec trailing = publicKey(), truncated = publicKey();
    trailing.push_back(0);
    truncated.pop_back();
    for (const ByteVec& key : {ByteVec(), pattern(140), trailing, truncated, tiny}) {
        SCOPED_TRACE(key.size());
        CredentialCipher cipher(key);
        EXPECT_EQ(CredentialCipher::BAD_KEY, cipher.status());
        EXPECT_EQ(0u, cipher.blockSize());
        ByteVec wire(5, 1);
        EXPECT_EQ(CredentialCipher::BAD_KEY, cipher.encrypt(pattern(10), wire));
        EXPECT_TRUE(wire.empty());
    }
}

TEST(KeysHex, EveryByteSurvivesTextInEitherCaseWithoutATerminator)
{
    ByteVec bytes(256), back(256);
    for (int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(i);
    std::string text(513, 'x');
    testing::internal::CaptureStdout();   // both trace what they convert
    EXPECT_EQ(512, ProxyKeyMgr::uc2c(256, bytes.data(), &text[0]));
    EXPECT_EQ("FEFFx", text.substr(508));
    std::transform(text.begin(), text.begin() + 256, text.begin(), [](unsigned char c) { return std::tolower(c); });
    EXPECT_EQ(256, ProxyKeyMgr::c2uc(513, text.c_str(), back.data())) << "an odd digit is left";
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(bytes, back);
}

} // namespace
