// Settings by file, section and item against the stanza layer underneath,
// on one file of 200 stanzas with 5 keys each. CfgGetString builds the path,
// opens and locks the file, looks for the displayable form [section:item]
// (a scan of the whole file, since these settings are plain), opens it again
// for the plain form and copies the value: every call reads the file anew.
// The baseline keeps one open file and finds each value with the scan
// operations. The figures are per call; the ratio is reported.
//
// CfgSetInteger on the same file rewrites it through ".new", whose data
// goes to the disk before the rename and the directory after it. Beside it
// stand the same calls with the two flushes switched off through the
// system-call table: the difference is what the flushes cost a set. Both
// are wall-clock time, since a flush waits for the disk, not the processor.
#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/fhcore.h"
#include "ratios.h"
#include "syscalls.h"

namespace {

constexpr int kStanzas = 200, kKeys = 5, kCalls = 1000;
std::string gHome, gPath;

// The section and item of call i, spread over the whole file.
void setting(int i, char *section, char *item) {
    snprintf(section, 32, "Section %03d", (i * 37) % kStanzas);
    snprintf(item, 32, "Item %d", i % kKeys);
}

void cfgGetString(benchmark::State &state) {
    char section[32], item[32];
    for (auto _ : state) {
        for (int i = 0; i < kCalls; ++i) {
            setting(i, section, item);
            char *value = nullptr;
            if (!CfgGetString(&value, "bench.cfg", section, item, nullptr)) state.SkipWithError("setting missing");
            MemFreeInternal(&value);
        }
    }
    state.SetItemsProcessed(state.iterations() * kCalls);
}

void stanzaLayer(benchmark::State &state) {
    char section[32], item[32];
    for (auto _ : state) {
        STNZ_FILE *file = nullptr;
        if (!StnzOpenFile(&file, gPath.c_str(), STNZ_MODE_READ)) state.SkipWithError("open failed");
        for (int i = 0; i < kCalls; ++i) {
            setting(i, section, item);
            StanzaKey *key = nullptr;
            if (!StnzFindStanza(file, nullptr, section) || !StnzFindKeywordInStanza(file, item) ||
                !StnzLoadCurrentKey(&key, file))
                state.SkipWithError("setting missing");
            char *value = StrDuplicateIntoPool(StnzKeyValue(key, 1), nullptr);
            MemFreeInternal(&value);
            StnzReleaseKey(&key);
        }
        StnzCloseFile(&file);
    }
    state.SetItemsProcessed(state.iterations() * kCalls);
}

constexpr int kSets = 10;

int noFlush(int) { return 0; }

void cfgSetInteger(benchmark::State &state, bool flushed) {
    char section[32], item[32];
    fh::sys().fsync = flushed ? fh::platformCalls().fsync : noFlush;
    for (auto _ : state) {
        for (int i = 0; i < kSets; ++i) {
            setting(i, section, item);
            if (!CfgSetInteger("bench.cfg", section, item, i)) state.SkipWithError("set failed");
        }
    }
    fh::sys() = fh::platformCalls();
    state.SetItemsProcessed(state.iterations() * kSets);
}
void cfgSetFlushed(benchmark::State &state) { cfgSetInteger(state, true); }
void cfgSetNotFlushed(benchmark::State &state) { cfgSetInteger(state, false); }

constexpr bench::Entry kBenchmarks[] = {
    {"1000 CfgGetString, 200 stanzas", cfgGetString},
    {"1000 finds on one open file", stanzaLayer},
    {"10 CfgSetInteger, flushed to disk", cfgSetFlushed, true},
    {"10 CfgSetInteger, no flush", cfgSetNotFlushed, true},
};

constexpr bench::Comparison kComparisons[] = {
    {"1000 CfgGetString, 200 stanzas", "1000 finds on one open file", bench::Aim::Report, 0},
    {"10 CfgSetInteger, flushed to disk", "10 CfgSetInteger, no flush", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    char home[] = "/tmp/fhcore-config-bench-XXXXXX";
    if (mkdtemp(home) == nullptr || setenv("FHHOME", home, 1) != 0 || !ContextInitialize()) return 1;
    gHome = home;
    mkdir((gHome + "/config").c_str(), 0755);
    gPath = gHome + "/config/bench.cfg";
    FILE *file = fopen(gPath.c_str(), "wb");
    for (int s = 0; s < kStanzas; ++s) {
        fprintf(file, "[Section %03d]\n", s);
        for (int k = 0; k < kKeys; ++k) fprintf(file, "Item %d=value %d of section %d\n", k, k, s);
        fprintf(file, "\n");
    }
    fclose(file);
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    PathRemoveDirectory(home);
    ContextReleaseThread();
    return status;
}
