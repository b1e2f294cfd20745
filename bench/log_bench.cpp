/*
 * What a 1 MiB log upload costs to prepare, beside what its steps cost done
 * directly.
 *
 *   BM_Library/<step>  the library's routines as KX_LOG_UPLOAD chains them:
 *                      KX_SDK_GZCOMPRESS into the working buffer,
 *                      KX_SDK_AES_ENCRYPT (pair B), kx_base64_encode,
 *                      KX_SDK_URLEncode; "all" is the whole chain.
 *   BM_Bare/<step>     the same steps straight on the dependencies: one zlib
 *                      deflate (window bits 31), OpenSSL EVP AES-128-CBC,
 *                      EVP_EncodeBlock, a table-driven percent-encoder; "all"
 *                      is their sum in one chain.
 *   BM_Upload          the whole KX_LOG_UPLOAD of the same log (preparation,
 *                      JSON, HTTPS POST to an in-process cloud), for scale.
 *
 * Each step works on the same input on both sides (the bare chain's output
 * of the step before). The log is 1 MiB of text lines with changing numbers
 * (it compresses about 5:1, as device logs do). Log classes are switched off.
 * At the end one line per step gives library / bare CPU time.
 *
 *   scripts/in-netns.sh build/bench/bench/log_bench
 */
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

constexpr size_t kLogSize = 1 << 20;

std::string make_log()
{
    std::string log;
    unsigned seed = 1;
    char line[160];
    while (log.size() < kLogSize) {
        seed = seed * 1103515245u + 12345u;
        std::snprintf(line, sizeof line, "%08u.%03u player[%u]: buffer %u%% bitrate %u kbit/s, %s\n", seed >> 12,
                      seed % 1000, 400 + seed % 17, seed % 101, 800 + (seed >> 8) % 9000,
                      (seed & 4) ? "rebuffering" : "steady");
        log += line;
    }
    log.resize(kLogSize);
    return log;
}

const std::string &the_log()
{
    static const std::string log = make_log();
    return log;
}

/* ---- bare steps ---------------------------------------------------------------- */

std::string bare_gzip(const std::string &in)
{
    z_stream z{};
    deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&z, in.size()), '\0');
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(in.data()));
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = reinterpret_cast<Bytef *>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

std::string bare_aes(const std::string &in)
{
    static const std::string key = kxtest::hex_decode(KX_TEST_AES_B_KEY), iv = kxtest::hex_decode(KX_TEST_AES_B_IV);
    std::string out(in.size() + 16, '\0');
    int n = 0, tail = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, reinterpret_cast<const unsigned char *>(key.data()),
                       reinterpret_cast<const unsigned char *>(iv.data()));
    EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char *>(&out[0]), &n,
                      reinterpret_cast<const unsigned char *>(in.data()), static_cast<int>(in.size()));
    EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char *>(&out[0]) + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + tail));
    return out;
}

std::string bare_base64(const std::string &in)
{
    std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                                  reinterpret_cast<const unsigned char *>(in.data()), static_cast<int>(in.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

std::string bare_urlencode(const std::string &in)
{
    static const char digits[] = "0123456789ABCDEF";
    static const std::vector<bool> keep = [] {
        std::vector<bool> k(256, false);
        for (int c = 0; c < 256; ++c)
            k[c] = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                   c == '.' || c == '_' || c == '*';
        return k;
    }();
    std::string out;
    out.reserve(in.size() * 3);
    for (unsigned char c : in) {
        if (keep[c]) {
            out += static_cast<char>(c);
        } else if (c == ' ') {
            out += '+';
        } else {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 15];
        }
    }
    return out;
}

/* ---- the library's steps, as the upload chains them ------------------------------ */

std::string library_gzip(const std::string &in)
{
    const uint32_t size = in.size() > 8192 ? static_cast<uint32_t>(in.size()) : 8192;
    std::string work(size, '\0');
    uint32_t length = size;
    if (KX_SDK_GZCOMPRESS(in.data(), static_cast<uint32_t>(in.size()), &work[0], &length) != 0)
        return "";
    work.resize(length);
    return work;
}

std::string library_aes(const std::string &in)
{
    unsigned char *cipher = nullptr;
    uint32_t length = 0;
    if (KX_SDK_AES_ENCRYPT(in.data(), static_cast<uint32_t>(in.size()), &cipher, &length) != 0)
        return "";
    std::string out(reinterpret_cast<char *>(cipher), length);
    free(cipher);
    return out;
}

std::string library_base64(const std::string &in)
{
    std::string out(in.size() / 3 * 4 + 5, '\0');
    kx_base64_encode(in.data(), &out[0], static_cast<uint32_t>(in.size()));
    out.resize(out.find('\0'));
    return out;
}

/* The capacity the upload gives for its cipher text of n bytes: n / 3 * 16 + 20. */
std::string library_urlencode(const std::string &in, size_t cipher_length)
{
    const size_t size = cipher_length / 3 * 16 + 20;
    std::string out(size, '\0');
    const int32_t n = KX_SDK_URLEncode(in.data(), static_cast<int32_t>(in.size()), &out[0], static_cast<int32_t>(size));
    out.resize(static_cast<size_t>(n));
    return out;
}

/* The inputs of each step, made once by the bare chain. */
struct Stages {
    std::string log, gz, cipher, base64, encoded;
};

const Stages &stages()
{
    static const Stages s = [] {
        Stages t;
        t.log = the_log();
        t.gz = bare_gzip(t.log);
        t.cipher = bare_aes(t.gz);
        t.base64 = bare_base64(t.cipher);
        t.encoded = bare_urlencode(t.base64);
        return t;
    }();
    return s;
}

enum Step { kGzip, kAes, kBase64, kUrl, kAll };
const char *const kStepNames[] = {"gzip", "aes", "base64", "urlencode", "all"};

std::string run_step(bool library, int step)
{
    const Stages &s = stages();
    switch (step) {
    case kGzip: return library ? library_gzip(s.log) : bare_gzip(s.log);
    case kAes: return library ? library_aes(s.gz) : bare_aes(s.gz);
    case kBase64: return library ? library_base64(s.cipher) : bare_base64(s.cipher);
    case kUrl: return library ? library_urlencode(s.base64, s.cipher.size()) : bare_urlencode(s.base64);
    default: {
        if (!library)
            return bare_urlencode(bare_base64(bare_aes(bare_gzip(s.log))));
        const std::string cipher = library_aes(library_gzip(s.log));
        return library_urlencode(library_base64(cipher), cipher.size());
    }
    }
}

void BM_Steps(benchmark::State &state, bool library)
{
    const int step = static_cast<int>(state.range(0));
    state.SetLabel(kStepNames[step]);
    for (auto _ : state) {
        std::string out = run_step(library, step);
        if (out.empty()) {
            state.SkipWithError("a step failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
}
void BM_Library(benchmark::State &state) { BM_Steps(state, true); }
void BM_Bare(benchmark::State &state) { BM_Steps(state, false); }
BENCHMARK(BM_Library)->DenseRange(kGzip, kAll)->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK(BM_Bare)->DenseRange(kGzip, kAll)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

std::string g_upload_url;

void BM_Upload(benchmark::State &state)
{
    const std::string &log = the_log();
    const KX_LOG_UPLOAD_S record = {0, 0, 0, 0, 0, "bench", static_cast<uint32_t>(log.size()), log.data(),
                                    g_upload_url.c_str()};
    for (auto _ : state) {
        FILE *answer = tmpfile();
        const int32_t result = KX_LOG_UPLOAD(&record, &answer);
        fclose(answer);
        if (result != 0) {
            state.SkipWithError("KX_LOG_UPLOAD failed");
            break;
        }
    }
}
BENCHMARK(BM_Upload)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

/* Console output, and each step's CPU time for the closing lines. */
class StepReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> cpu_us; /* "BM_Library/0" -> CPU time in microseconds */
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            const std::string name = run.benchmark_name();
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                cpu_us[name.substr(0, name.find("/min_time"))] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv)
{
    kxtest::log_enable(kxtest::kError, false);
    kxtest::log_enable(kxtest::kInfo, false);
    kxcloud::Options options;
    options.http80 = false;
    kxcloud::Cloud cloud(options);
    cloud.reply("POST", "/log/upload", {200, "{\"resultCode\":0}", "application/json"});
    g_upload_url = "https://" + cloud.https_domain() + "/log/upload";
    if (KX_GLOBAL_INIT(cloud.https_domain().c_str()) != 0) {
        std::fprintf(stderr, "log_bench: KX_GLOBAL_INIT failed\n");
        return 1;
    }
    /* Both chains must give the same text (the library's gzip may differ from
     * one-shot deflate in its bytes, never in its validity). */
    const Stages &s = stages();
    std::printf("log %zu bytes, gzip %zu, cipher %zu, base64 %zu, URL-encoded %zu\n", s.log.size(), s.gz.size(),
                s.cipher.size(), s.base64.size(), s.encoded.size());
    for (int step = kAes; step < kAll; ++step)
        if (run_step(true, step) != run_step(false, step)) {
            std::fprintf(stderr, "log_bench: the library's %s differs from the bare one\n", kStepNames[step]);
            return 1;
        }

    benchmark::Initialize(&argc, argv);
    StepReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (int step = kGzip; step <= kAll; ++step) {
        const auto lib = reporter.cpu_us.find("BM_Library/" + std::to_string(step));
        const auto bare = reporter.cpu_us.find("BM_Bare/" + std::to_string(step));
        if (lib != reporter.cpu_us.end() && bare != reporter.cpu_us.end() && bare->second > 0)
            std::printf("%-10s library / bare: %.2f (%.0f us vs %.0f us CPU)\n", kStepNames[step],
                        lib->second / bare->second, lib->second, bare->second);
    }
    KX_GLOBAL_DEINIT();
    benchmark::Shutdown();
    return 0;
}
