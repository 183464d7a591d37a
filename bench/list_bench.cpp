// list_bench.cpp - a list of a million integer objects beside its baseline,
// a std::vector of pointers to a million malloc'ed integers: append every
// item, walk them all, release everything. One iteration is all three steps.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "core/fhcore.h"
#include "ratios.h"

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
}

size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Heap bytes per item that each side holds once every item is in.
void printBytesPerItem() {
    size_t before = heapInUse();
    LIST *list = ListNewFromPool(OBJ_INTEGER_MAGIC, MemGetDefaultPoolId());
    for (int i = 0; i < kItems; ++i) {
        OBJ_INTEGER *item = ObjIntegerNew(i);
        ListPushLastItemInternal(list, &item);
    }
    const double ours = static_cast<double>(heapInUse() - before) / kItems;
    ObjReleaseInternal(&list);
    before = heapInUse();
    std::vector<int32_t *> items;
    for (int i = 0; i < kItems; ++i) items.push_back(static_cast<int32_t *>(malloc(sizeof(int32_t))));
    const double theirs = static_cast<double>(heapInUse() - before) / kItems;
    for (int32_t *item : items) free(item);
    printf("heap bytes per item: list of integer objects %.1f, vector of malloc'ed ints %.1f (%.2fx)\n\n", ours,
           theirs, ours / theirs);
}

constexpr bench::Entry kBenchmarks[] = {
    {"list of 1000000 integer objects", listOfIntegerObjects},
    {"vector of 1000000 malloc'ed ints", vectorOfMallocedIntegers},
};

constexpr bench::Comparison kComparisons[] = {
    {"list of 1000000 integer objects", "vector of 1000000 malloc'ed ints", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    printBytesPerItem();
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    ContextReleaseThread();
    return status;
}
