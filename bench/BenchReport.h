#pragma once
// Shared by the Google Benchmark programs: keeps each run's time per iteration by name so main()
// can print ratios against the reference measured in the same invocation.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

namespace orvel::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration) nanoseconds[run.benchmark_name()] = run.GetAdjustedRealTime();
        }
    }
    // ours / reference, as times per iteration (below 1: ours is faster).
    void printRatio(const std::string& ours, const std::string& reference) const {
        auto a = nanoseconds.find(ours), b = nanoseconds.find(reference);
        if (a == nanoseconds.end() || b == nanoseconds.end()) return;
        std::printf("%s / %s = %.2f (time per operation)\n", ours.c_str(), reference.c_str(), a->second / b->second);
    }
    void printGoal(const std::string& name, double goalNanoseconds) const {
        auto a = nanoseconds.find(name);
        if (a == nanoseconds.end()) return;
        std::printf("%s: %.0f ns per operation, goal <= %.0f ns: %s\n", name.c_str(), a->second, goalNanoseconds,
                    a->second <= goalNanoseconds ? "met" : "NOT met");
    }
    std::map<std::string, double> nanoseconds;
};

}  // namespace orvel::bench
