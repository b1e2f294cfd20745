// Cost of verifying one signed answer: KX_SDK_JSON_VERIFY_HEAP of a realistic
// sign-in answer against the bare cryptographic work it cannot avoid (one RSA
// public-key decryption, MD5 of the signed text, a 16-byte compare). The
// difference is the library's own share: copying, parsing, cutting, base64
// and logging checks. Information lines are off, as on a device by default.
//
//   build/<dir>/bench/verify_bench
#include <benchmark/benchmark.h>

#include <openssl/md5.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cpu_ratio.h"
#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_crypto.h"

namespace {

// About 630 bytes once signed with the build's 2048-bit answer key.
const char kAnswer[] =
    "{\"resultCode\":0,\"errorDesc\":\"\",\"token\":\"8a2f0c1e6b7d4c39a1e5f0b2c3d4e5f6\","
    "\"refreshToken\":\"0f1e2d3c4b5a69788796a5b4c3d2e1f0\",\"tokenExpiredTime\":1735689600,"
    "\"refreshTokenExpiredTime\":1738281600,\"customerId\":\"100234567\",\"deviceId\":\"861234567890123\","
    "\"name\":\"living-room\"}";

struct Fixture {
    KX_SDK_DATA_BUF_S *record = nullptr;
    std::string signed_text;
    std::string decoded_signature;

    Fixture()
    {
        KX_INIT_PUBLICKEY();
        kxtest::log_enable(kxtest::kInfo, false);
        const std::string answer = kxtest::signed_json(kAnswer);
        record = static_cast<KX_SDK_DATA_BUF_S *>(std::calloc(1, sizeof(KX_SDK_DATA_BUF_S)));
        std::memcpy(record->data, answer.data(), answer.size());
        record->used = static_cast<uint32_t>(answer.size());
        signed_text = kAnswer;
        decoded_signature = kxtest::base64_decode(kxtest::server_signature(kAnswer));
    }
};

Fixture &fixture()
{
    static Fixture f;
    return f;
}

void BM_JsonVerifyHeap(benchmark::State &state)
{
    Fixture &f = fixture();
    for (auto _ : state) {
        char *out = nullptr;
        if (KX_SDK_JSON_VERIFY_HEAP(f.record, &out) != 0) {
            state.SkipWithError("answer did not verify");
            break;
        }
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * f.record->used);
}
BENCHMARK(BM_JsonVerifyHeap);

void BM_BareDecryptMd5Compare(benchmark::State &state)
{
    Fixture &f = fixture();
    const unsigned char *sig = reinterpret_cast<const unsigned char *>(f.decoded_signature.data());
    for (auto _ : state) {
        unsigned char decrypted[512];
        unsigned char digest[MD5_DIGEST_LENGTH];
        int n = RSA_public_decrypt(static_cast<int>(f.decoded_signature.size()), sig, decrypted, gpKey,
                                   RSA_PKCS1_PADDING);
        MD5(reinterpret_cast<const unsigned char *>(f.signed_text.data()), f.signed_text.size(), digest);
        if (n != MD5_DIGEST_LENGTH || std::memcmp(decrypted, digest, MD5_DIGEST_LENGTH) != 0) {
            state.SkipWithError("signature did not match");
            break;
        }
        benchmark::DoNotOptimize(decrypted);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * f.record->used);
}
BENCHMARK(BM_BareDecryptMd5Compare);

}  // namespace

int main(int argc, char **argv)
{
    return kxbench::run_with_ratio(argc, argv, [](kxbench::CpuTimes &cpu) {
        double verify = cpu["BM_JsonVerifyHeap"], bare = cpu["BM_BareDecryptMd5Compare"];
        if (verify > 0 && bare > 0)
            std::printf("KX_SDK_JSON_VERIFY_HEAP / bare decrypt+MD5+compare (CPU time) = %.2f (answer of %u bytes)\n",
                        verify / bare, fixture().record->used);
    });
}
