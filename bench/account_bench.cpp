/*
 * What the request frame costs beside the transfer it makes.
 *
 *   BM_SignOut       KX_SIGN_OUT over HTTPS against an in-process cloud with the
 *                    device services: URL, nonce, parameter text, MD5 + RSA
 *                    signature, body, answer file, transfer, RSA verification.
 *   BM_PlainCurlPost the same body bytes (captured from the cloud's record of a
 *                    KX_SIGN_OUT) posted to the same URL with a fresh libcurl
 *                    handle each time, same CA check, answer kept in memory.
 *
 * Both open a new TLS connection per iteration (the library keeps no handle
 * between calls). Log classes are switched off, as on a quiet device. At the
 * end the ratio of the two real times is printed.
 *
 *   scripts/in-netns.sh build/bench/bench/account_bench
 */
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdio>
#include <map>
#include <string>

#include "device_services.h"
#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

kxcloud::Cloud *g_cloud;
std::string g_domain;
std::string g_body; /* what KX_SIGN_OUT posts, as the cloud received it */
char g_result[16384];

const KX_TOKEN_DEVICE_S kToken = {0, kxcloud::kServiceAccessToken, "1A2B3C4D5E", "8610030090000010000006101A2B3C4D5E"};

size_t keep(char *data, size_t size, size_t count, void *sink)
{
    static_cast<std::string *>(sink)->append(data, size * count);
    return size * count;
}

void BM_SignOut(benchmark::State &state)
{
    for (auto _ : state) {
        if (KX_SIGN_OUT(&kToken, g_domain.c_str(), g_result) != 0) {
            state.SkipWithError("KX_SIGN_OUT did not verify");
            break;
        }
    }
}
BENCHMARK(BM_SignOut)->UseRealTime()->MinTime(3.0);

void BM_PlainCurlPost(benchmark::State &state)
{
    const std::string url = "https://" + g_domain + "/aaa/sign_out";
    const std::string ca = kxtest::credentials_dir() + "/ca.pem";
    for (auto _ : state) {
        std::string answer;
        CURL *curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, g_body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(g_body.size()));
        curl_easy_setopt(curl, CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, keep);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
        const CURLcode result = curl_easy_perform(curl);
        curl_easy_cleanup(curl);
        if (result != CURLE_OK || answer.empty()) {
            state.SkipWithError("plain POST failed");
            break;
        }
    }
}
BENCHMARK(BM_PlainCurlPost)->UseRealTime()->MinTime(3.0);

/* Console output plus the real time of each benchmark, for the ratio. */
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> real_ns;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                real_ns[run.benchmark_name().substr(0, run.benchmark_name().find('/'))] = run.GetAdjustedRealTime();
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
    kxcloud::register_device_services(cloud);
    g_cloud = &cloud;
    g_domain = cloud.https_domain();
    if (KX_GLOBAL_INIT(g_domain.c_str()) != 0 || KX_SIGN_OUT(&kToken, g_domain.c_str(), g_result) != 0) {
        std::fprintf(stderr, "account_bench: the first KX_SIGN_OUT did not verify\n");
        return 1;
    }
    g_body = cloud.last().body;

    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto frame = reporter.real_ns.find("BM_SignOut"), plain = reporter.real_ns.find("BM_PlainCurlPost");
    if (frame != reporter.real_ns.end() && plain != reporter.real_ns.end() && plain->second > 0)
        std::printf("KX_SIGN_OUT / plain libcurl POST of the same bytes: %.2f (%.0f us vs %.0f us per call)\n",
                    frame->second / plain->second, frame->second / 1000.0, plain->second / 1000.0);
    KX_GLOBAL_DEINIT();
    benchmark::Shutdown();
    return 0;
}
