// leakcheck.h - what the fuzz targets check around one input: an invariant
// that must hold (CHECK), and that the blocks and objects in use are back
// where they were. A failure aborts, which the fuzzer reports with the input.
#ifndef FHCORE_FUZZ_LEAKCHECK_H
#define FHCORE_FUZZ_LEAKCHECK_H

#include <cstdlib>

#include "core/fhcore.h"
#include "objcore.h"

#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        if (!(condition)) abort();                                                                                     \
    } while (0)

// The blocks in use, less those that templates hold until the process ends.
inline int32_t blocksInUse() { return MemUsedCount() - fh::objectTemplateBlocks(); }

// Taken before an input; leaked() after it tells whether objects (and, when
// asked, blocks) stayed in use.
struct InUse {
    int32_t blocks = blocksInUse();
    int32_t objects = ObjCount();
    bool objectsLeaked() const { return ObjCount() != objects; }
    bool leaked() const { return blocksInUse() != blocks || objectsLeaked(); }
};

#endif // FHCORE_FUZZ_LEAKCHECK_H
