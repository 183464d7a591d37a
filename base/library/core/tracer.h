// tracer.h - the private trace operation of a module.
//
// Each module traces through one ModuleTracer that carries its tag.
#ifndef FHCORE_TRACER_H
#define FHCORE_TRACER_H

#include <cstdarg>
#include <cstdint>

#include "core/context.h"
#include "core/trace.h"

namespace fh {

// The private trace operation of a module: id, code, level, format and its
// arguments, stored under the module's tag. The tag is the module name
// followed by at least eight spaces, so its first eight bytes are the field.
struct ModuleTracer {
    const char *tag;
    TracePosition operator()(int32_t id, int32_t code, int32_t level, const char *format, ...) const
        __attribute__((format(printf, 5, 6)));
    TracePosition traceVa(int32_t id, int32_t code, int32_t level, const char *format, va_list arguments) const;

    // The path of a fault of the caller: the trace at level -1, then
    // ProcCrash(0), which ends the process only when the crash flag is on.
    // Gives failure, for the operation to return: return trace.fault(FALSE, ...).
    template <typename Failure>
    __attribute__((format(printf, 5, 6))) Failure fault(Failure failure, int32_t id, int32_t code,
                                                       const char *format, ...) const {
        va_list arguments;
        va_start(arguments, format);
        traceVa(id, code, -1, format, arguments);
        va_end(arguments);
        ProcCrash(0);
        return failure;
    }

    // The same path where the report stands at another level.
    template <typename Failure>
    __attribute__((format(printf, 6, 7))) Failure faultAt(int32_t level, Failure failure, int32_t id, int32_t code,
                                                         const char *format, ...) const {
        va_list arguments;
        va_start(arguments, format);
        traceVa(id, code, level, format, arguments);
        va_end(arguments);
        ProcCrash(0);
        return failure;
    }
};

inline const char *boolText(bool value) { return value ? "TRUE" : "FALSE"; }

} // namespace fh

#endif // FHCORE_TRACER_H
