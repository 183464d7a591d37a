// internal.h - what the modules of the library share and do not export.
//
// Each module traces through one ModuleTracer that carries its tag; the
// context module owns the crash flag and the test seams that make a module
// of the ladder fail.
#ifndef FHCORE_INTERNAL_H
#define FHCORE_INTERNAL_H

#include <ctime>

#include "core/fhcore.h"

namespace fh {

// The private trace operation of a module: id, code, level, format and its
// arguments, stored under the module's tag. The tag is the module name
// followed by at least eight spaces, so its first eight bytes are the field.
struct ModuleTracer {
    const char *tag;
    TracePosition operator()(int32_t id, int32_t code, int32_t level, const char *format, ...) const
        __attribute__((format(printf, 5, 6)));
};

inline const char *boolText(bool value) { return value ? "TRUE" : "FALSE"; }

// Byte forms carry seconds as a 32-bit count. The value is cut deliberately
// here and nowhere else; in memory the same value stays a time_t.
inline int32_t secondsToWire(time_t seconds) { return static_cast<int32_t>(static_cast<uint32_t>(seconds)); }

// The process-wide crash flag that ProcCrash(0) consults.
void contextSetCrashFlag(bool on);
bool contextCrashFlag();

// Test seams: the module whose Initialize or InitializeThread carries this
// failure code fails as if it had returned FALSE. 0 switches a seam off.
void contextFailInitialize(int32_t code);
void contextFailInitializeThread(int32_t code);

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

// Blocks that templates, the template table and run-time names hold until
// the process ends; a leak check leaves them out.
int32_t objectTemplateBlocks();

// Builds a template outside the table and frees it again: how a format that
// arrived from elsewhere is parsed, for the fuzz target.
ObjectTemplate *objectTemplateBuild(int32_t size, uint32_t magic, const char *format);
void objectTemplateFree(ObjectTemplate *objectTemplate);

} // namespace fh

#endif // FHCORE_INTERNAL_H
