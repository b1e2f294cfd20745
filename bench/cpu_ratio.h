// The benchmarks that compare CPU time (on a shared machine wall time says
// little): Google Benchmark's console table, then one line of the program's
// own, given each benchmark's CPU time per iteration by name.
#ifndef KX_BENCH_CPU_RATIO_H
#define KX_BENCH_CPU_RATIO_H

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kxbench {

using CpuTimes = std::map<std::string, double>;

class CpuRatioReporter : public benchmark::ConsoleReporter {
public:
    explicit CpuRatioReporter(std::function<void(CpuTimes &)> last_line) : last_line_(std::move(last_line)) {}
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            times_[run.benchmark_name()] = run.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        last_line_(times_);
    }

private:
    std::function<void(CpuTimes &)> last_line_;
    CpuTimes times_;
};

// The whole main of such a benchmark program.
inline int run_with_ratio(int argc, char **argv, std::function<void(CpuTimes &)> last_line)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    CpuRatioReporter reporter(std::move(last_line));
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace kxbench

#endif
