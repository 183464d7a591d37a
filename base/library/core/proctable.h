// proctable.h - the counters that the memory and object modules copy into
// this process's entry of the process table in shared memory.
#ifndef FHCORE_PROCTABLE_H
#define FHCORE_PROCTABLE_H

#include <cstddef>
#include <cstdint>

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

// Copies a counter into the process table entry, if one is set, in this
// machine's byte order.
void processEntryStore(size_t offset, int32_t value);

} // namespace fh

#endif // FHCORE_PROCTABLE_H
