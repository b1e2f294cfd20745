/*
 * heap_peak: the heap one call takes, as the allocation interposer counts
 * it: the most bytes the calling thread held at once while the call ran, in
 * all and by owner (the library itself, libcurl, OpenSSL, and the rest:
 * libxml2, cJSON, zlib). A measurement, not a test; scripts/reliability.sh
 * heap runs it inside a private network namespace.
 *
 *   heap_peak [CALL...]   default: every call of the reliability table whose
 *                         answer is signed (the calls that sign and verify)
 *
 * Each call runs once unmeasured first, so that what libcurl and OpenSSL set
 * up once per process (error strings, algorithm tables) is not counted
 * against a call. Prints one Markdown table row per call.
 */
#include <cstdio>
#include <string>
#include <vector>

#include "alloc_interposer.h"
#include "calls.h"
#include "test_cloud.h"

int main(int argc, char **argv)
{
    if (!kxrel::interposer_active()) {
        std::fprintf(stderr, "heap_peak: this build has no allocation interposer (a sanitizer build)\n");
        return 2;
    }
    std::vector<const kxrel::Call *> chosen;
    for (int i = 1; i < argc; ++i) {
        const kxrel::Call *call = kxrel::find_call(argv[i]);
        if (call == nullptr) {
            std::fprintf(stderr, "heap_peak: no call %s in the table\n", argv[i]);
            return 2;
        }
        chosen.push_back(call);
    }
    if (chosen.empty())
        for (const kxrel::Call &call : kxrel::calls())
            if (call.signed_answer && (!call.plain || kxrel::cloud().http_ready()))
                chosen.push_back(&call);

    std::printf("| call | allocations | peak held | library | libcurl | OpenSSL | other |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
    int status = 0;
    for (const kxrel::Call *call : chosen) {
        kxrel::run_call(*call, -1); /* unmeasured */
        kxrel::count_owners(true);
        const kxrel::RunReport report = kxrel::run_call(*call, 0);
        const kxrel::HeapPeak peak = kxrel::heap_peak();
        kxrel::count_owners(false);
        if (report.outcome != kxrel::Outcome::Success) {
            std::fprintf(stderr, "heap_peak: %s did not succeed: %s\n", call->name.c_str(), report.why.c_str());
            status = 1;
        }
        std::printf("| %s | %ld | %zu | %zu | %zu | %zu | %zu |\n", call->name.c_str(), report.allocations, peak.total,
                    peak.owner[static_cast<int>(kxrel::Owner::Library)],
                    peak.owner[static_cast<int>(kxrel::Owner::Curl)],
                    peak.owner[static_cast<int>(kxrel::Owner::OpenSsl)],
                    peak.owner[static_cast<int>(kxrel::Owner::Other)]);
    }
    return status;
}
