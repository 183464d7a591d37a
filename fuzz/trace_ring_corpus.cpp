// trace_ring_corpus - writes the seed corpus of trace_ring_fuzz: real rings,
// filled by the library's own writer and saved as the 16 + Size bytes that a
// reader in another process would find.
//
//     build-fuzz/bin/trace_ring_corpus fuzz/corpus/trace_ring_fuzz
//
// The reserved word of each head is set to the bytes that steer the fuzz
// target's writer (see trace_ring_fuzz.cpp).
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"

namespace {

__attribute__((format(printf, 1, 2))) void note(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceMessageVa("CORPUS        ", 1, 0, TRACE_LEVEL_NORMAL, format, arguments);
    va_end(arguments);
}

// A ring of size data bytes, installed as the current one, with the next
// sequence number given.
TraceBuffer *beginRing(int32_t size, int32_t firstSequence) {
    auto *ring = static_cast<TraceBuffer *>(calloc(1, sizeof(TraceBuffer) + static_cast<size_t>(size)));
    if (ring == nullptr) abort();
    ring->Size = size;
    TraceSetBuffer(ring);
    gtLmContext.iTraceNextSequence = firstSequence;
    return ring;
}

bool save(const std::string &directory, const char *name, TraceBuffer *ring, uint32_t steer) {
    TraceSetBuffer(TRACE_OWN_BUFFER);
    memcpy(&ring->Reserved, &steer, sizeof steer);
    const std::string path = directory + "/" + name;
    FILE *file = fopen(path.c_str(), "wb");
    const size_t bytes = sizeof(TraceBuffer) + static_cast<size_t>(ring->Size);
    const bool written = file != nullptr && fwrite(ring, 1, bytes, file) == bytes;
    if (file != nullptr && fclose(file) != 0) return false;
    free(ring);
    if (!written) fprintf(stderr, "trace_ring_corpus: cannot write %s\n", path.c_str());
    return written;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s directory\n", argv[0]);
        return 2;
    }
    if (!ContextInitialize()) return 1;
    const std::string directory = argv[1];
    bool ok = true;

    ok &= save(directory, "empty", beginRing(256, 1), 0x05030201);

    TraceBuffer *ring = beginRing(1024, 1);
    for (int i = 1; i <= 5; ++i) note("record %d of %d", i, 5);
    note("a longer record that says a little more about what happened: %s", "nothing much");
    ok &= save(directory, "few", ring, 0x0A141E28);

    ring = beginRing(600, 1);
    for (int i = 0; i < 30; ++i)
        note("%.*s", i * 13 % 90,
             "wrapped ring wrapped ring wrapped ring wrapped ring wrapped ring "
             "wrapped ring wrapped ring");
    ok &= save(directory, "wrapped", ring, 0x32010203);

    ring = beginRing(512, static_cast<int32_t>(TRACE_SEQUENCE_MAX) - 3);
    for (int i = 0; i < 8; ++i) note("sequence %d across the top", i);
    ok &= save(directory, "sequence-wrap", ring, 0x00FF0102);

    // Above 8,192 bytes of data the longest record, 8,192 bytes, limits the text.
    ring = beginRing(9000, 1);
    static char longText[9000];
    memset(longText, 'L', sizeof longText - 1);
    note("before the long record");
    note("%s", longText);
    note("after it, wrapped to the start");
    note("%s", longText);
    ok &= save(directory, "long-record", ring, 0xCDCC0F01);

    // One empty text makes a 48-byte record, exactly the whole ring.
    ring = beginRing(48, 1);
    note("%s", "");
    ok &= save(directory, "exact-fit", ring, 0x00000000);

    ContextReleaseThread();
    return ok ? 0 : 1;
}
