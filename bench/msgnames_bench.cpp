// Message names by id, as the trace of every message asks for them, beside
// std::lower_bound over a static array of the same rows built from the same
// family lists; and ids by name, the linear walk that operators' tools make,
// beside a plain strcasecmp walk of that array. Each figure is per call,
// over every id (or name) of the catalogue in a scattered order.
#include <benchmark/benchmark.h>

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "core/fhcore.h"
#include "messages/msgcatalogue.h"
#include "ratios.h"

namespace {

struct Row {
    const char *name;
    int32_t id;
};

#define ROW(name) {#name, name},
#define FIRST_ROW(name, id) ROW(name)
#define NO_ROW(first, last)
constexpr Row kRows[] = {FH_MSG_CATALOGUE(FIRST_ROW, ROW, NO_ROW)};
constexpr size_t kCount = std::size(kRows);

// Row i of the walk: a stride coprime to the count visits every row once.
constexpr size_t scattered(size_t i) { return i * 211 % kCount; }

void nameById(benchmark::State &state) {
    for (auto _ : state)
        for (size_t i = 0; i < kCount; ++i)
            benchmark::DoNotOptimize(MsgNameWithBuffer(kRows[scattered(i)].id, nullptr, 0));
    state.SetItemsProcessed(state.iterations() * kCount);
}

void lowerBound(benchmark::State &state) {
    for (auto _ : state) {
        for (size_t i = 0; i < kCount; ++i) {
            const int32_t id = kRows[scattered(i)].id;
            const Row *at = std::lower_bound(std::begin(kRows), std::end(kRows), id,
                                             [](const Row &row, int32_t key) { return row.id < key; });
            benchmark::DoNotOptimize(at != std::end(kRows) && at->id == id ? at->name : nullptr);
        }
    }
    state.SetItemsProcessed(state.iterations() * kCount);
}

void idByName(benchmark::State &state) {
    int32_t id = 0;
    for (auto _ : state)
        for (size_t i = 0; i < kCount; ++i) benchmark::DoNotOptimize(MsgTypeFromName(&id, kRows[scattered(i)].name));
    state.SetItemsProcessed(state.iterations() * kCount);
}

void strcasecmpWalk(benchmark::State &state) {
    for (auto _ : state) {
        for (size_t i = 0; i < kCount; ++i) {
            const char *name = kRows[scattered(i)].name;
            const Row *at = std::find_if(std::begin(kRows), std::end(kRows),
                                         [&](const Row &row) { return strcasecmp(row.name, name) == 0; });
            benchmark::DoNotOptimize(at->id);
        }
    }
    state.SetItemsProcessed(state.iterations() * kCount);
}

// Per call: the loops run over all 449 rows.
constexpr bench::Entry kBenchmarks[] = {
    {"449 MsgNameWithBuffer, known ids", nameById},
    {"449 std::lower_bound, same rows", lowerBound},
    {"449 MsgTypeFromName, known names", idByName},
    {"449 strcasecmp walks, same rows", strcasecmpWalk},
};

constexpr bench::Comparison kComparisons[] = {
    {"449 MsgNameWithBuffer, known ids", "449 std::lower_bound, same rows", bench::Aim::RatioAtMost, 1.3},
    {"449 MsgTypeFromName, known names", "449 strcasecmp walks, same rows", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) { return bench::runInContext(argc, argv, kBenchmarks, kComparisons); }
