// Serialised objects arrive from other processes and machines. Read arbitrary
// bytes with the bounded reader; what it accepts must encode again to bytes
// that read back to an equal object, and every object made on the way must
// be released again: no crash, no leak, no allocation beyond what the input
// justifies.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/fhcore.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    TraceSetLevel(TRACE_LEVEL_LIBVERBOSE);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 20) return 0;
    const int32_t objectsBefore = ObjCount();
    void *object = nullptr;
    if (ObjReconstructFromBytes(&object, data, static_cast<int32_t>(size))) {
        // Local components included: the reader takes whatever stands there.
        const int32_t length = ObjSerializedSizeLocal(object);
        if (length < 1) abort();
        std::vector<uint8_t> again(static_cast<size_t>(length));
        int32_t written = 0;
        if (!ObjSerializeLocal(object, again.data(), &written) || written != length) abort();
        void *copy = nullptr;
        if (!ObjReconstructFromBytes(&copy, again.data(), length)) abort();
        if (object != nullptr && !ObjCompare(object, copy)) abort();
        ObjReleaseInternal(&copy);
        ObjReleaseInternal(&object);
    }
    if (object != nullptr || ObjCount() != objectsBefore) abort();
    return 0;
}
