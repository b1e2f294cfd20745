// Cost of one secure POST through the library against the same transfer made
// with libcurl directly: same body, same test-cloud path, same CA check, the
// answer written to a file, a fresh handle every time (the library keeps no
// handle between calls, so neither does the comparison). The difference is the
// library's own share: argument checks, option table, logging checks, the
// flushing file sink. Information lines are off, as on a device by default.
//
//   scripts/in-netns.sh build/<dir>/bench/transport_bench
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

struct Setup {
    kxcloud::Cloud cloud;
    std::string url;
    std::string body;
    std::string ca = kxtest::credentials_dir() + "/ca.pem";
    FILE *out = tmpfile();

    Setup() : cloud(no_port80())
    {
        kxtest::log_enable(kxtest::kInfo, false);
        kxcloud::Reply reply;
        reply.body = std::string(600, 'a'); /* about a signed sign-in answer */
        cloud.reply("POST", "/bench", reply);
        url = "https://" + cloud.https_domain() + "/bench";
        body = "deviceId=861234567890123&devicemsg=" + std::string(256, 'F') + "&randStr=" + std::string(32, '7') +
               "&timeStamp=1735689600&sign=" + std::string(172, 'Q');
    }
    static kxcloud::Options no_port80()
    {
        kxcloud::Options options;
        options.http80 = false;
        return options;
    }
    int32_t length() const { return static_cast<int32_t>(body.size()); }
};

Setup &setup()
{
    static Setup s;
    return s;
}

double g_library_us = 0, g_curl_us = 0;

template <typename Transfer>
void measure(benchmark::State &state, double *us_per_call, Transfer transfer)
{
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        /* Both start from an empty answer file. */
        rewind(setup().out);
        if (ftruncate(fileno(setup().out), 0) != 0)
            break;
        if (!transfer()) {
            state.SkipWithError("transfer failed");
            break;
        }
    }
    std::chrono::duration<double, std::micro> spent = std::chrono::steady_clock::now() - start;
    if (state.iterations() > 0)
        *us_per_call = spent.count() / static_cast<double>(state.iterations());
}

void BM_LibraryHttpsPost(benchmark::State &state)
{
    Setup &s = setup();
    measure(state, &g_library_us,
            [&s] { return KX_SDK_HTTPS_POST(s.url.c_str(), s.body.c_str(), s.length(), &s.out) == 0; });
}
BENCHMARK(BM_LibraryHttpsPost)->UseRealTime();

void BM_PlainCurlPost(benchmark::State &state)
{
    Setup &s = setup();
    measure(state, &g_curl_us, [&s] {
        CURL *curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, s.url.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, s.body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(s.length()));
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, s.out);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(curl, CURLOPT_CAINFO, s.ca.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        bool ok = curl_easy_perform(curl) == CURLE_OK;
        curl_easy_cleanup(curl);
        return ok;
    });
}
BENCHMARK(BM_PlainCurlPost)->UseRealTime();

}  // namespace

int main(int argc, char **argv)
{
    curl_global_init(CURL_GLOBAL_ALL);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (g_library_us > 0 && g_curl_us > 0)
        std::printf("transport_bench: KX_SDK_HTTPS_POST %.1f us/call, plain libcurl %.1f us/call, ratio %.3f\n",
                    g_library_us, g_curl_us, g_library_us / g_curl_us);
    benchmark::Shutdown();
    curl_global_cleanup();
    return 0;
}
