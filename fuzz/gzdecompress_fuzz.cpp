/* KX_SDK_GZDECOMPRESS against the byte-at-a-time walk it must equal
 * (tests/support/gz_reference): the first two bytes choose the capacity, the
 * rest is the stream. The result, the out length, every byte of out and the
 * log lines must agree, and the out length never exceeds the capacity. */
#include <cstdio>

#include "fuzz_support.h"
#include "gz_reference.h"
#include "kx_cloud_openapi.h"

namespace {

std::vector<kxtest::RawLine> library_lines()
{
    std::vector<kxtest::RawLine> lines;
    for (auto &line : kxfuzz::take_log())
        lines.push_back({line.first, line.second});
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    kxfuzz::keep_log(true);
    uint32_t capacity = static_cast<uint32_t>(data[0] | (data[1] << 8));
    std::string in(reinterpret_cast<const char *>(data) + 2, size - 2);
    kxtest::GzOutcome library = kxtest::gz_library(in, capacity, '#', library_lines);
    kxtest::GzOutcome walk = kxtest::gz_reference(in, capacity, '#');
    if (library.result == 0 && library.outlen > capacity)
        __builtin_trap();
    if (!(library == walk)) {
        std::fprintf(stderr, "library: %s\nwalk:    %s\nsame bytes: %d\n", kxtest::describe(library).c_str(),
                     kxtest::describe(walk).c_str(), library.out == walk.out);
        __builtin_trap();
    }
    return 0;
}
