// strings_bench.cpp - StrCompare and StrFindSubString beside strcmp and strstr
// on the same 64-byte ASCII text, and StrCompare beside strcmp on the last
// 8, 16 and 32 bytes of the same texts, in one run, with the ratio printed at
// the end. The library walks characters (a double-byte character is one value
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

// The last Bytes bytes of both texts: they still differ only in the last.
template <int Bytes> void libcStrcmp(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(strcmp(gText + 64 - Bytes, gOther + 64 - Bytes));
}
template <int Bytes> void strCompare(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(StrCompare(gText + 64 - Bytes, gOther + 64 - Bytes));
}
void libcStrstr(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(strstr(gText, gNeedle));
}
void strFindSubString(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(StrFindSubString(gText, gNeedle));
}

constexpr bench::Entry kBenchmarks[] = {
    {"StrCompare, 64 bytes", strCompare<64>},
    {"strcmp, same text", libcStrcmp<64>},
    {"StrCompare, 32 bytes", strCompare<32>},
    {"strcmp, 32 bytes", libcStrcmp<32>},
    {"StrCompare, 16 bytes", strCompare<16>},
    {"strcmp, 16 bytes", libcStrcmp<16>},
    {"StrCompare, 8 bytes", strCompare<8>},
    {"strcmp, 8 bytes", libcStrcmp<8>},
    {"StrFindSubString, 64 bytes", strFindSubString},
    {"strstr, same text", libcStrstr},
};

constexpr bench::Comparison kComparisons[] = {
    {"StrCompare, 64 bytes", "strcmp, same text", bench::Aim::RatioAtMost, 2},
    {"StrCompare, 32 bytes", "strcmp, 32 bytes", bench::Aim::RatioAtMost, 2},
    {"StrCompare, 16 bytes", "strcmp, 16 bytes", bench::Aim::RatioAtMost, 2},
    {"StrCompare, 8 bytes", "strcmp, 8 bytes", bench::Aim::RatioAtMost, 2},
    {"StrFindSubString, 64 bytes", "strstr, same text", bench::Aim::RatioAtMost, 2},
};

} // namespace

int main(int argc, char **argv) { return bench::runInContext(argc, argv, kBenchmarks, kComparisons); }
