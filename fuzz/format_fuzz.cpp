// Component format strings arrive from other processes and machines with
// serialised objects. Parse arbitrary ones as such a received format is
// parsed (size not declared), then walk them with the exported cursor
// operations: no crash, no overflow of offsets or sizes, memory bounded by
// the input, and every entry inside the payload it describes.
#include <cstdlib>
#include <cstring>

#include "core/fhcore.h"
#include "seams.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    TraceSetLevel(TRACE_LEVEL_LIBVERBOSE);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *format = static_cast<char *>(malloc(size + 1));
    memcpy(format, data, size);
    format[size] = '\0';

    int32_t components = 0;
    for (const char *c = ObjFirstComponent(format); ObjComponentDatatype(c) != 0; c = ObjNextComponent(c)) {
        ObjComponentModifiers(c);
        if (ObjInlineSize(c) < ObjInlineSizeUsed(c)) abort();
        ++components;
    }

    if (ObjectTemplate *t = fh::objectTemplateBuild(-1, 0xC8FF0001, format)) {
        const ObjectDescriptor &d = t->Descriptor;
        const int64_t payload = int64_t{d.ObjSize} - static_cast<int64_t>(sizeof(ObjectHeader)) - 4;
        if (d.FieldCount != components || payload < 0) abort();
        for (int32_t i = 0; i < d.FieldCount; ++i) {
            const ComponentEntry &e = d.Entries[i];
            if (e.Offset < 0 || e.Offset > payload || (i > 0 && e.Offset < d.Entries[i - 1].Offset)) abort();
        }
        // An instance of a sensible size is made and released again.
        if (payload <= 4096) {
            void *object = ObjTemplateNewInstanceFromPool(t, nullptr);
            ObjReleaseInternal(&object);
        }
        fh::objectTemplateFree(t);
    }
    free(format);
    return 0;
}
