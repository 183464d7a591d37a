// tracer.h - the private trace operation of a module.
//
// Each module traces through one ModuleTracer that carries its tag.
#ifndef FHCORE_TRACER_H
#define FHCORE_TRACER_H

#include <cstdint>

#include "core/trace.h"

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

} // namespace fh

#endif // FHCORE_TRACER_H
