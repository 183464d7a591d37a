// attach_fuzz.cpp - the areas an attach message names, over arbitrary
// offsets and segments; and the id text of a command line.
//
// The input is three 4-byte little-endian offsets (entry, progress buffer,
// time area), then the bytes of the main segment, of any length, which also
// carry the trace ring's size word and the progress buffer's size word. The
// segment lives in a block of exactly its size, so AddressSanitizer sees any
// read behind it. Besides the sanitizers the target checks what the process
// relies on: an accepted layout keeps every area, to its last byte, inside
// the segment. The whole input, as a text, is also an id text: one that
// is accepted is a number alone whose value has a 32-bit negation.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "leakcheck.h"
#include "procstart.h"
#include "proctable.h"

namespace {

int32_t littleEndian(const uint8_t *bytes) {
    return static_cast<int32_t>(uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
                                uint32_t{bytes[3]} << 24);
}

int32_t wordAt(const unsigned char *at) {
    int32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

void scanIdText(const uint8_t *data, size_t size) {
    auto *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';
    int32_t id = 0;
    if (fh::procScanId(text, &id)) {
        char *end = nullptr;
        const long value = strtol(text, &end, 10);
        CHECK(id == value && id != INT32_MIN && *end == '\0' && end != text);
    }
    free(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    scanIdText(data, size);
    if (size < 12) return 0;
    const size_t segmentSize = size - 12;
    auto *segment = static_cast<unsigned char *>(malloc(segmentSize == 0 ? 1 : segmentSize));
    if (segmentSize != 0) memcpy(segment, data + 12, segmentSize);
    const int32_t components[fh::kAttachComponentCount] = {0, 0, littleEndian(data), littleEndian(data + 4),
                                                           littleEndian(data + 8)};
    fh::AttachLayout layout{};
    if (fh::attachLayout(layout, segment, segmentSize, components)) {
        const unsigned char *end = segment + segmentSize;
        const unsigned char *ring = layout.entry + fh::kEntryTraceRing;
        CHECK(layout.entry >= segment && ring + sizeof(TraceBuffer) + wordAt(ring) <= end);
        CHECK(layout.timeArea >= segment && layout.timeArea + fh::kTimeSourceName < end);
        CHECK(layout.progress == nullptr || (layout.progress >= segment && wordAt(layout.progress) >= 4 &&
                                             layout.progress + wordAt(layout.progress) <= end));
    }
    free(segment);
    return 0;
}
