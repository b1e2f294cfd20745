// Cost of KX_SDK_GZDECOMPRESS on a 256 KiB log policy against zlib's own
// inflate of the same stream in one call over the whole buffer (the least
// inflate can do), and against the byte-at-a-time walk whose results the
// decompressor keeps (tests/support/gz_reference). Same process, same run,
// CPU time; the ratio is printed after the table.
//
//   scripts/bench.sh            (or build/<dir>/bench/gzip_bench)
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <string>

#include "cpu_ratio.h"
#include "gz_reference.h"
#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"

namespace {

struct Policy {
    std::string text, gz;
    Policy()
    {
        kxtest::log_enable(kxtest::kInfo, false);
        text = "{\"resultCode\":0,\"strategies\":[";
        for (unsigned i = 0; text.size() < 256 * 1024 - 2; ++i)
            text += "{\"module\":\"svc" + std::to_string(i % 97) + "\",\"level\":" + std::to_string(i % 5) +
                    ",\"upload\":" + std::to_string((i * 7919) % 3600) + ",\"keys\":[\"boot\",\"net" +
                    std::to_string(i % 13) + "\"]},";
        text.resize(256 * 1024 - 2);
        text += "]}";
        gz = kxcloud::gzip_bytes(text);
    }
};

const Policy &policy()
{
    static Policy p;
    return p;
}

void BM_GzDecompress(benchmark::State &state)
{
    const Policy &p = policy();
    std::string out(p.text.size(), '\0');
    for (auto _ : state) {
        uint32_t len = static_cast<uint32_t>(out.size());
        if (KX_SDK_GZDECOMPRESS(p.gz.data(), static_cast<uint32_t>(p.gz.size()), &out[0], &len) != 0 ||
            len != p.text.size()) {
            state.SkipWithError("KX_SDK_GZDECOMPRESS failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(p.text.size()));
}
BENCHMARK(BM_GzDecompress);

void BM_ZlibInflate(benchmark::State &state)
{
    const Policy &p = policy();
    std::string out(p.text.size(), '\0');
    for (auto _ : state) {
        z_stream z{};
        inflateInit2(&z, 31);
        z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(p.gz.data()));
        z.avail_in = static_cast<uInt>(p.gz.size());
        z.next_out = reinterpret_cast<Bytef *>(&out[0]);
        z.avail_out = static_cast<uInt>(out.size());
        int result = inflate(&z, Z_FINISH);
        inflateEnd(&z);
        if (result != Z_STREAM_END) {
            state.SkipWithError("inflate failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(p.text.size()));
}
BENCHMARK(BM_ZlibInflate);

void BM_ByteAtATimeWalk(benchmark::State &state)
{
    const Policy &p = policy();
    for (auto _ : state) {
        kxtest::GzOutcome o = kxtest::gz_reference(p.gz, static_cast<uint32_t>(p.text.size()));
        if (o.result != 0 || o.outlen != p.text.size()) {
            state.SkipWithError("walk failed");
            break;
        }
        benchmark::DoNotOptimize(o.out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(p.text.size()));
}
BENCHMARK(BM_ByteAtATimeWalk);

}  // namespace

int main(int argc, char **argv)
{
    return kxbench::run_with_ratio(argc, argv, [](kxbench::CpuTimes &cpu) {
        double library = cpu["BM_GzDecompress"], zlib = cpu["BM_ZlibInflate"], walk = cpu["BM_ByteAtATimeWalk"];
        if (library > 0 && zlib > 0)
            std::printf("KX_SDK_GZDECOMPRESS / one inflate over the buffer (CPU time) = %.2f; byte-at-a-time walk / "
                        "inflate = %.1f (policy of %zu bytes, %zu compressed)\n",
                        library / zlib, walk / zlib, policy().text.size(), policy().gz.size());
    });
}
