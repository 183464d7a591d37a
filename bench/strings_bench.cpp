// strings_bench.cpp - StrCompare and StrFindSubString beside strcmp and strstr
// on the same 64-byte ASCII text, in one run, with the ratio printed at the
// end. The library walks characters (a double-byte character is one value
// and nothing past a terminator is read); the C library compares bytes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "core/fhcore.h"

namespace {

// 64 bytes of text; the second differs only in its last byte, and the needle
// sits at the very end, so every call walks the whole text.
const char kText[] = "The quick brown fox jumps over the lazy dog, then naps at noon!!";
const char kOther[] = "The quick brown fox jumps over the lazy dog, then naps at noon!?";
const char kNeedle[] = "noon!!";
static_assert(sizeof kText == 65 && sizeof kOther == 65, "64-byte texts");

// Through volatile pointers, so neither call is folded at compile time.
const char *volatile gText = kText;
const char *volatile gOther = kOther;
const char *volatile gNeedle = kNeedle;

void BM_strcmp(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(strcmp(gText, gOther));
}
void BM_StrCompare(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(StrCompare(gText, gOther));
}
void BM_strstr(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(strstr(gText, gNeedle));
}
void BM_StrFindSubString(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(StrFindSubString(gText, gNeedle));
}
BENCHMARK(BM_strcmp);
BENCHMARK(BM_StrCompare);
BENCHMARK(BM_strstr);
BENCHMARK(BM_StrFindSubString);

// Keeps the time per iteration of each run, then prints the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) nanoseconds_[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        printf("\n%-32s %10s %10s %7s\n", "operation / baseline", "ns", "base ns", "ratio");
        row("StrCompare / strcmp", "BM_StrCompare", "BM_strcmp");
        row("StrFindSubString / strstr", "BM_StrFindSubString", "BM_strstr");
    }

  private:
    void row(const char *label, const std::string &ours, const std::string &base) {
        const double a = nanoseconds_[ours], b = nanoseconds_[base];
        printf("%-32s %10.2f %10.2f %6.2fx\n", label, a, b, b > 0 ? a / b : 0.0);
    }
    std::map<std::string, double> nanoseconds_;
};

} // namespace

int main(int argc, char **argv) {
    if (StrFindSubString(kText, kNeedle) != strstr(kText, kNeedle) || StrCompare(kText, kOther) != -1) return 1;
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
