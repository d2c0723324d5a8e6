// What the test command holds the benchmarks to. A benchmark prints, for
// each target it states, one line after its own report:
//
//   ratio <benchmark> <what> <measured> <target>
//
// (the names without spaces, the figures as plain numbers, target a ratio
// not to exceed), and bench/check-ratios runs every benchmark once with
// QV_BENCH_BRIEF=1 and fails when a measured ratio is more than three times
// its target. The brief mode runs few iterations, a median of three short
// repetitions interleaved, so that the ideal and the measured path meet the
// same load; the full figures come from the program run without it, as is
// and under taskset -c 0.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

// True when QV_BENCH_BRIEF is set to anything but "" or "0".
inline bool brief() {
    const char* value = std::getenv("QV_BENCH_BRIEF");
    return value != nullptr && *value != '\0' && std::string_view(value) != "0";
}

// Google Benchmark's Initialize, given first the brief mode's flags when it
// is on, then `flags`, then the command line's own arguments, so that those
// still decide. The arguments live as long as the program.
inline void initialize(int* argc, char** argv, std::vector<std::string> flags = {}) {
    static std::vector<std::string> added;
    if (brief()) {
        added = {"--benchmark_min_time=0.05", "--benchmark_repetitions=3",
                 "--benchmark_enable_random_interleaving=true",
                 "--benchmark_report_aggregates_only=true"};
    }
    added.insert(added.end(), flags.begin(), flags.end());
    static std::vector<char*> arguments;
    arguments.assign(argv, argv + *argc);
    for (std::size_t i = 0; i < added.size(); ++i) {
        arguments.insert(arguments.begin() + 1 + static_cast<std::ptrdiff_t>(i), added[i].data());
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
}

// The line bench/check-ratios reads; a ratio of 0 (a side that did not run)
// is printed as it is and counts as a failure there.
inline void reportRatio(const char* benchmark, std::string_view what, double measured,
                        double target) {
    std::printf("ratio %s %.*s %.3f %.3f\n", benchmark, static_cast<int>(what.size()), what.data(),
                measured, target);
    std::fflush(stdout);
}

}  // namespace Bench
