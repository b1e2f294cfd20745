/*
 * The gzip decompressor as it was first written: one input byte and one
 * output byte per inflate call, from the start, until the output is full, the
 * input used up, the stream ended or failed. KX_SDK_GZDECOMPRESS must give
 * exactly its results: the return code, the out length, every byte it writes
 * into out (also past the out length, when it fails part-way) and its log
 * lines. The suites and the differential fuzz target hold the library to it.
 */
#ifndef KX_TEST_GZ_REFERENCE_H
#define KX_TEST_GZ_REFERENCE_H

#include <cstdint>
#include <string>
#include <vector>

namespace kxtest {

/* One log line of the decompressor: its class and its message with the
 * source line number written as "#" ("inflate # error: -3\n"). */
struct GzLine {
    bool error;
    std::string text;
    bool operator==(const GzLine &o) const { return error == o.error && text == o.text; }
};

struct GzOutcome {
    int32_t result = 0;
    uint32_t outlen = 0; /* *outlen after the call */
    std::string out;     /* the whole out buffer after the call */
    std::vector<GzLine> log;
    bool operator==(const GzOutcome &o) const
    {
        return result == o.result && outlen == o.outlen && out == o.out && log == o.log;
    }
};

/* The byte-at-a-time walk over `in` into a buffer of `capacity` bytes that
 * starts filled with `fill`. */
GzOutcome gz_reference(const std::string &in, uint32_t capacity, char fill = '#');

/* KX_SDK_GZDECOMPRESS on the same terms; `lines` gathers what the library
 * logged during the call (each formatted line with its level). */
struct RawLine {
    bool error;
    std::string text;
};
GzOutcome gz_library(const std::string &in, uint32_t capacity, char fill, std::vector<RawLine> (*take_lines)());

/* "kx_sdk_common_gzip.cpp:123:KX_SDK_GZDECOMPRESS(): inflate 130 error: -3\n"
 * becomes {true, "inflate # error: -3\n"}. */
GzLine gz_line_of(const RawLine &line);

/* Printable form of an outcome for a failure message. */
std::string describe(const GzOutcome &o);

}  // namespace kxtest

#endif
