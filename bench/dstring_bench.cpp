// dstring_bench.cpp - appending one character at a time to a dynamic string
// up to 1 MiB, beside std::string::push_back of the same characters, in one
// run. Both start empty and grow by their own rules.
#include <benchmark/benchmark.h>

#include <string>

#include "core/fhcore.h"
#include "ratios.h"

namespace {

constexpr int32_t kBytes = 1 << 20;

void dynamicString(benchmark::State &state) {
    for (auto _ : state) {
        OBJ_DSTRING *s = ObjDStringNew(nullptr);
        for (int32_t i = 0; i < kBytes; ++i) {
            const char c = static_cast<char>('a' + i % 26);
            DStringAppendSized(s, &c, 1);
        }
        benchmark::DoNotOptimize(s->oText.pData);
        ObjReleaseInternal(&s);
    }
}

void standardString(benchmark::State &state) {
    for (auto _ : state) {
        std::string s;
        for (int32_t i = 0; i < kBytes; ++i) s.push_back(static_cast<char>('a' + i % 26));
        benchmark::DoNotOptimize(s.data());
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"DStringAppendSized 1 byte to 1 MiB", dynamicString},
    {"std::string::push_back to 1 MiB", standardString},
};

constexpr bench::Comparison kComparisons[] = {
    {"DStringAppendSized 1 byte to 1 MiB", "std::string::push_back to 1 MiB", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) { return bench::runInContext(argc, argv, kBenchmarks, kComparisons); }
