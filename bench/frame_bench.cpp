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
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include "core/fhcore.h"
#include "ratios.h"

namespace {

constexpr int kRecordsPerCycle = 1000000;
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

// Pairs stand next to each other, figure first.
constexpr bench::Entry kBenchmarks[] = {
    {"trace record, stored", traceRecord},
    {"vsnprintf, same text", vsnprintfFloor},
    {"peer ring sink, same message", peerRingRecord},
    {"trace record, suppressed", traceSuppressed},
    {"peer, suppressed", peerSuppressed},
    {"pool block 32, null pool", heapPoolBlock},
    {"pool block 32, default pool", defaultPoolBlock},
    {"malloc+memset+free 32", mallocMemsetFree},
};

constexpr bench::Comparison kComparisons[] = {
    {"trace record, stored", "vsnprintf, same text", bench::Aim::RatioAtMost, 1.5},
    {"trace record, stored", "peer ring sink, same message", bench::Aim::RatioBelow, 1.0},
    {"trace record, suppressed", "peer, suppressed", bench::Aim::NanosecondsBelow, 3.0},
    {"pool block 32, null pool", "malloc+memset+free 32", bench::Aim::RatioAtMost, 1.3},
    {"pool block 32, default pool", "malloc+memset+free 32", bench::Aim::RatioAtMost, 1.3},
};

} // namespace

int main(int argc, char **argv) { return bench::runInContext(argc, argv, kBenchmarks, kComparisons); }
