// base64, hexadecimal texts, percent-encoding and the AES pairs. Cipher texts
// are checked with OpenSSL (test_crypto) and the pairs this build was
// configured with, independently of the library.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_crypto.h"

namespace {

std::string text_of(const unsigned char *bytes, size_t n) { return std::string(reinterpret_cast<const char *>(bytes), n); }

// One and two bytes left over, whole groups, and every byte value; checked
// against an independent encoder; texts the decoder refuses.
TEST(Base64, BothWaysAndRefusals)
{
    std::string all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(255 - i);
    for (const std::string &bytes : {std::string("f"), std::string("fo"), std::string("foobar"), all}) {
        // The text exactly as long as it must be; one byte to spare after the decoded bytes and their NUL.
        std::vector<char> text((bytes.size() + 2) / 3 * 4 + 1), back(bytes.size() + 2, '#');
        kx_base64_encode(bytes.data(), text.data(), static_cast<uint32_t>(bytes.size()));
        EXPECT_EQ(std::string(text.data()), kxtest::base64_encode(bytes));
        ASSERT_EQ(kx_base64_decode(text.data(), back.data()), static_cast<int32_t>(bytes.size()));
        EXPECT_EQ(std::string(back.data(), back.size()), bytes + '\0' + '#');  // a terminator, nothing beyond
    }
    // Line breaks are skipped but still counted in the reported length.
    unsigned char broken[10];
    std::memset(broken, '#', sizeof broken);
    EXPECT_EQ(kx_base64_decode("QUJD\r\nQUJD\r\n", broken), 9);
    EXPECT_EQ(text_of(broken, 8), std::string("ABCABC\0#", 8));

    // Refused: three pads, a foreign character, a length not a multiple of 4,
    // a pad before the last group, data after a pad.
    for (const char *text : {"Q===", "QQ=*", "QUJDRA", "QQ==QUJD", "QU=D"}) {
        SCOPED_TRACE(text);
        kxtest::clear_log();
        unsigned char out[16];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(kx_base64_decode(text, out), -1);
        EXPECT_TRUE(kxtest::log_has("kx_base64_decode", std::string(text[3] == '*' ? "0x2a " : "") +
                                    "Not a valid base64 encode string\n", kxtest::kError));
        EXPECT_EQ(out[6], '#');
    }
}

TEST(Hex, BytesToTextAndBack)
{
    const unsigned char bytes[] = {0x00, 0xFF};
    char text[6];
    std::memset(text, '#', sizeof text);
    KX_SDK_ENCRYPT_TO_STRING(bytes, 2, text);
    EXPECT_EQ(std::string(text, 5), "00FF#");

    unsigned char out[3] = {0, '#', '#'};
    kxtest::clear_log();
    KX_SDK_HEXSTRING_TO_ENCRYPT("0a", out);
    EXPECT_EQ(out[0], 0x00);
    EXPECT_EQ(kxtest::log_count("invalid Byte!\n", kxtest::kError), 1);
    KX_SDK_HEXSTRING_TO_ENCRYPT("ABC", out);
    EXPECT_EQ(text_of(out, 2), "\xAB#");

    unsigned char raw[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(ChangeToByte("0AF17", raw), 2);  // the odd "7" is left alone
    EXPECT_EQ(text_of(raw, 3), "\x0A\xF1#");
}

TEST(UrlEncode, KeepsEncodesAndBounds)
{
    const struct { const char *in; int32_t length, size, result; std::string image; } cases[] = {
        {"a b~", 4, 15, 6, std::string("a+b%7E\0", 7)},
        {"a b~", 4, 5, 0, "a+b#"},                     // no room for "%7E": left unterminated
        {"a b~", 4, 3, 3, std::string("a+b\0#", 5)},  // full: the NUL in the fourth byte
        {"Az09-._*/+=&\x80", 13, 63, 23, std::string("Az09-._*%2F%2B%3D%26%80\0", 24)},
        {"a", 0, 63, 0, "#"},
    };
    for (const auto &c : cases) {
        char out[64];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(KX_SDK_URLEncode(c.in, c.length, out, c.size), c.result) << c.in;
        EXPECT_EQ(std::string(out, c.image.size()), c.image) << c.in;
    }
}

// Pair A: the caller pads; the same input gives the same cipher text on every
// call (each starts from the configured IV); decryption strips and zeroes the
// padding and refuses a last byte outside 1..16.
TEST(Aes, PairAEncryptsAsConfiguredAndRoundTrips)
{
    const std::string text = "device-secret-42", padded = text + std::string(16, '\x10');
    std::vector<unsigned char> cipher(32), again(32), plain(32, '#');
    ASSERT_EQ(KX_SDK_AES_ENCRYPTION(padded.c_str(), cipher.data(), 32), 0);
    EXPECT_EQ(text_of(cipher.data(), 32), kxtest::aes_encrypt('A', text));
    KX_SDK_AES_ENCRYPTION(padded.c_str(), again.data(), 32);
    EXPECT_EQ(again, cipher);

    uint32_t len = 0;
    ASSERT_EQ(KX_SDK_AES_DECRYPT(cipher.data(), 32, plain.data(), &len), 0);
    EXPECT_EQ(len, 16u);
    EXPECT_EQ(text_of(plain.data(), 32), text + std::string(16, '\0'));

    for (unsigned char pad : {0, 17}) {
        // Two blocks whose last byte is `pad` (17 is no more than their length): the padded cipher text cut there.
        const std::string blocks = kxtest::aes_encrypt('A', std::string(31, 'x') + static_cast<char>(pad)).substr(0, 32);
        len = 99;
        kxtest::clear_log();
        EXPECT_EQ(KX_SDK_AES_DECRYPT(blocks.data(), 32, plain.data(), &len), -1);
        EXPECT_EQ(len, 99u);
        // This message has no line end.
        EXPECT_TRUE(kxtest::log_has("KX_SDK_AES_DECRYPT", std::to_string(pad) + " is invalid PaddingByteNum.", kxtest::kError));
    }
}

TEST(Aes, PairBPadsAndHandsOutABuffer)
{
    uint32_t len = 0;
    for (uint32_t length : {0u, 15u, 16u}) {  // padded to 16, 16 and 32 bytes
        const std::string in(length, 'k');
        unsigned char *out = nullptr;
        ASSERT_EQ(KX_SDK_AES_ENCRYPT(in.c_str(), length, &out, &len), 0);
        EXPECT_EQ(text_of(out, len), kxtest::aes_encrypt('B', in)) << length;
        std::free(out);
    }
    unsigned char taken = 0, *busy = &taken;
    kxtest::clear_log();
    EXPECT_EQ(KX_SDK_AES_ENCRYPT("x", 1, &busy, &len), -1);
    EXPECT_EQ(busy, &taken);
    EXPECT_TRUE(kxtest::log_contains("KX_SDK_AES_ENCRYPT(): invalid arg!\n"));
}

}  // namespace
