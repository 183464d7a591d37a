// list_bench.cpp - a list of a million integer objects beside its baseline,
// a std::vector of pointers to a million malloc'ed integers: append every
// item, walk them all, release everything. Prints the ratio of the two.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "core/fhcore.h"

namespace {

constexpr int kItems = 1000000;

int32_t addValue(void *sum, LISTNODE *node) {
    *static_cast<int64_t *>(sum) += ObjGetInteger(node->oItem);
    return 1;
}

void listOfIntegerObjects(benchmark::State &state) {
    for (auto _ : state) {
        LIST *list = ListNewFromPool(OBJ_INTEGER_MAGIC, MemGetDefaultPoolId());
        for (int i = 0; i < kItems; ++i) {
            OBJ_INTEGER *item = ObjIntegerNew(i);
            ListPushLastItemInternal(list, &item);
        }
        int64_t sum = 0;
        ListWalk(list, addValue, &sum);
        benchmark::DoNotOptimize(sum);
        ObjReleaseInternal(&list);
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

void vectorOfMallocedIntegers(benchmark::State &state) {
    for (auto _ : state) {
        std::vector<int32_t *> items;
        for (int i = 0; i < kItems; ++i) {
            auto *item = static_cast<int32_t *>(malloc(sizeof(int32_t)));
            *item = i;
            items.push_back(item);
        }
        int64_t sum = 0;
        for (const int32_t *item : items) sum += *item;
        benchmark::DoNotOptimize(sum);
        for (int32_t *item : items) free(item);
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

BENCHMARK(listOfIntegerObjects)->Unit(benchmark::kMillisecond);
BENCHMARK(vectorOfMallocedIntegers)->Unit(benchmark::kMillisecond);

// Keeps the real time of each benchmark for the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) realTimes[run.benchmark_name()] = run.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> realTimes;
};

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double list = reporter.realTimes["listOfIntegerObjects"];
    const double vector = reporter.realTimes["vectorOfMallocedIntegers"];
    if (list > 0 && vector > 0)
        printf("list of %d integer objects / vector of malloc'ed integers: %.2f\n", kItems, list / vector);
    benchmark::Shutdown();
    return 0;
}
