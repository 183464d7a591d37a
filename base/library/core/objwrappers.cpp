// objwrappers.cpp - the simple object types: one value per object.
//
// Eight types, one mechanism. kTypes holds per type its magic, its format
// and the report of its Create form; Payloads names the payload structs in
// the same order, and gTypes declares each type from both. From those, payload<T>(object) gives
// "the payload if the object is exactly a T, else null", make<T> builds a
// T, create<T> is the Create form over a New form, and read and update are
// the getters and setters, so each exported entry is a line or three.
//
// None of the types has a release callback: release, copying and the byte
// form all come from the format. A string, data block or stanza that a
// payload points at belongs to the object. Any bytes make a valid value of
// each, so all eight may arrive from elsewhere (objserial.h).
#include "core/objwrappers.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>
#include <type_traits>
#include <utility>

#include "core/context.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/stanza.h"
#include "core/strbase.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"OBJECT        "};
MemPool *gPool = nullptr;

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

struct SimpleType {
    uint32_t magic;
    const char *format;
    int32_t createId; // 0: a null out pointer is not reported
    const char *createError;
    bool readByGetValue; // ObjGetValue copies the whole payload
};

using Payloads =
    std::tuple<OBJ_BOOLEAN, OBJ_INTEGER, OBJ_INT64, OBJ_STRING, OBJ_DATA_FIELD, OBJ_STANZA, OBJ_UNIQUE, OBJ_VIEWABLE>;

// In the order of registration.
constexpr SimpleType kTypes[] = {
    {OBJ_BOOLEAN_MAGIC, OBJ_BOOLEAN_FORMAT, 93, "Invalid Argument", true},
    {OBJ_INTEGER_MAGIC, OBJ_INTEGER_FORMAT, 94, "Invalid Argument", true},
    {OBJ_INT64_MAGIC, OBJ_INT64_FORMAT, 95, "Invalid Argument", true},
    {OBJ_STRING_MAGIC, OBJ_STRING_FORMAT, 96, "Invalid Argument", true},
    {OBJ_DATA_FIELD_MAGIC, OBJ_DATA_FIELD_FORMAT, 97, "Invalid Argument", false},
    {OBJ_STANZA_MAGIC, OBJ_STANZA_FORMAT, 98, "Invalid Argument", true},
    {OBJ_UNIQUE_MAGIC, OBJ_UNIQUE_FORMAT, 0, nullptr, true},
    {OBJ_VIEWABLE_MAGIC, OBJ_VIEWABLE_FORMAT, 151, "Invalid Arguments", false},
};
constexpr int32_t kDataFieldNoCopyCreateId = 175;
static_assert(std::tuple_size_v<Payloads> == std::size(kTypes), "one payload struct per type");

// Each type declared from its payload struct, which proves its layout.
template <size_t... I> consteval auto declaredTypes(std::index_sequence<I...>) {
    return std::array<fh::DeclaredType, sizeof...(I)>{
        fh::ObjectType<std::tuple_element_t<I, Payloads>>{kTypes[I].magic, kTypes[I].format, fh::kReceivable}...};
}
constinit auto gTypes = declaredTypes(std::make_index_sequence<std::size(kTypes)>{});

template <typename T, size_t I = 0> constexpr size_t kindOf() {
    if constexpr (std::is_same_v<T, std::tuple_element_t<I, Payloads>>)
        return I;
    else
        return kindOf<T, I + 1>();
}

template <typename T> constexpr const SimpleType &typeOf() { return kTypes[kindOf<T>()]; }

// The payload of object if it is exactly a T, by its start magic; else null.
template <typename T> T *payload(const void *object) {
    if (object == nullptr || fh::startMagic(object) != typeOf<T>().magic) return nullptr;
    return static_cast<T *>(const_cast<void *>(object));
}

// A new T from the module's pool, its payload filled in by fill.
template <typename T, typename Fill> T *make(Fill fill) {
    auto *object = static_cast<T *>(ObjTemplateNewInstanceFromPool(gTypes[kindOf<T>()].get(), pool()));
    if (object != nullptr) fill(*object);
    return object;
}

// The Create form over a New form: the new object in *out. A null out is
// reported under id, unless the type reports none, and nothing is made.
template <typename T, typename New> BOOL create(T **out, New newObject, int32_t id = typeOf<T>().createId) {
    if (out == nullptr) {
        if (id != 0) return trace.fault(FALSE, id, 0, "%s", typeOf<T>().createError);
        return FALSE;
    }
    *out = newObject();
    return *out != nullptr;
}

// A field of a T, or otherwise for null or another type.
template <typename T, typename V> V read(const void *object, V T::*field, V otherwise) {
    const T *p = payload<T>(object);
    return p != nullptr ? p->*field : otherwise;
}

// Changes a T; FALSE, with nothing changed, for null or another type.
template <typename T, typename Change> BOOL update(void *object, Change change) {
    T *p = payload<T>(object);
    if (p == nullptr) return FALSE;
    change(*p);
    return TRUE;
}

constexpr int64_t fromWords(int32_t lowWord, int32_t highWord) {
    return static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(highWord)) << 32 |
                                static_cast<uint32_t>(lowWord));
}

} // namespace

OBJ_BOOLEAN *ObjBooleanNew(BOOL value) {
    return make<OBJ_BOOLEAN>([=](OBJ_BOOLEAN &o) { o.bValue = value; });
}
BOOL ObjBooleanCreate(OBJ_BOOLEAN **out, BOOL value) {
    return create(out, [=] { return ObjBooleanNew(value); });
}

OBJ_INTEGER *ObjIntegerNew(int32_t value) {
    return make<OBJ_INTEGER>([=](OBJ_INTEGER &o) { o.iValue = value; });
}
BOOL ObjIntegerCreate(OBJ_INTEGER **out, int32_t value) {
    return create(out, [=] { return ObjIntegerNew(value); });
}

OBJ_INT64 *ObjInt64New(int32_t lowWord, int32_t highWord) {
    return make<OBJ_INT64>([=](OBJ_INT64 &o) { o.iValue = fromWords(lowWord, highWord); });
}
BOOL ObjInt64Create(OBJ_INT64 **out, int32_t lowWord, int32_t highWord) {
    return create(out, [=] { return ObjInt64New(lowWord, highWord); });
}

OBJ_STRING *ObjStringNew(const char *string) {
    return make<OBJ_STRING>([=](OBJ_STRING &o) { o.pszValue = StrDuplicateIntoPool(string, pool()); });
}
BOOL ObjStringCreate(OBJ_STRING **out, const char *string) {
    return create(out, [=] { return ObjStringNew(string); });
}

OBJ_STRING *ObjStringNewRanged(const char *string, int32_t length) {
    return make<OBJ_STRING>([=](OBJ_STRING &o) { o.pszValue = StrDuplicateRangeIntoPool(string, pool(), length); });
}

OBJ_DATA_FIELD *ObjDataFieldNew(const void *data, int32_t size) {
    return make<OBJ_DATA_FIELD>([=](OBJ_DATA_FIELD &o) {
        if (size <= 0) return;
        o.oData = {size, MemAllocateFromPool(static_cast<size_t>(size), pool())};
        if (data != nullptr) memcpy(o.oData.pData, data, static_cast<size_t>(size));
    });
}
BOOL ObjDataFieldCreate(OBJ_DATA_FIELD **out, const void *data, int32_t size) {
    return create(out, [=] { return ObjDataFieldNew(data, size); });
}

OBJ_DATA_FIELD *ObjDataFieldNewNoCopy(void *data, int32_t size) {
    return make<OBJ_DATA_FIELD>([=](OBJ_DATA_FIELD &o) { o.oData = {size, data}; });
}
BOOL ObjDataFieldCreateNoCopy(OBJ_DATA_FIELD **out, void *data, int32_t size) {
    return create(
        out, [=] { return ObjDataFieldNewNoCopy(data, size); }, kDataFieldNoCopyCreateId);
}

OBJ_STANZA *ObjStanzaNew(Stanza *stanza) {
    return make<OBJ_STANZA>([=](OBJ_STANZA &o) { o.pStanza = stanza; });
}
BOOL ObjStanzaCreate(OBJ_STANZA **out, Stanza *stanza) {
    return create(out, [=] { return ObjStanzaNew(stanza); });
}

OBJ_VIEWABLE *ObjViewableNew(int32_t word, const char *string, const Stanza *stanza) {
    return make<OBJ_VIEWABLE>([=](OBJ_VIEWABLE &o) {
        o.oView = {word, StrDuplicateIntoPool(string, pool()), nullptr};
        StnzCopy(&o.oView.pStanza, stanza);
    });
}
BOOL ObjViewableCreate(OBJ_VIEWABLE **out, int32_t word, const char *string, const Stanza *stanza) {
    return create(out, [=] { return ObjViewableNew(word, string, stanza); });
}

// A new identifier is the unique identifier module's UniqueCreate; without
// that module only a given identifier can be wrapped.
OBJ_UNIQUE *ObjUniqueNewInternal(const void *unique) {
    if (unique == nullptr) return nullptr;
    return make<OBJ_UNIQUE>([=](OBJ_UNIQUE &o) { memcpy(o.aId, unique, sizeof o.aId); });
}
BOOL ObjUniqueCreateInternal(OBJ_UNIQUE **out, const void *unique) {
    return create(out, [=] { return ObjUniqueNewInternal(unique); });
}

// A session identifier is made by UniqueCreateSessionId of the unique
// identifier module; without it there is none to wrap.
OBJ_UNIQUE *ObjUniqueNewSessionId(int32_t, int32_t, int32_t) { return nullptr; }
BOOL ObjUniqueCreateSessionId(OBJ_UNIQUE **out, int32_t jobId, int32_t instance, int32_t phase) {
    return create(out, [=] { return ObjUniqueNewSessionId(jobId, instance, phase); });
}

BOOL ObjGetBoolean(const void *object) { return read(object, &OBJ_BOOLEAN::bValue, FALSE); }
BOOL ObjSetBoolean(void *object, BOOL value) {
    return update<OBJ_BOOLEAN>(object, [=](OBJ_BOOLEAN &o) { o.bValue = value; });
}

int32_t ObjGetInteger(const void *object) { return read(object, &OBJ_INTEGER::iValue, 0); }
BOOL ObjSetInteger(void *object, int32_t value) {
    return update<OBJ_INTEGER>(object, [=](OBJ_INTEGER &o) { o.iValue = value; });
}

int64_t ObjGetInt64(const void *object) { return read(object, &OBJ_INT64::iValue, int64_t{0}); }
BOOL ObjSetInt64(void *object, int32_t lowWord, int32_t highWord) {
    return update<OBJ_INT64>(object, [=](OBJ_INT64 &o) { o.iValue = fromWords(lowWord, highWord); });
}

char *ObjGetString(const void *object) { return read(object, &OBJ_STRING::pszValue, static_cast<char *>(nullptr)); }

// The copy is made before the old string goes, so a caller that passes the
// object's own string gets it back intact.
BOOL ObjSetString(void *object, const char *string) {
    return update<OBJ_STRING>(object, [=](OBJ_STRING &o) {
        char *copy = StrDuplicateIntoPool(string, pool());
        MemFreeInternal(&o.pszValue);
        o.pszValue = copy;
    });
}

BOOL ObjSetStringNoCopy(void *object, char *string) {
    return update<OBJ_STRING>(object, [=](OBJ_STRING &o) {
        if (o.pszValue != string) MemFreeInternal(&o.pszValue);
        o.pszValue = string;
    });
}

ObjData *ObjGetDataField(const void *object) {
    OBJ_DATA_FIELD *p = payload<OBJ_DATA_FIELD>(object);
    return p != nullptr ? &p->oData : nullptr;
}
int32_t ObjGetDataFieldSize(const void *object) {
    const ObjData *data = ObjGetDataField(object);
    return data != nullptr ? data->iSize : 0;
}
void *ObjGetDataFieldData(const void *object) {
    const ObjData *data = ObjGetDataField(object);
    return data != nullptr ? data->pData : nullptr;
}

Stanza *ObjGetStanza(const void *object) { return read(object, &OBJ_STANZA::pStanza, static_cast<Stanza *>(nullptr)); }
Stanza **ObjGetStanzaPointer(void *object) {
    OBJ_STANZA *p = payload<OBJ_STANZA>(object);
    return p != nullptr ? &p->pStanza : nullptr;
}
BOOL ObjSetStanza(void *object, Stanza *stanza) {
    return stanza != nullptr && update<OBJ_STANZA>(object, [=](OBJ_STANZA &o) { o.pStanza = stanza; });
}

void *ObjGetUnique(const void *object) {
    OBJ_UNIQUE *p = payload<OBJ_UNIQUE>(object);
    return p != nullptr ? p->aId : nullptr;
}

BOOL ObjUniqueEqual(const void *first, const void *second) {
    const OBJ_UNIQUE *a = payload<OBJ_UNIQUE>(first), *b = payload<OBJ_UNIQUE>(second);
    return a != nullptr && b != nullptr && memcmp(a->aId, b->aId, sizeof a->aId) == 0;
}

// Sessions are compared by UniqueSameSessionInstance of the unique
// identifier module; without it no two objects are known to agree.
BOOL ObjUniqueSameSessionId(const void *, const void *) { return FALSE; }

BOOL ObjGetValue(void *out, const void *object) {
    uint32_t magic = 0;
    if (out == nullptr || !ObjGetMagic(object, &magic)) return FALSE;
    for (size_t i = 0; i < std::size(kTypes); ++i) {
        if (kTypes[i].magic != magic || !kTypes[i].readByGetValue) continue;
        memcpy(out, object, static_cast<size_t>(gTypes[i].size()));
        return TRUE;
    }
    return FALSE;
}

BOOL ObjWrappersInitialize(void) {
    return std::all_of(gTypes.begin(), gTypes.end(), [](fh::DeclaredType &type) { return type.declare(); });
}

BOOL ObjWrappersInitializeThread(void) { return TRUE; }

void ObjWrappersReleaseThread(LmContext *) {}
