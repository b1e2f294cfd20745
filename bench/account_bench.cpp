/*
 * What a signed call costs beside a bare transfer of the same bytes, as a
 * device sees it: one program, one local TLS server, the two alternating.
 *
 *   KX_SIGN_OUT   over HTTPS against an in-process cloud with the device
 *                 services: URL, nonce, parameter text, MD5 + RSA signature,
 *                 body, answer file, transfer, RSA verification; with the
 *                 library initialised, so through its share of TLS sessions
 *                 (a build with -DKX_CURL_SHARE=OFF has none).
 *   bare libcurl  the same body bytes (captured from the cloud's record of a
 *                 KX_SIGN_OUT) posted to the same URL with a fresh handle each
 *                 time, same CA check, answer kept in memory: a full TLS
 *                 handshake every time.
 *
 * Each round times one of each, in turns (sign-out first in even rounds,
 * bare first in odd ones), so that a busy machine slows both alike; the
 * medians and their ratio are printed. Log classes are switched off, as on a
 * quiet device.
 *
 *   scripts/bench.sh                                   (both builds)
 *   scripts/in-netns.sh build/bench/bench/account_bench [ROUNDS]
 */
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "device_services.h"
#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

using Clock = std::chrono::steady_clock;

const KX_TOKEN_DEVICE_S kToken = {0, kxcloud::kServiceAccessToken, "1A2B3C4D5E", "8610030090000010000006101A2B3C4D5E"};

size_t keep(char *data, size_t size, size_t count, void *sink)
{
    static_cast<std::string *>(sink)->append(data, size * count);
    return size * count;
}

struct Bare {
    std::string url, ca, body;
    bool post() const
    {
        std::string answer;
        CURL *curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        curl_easy_setopt(curl, CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, keep);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
        const CURLcode result = curl_easy_perform(curl);
        curl_easy_cleanup(curl);
        return result == CURLE_OK && !answer.empty();
    }
};

template <typename F>
double micros(F f, bool *ok)
{
    auto start = Clock::now();
    *ok = f() && *ok;
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

}  // namespace

int main(int argc, char **argv)
{
    /* Arguments meant for the Google Benchmark programs are not a count. */
    const int rounds = argc > 1 && argv[1][0] >= '0' && argv[1][0] <= '9' ? std::atoi(argv[1]) : 400;
    kxtest::log_enable(kxtest::kError, false);
    kxtest::log_enable(kxtest::kInfo, false);
    kxcloud::Options options;
    options.http80 = false;
    kxcloud::Cloud cloud(options);
    kxcloud::register_device_services(cloud);
    const std::string domain = cloud.https_domain();
    char result[16384];
    if (rounds < 10 || KX_GLOBAL_INIT(domain.c_str()) != 0 || KX_SIGN_OUT(&kToken, domain.c_str(), result) != 0) {
        std::fprintf(stderr, "account_bench: the first KX_SIGN_OUT did not verify\n");
        return 1;
    }
    const Bare bare{"https://" + domain + "/aaa/sign_out", kxtest::credentials_dir() + "/ca.pem", cloud.last().body};

    std::vector<double> signed_us, bare_us;
    bool ok = true;
    auto sign_out = [&] { return KX_SIGN_OUT(&kToken, domain.c_str(), result) == 0; };
    auto plain = [&] { return bare.post(); };
    for (int i = 0; i < rounds && ok; ++i) {
        if (i % 2 == 0) {
            signed_us.push_back(micros(sign_out, &ok));
            bare_us.push_back(micros(plain, &ok));
        } else {
            bare_us.push_back(micros(plain, &ok));
            signed_us.push_back(micros(sign_out, &ok));
        }
    }
    KX_GLOBAL_DEINIT();
    if (!ok) {
        std::fprintf(stderr, "account_bench: a transfer failed\n");
        return 1;
    }
    const double s50 = percentile(signed_us, 0.5), b50 = percentile(bare_us, 0.5);
    std::printf("account_bench (TLS session share %s), %d rounds alternating:\n", KX_BENCH_CURL_SHARE ? "on" : "off",
                rounds);
    std::printf("  KX_SIGN_OUT    median %7.0f us  (p10 %7.0f, p90 %7.0f)\n", s50, percentile(signed_us, 0.1),
                percentile(signed_us, 0.9));
    std::printf("  bare libcurl   median %7.0f us  (p10 %7.0f, p90 %7.0f)\n", b50, percentile(bare_us, 0.1),
                percentile(bare_us, 0.9));
    std::printf("KX_SIGN_OUT / bare libcurl POST of the same bytes, median: %.2f (share %s)\n", s50 / b50,
                KX_BENCH_CURL_SHARE ? "on" : "off");
    return 0;
}
