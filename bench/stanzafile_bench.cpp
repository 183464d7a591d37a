// Stanza files against inih, a widely used parser of the same kind of text,
// on one generated file of 1,000 stanzas with 10 keys each. The figure finds
// the last stanza by its title and reads all its keys (open, lock, a scan of
// the whole file, the keys split into values, close); inih parses the same
// file into a callback that picks out the same section's keys. Aims: the
// find under 1 ms, and at most 1.5 times inih's time.
#include <benchmark/benchmark.h>

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <ini.h>

#include "core/fhcore.h"
#include "ratios.h"

namespace {

constexpr int kStanzas = 1000, kKeys = 10;
std::string gPath;
char gLastTitle[32];

std::string generate() {
    std::string text;
    char line[96];
    for (int s = 0; s < kStanzas; ++s) {
        snprintf(line, sizeof line, "[Service:Stanza %04d]\n", s);
        text += line;
        for (int k = 0; k < kKeys; ++k) {
            snprintf(line, sizeof line, "Keyword %02d=value %d of stanza %d, second part\n", k, k, s);
            text += line;
        }
        text += "\n";
    }
    return text;
}

void findLastStanza(benchmark::State &state) {
    for (auto _ : state) {
        Stanza *stanza = nullptr;
        if (!StnzLoadStanzaFromFile(&stanza, gPath.c_str(), "service", gLastTitle) || stanza->keyCount != kKeys)
            state.SkipWithError("stanza not found");
        benchmark::DoNotOptimize(stanza);
        StnzRelease(&stanza);
    }
}

struct Picked {
    const char *section;
    int keys;
    size_t bytes;
};

int pickSection(void *user, const char *section, const char *name, const char *value) {
    auto *picked = static_cast<Picked *>(user);
    if (strcasecmp(section, picked->section) == 0) {
        ++picked->keys;
        picked->bytes += strlen(name) + strlen(value);
    }
    return 1;
}

void inihParse(benchmark::State &state) {
    char section[48];
    snprintf(section, sizeof section, "service:%s", gLastTitle);
    for (auto _ : state) {
        Picked picked{section, 0, 0};
        if (ini_parse(gPath.c_str(), pickSection, &picked) != 0 || picked.keys != kKeys)
            state.SkipWithError("inih failed");
        benchmark::DoNotOptimize(picked);
    }
}

void loadWholeList(benchmark::State &state) {
    for (auto _ : state) {
        LIST *list = nullptr;
        if (!StnzLoadStanzaListFromFile(&list, gPath.c_str()) || list->iCount != kStanzas)
            state.SkipWithError("list not loaded");
        ObjReleaseInternal(&list);
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"StnzLoadStanzaFromFile, last of 1000", findLastStanza},
    {"inih ini_parse, same file", inihParse},
    {"StnzLoadStanzaListFromFile, 1000 stanzas", loadWholeList},
};

// The aims are judged on the whole list, the same work on both sides; the
// find of the last stanza scans titles only, while the peer parses every
// line, so it is only reported.
constexpr bench::Comparison kComparisons[] = {
    {"StnzLoadStanzaListFromFile, 1000 stanzas", "inih ini_parse, same file", bench::Aim::RatioAtMost, 1.5},
    {"StnzLoadStanzaListFromFile, 1000 stanzas", "inih ini_parse, same file", bench::Aim::NanosecondsBelow, 1e6},
    {"StnzLoadStanzaFromFile, last of 1000", "inih ini_parse, same file", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    char directory[] = "/tmp/fhcore-stanza-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) return 1;
    gPath = std::string(directory) + "/generated.cfg";
    snprintf(gLastTitle, sizeof gLastTitle, "stanza %04d", kStanzas - 1);
    const std::string text = generate();
    FILE *file = fopen(gPath.c_str(), "wb");
    fwrite(text.data(), 1, text.size(), file);
    fclose(file);
    printf("generated file: %zu bytes\n", text.size());
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    unlink(gPath.c_str());
    unlink((gPath + ".lck").c_str());
    rmdir(directory);
    ContextReleaseThread();
    return status;
}
