// frame_bench - the runtime frame beside its baselines.
//
// Every figure of the library runs in the same program and the same run as
// the baseline it is judged by:
//   - a stored trace record beside vsnprintf of the same text (the floor: a
//     record cannot cost less than formatting its text) and beside a peer
//     logger writing the same message into an in-memory ring;
//   - a suppressed trace record beside the peer's suppressed message;
//   - a pool block of 32 bytes, allocated and freed, beside malloc, memset
//     and free of the same size.
// Each benchmark runs several times, in shuffled order so that drift of the
// machine falls on both sides of a pair alike. The table at the end compares
// the best repetition of each (the machine is shared, and interference only
// ever adds time) and states the aim of each figure; the console part above it
// shows the medians and the spread as well.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include "core/fhcore.h"

namespace {

constexpr int kRecordsPerCycle = 1000000;
constexpr int kRepetitions = 10;
constexpr double kSecondsPerRepetition = 0.2;
constexpr size_t kBlockSize = 32;

// A module's trace operation, as the library's own modules and its callers
// write it: pack the arguments and hand them to TraceMessageVa.
__attribute__((noinline, format(printf, 3, 4))) TracePosition benchTrace(int32_t id, int32_t level, const char *format,
                                                                         ...) {
    va_list arguments;
    va_start(arguments, format);
    TracePosition position = TraceMessageVa("BENCH        ", id, 0, level, format, arguments);
    va_end(arguments);
    return position;
}

// The floor: the same wrapper shape, formatting into a stack area as large
// as the one TraceMessageVa formats into, and nothing else.
__attribute__((noinline, format(printf, 1, 2))) int formatOnStack(const char *format, ...) {
    char text[TRACE_RECORD_MAX];
    va_list arguments;
    va_start(arguments, format);
    int n = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    benchmark::DoNotOptimize(text);
    return n;
}

std::shared_ptr<spdlog::logger> peerLogger() {
    static std::shared_ptr<spdlog::logger> logger = [] {
        // Room for about as many messages as the context's ring holds short records.
        auto sink = std::make_shared<spdlog::sinks::ringbuffer_sink_st>(TRACE_OWN_BUFFER_SIZE / 64);
        auto made = std::make_shared<spdlog::logger>("bench", sink);
        made->set_pattern("%v");
        made->set_level(spdlog::level::info);
        made->flush_on(spdlog::level::off);
        return made;
    }();
    return logger;
}

void traceRecord(benchmark::State &state) {
    TraceSetLevel(TRACE_LEVEL_NORMAL);
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchTrace(7, TRACE_LEVEL_NORMAL, "record %d of %d", i, kRecordsPerCycle));
        if (++i == kRecordsPerCycle) i = 0;
    }
    if (TraceCurrentMessage(TraceGetBuffer()) == nullptr) state.SkipWithError("nothing was stored");
}

void vsnprintfFloor(benchmark::State &state) {
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(formatOnStack("record %d of %d", i, kRecordsPerCycle));
        if (++i == kRecordsPerCycle) i = 0;
    }
}

void peerRingRecord(benchmark::State &state) {
    spdlog::logger &logger = *peerLogger();
    int i = 0;
    for (auto _ : state) {
        logger.info("record {} of {}", i, kRecordsPerCycle);
        if (++i == kRecordsPerCycle) i = 0;
    }
}

void traceSuppressed(benchmark::State &state) {
    TraceSetLevel(TRACE_LEVEL_NORMAL);
    const int32_t before = gtLmContext.iTraceNextSequence;
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(benchTrace(8, TRACE_LEVEL_VERBOSE, "record %d of %d", i, kRecordsPerCycle));
        ++i;
    }
    if (gtLmContext.iTraceNextSequence != before) state.SkipWithError("a suppressed record was stored");
}

void peerSuppressed(benchmark::State &state) {
    spdlog::logger &logger = *peerLogger();
    int i = 0;
    for (auto _ : state) {
        logger.debug("record {} of {}", i, kRecordsPerCycle);
        ++i;
    }
}

void poolBlock(benchmark::State &state, MemPool *pool) {
    const int32_t before = MemUsedCount();
    for (auto _ : state) {
        void *block = MemAllocateFromPool(kBlockSize, pool);
        benchmark::DoNotOptimize(block);
        MemFreeInternal(&block);
    }
    if (MemUsedCount() != before) state.SkipWithError("blocks were left in use");
}

void heapPoolBlock(benchmark::State &state) { poolBlock(state, nullptr); }
void defaultPoolBlock(benchmark::State &state) { poolBlock(state, MemGetDefaultPoolId()); }

void mallocMemsetFree(benchmark::State &state) {
    for (auto _ : state) {
        void *block = malloc(kBlockSize);
        benchmark::DoNotOptimize(block);
        memset(block, 0, kBlockSize);
        benchmark::ClobberMemory();
        free(block);
    }
}

struct Entry {
    const char *name;
    void (*run)(benchmark::State &);
};

// Pairs stand next to each other, figure first.
constexpr Entry kBenchmarks[] = {
    {"trace record, stored", traceRecord},
    {"vsnprintf, same text", vsnprintfFloor},
    {"peer ring sink, same message", peerRingRecord},
    {"trace record, suppressed", traceSuppressed},
    {"peer, suppressed", peerSuppressed},
    {"pool block 32, null pool", heapPoolBlock},
    {"pool block 32, default pool", defaultPoolBlock},
    {"malloc+memset+free 32", mallocMemsetFree},
};

// How a figure is judged: against its baseline's time, or in nanoseconds.
enum class Aim { RatioAtMost, RatioBelow, NanosecondsBelow };

struct Comparison {
    const char *figure;
    const char *baseline;
    Aim aim;
    double limit;
};

constexpr Comparison kComparisons[] = {
    {"trace record, stored", "vsnprintf, same text", Aim::RatioAtMost, 1.5},
    {"trace record, stored", "peer ring sink, same message", Aim::RatioBelow, 1.0},
    {"trace record, suppressed", "peer, suppressed", Aim::NanosecondsBelow, 3.0},
    {"pool block 32, null pool", "malloc+memset+free 32", Aim::RatioAtMost, 1.3},
    {"pool block 32, default pool", "malloc+memset+free 32", Aim::RatioAtMost, 1.3},
};

double toNanoseconds(double value, benchmark::TimeUnit unit) {
    switch (unit) {
    case benchmark::kNanosecond:
        return value;
    case benchmark::kMicrosecond:
        return value * 1e3;
    case benchmark::kMillisecond:
        return value * 1e6;
    case benchmark::kSecond:
        return value * 1e9;
    }
    return value;
}

double fastest(const std::vector<double> &times) { return *std::min_element(times.begin(), times.end()); }

// Shows what the console reporter shows and keeps the best CPU time per
// iteration of each benchmark for the table.
class BestKeeper : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred) failed_.push_back(run.run_name.function_name);
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "min")
                best_[run.run_name.function_name] = toNanoseconds(run.GetAdjustedCPUTime(), run.time_unit);
        }
    }

    const double *best(const std::string &name) const {
        auto found = best_.find(name);
        return found != best_.end() ? &found->second : nullptr;
    }

    const std::vector<std::string> &failed() const { return failed_; }

  private:
    std::map<std::string, double> best_;
    std::vector<std::string> failed_;
};

std::string aimText(const Comparison &c) {
    char text[32];
    switch (c.aim) {
    case Aim::RatioAtMost:
        snprintf(text, sizeof text, "<= %.2gx", c.limit);
        break;
    case Aim::RatioBelow:
        snprintf(text, sizeof text, "< %.2gx", c.limit);
        break;
    case Aim::NanosecondsBelow:
        snprintf(text, sizeof text, "< %.2g ns", c.limit);
        break;
    }
    return text;
}

bool aimMet(const Comparison &c, double figure, double ratio) {
    switch (c.aim) {
    case Aim::RatioAtMost:
        return ratio <= c.limit;
    case Aim::RatioBelow:
        return ratio < c.limit;
    case Aim::NanosecondsBelow:
        return figure < c.limit;
    }
    return false;
}

// The table, in Markdown so that it goes into docs/performance.md as it is.
int printRatios(const BestKeeper &keeper) {
    printf("\nCPU time per operation, best of %d repetitions:\n\n", kRepetitions);
    printf("| figure | ns | baseline | ns | ratio | aim | |\n");
    printf("| --- | ---: | --- | ---: | ---: | --- | --- |\n");
    int missed = 0;
    int compared = 0;
    for (const Comparison &c : kComparisons) {
        const double *figure = keeper.best(c.figure);
        const double *baseline = keeper.best(c.baseline);
        if (figure == nullptr || baseline == nullptr) {
            printf("| %s | - | %s | - | - | %s | not run |\n", c.figure, c.baseline, aimText(c).c_str());
            continue;
        }
        const double ratio = *figure / *baseline;
        const bool met = aimMet(c, *figure, ratio);
        missed += met ? 0 : 1;
        ++compared;
        printf("| %s | %.2f | %s | %.2f | %.2fx | %s | %s |\n", c.figure, *figure, c.baseline, *baseline, ratio,
               aimText(c).c_str(), met ? "met" : "MISSED");
    }
    for (const std::string &name : keeper.failed()) printf("\nfailed: %s\n", name.c_str());
    printf("\n%d of %d aims missed\n", missed, compared);
    return keeper.failed().empty() ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    for (const Entry &entry : kBenchmarks)
        benchmark::RegisterBenchmark(entry.name, entry.run)
            ->Repetitions(kRepetitions)
            ->MinTime(kSecondsPerRepetition)
            ->ComputeStatistics("min", fastest)
            ->DisplayAggregatesOnly(true);

    // Shuffled repetitions unless the command line says otherwise.
    std::vector<char *> arguments(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;

    BestKeeper keeper;
    benchmark::RunSpecifiedBenchmarks(&keeper);
    benchmark::Shutdown();
    const int status = printRatios(keeper);
    ContextReleaseThread();
    return status;
}
