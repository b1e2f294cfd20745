// gzip compression and decompression between caller buffers, checked against
// zlib through the byte-at-a-time walk the decompressor must equal.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "gz_reference.h"
#include "suite_text.h"

namespace {

std::string sample_log()
{
    std::string text;
    for (int i = 0; i < 200; ++i)
        text += "2024-01-01 12:00:" + std::to_string(i % 60) + " upgrade service heartbeat ok\n";
    return text;
}

// Bytes in 0..143 with few repeats: with fixed codes every one is a literal
// of exactly eight bits, so input and output bytes alternate one for one.
std::string eight_bit_literals(size_t n)
{
    std::string text;
    uint32_t x = 12345;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        text.push_back(static_cast<char>((x >> 16) % 144));
    }
    return text;
}

// The decompressor is held to the walk below; the walk, zlib's own inflate
// stepped, restores what the compressor packed. A short out is refused.
TEST(Gzip, CompressorPacksWhatTheWalkRestoresOrRefuses)
{
    const std::string text = sample_log();
    const uint32_t size = static_cast<uint32_t>(text.size());
    std::string packed(text.size() + 64, '\0');
    uint32_t len = static_cast<uint32_t>(packed.size());
    ASSERT_EQ(KX_SDK_GZCOMPRESS(text.data(), size, &packed[0], &len), 0);
    ASSERT_LT(len, text.size());
    packed.resize(len);
    EXPECT_EQ(packed.substr(0, 2), "\x1f\x8b");
    const kxtest::GzOutcome unpacked = kxtest::gz_reference(packed, size + 1);
    EXPECT_EQ(unpacked.result, 0);
    EXPECT_EQ(unpacked.out.substr(0, unpacked.outlen), text);

    // Out full while input is left: the count of input bytes deflate has not
    // taken (all of them when there is no room at all). Too small for the
    // final block: deflate reports Z_BUF_ERROR.
    const std::string bulk = eight_bit_literals(100000);
    std::string room(1000, '\0');
    len = 1000;
    const int32_t left = KX_SDK_GZCOMPRESS(bulk.data(), 100000, &room[0], &len);
    EXPECT_TRUE(left > 0 && left < 100000) << left;
    len = 0;
    EXPECT_EQ(KX_SDK_GZCOMPRESS(text.data(), size, &packed[0], &len), static_cast<int32_t>(size));
    EXPECT_EQ(len, 0u);
    len = 20;
    kxtest::clear_log();
    EXPECT_EQ(KX_SDK_GZCOMPRESS(text.data(), size, &packed[0], &len), -1);
    EXPECT_TRUE(kxtest::log_contains("Failed to call deflate with Z_FINISH, err is -5!\n"));
    EXPECT_EQ(KX_SDK_GZCOMPRESS(nullptr, 10, &packed[0], &len), -1);
    EXPECT_EQ(KX_SDK_GZCOMPRESS(text.data(), 0, &packed[0], &len), -1);
    EXPECT_EQ(kxtest::log_count("KX_SDK_GZCOMPRESS(): Invalid params!\n", kxtest::kError), 2);
}

// ---- the decompressor against the byte-at-a-time walk ------------------------

using kxtest::GzOutcome;

std::vector<kxtest::RawLine> library_lines()
{
    std::vector<kxtest::RawLine> lines;
    for (const kxtest::LogLine &line : kxtest::log_lines())
        if (line.text.find("KX_SDK_GZDECOMPRESS(): ") != std::string::npos)
            lines.push_back({line.level == kxtest::kError, line.text});
    kxtest::clear_log();
    return lines;
}

// zlib's own gzip stream of `text`, flushed (Z_SYNC_FLUSH) every `flush_every` bytes if not 0.
std::string deflated(const std::string &text, int level = Z_DEFAULT_COMPRESSION, int strategy = Z_DEFAULT_STRATEGY,
                     size_t flush_every = 0, gz_header *header = nullptr)
{
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, 31, 8, strategy);
    if (header != nullptr)
        deflateSetHeader(&z, header);
    std::string out(deflateBound(&z, text.size()) + 64 + text.size() / 8, '\0');
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
    z.next_out = reinterpret_cast<Bytef *>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    for (size_t at = 0, step = flush_every ? flush_every : text.size(); at < text.size(); at += step) {
        z.avail_in = static_cast<uInt>(std::min(step, text.size() - at));
        deflate(&z, at + step < text.size() ? Z_SYNC_FLUSH : Z_FINISH);
    }
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

// A gzip stream of one block with fixed codes, written bit by bit: the given
// literals (each below 144: an eight-bit code), then the invalid length code
// 286, so input and output alternate one for one up to an error.
std::string alternating_to_an_invalid_code(const std::string &literals)
{
    std::string out("\x1f\x8b\x08\0\0\0\0\0\0\x03", 10);
    uint32_t hold = 0, bits = 0;
    auto put = [&](uint32_t value, uint32_t n) { // LSB first
        hold |= value << bits;
        for (bits += n; bits >= 8; bits -= 8, hold >>= 8)
            out.push_back(static_cast<char>(hold & 0xFF));
    };
    auto code = [&](uint32_t value, uint32_t n) { // Huffman codes go MSB first
        for (uint32_t i = n; i-- > 0;)
            put((value >> i) & 1, 1);
    };
    put(1, 1); // last block
    put(1, 2); // fixed codes
    for (char c : literals)
        code(0x30 + static_cast<unsigned char>(c), 8);
    code(0xC6, 8); // 286
    put(0, 7);
    return out;
}

struct Stream { const char *name; std::string bytes; };

std::vector<Stream> streams()
{
    const std::string text = sample_log().substr(0, 1200);
    const std::string gz = deflated(text);
    auto flipped = [](std::string bytes, size_t at, char bit) { bytes[at] = static_cast<char>(bytes[at] ^ bit); return bytes; };
    static char name[] = "policy.json", extra[] = "xx", comment[] = "kept";
    gz_header header{};
    header.name = reinterpret_cast<Bytef *>(name);
    header.extra = reinterpret_cast<Bytef *>(extra);
    header.extra_len = 2;
    header.comment = reinterpret_cast<Bytef *>(comment);
    header.hcrc = 1;
    return {
        {"complete", gz},
        {"trailing garbage", gz + "garbage after the stream"},
        {"header fields", deflated(text, 6, Z_DEFAULT_STRATEGY, 0, &header)},
        {"stored blocks", deflated(text.substr(0, 700), 0)},
        {"flushed blocks", deflated(text, 6, Z_DEFAULT_STRATEGY, 150)},
        {"eight-bit literals", deflated(eight_bit_literals(1300), 1, Z_FIXED)},
        {"alternating to an invalid code", alternating_to_an_invalid_code(eight_bit_literals(400))},
        {"bad check", flipped(gz, gz.size() - 6, 0x10)},
        {"corrupt middle", flipped(gz, gz.size() / 2, 0x42)},
        {"headerless", text},
    };
}

void expect_same(const std::string &what, const std::string &in, uint32_t capacity, int *mismatches)
{
    if (*mismatches > 3)
        return;  // the first few say enough
    GzOutcome library = kxtest::gz_library(in, capacity, '#', library_lines);
    GzOutcome reference = kxtest::gz_reference(in, capacity, '#');
    if (!(library == reference)) {
        ++*mismatches;
        ADD_FAILURE() << what << ", " << in.size() << " bytes in, capacity " << capacity << "\n  library: "
                      << kxtest::describe(library) << "\n  walk:    " << kxtest::describe(reference)
                      << (library.out == reference.out ? "" : "\n  out differs");
    }
}

TEST(GzipWalk, EveryCapacityAndEveryCutGiveTheWalksResult)
{
    for (const Stream &s : streams()) {
        int mismatches = 0;
        const uint32_t full = kxtest::gz_reference(s.bytes, 1 << 16).outlen; // the content's length
        // Every capacity up to 300 and near the content's end, every fifth between.
        for (uint32_t capacity = 0; capacity <= full + 2; capacity += capacity < 300 || capacity + 8 > full ? 1 : 5)
            expect_same(s.name, s.bytes, capacity, &mismatches);
        for (size_t cut = 0; cut <= s.bytes.size(); ++cut) {
            expect_same(s.name, s.bytes.substr(0, cut), full + 8, &mismatches);
            expect_same(s.name, s.bytes.substr(0, cut), full, &mismatches);
        }
        // Both limits near each other.
        for (size_t cut = 0; cut <= s.bytes.size(); cut += 29)
            for (uint32_t capacity = 0; capacity <= full; capacity += 31)
                expect_same(s.name, s.bytes.substr(0, cut), capacity, &mismatches);
    }
}

TEST(GzipWalk, ALargePolicyAtItsEdges)
{
    std::string text; // a policy of 256 KiB
    for (unsigned i = 0; text.size() < 256 * 1024; ++i)
        text += kxtest::fmt("{\"module\":\"svc%u\",\"level\":%u,\"upload\":%u,\"keys\":[\"boot\",\"net%u\"]},", i % 97, i % 5,
                            (i * 7919) % 3600, i % 13);
    text.resize(256 * 1024);
    const std::string gz = deflated(text);
    int mismatches = 0;
    for (uint32_t capacity : {0u, 1u, 65u, 66u, 67u, 130u, 4096u, 100000u, 262143u, 262144u, 262145u, 300000u})
        expect_same("policy", gz, capacity, &mismatches);
    for (size_t cut : {size_t(66), size_t(67), size_t(200), gz.size() / 2, gz.size() - 9, gz.size() - 8, gz.size() - 1})
        for (uint32_t capacity : {262144u, 131072u})
            expect_same("policy cut", gz.substr(0, cut), capacity, &mismatches);
}

// The inputs the fuzzer keeps (two bytes of capacity, then the stream).
TEST(GzipWalk, KeptFuzzInputsGiveTheWalksResult)
{
    const std::string dir = std::string(KX_TEST_SOURCE_DIR) + "/fuzz/corpus/gzdecompress_fuzz";
    int files = 0, mismatches = 0;
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        const std::string data = kxtest::file_text(entry.path().string());
        if (data.size() < 2)
            continue;
        ++files;
        uint32_t capacity = static_cast<unsigned char>(data[0]) | static_cast<unsigned char>(data[1]) << 8;
        expect_same(entry.path().filename().string(), data.substr(2), capacity, &mismatches);
    }
    EXPECT_GE(files, 10);
}

}  // namespace
