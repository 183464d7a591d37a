// scaling_bench - the cost per item of the paths that messaging and the
// daemons put under every message, at three sizes a factor of ten apart, so
// that a path whose cost grows faster than its work shows as a growing row:
//
//   - MapInsertEntry with ascending keys, and with keys in random order (an
//     insertion there moves the tail of the sorted array: that one grows
//     with the size by the map's design);
//   - serialising a list whose items are shared (reference count 2), so that
//     every item passes through the writer's table of objects seen, and
//     reconstructing those bytes with the bounded reader;
//   - CfgGetString of every setting of a file of N settings, as a program
//     that reads all its settings does.
//
// Each size is one pass over its items, timed with the monotonic clock
// around the work alone (set-up and release are outside), repeated and
// reported as the median; a size whose estimated pass would take longer
// than a budget is skipped and says so, so that the program also runs
// against code whose costs explode. Run it pinned to one core:
//
//   taskset -c 1 build-bench/bin/bench/scaling_bench [repetitions [word]]
//
// where word, when given, runs only the paths whose name holds it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/fhcore.h"

namespace {

constexpr double kBudgetSeconds = 20.0; // the longest estimated pass that is run

double now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Times body() alone; set-up before and release after are the caller's.
template <typename Body> double timed(Body body) {
    const double start = now();
    body();
    return now() - start;
}

struct Pair {
    int32_t key;
    int32_t value;
};
int32_t comparePairs(const void *a, const void *b) {
    const int32_t x = static_cast<const Pair *>(a)->key, y = static_cast<const Pair *>(b)->key;
    return x < y ? -1 : x > y ? 1 : 0;
}

double mapInsert(int n, bool ascending) {
    std::vector<int32_t> keys(static_cast<size_t>(n));
    std::iota(keys.begin(), keys.end(), 0);
    if (!ascending) std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    MAP *map = nullptr;
    MapCreate(&map, sizeof(Pair), 0, comparePairs, nullptr, nullptr);
    const double seconds = timed([&] {
        for (int32_t key : keys) {
            const Pair pair = {key, key};
            MapInsertEntry(map, &pair);
        }
    });
    if (MapSize(map) != n) fprintf(stderr, "map lost entries\n");
    ObjReleaseInternal(&map);
    return seconds;
}
double mapInsertAscending(int n) { return mapInsert(n, true); }
double mapInsertRandom(int n) { return mapInsert(n, false); }

// A list of n integer objects, each also held by shared[i]: reference count 2.
LIST *sharedList(int n, std::vector<OBJ_INTEGER *> &shared) {
    LIST *list = ListNewFromPool(OBJ_INTEGER_MAGIC, nullptr);
    shared.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        OBJ_INTEGER *item = ObjIntegerNew(i);
        ObjIncRefCount(item);
        shared[static_cast<size_t>(i)] = item;
        ListPushLastItemInternal(list, &item);
    }
    return list;
}
void releaseShared(LIST *&list, std::vector<OBJ_INTEGER *> &shared) {
    ObjReleaseInternal(&list);
    for (OBJ_INTEGER *&item : shared) ObjReleaseInternal(&item);
}

double serialiseShared(int n) {
    std::vector<OBJ_INTEGER *> shared;
    LIST *list = sharedList(n, shared);
    ObjBufferDescriptor *buffer = nullptr;
    ObjBufferDescriptorCreate(&buffer, nullptr, 0, 0);
    const double seconds = timed([&] {
        if (!ObjSerializeToBufferNoHead(nullptr, list, buffer)) fprintf(stderr, "serialise failed\n");
    });
    ObjBufferDescriptorFree(&buffer);
    releaseShared(list, shared);
    return seconds;
}

double reconstructShared(int n) {
    std::vector<OBJ_INTEGER *> shared;
    LIST *list = sharedList(n, shared);
    ObjBufferDescriptor *buffer = nullptr;
    ObjBufferDescriptorCreate(&buffer, nullptr, 0, 0);
    int32_t length = 0;
    ObjSerializeToBufferNoHead(&length, list, buffer);
    releaseShared(list, shared);
    void *copy = nullptr;
    const double seconds = timed([&] {
        if (!ObjReconstructFromBytes(&copy, buffer->Buffer + buffer->Start, length)) fprintf(stderr, "reconstruct failed\n");
    });
    ObjReleaseInternal(&copy);
    ObjBufferDescriptorFree(&buffer);
    return seconds;
}

// The control: what memory costs a hash table of n object addresses as it
// outgrows the caches. The shared objects of the serialiser's rows, entered
// in std::unordered_map and found again, once each: a path that is linear
// in its work still costs more per item once its tables leave the caches,
// and this row shows how much more on this machine.
double hashControl(int n) {
    std::vector<OBJ_INTEGER *> shared;
    LIST *list = sharedList(n, shared);
    std::unordered_map<const void *, int32_t> seen;
    int32_t found = 0;
    const double seconds = timed([&] {
        for (int i = 0; i < n; ++i) seen.emplace(shared[static_cast<size_t>(i)], i);
        for (int i = 0; i < n; ++i) found += seen.count(shared[static_cast<size_t>(i)]) != 0;
    });
    if (found != n) fprintf(stderr, "control lost entries\n");
    releaseShared(list, shared);
    return seconds;
}

// A file of n plain settings, ten to a stanza, read back one call each.
std::string gConfigDirectory;
double cfgGetEvery(int n) {
    const std::string path = gConfigDirectory + "/scaling.cfg";
    FILE *file = fopen(path.c_str(), "wb");
    for (int i = 0; i < n; ++i) {
        if (i % 10 == 0) fprintf(file, "[Section %d]\n", i / 10);
        fprintf(file, "Item %d=value %d\n", i % 10, i);
    }
    fclose(file);
    // A file changed within two ticks of the file clock is parsed again on
    // each read (config.h): the figure is for a file that has settled.
    usleep(20000);
    char section[32], item[32];
    const double seconds = timed([&] {
        for (int i = 0; i < n; ++i) {
            snprintf(section, sizeof section, "Section %d", i / 10);
            snprintf(item, sizeof item, "Item %d", i % 10);
            char *value = nullptr;
            if (!CfgGetString(&value, "scaling.cfg", section, item, nullptr)) fprintf(stderr, "setting missing\n");
            MemFreeInternal(&value);
        }
    });
    unlink(path.c_str());
    return seconds;
}

struct Path {
    const char *name;
    std::array<int, 3> sizes;
    double (*run)(int n); // seconds of one pass over n items
};

constexpr Path kPaths[] = {
    {"map insert, ascending keys", {10000, 100000, 1000000}, mapInsertAscending},
    {"map insert, random keys", {1000, 10000, 100000}, mapInsertRandom},
    {"serialise 2-referenced objects", {10000, 100000, 1000000}, serialiseShared},
    {"reconstruct the same", {10000, 100000, 1000000}, reconstructShared},
    {"control: std::unordered_map of their addresses", {10000, 100000, 1000000}, hashControl},
    {"CfgGetString of every setting", {100, 1000, 10000}, cfgGetEvery},
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char **argv) {
    const int repetitions = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    char home[] = "/tmp/fhcore-scaling-bench-XXXXXX";
    if (mkdtemp(home) == nullptr || setenv("FHHOME", home, 1) != 0 || !ContextInitialize()) return 1;
    gConfigDirectory = std::string(home) + "/config";
    mkdir(gConfigDirectory.c_str(), 0755);

    printf("Cost per item in ns, median of %d passes (one pass where a pass takes over a second)\n\n", repetitions);
    printf("| path | size | ns per item | size | ns per item | size | ns per item | growth |\n");
    printf("| --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: |\n");
    for (const Path &path : kPaths) {
        if (argc > 2 && strstr(path.name, argv[2]) == nullptr) continue;
        printf("| %s ", path.name);
        double previous = 0, first = 0, last = 0, growth = 1;
        for (int n : path.sizes) {
            // A superlinear path grows its cost per item at least as fast as
            // it did between the last two sizes.
            const double estimate = previous * n * growth;
            if (estimate > kBudgetSeconds) {
                printf("| %d | (skipped, ~%.0f s) ", n, estimate);
                continue;
            }
            std::vector<double> passes{path.run(n)};
            for (int r = 1; r < repetitions && passes[0] < 1.0; ++r) passes.push_back(path.run(n));
            const double perItem = median(passes) / n;
            growth = previous > 0 ? std::max(1.0, perItem / previous) : 1;
            previous = perItem;
            first = first > 0 ? first : perItem;
            last = perItem;
            printf("| %d | %.1f ", n, perItem * 1e9);
            fflush(stdout);
        }
        printf("| %.2fx |\n", last / first);
    }
    PathRemoveDirectory(home);
    ContextReleaseThread();
    return 0;
}
