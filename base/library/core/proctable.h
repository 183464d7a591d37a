// proctable.h - the counters that the memory and object modules copy into
// this process's entry of the process table in shared memory.
#ifndef FHCORE_PROCTABLE_H
#define FHCORE_PROCTABLE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/context.h"

namespace fh {

// Byte offsets of the counters in a process table entry (shared memory).
enum ProcessEntryOffset : size_t {
    kEntryMemUsed = 80,
    kEntryMemMax = 84,
    kEntryMemAllocations = 88,
    kEntryObjUsed = 92,
    kEntryObjMax = 96,
    kEntryObjAllocations = 100,
};

// The rest of an entry: the title (a text of at most 79 characters and its
// zero) at 0, and the trace ring (TraceBuffer head and data) at 104.
inline constexpr size_t kEntryTitle = 0;
inline constexpr size_t kEntryTitleBytes = 80;
inline constexpr size_t kEntryTraceRing = 104;

// The time area: the signed 64-bit difference in milliseconds at 0 (read
// with memcpy: the area need only be 4-aligned), the valid word at 8, the
// time source's name from 12.
inline constexpr size_t kTimeDifference = 0;
inline constexpr size_t kTimeValid = 8;
inline constexpr size_t kTimeSourceName = 12;

// The components of the attach message, in order.
enum AttachComponent : size_t {
    kAttachMainSegment,
    kAttachTableSegment,
    kAttachEntryOffset,
    kAttachProgressOffset,
    kAttachTimeOffset,
    kAttachComponentCount
};

// Where the areas of an attach message lie in a main segment of size bytes
// at base; each offset is the manager's word, checked here before any
// pointer is made from it. Null for an area that is absent (progress).
struct AttachLayout {
    unsigned char *entry;
    unsigned char *progress;
    unsigned char *timeArea;
};

// The layout when every area lies inside the segment: the entry, with its
// trace ring head at 104 and the ring's data as long as its Size says; the
// progress buffer (offset 0: none) with its size word and as many bytes as
// that word gives; the time area up to its name and one byte of it. The
// entry is 8-aligned, the others 4-aligned. False for anything else.
bool attachLayout(AttachLayout &out, unsigned char *base, uint64_t size, const int32_t (&components)[kAttachComponentCount]);

// Copies a counter into the process table entry, if one is set, in this
// machine's byte order. Inline, so that a run of stores after an allocation
// loads the entry pointer once.
inline void processEntryStore(size_t offset, int32_t value) {
    if (unsigned char *entry = gtLmContext.pProcessTableEntry; entry != nullptr)
        memcpy(entry + offset, &value, sizeof value);
}

} // namespace fh

#endif // FHCORE_PROCTABLE_H
