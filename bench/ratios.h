// ratios.h - what every benchmark program shares: its benchmarks stand in a
// table, figure beside baseline; each runs several times in shuffled order
// (so that drift of the machine falls on both sides of a pair alike); and the
// program ends with a Markdown table of the best CPU time of each figure (wall
// time where work is done in other processes), its baseline, the ratio and
// the aim, ready for docs/performance.md.
#ifndef FHCORE_BENCH_RATIOS_H
#define FHCORE_BENCH_RATIOS_H

#include <algorithm>
#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/fhcore.h"

namespace bench {

constexpr int kRepetitions = 10;
constexpr double kSecondsPerRepetition = 0.2;

struct Entry {
    const char *name;
    void (*run)(benchmark::State &);
    bool realTime = false; // wall-clock time, for work done in other processes
};

// How a figure is judged: against its baseline's time, in nanoseconds, or
// only reported.
enum class Aim { RatioAtMost, RatioBelow, NanosecondsBelow, Report };

struct Comparison {
    const char *figure;
    const char *baseline;
    Aim aim;
    double limit;
};

inline double toNanoseconds(double value, benchmark::TimeUnit unit) {
    switch (unit) {
    case benchmark::kNanosecond: return value;
    case benchmark::kMicrosecond: return value * 1e3;
    case benchmark::kMillisecond: return value * 1e6;
    case benchmark::kSecond: return value * 1e9;
    }
    return value;
}

inline double fastest(const std::vector<double> &times) { return *std::min_element(times.begin(), times.end()); }

// Shows what the console reporter shows and keeps the best CPU time per
// iteration of each benchmark for the table.
class BestKeeper : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred) failed_.push_back(run.run_name.function_name);
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "min") {
                const std::string &name = run.run_name.function_name;
                const bool wall = std::find(realTime_.begin(), realTime_.end(), name) != realTime_.end();
                best_[name] = toNanoseconds(wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime(), run.time_unit);
            }
        }
    }
    const double *best(const std::string &name) const {
        auto found = best_.find(name);
        return found != best_.end() ? &found->second : nullptr;
    }
    const std::vector<std::string> &failed() const { return failed_; }
    void measureRealTime(const std::string &name) { realTime_.push_back(name); }

  private:
    std::vector<std::string> realTime_;
    std::map<std::string, double> best_;
    std::vector<std::string> failed_;
};

inline std::string aimText(const Comparison &c) {
    char text[32];
    switch (c.aim) {
    case Aim::RatioAtMost: snprintf(text, sizeof text, "<= %.3gx", c.limit); break;
    case Aim::RatioBelow: snprintf(text, sizeof text, "< %.3gx", c.limit); break;
    case Aim::NanosecondsBelow: snprintf(text, sizeof text, "< %.2g ns", c.limit); break;
    case Aim::Report: snprintf(text, sizeof text, "report"); break;
    }
    return text;
}

inline bool aimMet(const Comparison &c, double figure, double ratio) {
    switch (c.aim) {
    case Aim::RatioAtMost: return ratio <= c.limit;
    case Aim::RatioBelow: return ratio < c.limit;
    case Aim::NanosecondsBelow: return figure < c.limit;
    case Aim::Report: return true;
    }
    return false;
}

// The table, in Markdown so that it goes into docs/performance.md as it is.
inline int printRatios(const BestKeeper &keeper, std::span<const Comparison> comparisons) {
    printf("\nCPU time per operation, best of %d repetitions:\n\n", kRepetitions);
    printf("| figure | ns | baseline | ns | ratio | aim | |\n");
    printf("| --- | ---: | --- | ---: | ---: | --- | --- |\n");
    int missed = 0, compared = 0;
    for (const Comparison &c : comparisons) {
        const double *figure = keeper.best(c.figure);
        const double *baseline = keeper.best(c.baseline);
        if (figure == nullptr || baseline == nullptr) {
            printf("| %s | - | %s | - | - | %s | not run |\n", c.figure, c.baseline, aimText(c).c_str());
            continue;
        }
        const double ratio = *figure / *baseline;
        const bool met = aimMet(c, *figure, ratio);
        missed += met ? 0 : 1;
        ++compared;
        printf("| %s | %.2f | %s | %.2f | %.2fx | %s | %s |\n", c.figure, *figure, c.baseline, *baseline, ratio,
               aimText(c).c_str(), c.aim == Aim::Report ? "" : met ? "met" : "MISSED");
    }
    for (const std::string &name : keeper.failed()) printf("\nfailed: %s\n", name.c_str());
    printf("\n%d of %d aims missed\n", missed, compared);
    return keeper.failed().empty() ? 0 : 1;
}

// Registers the benchmarks, runs them (shuffled unless the command line
// says otherwise) and prints the table; non-zero when a benchmark failed.
inline int run(int argc, char **argv, std::span<const Entry> entries, std::span<const Comparison> comparisons) {
    BestKeeper keeper;
    for (const Entry &entry : entries) {
        auto *b = benchmark::RegisterBenchmark(entry.name, entry.run)
                      ->Repetitions(kRepetitions)
                      ->MinTime(kSecondsPerRepetition)
                      ->ComputeStatistics("min", fastest)
                      ->DisplayAggregatesOnly(true);
        if (entry.realTime) {
            b->UseRealTime();
            keeper.measureRealTime(entry.name);
        }
    }
    std::vector<char *> arguments(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
    benchmark::RunSpecifiedBenchmarks(&keeper);
    benchmark::Shutdown();
    return printRatios(keeper, comparisons);
}

// The whole of a benchmark program that needs nothing but the context.
inline int runInContext(int argc, char **argv, std::span<const Entry> entries, std::span<const Comparison> comparisons) {
    if (!ContextInitialize()) return 1;
    const int status = run(argc, argv, entries, comparisons);
    ContextReleaseThread();
    return status;
}

} // namespace bench

#endif // FHCORE_BENCH_RATIOS_H
