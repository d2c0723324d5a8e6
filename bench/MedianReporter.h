// The console reporter, remembering each benchmark's real time per iteration
// for the ratios a program prints at the end: the median over repetitions
// when there are several (the "median" aggregate, or the median of the runs
// it is given), else the one run's.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace Bench {

class MedianReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const std::string name = run.run_name.function_name;
            if (run.run_type == Run::RT_Iteration) {
                runs_[name].push_back(run.GetAdjustedRealTime());
            } else if (run.aggregate_name == "median") {
                medians_[name] = run.GetAdjustedRealTime();
            }
        }
    }

    // Nanoseconds per iteration (the default unit); 0 for a benchmark that
    // did not run.
    double time(const std::string& name) {
        if (const auto median = medians_.find(name); median != medians_.end()) {
            return median->second;
        }
        auto& times = runs_[name];
        if (times.empty()) return 0;
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }

    double ratio(const std::string& of, const std::string& to) {
        return time(to) > 0 ? time(of) / time(to) : 0;
    }

private:
    std::map<std::string, double> medians_;
    std::map<std::string, std::vector<double>> runs_;
};

}  // namespace Bench
