// objserial_bench.cpp - the byte form of a message-like object beside a
// peer serialiser on the equivalent data, in one run: a list of 100 records,
// each of two integers, a 64-bit integer and a 16-byte string. Encoding goes
// into a reused frame buffer (as a message is framed); decoding reads the
// bytes back with the bounded reader, as bytes from elsewhere are read, and
// releases what it made. The peer packs the same values as an array of 100
// arrays of four and unpacks them into its own tree of values.
#include <benchmark/benchmark.h>
#include <msgpack.h>

#include <cstdio>
#include <cstring>

#include "core/fhcore.h"
#include "ratios.h"
#include "records.h"

namespace {

constexpr int kRecords = records::kCount;

LIST *gMessage = nullptr;
ObjBufferDescriptor *gFrame = nullptr;
msgpack_sbuffer gPacked;

void pack(msgpack_sbuffer *buffer) { records::pack(buffer, gMessage); }

void encodeOurs(benchmark::State &state) {
    for (auto _ : state) {
        ObjBufferDescriptorReset(gFrame);
        if (!ObjSerializeToBuffer(gMessage, 1, gFrame)) state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(gFrame->Buffer);
    }
}

void encodePeer(benchmark::State &state) {
    msgpack_sbuffer buffer;
    msgpack_sbuffer_init(&buffer);
    for (auto _ : state) {
        msgpack_sbuffer_clear(&buffer);
        pack(&buffer);
        benchmark::DoNotOptimize(buffer.data);
    }
    msgpack_sbuffer_destroy(&buffer);
}

void decodeOurs(benchmark::State &state) {
    const char *bytes = gFrame->Buffer + 8;
    const int32_t length = gFrame->Used - 8;
    for (auto _ : state) {
        void *message = nullptr;
        if (!ObjReconstructFromBytes(&message, bytes, length)) state.SkipWithError("decode failed");
        ObjReleaseInternal(&message);
    }
}

void decodePeer(benchmark::State &state) {
    msgpack_unpacked result;
    msgpack_unpacked_init(&result);
    for (auto _ : state) {
        size_t offset = 0;
        if (msgpack_unpack_next(&result, gPacked.data, gPacked.size, &offset) != MSGPACK_UNPACK_SUCCESS)
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(result.data.via.array.ptr);
    }
    msgpack_unpacked_destroy(&result);
}

constexpr bench::Entry kBenchmarks[] = {
    {"encode 100 records", encodeOurs},
    {"peer encode, same values", encodePeer},
    {"decode 100 records", decodeOurs},
    {"peer decode, same values", decodePeer},
};

constexpr bench::Comparison kComparisons[] = {
    {"encode 100 records", "peer encode, same values", bench::Aim::RatioAtMost, 1.0},
    {"decode 100 records", "peer decode, same values", bench::Aim::RatioAtMost, 1.0},
};

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    gMessage = records::make();
    ObjBufferDescriptorCreate(&gFrame, nullptr, 0, 0);
    ObjSerializeToBuffer(gMessage, 1, gFrame);
    msgpack_sbuffer_init(&gPacked);
    pack(&gPacked);
    printf("bytes per record: ours %.1f (the list's %d bytes included), peer %.1f\n",
           (gFrame->Used - 8) / double{kRecords}, gFrame->Used - 8, gPacked.size / double{kRecords});
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    msgpack_sbuffer_destroy(&gPacked);
    ObjBufferDescriptorFree(&gFrame);
    ObjReleaseInternal(&gMessage);
    ContextReleaseThread();
    return status;
}
