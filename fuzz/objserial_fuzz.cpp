// Serialised objects arrive from other processes and machines. Read arbitrary
// bytes with the bounded reader and hold it to its rules (objserial.h):
//
// - no object it makes carries a release callback (no type that may arrive
//   has one) or a p component other than null, so nothing in the result can
//   call or follow an address that came with the bytes;
// - the pool bytes it holds at its peak stay within its allowance for the
//   input's length, counted by the memory module, not by the reader;
// - it makes at most its share of new types, per read and per process.
//
// What it accepts must encode again to bytes that read back to an equal
// object, and every object made on the way must be released again: no
// crash, no leak.
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "core/fhcore.h"
#include "objcore.h"
#include "seams.h"
#include "sizes.h"
#include "leakcheck.h"

namespace {

// Every object and node of a result: the template's callbacks and pointers.
int32_t inspect(void *, void **slot) {
    const ObjectTemplate *t = ObjGetTemplateFromObject(*slot);
    if (t == nullptr || t->ReleaseCallback != nullptr) abort();
    const ObjectDescriptor &d = t->Descriptor;
    for (const ComponentEntry &e : std::span(d.Entries, static_cast<size_t>(d.FieldCount))) {
        void *field = nullptr;
        memcpy(&field, static_cast<const char *>(*slot) + e.Offset, sizeof field);
        if (e.Datatype == eObjPointer && field != nullptr) abort();
    }
    return eObjWalkEnter;
}

// Reads bytes under the reader's bounds; the object, or null.
void *readBounded(const uint8_t *data, size_t size, bool &ok) {
    const int32_t typesBefore = fh::objectForeignTemplates();
    fh::memResetBytesPeak();
    const size_t bytesBefore = fh::memBytesInUse();
    void *object = nullptr;
    ok = ObjReconstructFromBytes(&object, data, static_cast<int32_t>(size));
    if (fh::memBytesPeak() - bytesBefore > size * OBJ_RECEIVE_BYTES_PER_BYTE + OBJ_RECEIVE_FIXED_BYTES) abort();
    if (fh::objectForeignTemplates() - typesBefore > OBJ_RECEIVE_NEW_TYPES_PER_READ ||
        fh::objectForeignTemplates() > OBJ_RECEIVE_NEW_TYPES)
        abort();
    if (ok && object != nullptr && !ObjWalk(&object, inspect, nullptr, 0)) abort();
    return object;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    TraceSetLevel(TRACE_LEVEL_LIBVERBOSE);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 20) return 0;
    const InUse before;
    bool ok = false;
    void *object = readBounded(data, size, ok);
    if (ok) {
        // Local components included: the reader takes whatever stands there.
        const int32_t length = ObjSerializedSizeLocal(object);
        if (length < 1) abort();
        std::vector<uint8_t> again(static_cast<size_t>(length));
        int32_t written = 0;
        if (!ObjSerializeLocal(object, again.data(), &written) || written != length) abort();
        bool okAgain = false;
        void *copy = readBounded(again.data(), again.size(), okAgain);
        if (!okAgain || (object != nullptr && !ObjCompare(object, copy))) abort();
        ObjReleaseInternal(&copy);
        ObjReleaseInternal(&object);
    }
    CHECK(object == nullptr && !before.objectsLeaked());
    fh::objectForgetUnusedForeignTemplates(); // each input starts with the declared types only
    return 0;
}
