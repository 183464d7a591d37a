// object_bench - objects and maps beside their baselines:
//   - creating and releasing an object of format "i;i;s;" (string null)
//     beside malloc and free of a block of the object's whole size (the
//     aim's baseline), and beside malloc, memset and free of it (since the
//     object comes zero-filled);
//   - finding an entry among 1,000 in a MAP beside std::lower_bound over the
//     same sorted array with the same comparison function;
//   - ObjQuickSort of 100,000 words beside std::sort with the same
//     comparison function pointer.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "core/fhcore.h"
#include "ratios.h"

namespace {

constexpr uint32_t kMagic = 0xC8B0B001;
struct Record {
    int32_t first;
    int32_t second;
    char *text;
};
ObjectTemplate *gTemplate = nullptr;

void objectCreateRelease(benchmark::State &state) {
    for (auto _ : state) {
        void *object = ObjTemplateNewInstanceFromPool(gTemplate, nullptr);
        benchmark::DoNotOptimize(object);
        ObjReleaseInternal(&object);
    }
}

void mallocFreeSameSize(benchmark::State &state) {
    const size_t size = static_cast<size_t>(gTemplate->Descriptor.ObjSize);
    for (auto _ : state) {
        void *block = malloc(size);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        free(block);
    }
}

void mallocSameSize(benchmark::State &state) {
    const size_t size = static_cast<size_t>(gTemplate->Descriptor.ObjSize);
    for (auto _ : state) {
        void *block = malloc(size);
        benchmark::DoNotOptimize(block);
        memset(block, 0, size);
        benchmark::ClobberMemory();
        free(block);
    }
}

struct Pair {
    int32_t key;
    int32_t value;
};
int32_t comparePairs(const void *a, const void *b) {
    const int32_t x = static_cast<const Pair *>(a)->key, y = static_cast<const Pair *>(b)->key;
    return x < y ? -1 : x > y ? 1 : 0;
}
// Read through a volatile, so that neither side can inline the comparison.
MapCompareFunction volatile gCompare = comparePairs;
constexpr int kEntries = 1000;

struct Keys {
    MAP *map = nullptr;
    std::vector<int32_t> probes;
    Keys() {
        MapCreate(&map, sizeof(Pair), 64, comparePairs, nullptr, nullptr);
        for (int32_t i = 0; i < kEntries; ++i) {
            const Pair pair = {i * 7, i};
            MapInsertEntry(map, &pair);
        }
        std::mt19937 random(11);
        for (int i = 0; i < 4096; ++i) probes.push_back(static_cast<int32_t>(random() % kEntries) * 7);
    }
};
Keys &keys() {
    static Keys k;
    return k;
}

void mapFind(benchmark::State &state) {
    Keys &k = keys();
    size_t i = 0;
    for (auto _ : state) {
        void *entry = nullptr;
        benchmark::DoNotOptimize(MapFindEntry(&entry, k.map, &k.probes[i++ & 4095]));
        benchmark::DoNotOptimize(entry);
    }
}

void lowerBound(benchmark::State &state) {
    Keys &k = keys();
    const Pair *begin = static_cast<const Pair *>(k.map->oData.pData), *end = begin + k.map->iCount;
    size_t i = 0;
    for (auto _ : state) {
        const Pair probe = {k.probes[i++ & 4095], 0};
        const MapCompareFunction compare = gCompare;
        const Pair *found =
            std::lower_bound(begin, end, probe, [compare](const Pair &a, const Pair &b) { return compare(&a, &b) < 0; });
        benchmark::DoNotOptimize(found);
    }
}

constexpr int kWords = 100000;
int32_t compareWords(void *a, void *b) {
    const auto x = reinterpret_cast<intptr_t>(a), y = reinterpret_cast<intptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}
ObjCompareFunction volatile gCompareWords = compareWords;

std::vector<void *> shuffledWords() {
    std::vector<void *> words(kWords);
    std::mt19937 random(5);
    for (void *&w : words) w = reinterpret_cast<void *>(static_cast<intptr_t>(random()));
    return words;
}

void objQuickSort(benchmark::State &state) {
    const std::vector<void *> input = shuffledWords();
    std::vector<void *> words;
    for (auto _ : state) {
        state.PauseTiming();
        words = input;
        state.ResumeTiming();
        ObjQuickSort(words.data(), kWords - 1, gCompareWords);
    }
    if (!std::is_sorted(words.begin(), words.end())) state.SkipWithError("not sorted");
}

void stdSort(benchmark::State &state) {
    const std::vector<void *> input = shuffledWords();
    std::vector<void *> words;
    for (auto _ : state) {
        state.PauseTiming();
        words = input;
        state.ResumeTiming();
        const ObjCompareFunction compare = gCompareWords;
        std::sort(words.begin(), words.end(), [compare](void *a, void *b) { return compare(a, b) < 0; });
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"object i;i;s; create+release", objectCreateRelease},
    {"malloc+free, object size", mallocFreeSameSize},
    {"malloc+memset+free, object size", mallocSameSize},
    {"map find among 1000", mapFind},
    {"std::lower_bound, same compare", lowerBound},
    {"ObjQuickSort 100000 words", objQuickSort},
    {"std::sort, same compare", stdSort},
};

constexpr bench::Comparison kComparisons[] = {
    {"object i;i;s; create+release", "malloc+free, object size", bench::Aim::RatioAtMost, 1.5},
    {"object i;i;s; create+release", "malloc+memset+free, object size", bench::Aim::Report, 0},
    {"map find among 1000", "std::lower_bound, same compare", bench::Aim::RatioAtMost, 1.2},
    {"ObjQuickSort 100000 words", "std::sort, same compare", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    ObjTemplateCreateInternal(&gTemplate, sizeof(Record), kMagic, "i;i;s;", nullptr);
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    ObjReleaseInternal(&keys().map);
    ContextReleaseThread();
    return status;
}
