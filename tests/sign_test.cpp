// Key loading, request signatures, answer-signature checks and the nonce.
// Signatures are opened and made with OpenSSL directly (test_crypto), never
// with the library's own code.
#include <gtest/gtest.h>
#include <openssl/rsa.h>

#include <cstring>
#include <ctime>
#include <regex>
#include <string>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_crypto.h"

namespace {

const char kSalt[] = "Qm7TzR2bWc9LkXv4+pHsYe1NdGu8Jf3A";

// The library's view of a test key pair: loaded from its public PEM text.
struct LoadedKey {
    kxtest::RsaPtr pair;
    RSA *pub;
    explicit LoadedKey(int bits) : pair(kxtest::generate_rsa(bits)), pub(init_publickey(kxtest::public_pem(pair.get()).c_str())) {}
    ~LoadedKey() { destroy_key(pub); }
};

// A 381-byte modulus is the first that a 512-byte buffer cannot take.
TEST(Sign, ModulusSizeAgainstA512ByteBuffer)
{
    const std::string text = "appKey=k&randStr=0123&timeStamp=1700000000";
    for (int bits : {1024, 3048}) {
        SCOPED_TRACE(bits);
        LoadedKey key(bits);
        ASSERT_NE(key.pub, nullptr);
        kxtest::clear_log();
        char out[512] = {0};
        const int32_t result = kxtvsign(text.data(), text.size(), out, sizeof out, key.pub);
        EXPECT_TRUE(kxtest::log_contains(":kxtvsign(): KxSDK2.0 rsasize: " + std::to_string(bits / 8) + "\n"));
        if (bits > 1024) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(kxtest::log_count("kxtvsign signsize should greater than or equel to 513\n", kxtest::kError), 1);
            continue;
        }
        ASSERT_EQ(result, 0);
        EXPECT_EQ(std::strlen(out), 172u);
        EXPECT_EQ(signsize(key.pub), 173);
        // Plain base64: its "+" must survive the form decoding of the opener.
        EXPECT_EQ(kxtest::open_request_signature(std::regex_replace(out, std::regex("\\+"), "%2B"), key.pair.get()),
                  kxtest::md5_raw(text));
    }
}

TEST(Sign, KeysThatDoNotLoad)
{
    kxtest::clear_log();
    EXPECT_EQ(init_publickey(nullptr), nullptr);
    EXPECT_EQ(init_publickey("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"), nullptr);
    EXPECT_EQ(init_privatekey("/nonexistent/key.pem"), nullptr);
    for (const char *line : {"init_publickey(): invalid public key!\n", "init_publickey(): failed to read public key.\n",
                             "prikey_getfrom_file(): Get Public Key from file /nonexistent/key.pem error, open file error\n",
                             "init_privatekey(): prikey_getfrom_file error\n"})
        EXPECT_EQ(kxtest::log_count(line, kxtest::kError), 1) << line;
}

// Made with the build's embedded key, signatures open with the answer-signing private key.
TEST(Sign, RequestSignatureWithTheBuiltInKey)
{
    ASSERT_EQ(KX_INIT_PUBLICKEY(), 0);

    const char *text = "appKey=a&deviceId=d&randStr=12345678901234567890123456789012&timeStamp=1700000000";
    char first[512] = {0}, second[512] = {0};
    kxtest::clear_log();
    ASSERT_EQ(KX_SDK_SIGN_CREATE(text, first), 0u);
    ASSERT_EQ(KX_SDK_SIGN_CREATE(text, second), 0u);
    EXPECT_STRNE(first, second);  // random padding
    EXPECT_EQ(kxtest::open_request_signature(second), kxtest::md5_raw(text));
    // The raw base64 is logged before encoding, the encoded form (no "+", "/" or "=") after.
    EXPECT_EQ(std::strpbrk(first, "+/="), nullptr) << first;
    EXPECT_EQ(kxtest::url_decode(first).size(), 344u);
    EXPECT_TRUE(kxtest::log_contains("KX_SDK_SIGN_CREATE(): sSignature is: " + kxtest::url_decode(first) + "\n"));
    EXPECT_TRUE(kxtest::log_contains("KX_SDK_SIGN_CREATE(): sEnSignature is: " + std::string(first) + "\n"));
    EXPECT_EQ(KX_UNINIT_PUBLICKEY(), 0);

    // Without a key the signature fails and out stays as it was.
    gpKey = nullptr;
    char untouched[512] = "unchanged";
    kxtest::clear_log();
    EXPECT_EQ(KX_SDK_SIGN_CREATE(text, untouched), static_cast<uint32_t>(-1));
    EXPECT_STREQ(untouched, "unchanged");
    EXPECT_TRUE(kxtest::log_contains("kxtvsign(): invalid arg!\n"));
    EXPECT_TRUE(kxtest::log_contains("KX_SDK_SIGN_CREATE(): KxSDK2.0 create signature failed\n"));
}

TEST(Verify, AnswerSignatureOverMd5)
{
    LoadedKey key(1024);
    std::string data = "{\"code\":0,\"msg\":\"ok\"}", sig = kxtest::server_signature(data, key.pair.get());
    EXPECT_EQ(kxtvverify(data.data(), data.size(), sig.c_str(), sig.size(), key.pub), 0);

    kxtest::clear_log();
    data[3] = 'C';
    EXPECT_EQ(kxtvverify(data.data(), data.size(), sig.c_str(), sig.size(), key.pub), -1);
    EXPECT_EQ(kxtest::log_count("kxtvverify(): kxtvverify md5 cmp diff\n", kxtest::kError), 1);

    for (uint32_t count : {0u, 513u}) {
        kxtest::clear_log();
        EXPECT_EQ(kxtvverify(data.data(), data.size(), sig.c_str(), count, key.pub), -1);
        EXPECT_EQ(kxtest::log_count("kxtvverify signsize is not belong to 0-512\n", kxtest::kError), 1);
        EXPECT_FALSE(kxtest::log_contains("decode"));
    }
    kxtest::clear_log();
    EXPECT_EQ(kxtvverify(data.data(), data.size(), "QUJD", 4, key.pub), -1);
    EXPECT_TRUE(kxtest::log_contains("kxtvverify decrypt error\n"));
}

TEST(Sign, SoundbarDigestIsBase64OfMd5WithSalt)
{
    for (std::string text : {std::string("appKey=a&sign=x%2B"), std::string()}) {
        char out[64] = {0};
        ASSERT_EQ(KX_SDK_SIGN_CREATE_SOUNDBAR(text.c_str(), out), 0u);
        EXPECT_EQ(out, kxtest::base64_encode(kxtest::md5_raw(text + kSalt)));
    }
    EXPECT_EQ(KX_SDK_SIGN_CREATE_SOUNDBAR(nullptr, nullptr), static_cast<uint32_t>(-1));
}

TEST(Sign, NonceDigits)
{
    unsigned char a[40], b[40];
    std::memset(a, 'x', sizeof a);
    const std::time_t before = std::time(nullptr);
    KX_CREATE_RAND_STRING(a, 32);
    KX_CREATE_RAND_STRING(b, 32);
    const std::string text(reinterpret_cast<char *>(a), 34);
    EXPECT_EQ(text.find_first_not_of("0123456789"), 32u);
    EXPECT_EQ(text.substr(32), std::string("\0x", 2));
    EXPECT_TRUE(before != std::time(nullptr) || std::memcmp(a, b, 33) == 0);  // same second, same seed
    const unsigned char second = a[1];
    KX_CREATE_RAND_STRING(a, 0);
    EXPECT_TRUE(a[0] == '\0' && a[1] == second);
}

}  // namespace
