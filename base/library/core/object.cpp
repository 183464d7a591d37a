// object.cpp - templates, the component format language, reference counts.
//
// Types. TemplateTable is an array of template pointers sorted by magic; it
// only grows (by 516 entries) and is kept sorted by insertion, never sorted
// again. Templates live until the process ends. A template holds the parsed
// format: one ComponentEntry per component with its payload offset, laid out
// as the C struct of the same fields would be on this machine. Behind the
// public fields, in the same block, a template keeps what readers of bytes
// from elsewhere need: whether its module marked it receivable (and the
// check it runs), and whether it was retired.
//
// A type received before it is declared has a Foreign template in the
// table. Its declaration takes the table's place over, whatever shape was
// received (a peer cannot make a later declaration fail), and the received
// template is retired: its live objects keep it, so their release, copy,
// byte form and walk follow the shape they were read in, and none of them
// passes ObjCheckTypeInternal for the magic again. (With a translator, a
// received template of another shape stays behind the declared one as an
// older shape instead.)
//
// Objects. Block header, ObjectHeader, payload, end magic, guard word. The
// start and end magic agree while an object lives; the start magic is
// cleared when it dies, so a stale pointer fails every magic test for as long
// as its memory is not reused.
//
// Release never recurses along references. An object whose count reaches 0
// is "dying": its release callback has run, its start magic is 0, and it
// waits on a stack of dying objects linked through its EndMagic header field
// (restored before the block is freed, so a stale pointer still finds its end
// magic). The release loop takes dying objects off that stack, drops the
// references their components hold (which may make more objects dying) and
// frees them. A list of a million nodes or a tree with a long sibling chain
// is therefore released in constant stack.
#include "core/object.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

#include "core/context.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/stanza.h"
#include "core/strbase.h"
#include "memblock.h"
#include "objcontainer.h"
#include "objcore.h"
#include "proctable.h"
#include "seams.h"
#include "seenindex.h"
#include "sizes.h"
#include "tracer.h"

namespace {

using fh::field;

constexpr fh::ModuleTracer trace{"OBJECT        "};
MemPool *gPool = nullptr;

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

using fh::datatypeOfLetter;
using fh::kDatatypes;

// Trace ids of this module beside the fixed ones.
enum TraceId : int32_t { kIdTakeOver = 195, kIdNotReceivable = 196 };

// The largest payload a format may describe; formats also arrive from peers.
using fh::kLargestPayload;
constexpr size_t kHeaderSize = sizeof(ObjectHeader);
constexpr int32_t kEndMagicSize = sizeof(uint32_t);

// The table of templates, sorted by magic.
ObjectTemplate **gTable = nullptr;
int32_t gTableCount = 0;
int32_t gTableCapacity = 0;
constexpr int32_t kTableGrowth = 516;
int32_t gTemplateBlocks = 0; // blocks that templates and their table hold for good
ObjectTemplate *gRetired = nullptr; // retired templates, linked through Next
int32_t gForeignTemplates = 0; // templates made for received formats
size_t gForeignBytes = 0;      // and the pool bytes they hold

// The components of a template that a release must look at (those that own
// what they hold, and any that cannot be walked), as datatype and payload
// offset side by side, so that a release reads neither the entries nor a
// jump table for them. A template with more than fit has all marks false
// and its release walks the entries.
constexpr size_t kOwnedInline = 6;
struct OwnedComponents {
    bool listed;
    uint8_t count;
    std::array<uint8_t, kOwnedInline> datatype;
    std::array<int32_t, kOwnedInline> offset;
};
inline bool ownsOrUnknown(int32_t datatype) { return datatype == eObjNone || kDatatypes[datatype].owns; }

// A template and what this module keeps beside it; the entries follow.
struct TemplateBlock {
    ObjectTemplate t;
    ObjReceivedCheck check; // for a receivable template; may be null
    bool receivable;         // its module said it may come from elsewhere
    bool retired;            // a declaration took its magic over
    OwnedComponents owned;   // what a release looks at (see ownedComponents)
};
inline TemplateBlock &blockOf(const ObjectTemplate *t) {
    return *reinterpret_cast<TemplateBlock *>(const_cast<ObjectTemplate *>(t));
}

// The name a new template of magic gets.
constexpr size_t kUnknownNameBytes = 48;

// Names given at run time: entries of (magic, name) in a MAP.
struct NameEntry {
    uint32_t magic;
    char *name;
};
MAP *gNameMap = nullptr;

using fh::objectHeader;

inline char *payloadOf(ObjectHeader *header) { return reinterpret_cast<char *>(header) + kHeaderSize; }

// The end magic, read only where the end pointer lies inside the object's
// block: behind the header and in front of the block's guard word. A damaged
// block gives nothing, which counts as magics that differ.
std::optional<uint32_t> endMagicOf(const ObjectHeader *header) {
    const auto *block = reinterpret_cast<const MemBlockHeader *>(header) - 1;
    const auto end = reinterpret_cast<uintptr_t>(header->EndMagic);
    const auto payload = reinterpret_cast<uintptr_t>(header + 1);
    const auto guard = reinterpret_cast<uintptr_t>(block->Guard);
    if (end < payload || guard < end || guard - end < sizeof(uint32_t)) return std::nullopt;
    uint32_t magic;
    memcpy(&magic, header->EndMagic, sizeof magic);
    return magic;
}

void storeCounters() {
    const LmContext &c = gtLmContext;
    if (c.pProcessTableEntry == nullptr) return;
    fh::processEntryStore(fh::kEntryObjUsed, c.iObjUsed);
    fh::processEntryStore(fh::kEntryObjMax, c.iObjMax);
    fh::processEntryStore(fh::kEntryObjAllocations, c.iObjAllocations);
}

int32_t compareMagic(uint32_t a, uint32_t b) { return a < b ? -1 : a > b ? 1 : 0; }

// Binary search of the table: found, and the index (or insertion index).
std::pair<bool, int32_t> findTemplate(uint32_t magic) {
    ObjectTemplate **end = gTable + gTableCount;
    ObjectTemplate **at =
        std::lower_bound(gTable, end, magic, [](const ObjectTemplate *t, uint32_t m) { return t->Magic < m; });
    return {at != end && (*at)->Magic == magic, static_cast<int32_t>(at - gTable)};
}

void insertTemplate(int32_t index, ObjectTemplate *objectTemplate) {
    if (gTableCount == gTableCapacity) {
        const int32_t capacity = gTableCapacity + kTableGrowth;
        const std::optional<size_t> bytes = fh::checkedSize(capacity, sizeof(ObjectTemplate *));
        if (!bytes) {
            trace(67, 0, -1, "Failed to get a template, die horribly");
            ProcCrash(1);
            return;
        }
        auto **table = static_cast<ObjectTemplate **>(MemAllocateFromPool(*bytes, pool()));
        if (gTable != nullptr) MemCopy(table, gTable, gTableCount * sizeof *table);
        if (!MemFreeInternal(&gTable)) ++gTemplateBlocks;
        gTable = table;
        gTableCapacity = capacity;
    }
    std::copy_backward(gTable + index, gTable + gTableCount, gTable + gTableCount + 1);
    gTable[index] = objectTemplate;
    ++gTableCount;
}

const char *nameFromNameMap(uint32_t magic) {
    void *entry = nullptr;
    if (gNameMap == nullptr || !MapFindEntry(&entry, gNameMap, &magic)) return nullptr;
    return static_cast<NameEntry *>(entry)->name;
}

char *newTemplateName(uint32_t magic) {
    if (const char *known = nameFromNameMap(magic)) return StrDuplicateIntoPool(known, pool());
    char unknown[kUnknownNameBytes];
    snprintf(unknown, sizeof unknown, "Unknown object magic 0x%08lx", static_cast<unsigned long>(magic));
    return StrDuplicateIntoPool(unknown, pool());
}

// Lays out format, filling entries when given; the payload stops growing
// past kLargestPayload.
fh::FormatLayout layOut(const char *format, ComponentEntry *entries) {
    return fh::layOutFormat(
        format,
        [entries](const char *cursor, int32_t datatype, const fh::FormatLayout &at) {
            if (entries == nullptr) return;
            ComponentEntry &e = entries[at.fieldCount];
            e.Datatype = datatype;
            e.Offset = static_cast<int32_t>(std::min(at.payload, kLargestPayload));
            e.DbOffset = at.dbSize;
            e.InlineSize = datatype == eObjInline ? ObjInlineSizeUsed(cursor) : 0;
            e.Local = (ObjComponentModifiers(cursor) & OBJ_MODIFIER_LOCAL) != 0;
        },
        [](const char *cursor) { ObjComponentDatatype(cursor); });
}

OwnedComponents ownedComponents(std::span<const ComponentEntry> entries) {
    OwnedComponents owned{};
    for (const ComponentEntry &e : entries) {
        if (!ownsOrUnknown(e.Datatype)) continue;
        if (owned.count == kOwnedInline) return OwnedComponents{};
        owned.datatype[owned.count] = static_cast<uint8_t>(e.Datatype);
        owned.offset[owned.count++] = e.Offset;
    }
    owned.listed = true;
    return owned;
}

// The pool bytes of a template's three blocks: itself with its entries, its
// format and its name.
size_t poolBytesOf(const ObjectTemplate *t) {
    return fh::memBlockBytes(sizeof(TemplateBlock) + t->Descriptor.FieldCount * sizeof(ComponentEntry)) +
           fh::memBlockBytes(strlen(t->Descriptor.Format) + 1) + fh::memBlockBytes(strlen(t->Name) + 1);
}

ObjectTemplate *buildTemplate(int32_t size, uint32_t magic, const char *format, ObjReleaseCallback releaseCallback) {
    const fh::FormatLayout counted = layOut(format, nullptr);
    if (counted.payload > kLargestPayload || (size != -1 && size != counted.payload)) {
        trace(3, 1, 2, "Object Template Error, computed size %ld given %ld for \"%s\"",
              static_cast<long>(std::min(counted.payload, kLargestPayload)), static_cast<long>(size), format);
        return nullptr;
    }
    auto *block = static_cast<TemplateBlock *>(
        MemAllocateFromPool(sizeof(TemplateBlock) + counted.fieldCount * sizeof(ComponentEntry), pool()));
    ObjectTemplate *t = &block->t;
    ObjectDescriptor &d = t->Descriptor;
    d.Entries = reinterpret_cast<ComponentEntry *>(block + 1);
    const fh::FormatLayout layout = layOut(format, d.Entries);
    t->Magic = magic;
    t->Name = newTemplateName(magic);
    t->Simple = layout.simple;
    t->ReleaseCallback = releaseCallback;
    t->Foreign = size == -1;
    trace(66, 0, 3, "Add a new template %s magic 0x%lx '%s'", t->Name, static_cast<unsigned long>(magic), format);
    d.Format = StrDuplicateIntoPool(format, pool());
    d.FieldCount = layout.fieldCount;
    d.ObjSize = static_cast<int32_t>(layout.payload) + static_cast<int32_t>(kHeaderSize) + kEndMagicSize;
    d.DbSize = layout.dbSize;
    d.InvalidDb = layout.invalidDb;
    block->owned = ownedComponents(fh::entriesOf(t));
    gTemplateBlocks += 3;
    if (t->Foreign) {
        ++gForeignTemplates;
        gForeignBytes += poolBytesOf(t);
    }
    trace(79, 0, 3, "FieldCount %ld ObjSize %ld DbSize %ld InvalidDb %s", static_cast<long>(d.FieldCount),
          static_cast<long>(d.ObjSize), static_cast<long>(d.DbSize), fh::boolText(d.InvalidDb));
    return t;
}

// A template of another shape for a magic that has a translator.
ObjectTemplate *otherShape(int32_t index, int32_t size, const char *format, ObjReleaseCallback releaseCallback) {
    ObjectTemplate *head = gTable[index];
    for (ObjectTemplate *t = head->Next; t != nullptr; t = t->Next)
        if (strcmp(t->Descriptor.Format, format) == 0) return t;
    ObjectTemplate *t = buildTemplate(size, head->Magic, format, releaseCallback);
    if (t == nullptr) return nullptr;
    t->Translator = head->Translator;
    if (t->Foreign) { // never the head, but kept behind it for the next object of this shape
        t->Next = head->Next;
        head->Next = t;
        return t;
    }
    if (!head->Foreign) {
        trace(156, 0, -1, "Conflicting object formats");
        return nullptr;
    }
    t->Next = head;
    gTable[index] = t;
    return t;
}

// A declaration of a magic whose table template was made for a received
// format: the declared template takes the table's place (see the top).
ObjectTemplate *takeOver(int32_t index, int32_t size, const char *format, ObjReleaseCallback releaseCallback) {
    ObjectTemplate *received = gTable[index];
    ObjectTemplate *declared = buildTemplate(size, received->Magic, format, releaseCallback);
    if (declared == nullptr) return nullptr;
    declared->Translator = received->Translator;
    if (received->Translator != nullptr && strcmp(received->Descriptor.Format, format) != 0) {
        declared->Next = received;
    } else {
        declared->Next = received->Next;
        blockOf(received).retired = true;
        received->Next = gRetired; // kept, as every template is, for the objects that use it
        gRetired = received;
    }
    gTable[index] = declared;
    trace(kIdTakeOver, 0, 1, "Type %s %lx declared as '%s' over the shape '%s' received before (%ld objects of it live)",
          declared->Name, static_cast<unsigned long>(declared->Magic), format, received->Descriptor.Format,
          static_cast<long>(received->Instances));
    return declared;
}

ObjectTemplate *getTemplate(int32_t size, uint32_t magic, const char *format, ObjReleaseCallback releaseCallback) {
    if (!OBJ_VALID_MAGIC(magic) || format == nullptr) return nullptr;
    auto [found, index] = findTemplate(magic);
    ObjectTemplate *result = nullptr;
    if (!found) {
        result = buildTemplate(size, magic, format, releaseCallback);
        if (result != nullptr) insertTemplate(index, result);
    } else if (size != -1 && gTable[index]->Foreign) {
        result = takeOver(index, size, format, releaseCallback);
    } else if (ObjectTemplate *t = gTable[index]; strcmp(t->Descriptor.Format, format) == 0) {
        result = t;
    } else if (t->Translator == nullptr) {
        trace(155, 0, -1, "Object '%s' %lx has changed shape from '%s' to '%s'", t->Name,
              static_cast<unsigned long>(magic), format, t->Descriptor.Format);
    } else {
        result = otherShape(index, size, format, releaseCallback);
    }
    if (result == nullptr && size != -1) {
        trace(67, 0, -1, "Failed to get a template, die horribly");
        ProcCrash(1);
    }
    return result;
}

// What dropping a reference came to.
enum class Drop { kRefused, kHeld, kDied };

// Drops one reference of object after the checks in front of a release
// (traced, ProcCrash(0) for a damaged object; a count that would go below 0
// is traced and left alone). The last reference makes the object die: its
// release callback sees it whole, then its start magic is cleared and the
// counts go down. What it owns is left to the caller.
inline Drop drop(void *object) {
    ObjectHeader *h = objectHeader(object);
    if (!OBJ_VALID_MAGIC(h->StartMagic)) {
        trace(72, 0, 2, "ObjRelease - Invalid Magic for object at %p", object);
        ProcCrash(0);
        return Drop::kRefused;
    }
    if (endMagicOf(h) != h->StartMagic) {
        trace(71, 0, 2, "ObjRelease - Corrupt object at %p", object);
        ProcCrash(0);
        return Drop::kRefused;
    }
    if (h->RefCount > 1) {
        --h->RefCount;
        return Drop::kHeld;
    }
    if (h->RefCount < 1) {
        trace(70, 0, 2, "ObjRelease - reference count below zero for object at %p", object);
        return Drop::kRefused;
    }
    h->RefCount = 0;
    ObjectTemplate *t = h->Template;
    if (t->ReleaseCallback != nullptr) t->ReleaseCallback(object);
    h->StartMagic = 0;
    LmContext &c = gtLmContext;
    --c.iObjUsed;
    if (c.pProcessTableEntry != nullptr) fh::processEntryStore(fh::kEntryObjUsed, c.iObjUsed);
    --t->Instances;
    return Drop::kDied;
}

// Drops a reference that a dying object's component holds; an object that
// dies of it is pushed on the dying stack.
void dropReference(void *object, ObjectHeader *&dying) {
    if (drop(object) != Drop::kDied) return;
    ObjectHeader *h = objectHeader(object);
    h->EndMagic = reinterpret_cast<uint32_t *>(dying);
    dying = h;
}

template <typename T> inline void freeOwned(T *&block) {
    if (block == nullptr) return;
    fh::freeBlock(block);
    block = nullptr;
}

// Releases what the component of datatype at offset of a dying object owns;
// false for a component that cannot be walked.
[[gnu::noinline]] bool releaseComponent(void *object, int32_t datatype, int32_t offset, ObjectHeader *&dying) {
    char *at = static_cast<char *>(object) + offset;
    switch (datatype) {
    case eObjNone: trace(22, 1, 2, "ObjRelease - unrecognised component"); return false;
    case eObjString: freeOwned(*reinterpret_cast<char **>(at)); break;
    case eObjObject:
        if (void *&child = *reinterpret_cast<void **>(at); child != nullptr) {
            dropReference(child, dying);
            child = nullptr;
        }
        break;
    case eObjData: freeOwned(reinterpret_cast<ObjData *>(at)->pData); break;
    case eObjViewInfo:
        freeOwned(reinterpret_cast<ObjViewInfo *>(at)->pszString);
        StnzRelease(&reinterpret_cast<ObjViewInfo *>(at)->pStanza);
        break;
    case eObjStanza: StnzRelease(reinterpret_cast<Stanza **>(at)); break;
    default: break;
    }
    return true;
}

// Releases what a dying object's payload owns, from the template's list or
// else by its entries; false for a format that cannot be walked. A null
// string, the common case, is passed over without the switch.
[[gnu::always_inline]] inline bool releaseComponents(ObjectHeader *h, ObjectHeader *&dying) {
    const ObjectTemplate *t = h->Template;
    if (t->Simple) return true;
    void *object = payloadOf(h);
    bool ok = true;
    if (const OwnedComponents &owned = blockOf(t).owned; owned.listed) {
        for (size_t i = 0; i < owned.count; ++i) {
            const int32_t datatype = owned.datatype[i];
            if (datatype == eObjString && *reinterpret_cast<char **>(static_cast<char *>(object) + owned.offset[i]) == nullptr)
                continue;
            ok = releaseComponent(object, datatype, owned.offset[i], dying) && ok;
        }
        return ok;
    }
    for (const ComponentEntry &e : fh::entriesOf(t))
        if (ownsOrUnknown(e.Datatype)) ok = releaseComponent(object, e.Datatype, e.Offset, dying) && ok;
    return ok;
}

// Releases the objects on the dying stack and what they own, in turn; false
// when a format among them cannot be walked.
[[gnu::noinline]] bool releaseDying(ObjectHeader *dying) {
    bool ok = true;
    while (dying != nullptr) {
        ObjectHeader *h = dying;
        dying = reinterpret_cast<ObjectHeader *>(h->EndMagic);
        // A stale pointer may still be tested while the memory is not reused.
        h->EndMagic = reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(h) + h->Template->Descriptor.ObjSize -
                                                   kEndMagicSize);
        ok = releaseComponents(h, dying) && ok;
        fh::freeBlock(h);
    }
    return ok;
}

} // namespace

namespace fh {

int32_t objectTemplateBlocks() { return gTemplateBlocks; }


bool DeclaredType::declare() {
    if (template_ == nullptr) {
        ObjectTemplate *made = nullptr;
        if (!ObjTemplateCreateInternal(&made, size_, magic_, format_, release_)) return false;
        if (receivable_ && !ObjTemplateSetReceivable(made, check_)) return false;
        if (operations_ != nullptr && containerOperations(magic_) == nullptr) {
            if (gContainerTypeCount == kMaxContainerTypes) return false;
            gContainerTypes[gContainerTypeCount++] = {magic_, operations_};
        }
        template_ = made;
    }
    if (exported_ != nullptr) *exported_ = template_;
    return true;
}

Reception objectReception(const ObjectTemplate *t, ObjReceivedCheck *check) {
    const TemplateBlock &b = blockOf(t);
    *check = nullptr;
    if (b.retired) return Reception::kRefused;
    if (b.receivable) {
        *check = b.check;
        return b.check != nullptr ? Reception::kChecked : Reception::kPlain;
    }
    return t->Foreign && t->ReleaseCallback == nullptr ? Reception::kPlain : Reception::kRefused;
}

ObjectTemplate *objectTemplateFind(uint32_t magic, const char *format) {
    auto [found, index] = findTemplate(magic);
    if (!found || format == nullptr) return nullptr;
    for (ObjectTemplate *t = gTable[index]; t != nullptr; t = t->Translator != nullptr ? t->Next : nullptr)
        if (strcmp(t->Descriptor.Format, format) == 0) return t;
    return nullptr;
}

int32_t objectForeignTemplates() { return gForeignTemplates; }
size_t objectForeignTemplateBytes() { return gForeignBytes; }

// At most what a template for format takes: a component is at least one
// letter and a separator, so there are at most half the bytes plus one.
size_t objectTemplateBytes(uint32_t magic, const char *format) {
    const size_t length = strlen(format);
    const char *known = nameFromNameMap(magic);
    return memBlockBytes(sizeof(TemplateBlock) + (length / 2 + 1) * sizeof(ComponentEntry)) +
           memBlockBytes(length + 1) + memBlockBytes(known != nullptr ? strlen(known) + 1 : kUnknownNameBytes);
}

void objectForgetUnusedForeignTemplates() {
    int32_t kept = 0;
    for (int32_t i = 0; i < gTableCount; ++i) {
        ObjectTemplate *t = gTable[i];
        if (t->Foreign && t->Instances == 0 && t->Next == nullptr)
            objectTemplateFree(t);
        else
            gTable[kept++] = t;
    }
    gTableCount = kept;
}

int32_t objectInstanceSize(uint32_t magic) {
    auto [found, index] = findTemplate(magic);
    return found ? gTable[index]->Descriptor.ObjSize : 0;
}

ObjectTemplate *objectTemplateBuild(int32_t size, uint32_t magic, const char *format) {
    return buildTemplate(size, magic, format, nullptr);
}

void objectTemplateFree(ObjectTemplate *objectTemplate) {
    if (objectTemplate == nullptr) return;
    if (objectTemplate->Foreign) {
        --gForeignTemplates;
        gForeignBytes -= poolBytesOf(objectTemplate);
    }
    MemFreeInternal(&objectTemplate->Name);
    MemFreeInternal(&objectTemplate->Descriptor.Format);
    MemFreeInternal(&objectTemplate);
    gTemplateBlocks -= 3;
}

} // namespace fh

namespace {

// The object's header is written in the same pass as its block's, and only
// the payload is cleared: the headers and the end magic are written whole.
void *newInstance(ObjectTemplate *t, MemPool *from) {
    if (t == nullptr) {
        return trace.fault(nullptr, 88, 1, "Invalid arguments");
    }
    const auto size = static_cast<size_t>(t->Descriptor.ObjSize);
    auto *h = reinterpret_cast<ObjectHeader *>(fh::newBlock((size + 3) & ~size_t{3}, from));
    char *object = payloadOf(h);
    h->StartMagic = t->Magic;
    h->RefCount = 1;
    h->Template = t;
    h->EndMagic = reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(h) + size - kEndMagicSize);
    memcpy(h->EndMagic, &t->Magic, sizeof t->Magic);
    fh::zeroArea(object, size - kHeaderSize - kEndMagicSize);
    ++t->Instances;
    ++t->Created;
    LmContext &c = gtLmContext;
    if (++c.iObjUsed > c.iObjMax) c.iObjMax = c.iObjUsed;
    ++c.iObjAllocations;
    if (c.pProcessTableEntry != nullptr) storeCounters();
    return object;
}

// Deep copy by components. Objects shared inside the source (count above 1)
// are copied once and shared the same way in the copy, through seen (source
// address to copy).
void *copyObject(const void *source, bool keepLocal, fh::SeenIndex &seen);

// The deep copy as a container's copy operation sees it.
class Copier : public fh::ObjectCopier {
  public:
    Copier(bool keepLocal, fh::SeenIndex &seen) : keepLocal_(keepLocal), seen_(seen) {}
    void *copy(const void *object) override { return copyObject(object, keepLocal_, seen_); }

  private:
    bool keepLocal_;
    fh::SeenIndex &seen_;
};

void copyComponent(void *copy, const void *source, const ComponentEntry &e, bool keepLocal, fh::SeenIndex &seen) {
    void *from = const_cast<void *>(source);
    switch (e.Datatype) {
    case eObjBoolean:
    case eObjInteger: field<int32_t>(copy, e) = field<int32_t>(from, e); break;
    case eObjPointer: field<void *>(copy, e) = field<void *>(from, e); break;
    case eObjString: field<char *>(copy, e) = StrDuplicateIntoPool(field<char *>(from, e), pool()); break;
    case eObjObject:
        if (!e.Local || keepLocal) field<void *>(copy, e) = copyObject(field<void *>(from, e), keepLocal, seen);
        break;
    case eObjData: {
        const ObjData &data = field<ObjData>(from, e);
        ObjData &target = field<ObjData>(copy, e);
        target.iSize = data.iSize;
        if (data.pData != nullptr && data.iSize > 0) {
            target.pData = MemAllocateFromPool(static_cast<size_t>(data.iSize), pool());
            memcpy(target.pData, data.pData, static_cast<size_t>(data.iSize));
        }
        break;
    }
    case eObjInline: memcpy(&field<char>(copy, e), &field<char>(from, e), static_cast<size_t>(e.InlineSize)); break;
    case eObjViewInfo: {
        const ObjViewInfo &view = field<ObjViewInfo>(from, e);
        ObjViewInfo &target = field<ObjViewInfo>(copy, e);
        target.iWord = view.iWord;
        target.pszString = StrDuplicateIntoPool(view.pszString, pool());
        StnzCopy(&target.pStanza, view.pStanza);
        break;
    }
    case eObjInt64: field<int64_t>(copy, e) = field<int64_t>(from, e); break;
    case eObjUnique: memcpy(&field<char>(copy, e), &field<char>(from, e), 32); break;
    case eObjStanza: StnzCopy(&field<Stanza *>(copy, e), field<Stanza *>(from, e)); break;
    default:
        trace(90, 1, 2, "ERROR: Unknown type to reconstruct %d", e.Datatype);
        ProcCrash(0);
        break;
    }
}

void *copyObject(const void *source, bool keepLocal, fh::SeenIndex &seen) {
    if (source == nullptr) return nullptr;
    const ObjectHeader *h = objectHeader(source);
    uintptr_t entry = 0;
    if (h->RefCount != 1 && seen.find(reinterpret_cast<uintptr_t>(source), entry)) {
        void *copy = reinterpret_cast<void *>(entry);
        ObjIncRefCount(copy);
        return copy;
    }
    void *copy = newInstance(h->Template, pool());
    trace(89, 0, 3, "ObjCopy(%p, %p, %p)", copy, source, static_cast<void *>(&seen));
    if (h->RefCount != 1) seen.put(reinterpret_cast<uintptr_t>(source), reinterpret_cast<uintptr_t>(copy));
    if (const fh::ContainerOperations *operations = fh::containerOperations(h->StartMagic)) {
        Copier copier(keepLocal, seen);
        operations->copy(copier, source, copy);
        return copy;
    }
    const ObjectDescriptor &d = h->Template->Descriptor;
    for (const ComponentEntry &e : std::span(d.Entries, d.FieldCount)) copyComponent(copy, source, e, keepLocal, seen);
    return copy;
}

// The quicksort of the interface partitions around its first element. The
// middle element is moved there first, so input that is already in order
// (a list sorted again) costs n log n rather than n squared. The smaller part
// is sorted by recursion and the larger by the loop, so the stack stays
// logarithmic. A comparison other than -1, 0 or 1 stops it with the array
// still a permutation of its input.
template <typename Compare> bool quickSort(void **a, int32_t last, const Compare &compare) {
    while (last >= 1) {
        std::swap(a[0], a[last / 2]);
        void *pivot = a[0];
        int32_t i = 0, j = last;
        while (j - i >= 1) {
            void *x = a[i + 1];
            const int32_t c = compare(x, pivot);
            if (c == -1 || c == 0) {
                a[i++] = x;
            } else if (c == 1) {
                std::swap(a[i + 1], a[j--]);
            } else {
                a[i] = pivot;
                return false;
            }
        }
        a[i] = pivot;
        if (i <= last - j) {
            if (i >= 2 && !quickSort(a, i - 1, compare)) return false;
            a += j + 1;
            last -= j + 1;
        } else {
            if (j < last && !quickSort(a + j + 1, last - j - 1, compare)) return false;
            last = i - 1;
        }
    }
    return true;
}

int32_t compareNameEntries(const void *a, const void *b) {
    return compareMagic(*static_cast<const uint32_t *>(a), static_cast<const NameEntry *>(b)->magic);
}

// Applies a tag list that starts with first; badListId names the caller.
void applyTags(void *object, int32_t first, va_list pairs, int32_t badListId) {
    if (first == 0) return;
    if (first != -2) {
        trace(badListId, 0, -1, "Bad tags list for object type '%s', starting with tag value %ld",
              ObjNameFromObject(object), static_cast<long>(first));
        ProcCrash(0);
        return;
    }
    ObjSetFromTagsVAListInternal(object, pairs);
}

} // namespace

BOOL ObjTemplateCreateInternal(ObjectTemplate **templateVariable, int32_t size, uint32_t magic, const char *format,
                               ObjReleaseCallback releaseCallback) {
    if (templateVariable == nullptr || !OBJ_VALID_MAGIC(magic) || format == nullptr) {
        trace(34, 0, 2, "Invalid parameters");
        return FALSE;
    }
    ObjectTemplate *t = getTemplate(size, magic, format, releaseCallback);
    if (t == nullptr) return FALSE;
    if (*templateVariable != t) *templateVariable = t;
    return TRUE;
}

ObjectTemplate *ObjTemplateNewInternal(int32_t size, uint32_t magic, const char *format,
                                       ObjReleaseCallback releaseCallback) {
    if (!OBJ_VALID_MAGIC(magic) || format == nullptr) {
        trace(84, 0, 2, "Invalid parameters");
        return nullptr;
    }
    return getTemplate(size, magic, format, releaseCallback);
}

void *ObjTemplateNewInstanceFromPool(ObjectTemplate *objectTemplate, MemPool *from) {
    return newInstance(objectTemplate, from);
}

BOOL ObjTemplateCreateInstanceFromPool(void **out, ObjectTemplate *objectTemplate, MemPool *from) {
    if (out == nullptr) {
        return trace.fault(FALSE, 88, 1, "Invalid arguments");
    }
    *out = newInstance(objectTemplate, from);
    return *out != nullptr;
}

BOOL ObjCreateInternal(void **out, int32_t size, uint32_t magic, const char *format,
                       ObjReleaseCallback releaseCallback, MemPool *from) {
    ObjectTemplate *t = out != nullptr ? getTemplate(size, magic, format, releaseCallback) : nullptr;
    if (t == nullptr) {
        return trace.faultAt(2, FALSE, 10, 0, "ObjCreate() failed");
    }
    *out = newInstance(t, from);
    return TRUE;
}

void *ObjNewInternal(int32_t size, uint32_t magic, const char *format, ObjReleaseCallback releaseCallback,
                     MemPool *from) {
    ObjectTemplate *t = getTemplate(size, magic, format, releaseCallback);
    if (t == nullptr) {
        return trace.faultAt(2, nullptr, 81, 0, "ObjNew() failed");
    }
    return newInstance(t, from);
}

BOOL ObjSetTranslatorInternal(int32_t size, uint32_t magic, const char *format, ObjReleaseCallback releaseCallback,
                              ObjTranslator translator) {
    ObjectTemplate *t = getTemplate(size, magic, format, releaseCallback);
    if (t == nullptr) {
        trace(164, 0, -1, "ObjSetTranslator() failed");
        ProcCrash(1);
        return FALSE;
    }
    if (t->Translator == translator) return TRUE;
    if (t->Created != 0) {
        trace(163, 0, -1, "Cannot set translator after objects have been created");
        ProcCrash(1);
        return FALSE;
    }
    t->Translator = translator;
    return TRUE;
}

BOOL ObjTemplateSetReceivable(ObjectTemplate *t, ObjReceivedCheck check) {
    bool hasPointer = false;
    for (const ComponentEntry &e : std::span(t != nullptr ? t->Descriptor.Entries : nullptr,
                                             t != nullptr ? t->Descriptor.FieldCount : 0))
        hasPointer = hasPointer || e.Datatype == eObjPointer;
    if (t == nullptr || t->Foreign || ((t->ReleaseCallback != nullptr || hasPointer) && check == nullptr)) {
        return trace.fault(FALSE, kIdNotReceivable, 0, "Type %s cannot be received without a check of its own",
              t != nullptr ? t->Name : "(null)");
    }
    blockOf(t).receivable = true;
    blockOf(t).check = check;
    return TRUE;
}

ObjTranslator ObjGetTranslator(const void *object) {
    const ObjectTemplate *t = ObjGetTemplateFromObject(object);
    return t != nullptr ? t->Translator : nullptr;
}

const char *ObjFirstComponent(const char *format) { return format; }

const char *ObjNextComponent(const char *cursor) { return cursor != nullptr ? fh::nextComponent(cursor) : nullptr; }

int32_t ObjComponentDatatype(const char *cursor) {
    if (cursor == nullptr || *cursor == '\0') return eObjNone;
    const int32_t datatype = datatypeOfLetter(*cursor);
    if (datatype == eObjNone) trace(30, 1, 2, "Invalid component %c", *cursor);
    return datatype;
}

int32_t ObjComponentModifiers(const char *cursor) {
    if (cursor == nullptr || *cursor == '\0') return 0;
    int32_t modifiers = 0;
    for (const char *m = cursor + 1; *m != '\0' && *m != ';'; ++m) {
        if (*m >= '0' && *m <= '9') continue;
        if (*m == 'l')
            modifiers |= OBJ_MODIFIER_LOCAL;
        else
            trace(29, 1, 2, "Unknown component modifier '%c'", *m);
    }
    return modifiers;
}

int32_t ObjInlineSizeUsed(const char *cursor) {
    if (cursor == nullptr || *cursor == '\0') return 0;
    return static_cast<int32_t>(fh::inlineCount(cursor));
}

int32_t ObjInlineSize(const char *cursor) { return (ObjInlineSizeUsed(cursor) + 3) & ~3; }

BOOL ObjIncRefCount(void *object) {
    if (object == nullptr) return FALSE;
    ObjectHeader *h = objectHeader(object);
    if (!OBJ_VALID_MAGIC(h->StartMagic)) {
        return trace.fault(FALSE, 26, 0, "ObjIncRefCount - Invalid Magic for object at %p", object);
    }
    ++h->RefCount;
    return TRUE;
}

BOOL ObjReleaseInternal(void *objectAddress) {
    if (objectAddress == nullptr) {
        return trace.faultAt(3, FALSE, 74, 0, "ObjRelease - Invalid pointer to Object");
    }
    void *&slot = *static_cast<void **>(objectAddress);
    if (slot == nullptr) return FALSE;
    switch (drop(slot)) {
    case Drop::kRefused: return FALSE;
    case Drop::kHeld: slot = nullptr; return TRUE;
    case Drop::kDied: break;
    }
    ObjectHeader *h = objectHeader(slot);
    slot = nullptr;
    ObjectHeader *dying = nullptr;
    const bool ok = releaseComponents(h, dying);
    fh::freeBlock(h);
    return (dying == nullptr || releaseDying(dying)) && ok;
}

void ObjRemoveFromLog(void) {}

void ObjCheck(const void *object) {
    if (object == nullptr) return;
    const ObjectHeader *h = objectHeader(object);
    if (!OBJ_VALID_MAGIC(h->StartMagic)) {
        trace(147, 0, -1, "ObjCheck - Invalid Magic for object at %p", object);
    } else if (endMagicOf(h) != h->StartMagic) {
        trace(146, 0, -1, "ObjCheck - Corrupt object at %p", object);
    } else {
        MemCheck(h);
        return;
    }
    ProcCrash(0);
}

BOOL ObjGetMagic(const void *object, uint32_t *magic) {
    if (magic == nullptr) return FALSE;
    *magic = 0;
    if (object == nullptr) return FALSE;
    const ObjectHeader *h = objectHeader(object);
    const uint32_t start = h->StartMagic;
    if (const std::optional<uint32_t> end = endMagicOf(h); end != start) {
        trace(28, 1, -1, "Start/end magic disagree - object is corrupt %lx %lx", static_cast<unsigned long>(start),
              static_cast<unsigned long>(end.value_or(0)));
        return FALSE;
    }
    if (!OBJ_VALID_MAGIC(start)) {
        trace(27, 1, -1, "Magic number is present but invalid");
        return FALSE;
    }
    *magic = start;
    return TRUE;
}

BOOL ObjHasValidGlobalMagic(const void *object) {
    uint32_t magic;
    return ObjGetMagic(object, &magic);
}

BOOL ObjCheckTypeInternal(const void *object, uint32_t magic) {
    uint32_t actual;
    return ObjGetMagic(object, &actual) && actual == magic && !blockOf(objectHeader(object)->Template).retired;
}

const char *ObjNameFromObject(const void *object) {
    if (object == nullptr) return "NULL Object";
    if (!ObjHasValidGlobalMagic(object)) return "Invalid Object";
    return objectHeader(object)->Template->Name;
}

const char *ObjNameFromMagic(uint32_t magic) {
    if (magic == 0) return "No Magic";
    if (!OBJ_VALID_MAGIC(magic)) return "Invalid Magic";
    auto [found, index] = findTemplate(magic);
    return found ? gTable[index]->Name : "Unknown Object";
}

BOOL ObjSetObjName(uint32_t magic, const char *name) {
    if (!OBJ_VALID_MAGIC(magic) || name == nullptr || *name == '\0' || nameFromNameMap(magic) != nullptr)
        return FALSE;
    const NameEntry entry = {magic, StrDuplicateIntoPool(name, pool())};
    if (!MapInsertEntry(gNameMap, &entry)) {
        char *unused = entry.name;
        MemFreeInternal(&unused);
        return FALSE;
    }
    ++gTemplateBlocks;
    if (auto [found, index] = findTemplate(magic); found) {
        MemFreeInternal(&gTable[index]->Name);
        gTable[index]->Name = StrDuplicateIntoPool(name, pool());
    }
    return TRUE;
}

ObjectTemplate *ObjGetTemplateFromObject(const void *object) {
    return ObjHasValidGlobalMagic(object) ? objectHeader(object)->Template : nullptr;
}

ObjectDescriptor *ObjGetDbData(const void *object) {
    ObjectTemplate *t = ObjGetTemplateFromObject(object);
    return t != nullptr ? &t->Descriptor : nullptr;
}

ObjectDescriptor *ObjGetDbDataFromTemplate(ObjectTemplate *objectTemplate) {
    return objectTemplate != nullptr ? &objectTemplate->Descriptor : nullptr;
}

const char *ObjGetFormat(const ObjectTemplate *objectTemplate) {
    return objectTemplate != nullptr ? objectTemplate->Descriptor.Format : nullptr;
}

const char *ObjGetDescriptor(const void *object) { return ObjGetFormat(ObjGetTemplateFromObject(object)); }

BOOL ObjGetViewInfo(ObjViewInfo *out, const void *object) {
    if (out == nullptr || object == nullptr) return FALSE;
    const ObjectDescriptor *d = ObjGetDbData(object);
    if (d == nullptr || d->FieldCount < 1 || d->Entries[0].Datatype != eObjViewInfo) {
        *out = ObjViewInfo{-1, nullptr, nullptr};
        return FALSE;
    }
    *out = field<ObjViewInfo>(const_cast<void *>(object), d->Entries[0]);
    return TRUE;
}

int32_t ObjGetInstanceCount(uint32_t magic) {
    auto [found, index] = findTemplate(magic);
    return found ? gTable[index]->Instances : -1;
}

BOOL ObjDuplicateInternal(void **out, const void *object, BOOL keepLocal) {
    if (out == nullptr || !ObjHasValidGlobalMagic(object)) return FALSE;
    fh::SeenIndex seen;
    *out = copyObject(object, keepLocal != FALSE, seen);
    return TRUE;
}

BOOL ObjQuickSort(void **array, int32_t last, ObjCompareFunction compare) {
    if (last >= 1 && (array == nullptr || compare == nullptr)) return FALSE;
    return quickSort(array, last, compare);
}

BOOL ObjQuickSortWithCookie(void **array, int32_t last, ObjCompareWithCookieFunction compare, void *cookie) {
    if (last >= 1 && (array == nullptr || compare == nullptr)) return FALSE;
    return quickSort(array, last, [&](void *a, void *b) { return compare(a, b, cookie); });
}

void ObjSetFromTagsVA(void *object, int32_t first, ...) {
    va_list pairs;
    va_start(pairs, first);
    applyTags(object, first, pairs, 161);
    va_end(pairs);
}

void ObjSetFromTagsStepperInternal(int32_t first, ...) {
    va_list pairs;
    va_start(pairs, first);
    applyTags(gtLmContext.pObjTagTarget, first, pairs, 159);
    va_end(pairs);
}

void ObjSetFromTagsVAListInternal(void *object, va_list pairs) {
    const ObjectDescriptor *d = ObjGetDbData(object);
    if (d == nullptr) return;
    for (int tag = va_arg(pairs, int); tag != -1; tag = va_arg(pairs, int)) {
        const int32_t datatype = tag >= 0 && tag < d->FieldCount ? d->Entries[tag].Datatype : eObjNone;
        if (datatype == eObjBoolean || datatype == eObjInteger) {
            field<int32_t>(object, d->Entries[tag]) = va_arg(pairs, int);
        } else if (datatype == eObjString) {
            char *&text = field<char *>(object, d->Entries[tag]);
            MemFreeInternal(&text);
            text = StrDuplicateIntoPool(va_arg(pairs, const char *), pool());
        } else {
            trace(160, 0, -1, "Unsupported field type for tag. Tag value %ld, field type %ld, obj type '%s'",
                  static_cast<long>(tag), static_cast<long>(datatype), ObjNameFromObject(object));
            ProcCrash(0);
            (void)va_arg(pairs, void *); // the value of the refused pair
        }
    }
}

int32_t ObjCount(void) { return gtLmContext.iObjUsed; }
int32_t ObjMax(void) { return gtLmContext.iObjMax; }
int32_t ObjAllocations(void) { return gtLmContext.iObjAllocations; }

BOOL ObjInitialize(void) {
    if (gNameMap != nullptr) return TRUE;
    return MapCreate(&gNameMap, sizeof(NameEntry), 64, compareNameEntries, nullptr, nullptr);
}

BOOL ObjInitializeThread(void) { return TRUE; }

void ObjReleaseThread(LmContext *context) {
    trace(142, 0, 3, "ObjReleaseThread %ld object left", static_cast<long>(context->iObjUsed));
}
