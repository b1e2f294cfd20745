// gzip compression and decompression between caller buffers, checked against
// zlib used directly.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"

namespace {

std::string sample_log()
{
    std::string text;
    for (int i = 0; i < 200; ++i)
        text += "2024-01-01 12:00:" + std::to_string(i % 60) + " upgrade service heartbeat ok\n";
    return text;
}

// Independent inflate of a whole gzip stream.
std::string zlib_gunzip(const unsigned char *data, size_t size)
{
    z_stream s{};
    inflateInit2(&s, 31);
    std::string out(1 << 20, '\0');
    s.next_in = const_cast<unsigned char *>(data);
    s.avail_in = static_cast<uInt>(size);
    s.next_out = reinterpret_cast<unsigned char *>(&out[0]);
    s.avail_out = static_cast<uInt>(out.size());
    int result = inflate(&s, Z_FINISH);
    out.resize(result == Z_STREAM_END ? s.total_out : 0);
    inflateEnd(&s);
    return out;
}

// The library's own stream, whose form the first test checks against zlib.
std::vector<unsigned char> gzip(const std::string &text)
{
    std::vector<unsigned char> out(text.size() + 64);
    uint32_t len = static_cast<uint32_t>(out.size());
    KX_SDK_GZCOMPRESS(text.data(), static_cast<uint32_t>(text.size()), out.data(), &len);
    out.resize(len);
    return out;
}

TEST(Gzip, CompressProducesAGzipStreamThatRoundTrips)
{
    const std::string text = sample_log();
    std::vector<unsigned char> packed(text.size() + 64);
    uint32_t packed_len = static_cast<uint32_t>(packed.size());
    ASSERT_EQ(KX_SDK_GZCOMPRESS(text.data(), static_cast<uint32_t>(text.size()), packed.data(), &packed_len), 0);
    ASSERT_GT(packed_len, 18u);
    EXPECT_LT(packed_len, text.size());
    EXPECT_EQ(packed[0], 0x1F);
    EXPECT_EQ(packed[1], 0x8B);
    EXPECT_EQ(zlib_gunzip(packed.data(), packed_len), text);

    std::vector<char> restored(text.size() + 1, '#');
    uint32_t restored_len = static_cast<uint32_t>(text.size());
    ASSERT_EQ(KX_SDK_GZDECOMPRESS(packed.data(), packed_len, restored.data(), &restored_len), 0);
    EXPECT_EQ(std::string(restored.data(), restored_len), text);
    EXPECT_EQ(restored.back(), '#');
}

TEST(Gzip, CompressorWhenOutIsShort)
{
    const std::string text = sample_log();
    unsigned char none[1];
    uint32_t len = 0;
    EXPECT_EQ(KX_SDK_GZCOMPRESS(text.data(), static_cast<uint32_t>(text.size()), none, &len),
              static_cast<int32_t>(text.size()));
    EXPECT_EQ(len, 0u);

    // Too small for the final block: deflate reports Z_BUF_ERROR.
    std::vector<unsigned char> small(20);
    len = static_cast<uint32_t>(small.size());
    kxtest::clear_log();
    EXPECT_EQ(KX_SDK_GZCOMPRESS(text.data(), static_cast<uint32_t>(text.size()), small.data(), &len), -1);
    EXPECT_TRUE(kxtest::log_contains("Failed to call deflate with Z_FINISH, err is -5!\n"));

    kxtest::clear_log();
    EXPECT_EQ(KX_SDK_GZCOMPRESS(nullptr, 10, small.data(), &len), -1);
    EXPECT_EQ(KX_SDK_GZCOMPRESS(text.data(), 0, small.data(), &len), -1);
    EXPECT_EQ(kxtest::log_count("KX_SDK_GZCOMPRESS(): Invalid params!\n", kxtest::kError), 2);
}

TEST(Gzip, DecompressorStopsAtTheCapacity)
{
    const std::string text = sample_log();
    std::vector<unsigned char> packed = gzip(text);
    char out[11];
    std::memset(out, '#', sizeof out);
    uint32_t len = 10;
    ASSERT_EQ(KX_SDK_GZDECOMPRESS(packed.data(), static_cast<uint32_t>(packed.size()), out, &len), 0);
    EXPECT_EQ(len, 10u);
    EXPECT_EQ(std::string(out, 11), text.substr(0, 10) + "#");

    // A stream cut in half still hands back what it held.
    std::vector<char> half(text.size());
    len = static_cast<uint32_t>(half.size());
    ASSERT_EQ(KX_SDK_GZDECOMPRESS(packed.data(), static_cast<uint32_t>(packed.size() / 2), half.data(), &len), 0);
    EXPECT_GT(len, 0u);
    EXPECT_EQ(std::string(half.data(), len), text.substr(0, len));
}

TEST(Gzip, DecompressorRefusesOtherData)
{
    const char plain[] = "this is not a gzip stream at all";
    char out[64];
    uint32_t len = sizeof out;
    kxtest::clear_log();
    int32_t result = KX_SDK_GZDECOMPRESS(plain, sizeof plain, out, &len);
    EXPECT_LT(result, 0);
    EXPECT_EQ(len, sizeof out);
    EXPECT_TRUE(kxtest::log_contains("KX_SDK_GZDECOMPRESS(): inflate "));
    EXPECT_TRUE(kxtest::log_contains(" error: " + std::to_string(result) + "\n"));
}

}  // namespace
