// strings_bench.cpp - StrCompare and StrFindSubString beside strcmp and strstr
// on the same 64-byte ASCII text, in one run, with the ratio printed at the
// end. The library walks characters (a double-byte character is one value
// and nothing past a terminator is read); the C library compares bytes.
#include <benchmark/benchmark.h>

#include <cstring>

#include "core/fhcore.h"
#include "ratios.h"

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

void libcStrcmp(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(strcmp(gText, gOther));
}
void strCompare(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(StrCompare(gText, gOther));
}
void libcStrstr(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(strstr(gText, gNeedle));
}
void strFindSubString(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(StrFindSubString(gText, gNeedle));
}

constexpr bench::Entry kBenchmarks[] = {
    {"StrCompare, 64 bytes", strCompare},
    {"strcmp, same text", libcStrcmp},
    {"StrFindSubString, 64 bytes", strFindSubString},
    {"strstr, same text", libcStrstr},
};

constexpr bench::Comparison kComparisons[] = {
    {"StrCompare, 64 bytes", "strcmp, same text", bench::Aim::RatioAtMost, 2},
    {"StrFindSubString, 64 bytes", "strstr, same text", bench::Aim::RatioAtMost, 2},
};

} // namespace

int main(int argc, char **argv) { return bench::runInContext(argc, argv, kBenchmarks, kComparisons); }
