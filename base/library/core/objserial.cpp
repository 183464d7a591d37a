// objserial.cpp - the byte form of objects.
//
// One writer and one reader carry every operation. The writer puts bytes
// into a window (the caller's memory, the descriptor's buffer, or a staging
// area in front of a Transfer callback) and only leaves its inline path when
// the window is full: then it grows the buffer, hands the staged bytes to
// Transfer, or, when it only measures, counts. The reader takes bytes from a
// window of memory or through Transfer, and keeps a budget of the bytes that
// may still come: every size and count read from the bytes is checked against
// that budget before anything is allocated, so a bounded reader allocates no
// more than its input justifies.
//
// Back references: a writer's Seen map pairs an object's address with its
// id; a reader's pairs an id with its object, entered before the object's own
// components are read, so that they can refer back to it. A bounded reader
// also refuses a back reference into an object whose body is still open: a
// cycle could not be released again, and no writer of ours makes one but
// from an object that holds itself.
//
// Pointers: a p component is a u32 in bytes that leave the process. An
// ObjStream with InProcess set writes and reads it at pointer width (low
// byte first); ObjDuplicate and ObjCompare use such streams, so a pointer
// above 4 GiB survives a copy.
#include "core/objserial.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>

#include "core/file.h"
#include "core/filesys.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objmap.h"
#include "core/objwalk.h"
#include "core/stanza.h"
#include "codec.h"
#include "mapcore.h"
#include "objcontainer.h"
#include "objcore.h"
#include "seenindex.h"
#include "sizes.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"OBJECT        "};
using Byte = unsigned char;

// Trace ids of our own, beside the fixed ones of the byte form.
enum TraceId : int32_t {
    kIdBoundedRefused = 190,
    kIdTooDeep = 191,
    kIdTooManyTypes = 192,
    kIdOpenBackReference = 193,
    kIdDuplicateId = 194,
    kIdNotReceivable = 197,
    kIdOverBudget = 198,
    kIdTooManyNewTypes = 199,
    kIdDoesNotHold = 200,
};

// How deep a bounded reader lets objects nest.
constexpr int32_t kMaxDepth = 200;

MemPool *gPool = nullptr;
MemPool *pool() {
    if (gPool == nullptr) gPool = MemGetDefaultPoolId();
    return gPool;
}

using fh::readLe32;
using fh::writeLe32;
using fh::entriesOf;
using fh::field;
using fh::refCount;

// ---------------------------------------------------------------- Seen maps

int32_t locateId(const void *entry, const void *stored) {
    const int32_t a = static_cast<const ObjMapAddressEntry *>(entry)->iId;
    const int32_t b = static_cast<const ObjMapAddressEntry *>(stored)->iId;
    return a < b ? -1 : a > b ? 1 : 0;
}
int32_t findId(const void *key, const void *stored) {
    const int32_t a = *static_cast<const int32_t *>(key), b = static_cast<const ObjMapAddressEntry *>(stored)->iId;
    return a < b ? -1 : a > b ? 1 : 0;
}

bool ensureSeen(ObjStream &s, bool byAddress) {
    if (s.Seen != nullptr) return true;
    return byAddress ? MapCreate(&s.Seen, sizeof(ObjMapAddressEntry), 16, ObjMapAddressLocate, ObjMapAddressFind, nullptr)
                     : MapCreate(&s.Seen, sizeof(ObjMapAddressEntry), 16, locateId, findId, nullptr);
}

// A stream of one operation: a fresh Seen, ids from 1, released at the end.
struct OwnStream {
    ObjStream s{};
    OwnStream(bool local, bool inProcess) {
        s.Local = local ? TRUE : FALSE;
        s.InProcess = inProcess ? TRUE : FALSE;
    }
    ~OwnStream() {
        if (s.Seen != nullptr) ObjReleaseInternal(&s.Seen);
    }
};

// The objects one operation has met: a private index (seenindex.h) in front
// of the stream's Seen map, which holds what earlier calls on a caller's
// stream met. The operation enters its objects into the index only; an
// operation on a caller's stream hands them to the map when it ends
// (publish), in one merge, so that the map stays what callers see.
class Seen {
  public:
    Seen(ObjStream &s, bool byAddress) : s_(s), byAddress_(byAddress) {}

    // The id of an address (writer), or the object of an id (reader).
    bool find(uintptr_t key, uintptr_t &value) const {
        if (index_.find(key, value)) return true;
        if (s_.Seen == nullptr || s_.Seen->iCount == 0) return false;
        void *found = nullptr;
        const auto id = static_cast<int32_t>(key);
        if (!MapFindEntry(&found, s_.Seen, byAddress_ ? reinterpret_cast<const void *>(key) : &id)) return false;
        const auto *entry = static_cast<const ObjMapAddressEntry *>(found);
        value = byAddress_ ? static_cast<uintptr_t>(entry->iId) : reinterpret_cast<uintptr_t>(entry->pObject);
        return true;
    }
    bool put(uintptr_t key, uintptr_t value) { return index_.put(key, value); }
    size_t size() const { return index_.size(); }
    void erase(uintptr_t key) {
        index_.erase(key);
        const auto id = static_cast<int32_t>(key);
        if (!byAddress_ && s_.Seen != nullptr) MapDeleteEntry(s_.Seen, &id);
    }

    // Enters what the operation met into the stream's map.
    bool publish() {
        if (index_.size() == 0) return true;
        if (!ensureSeen(s_, byAddress_)) return false;
        auto *entries = static_cast<ObjMapAddressEntry *>(MemAllocateFromPool(index_.size() * sizeof(ObjMapAddressEntry), pool()));
        if (entries == nullptr) return false;
        size_t n = 0;
        index_.forEach([&](uintptr_t key, uintptr_t value) {
            entries[n++] = byAddress_ ? ObjMapAddressEntry{static_cast<int32_t>(value), reinterpret_cast<void *>(key)}
                                      : ObjMapAddressEntry{static_cast<int32_t>(key), reinterpret_cast<void *>(value)};
        });
        const MapCompareFunction locate = s_.Seen->pfnLocate;
        std::sort(entries, entries + n, [locate](const ObjMapAddressEntry &a, const ObjMapAddressEntry &b) {
            return locate(&a, &b) < 0;
        });
        const bool merged = fh::mapMergeSorted(s_.Seen, sizeof(ObjMapAddressEntry), entries, static_cast<int32_t>(n));
        MemFreeInternal(&entries);
        return merged;
    }

  private:
    ObjStream &s_;
    bool byAddress_;
    fh::SeenIndex index_;
};

// ------------------------------------------------------------------ writer

class Writer {
  public:
    enum class Sink { measure, memory, buffer, stream };

    Writer(ObjStream &s, Sink sink) : s_(s), seen_(s, true), sink_(sink) {
        if (sink == Sink::stream) open(stage_.data(), stage_.size());
    }
    void open(Byte *window, size_t room) {
        base_ = at_ = window;
        room_ = room;
    }

    // Inline everywhere, so that the copy of a fixed count is a store.
    [[gnu::always_inline]] bool bytes(const void *p, size_t n) {
        if (n <= room_) {
            if (n != 0) memcpy(at_, p, n);
            at_ += n;
            room_ -= n;
            return true;
        }
        return overflow(static_cast<const Byte *>(p), n);
    }
    bool byte(Byte b) { return bytes(&b, 1); }
    bool u32(uint32_t v) {
        Byte b[4];
        writeLe32(b, v);
        return bytes(b, 4);
    }
    bool string(const char *text) {
        if (text == nullptr) return u32(0);
        const size_t n = strlen(text) + 1;
        return n <= INT32_MAX && u32(static_cast<uint32_t>(n)) && bytes(text, n);
    }
    bool pointer(void *p) {
        const auto v = reinterpret_cast<uintptr_t>(p);
        if (!s_.InProcess) return u32(static_cast<uint32_t>(v));
        Byte b[fh::kPointerBytes];
        fh::writePointerBytes(b, v);
        return bytes(b, sizeof b);
    }

    // Bytes written so far; staged bytes go to Transfer.
    size_t written() const { return counted_ + static_cast<size_t>(at_ - base_); }
    bool finish() { return sink_ != Sink::stream || flush(); }
    // Writes at the descriptor's Used; written() is then the new Used.
    void attach(ObjBufferDescriptor *d) {
        buffer_ = d;
        if (d->Buffer != nullptr && d->Capacity > d->Used)
            open(reinterpret_cast<Byte *>(d->Buffer) + d->Used, static_cast<size_t>(d->Capacity - d->Used));
        counted_ = static_cast<size_t>(d->Used);
    }
    void detach() { buffer_->Used = static_cast<int32_t>(written()); }

    ObjStream &stream() { return s_; }
    Seen &seen() { return seen_; }

  private:
    bool flush() {
        const auto n = static_cast<int32_t>(at_ - base_);
        if (n == 0) return true;
        counted_ += static_cast<size_t>(n);
        open(stage_.data(), stage_.size());
        return s_.Transfer(s_.Cookie, stage_.data(), n) != FALSE;
    }

    [[gnu::noinline]] bool overflow(const Byte *p, size_t n) {
        switch (sink_) {
        case Sink::measure: counted_ += n; return true;
        case Sink::memory: return false;
        case Sink::buffer: return grow(n) && bytes(p, n);
        case Sink::stream:
            if (!flush()) return false;
            if (n <= room_) return bytes(p, n);
            counted_ += n;
            return n <= INT32_MAX && s_.Transfer(s_.Cookie, const_cast<Byte *>(p), static_cast<int32_t>(n)) != FALSE;
        }
        return false;
    }

    // The new capacity is Start plus twice the capacity plus n plus 1,024,
    // reckoned in 64 bits: a 32-bit size_t would wrap round to a small one.
    bool grow(size_t n) {
        ObjBufferDescriptor &d = *buffer_;
        const size_t used = written();
        const uint64_t wanted = static_cast<uint64_t>(d.Start) + 2 * static_cast<uint64_t>(d.Capacity) + n + 1024;
        if (wanted > INT32_MAX) return false;
        const auto capacity = static_cast<size_t>(wanted);
        auto *grown = static_cast<char *>(MemAllocateFromPool(capacity, pool()));
        if (d.Buffer != nullptr) memcpy(grown, d.Buffer, std::min(used, static_cast<size_t>(d.Capacity)));
        if (d.Owned) MemFreeInternal(&d.Buffer);
        d.Buffer = grown;
        d.Capacity = static_cast<int32_t>(capacity);
        d.Owned = TRUE;
        open(reinterpret_cast<Byte *>(grown) + used, capacity - used);
        counted_ = used;
        return true;
    }

    ObjStream &s_;
    Seen seen_;
    Sink sink_;
    Byte *base_ = nullptr, *at_ = nullptr;
    size_t room_ = 0;
    size_t counted_ = 0; // bytes before base_
    ObjBufferDescriptor *buffer_ = nullptr;
    std::array<Byte, 4096> stage_;
};

bool writeObject(Writer &w, const void *object);

bool writeStanza(Writer &w, const Stanza *stanza);

bool writeComponent(Writer &w, void *object, const ComponentEntry &e) {
    switch (e.Datatype) {
    case eObjBoolean: return w.byte(field<int32_t>(object, e) != 0 ? 1 : 0);
    case eObjInteger: return w.u32(static_cast<uint32_t>(field<int32_t>(object, e)));
    case eObjPointer: return w.pointer(field<void *>(object, e));
    case eObjString: return w.string(field<char *>(object, e));
    case eObjObject:
        if (e.Local && !w.stream().Local) return w.byte(0);
        return writeObject(w, field<void *>(object, e));
    case eObjStanza: return writeStanza(w, field<Stanza *>(object, e));
    case eObjData: {
        const ObjData &data = field<ObjData>(object, e);
        const uint32_t size = data.pData != nullptr && data.iSize > 0 ? static_cast<uint32_t>(data.iSize) : 0;
        return w.u32(size) && w.bytes(data.pData, size);
    }
    case eObjInline:
        return w.u32(static_cast<uint32_t>(e.InlineSize)) &&
               w.bytes(&field<char>(object, e), static_cast<size_t>(e.InlineSize));
    case eObjViewInfo: {
        const ObjViewInfo &view = field<ObjViewInfo>(object, e);
        return w.u32(static_cast<uint32_t>(view.iWord)) && w.string(view.pszString) && writeStanza(w, view.pStanza);
    }
    case eObjInt64: {
        const auto value = static_cast<uint64_t>(field<int64_t>(object, e));
        return w.u32(fh::lowHalf(value)) && w.u32(fh::highHalf(value));
    }
    case eObjUnique: return w.bytes(&field<char>(object, e), 32);
    case eObjBackLink:
        return trace.fault(false, 36, 1, "Invalid component: BackwardLink");
    default:
        return trace.fault(false, 37, 1, "Invalid component");
    }
}

// The writer as a container's write operation sees it.
class WriterPort : public fh::ObjectWriter {
  public:
    explicit WriterPort(Writer &w) : w_(w) {}
    bool byte(uint8_t value) override { return w_.byte(value); }
    bool u32(uint32_t value) override { return w_.u32(value); }
    bool object(const void *object) override { return writeObject(w_, object); }

  private:
    Writer &w_;
};

bool writeBody(Writer &w, const void *object, uint32_t magic) {
    if (!w.u32(magic)) return false;
    if (const fh::ContainerOperations *operations = fh::containerOperations(magic)) {
        WriterPort port(w);
        if (!operations->write(port, object)) return false;
        if (operations->items == nullptr) return true;
        return fh::forEachChainItem(*operations->items, object, [&w](const void *item) { return writeObject(w, item); }) &&
               w.u32(magic);
    }
    const ObjectTemplate *t = fh::objectHeader(object)->Template;
    if (!w.string(t->Descriptor.Format)) return false;
    for (const ComponentEntry &e : entriesOf(t))
        if (!writeComponent(w, const_cast<void *>(object), e)) return false;
    return true;
}

bool writeObject(Writer &w, const void *object) {
    if (object == nullptr) return w.byte(0);
    if (refCount(object) == 1) {
        if (!w.byte(1)) return false;
    } else {
        const auto address = reinterpret_cast<uintptr_t>(object);
        uintptr_t id = 0;
        if (w.seen().find(address, id)) return w.byte(3) && w.u32(static_cast<uint32_t>(id));
        id = static_cast<uint32_t>(++w.stream().NextId);
        if (!w.seen().put(address, id)) return false;
        if (!w.byte(2) || !w.u32(static_cast<uint32_t>(id))) return false;
    }
    uint32_t magic = 0;
    if (!ObjGetMagic(object, &magic)) {
        trace(43, 1, 0, "Failed to read magic from object at %p", object);
        return false;
    }
    return writeBody(w, object, magic);
}

// Stanzas: present flag, title (category, colon and title when it has a
// category), key count and capacity, and each key: keyword, value count and
// capacity, values.
bool writeTitle(Writer &w, const Stanza *stanza) {
    if (stanza->category == nullptr) return w.string(stanza->title);
    const size_t category = strlen(stanza->category);
    const size_t title = stanza->title != nullptr ? strlen(stanza->title) : 0;
    const size_t size = category + 1 + title + 1;
    return size <= INT32_MAX && w.u32(static_cast<uint32_t>(size)) && w.bytes(stanza->category, category) &&
           w.byte(':') && w.bytes(stanza->title, title) && w.byte(0);
}

bool writeStanza(Writer &w, const Stanza *stanza) {
    if (stanza == nullptr) return w.byte(0);
    if (!w.byte(1) || !writeTitle(w, stanza) || !w.u32(static_cast<uint32_t>(stanza->keyCount)) ||
        !w.u32(static_cast<uint32_t>(stanza->keyCapacity)))
        return false;
    for (int32_t k = 0; k < stanza->keyCount; ++k) {
        const StanzaKey *key = stanza->keys[k];
        if (!w.string(key->keyword) || !w.u32(static_cast<uint32_t>(key->valueCount)) ||
            !w.u32(static_cast<uint32_t>(key->valueCapacity)))
            return false;
        for (int32_t v = 0; v < key->valueCount; ++v)
            if (!w.string(key->values[v])) return false;
    }
    return true;
}

// ------------------------------------------------------------------ reader

// The pool bytes of an instance of a type the reader makes by its own code.
size_t instanceBytes(uint32_t magic) {
    return fh::memBlockBytes(static_cast<size_t>(fh::objectInstanceSize(magic)));
}

class Reader {
  public:
    // Memory: budget is the byte count that may be read (SIZE_MAX: trusted).
    Reader(ObjStream &s, const void *memory, size_t budget, bool bounded)
        : s_(s), at_(static_cast<const Byte *>(memory)), left_(budget), budget_(budget), bounded_(bounded),
          lengthKnown_(true), length_(budget) {}
    // Through Transfer, with the bytes that may still come (SIZE_MAX: not
    // known, and then a bounded reader's memory grows with what it read).
    Reader(ObjStream &s, size_t budget, bool bounded)
        : s_(s), budget_(budget), bounded_(bounded), lengthKnown_(budget != SIZE_MAX), length_(budget) {}

    // Inline everywhere, so that the copy of a fixed count is a load.
    [[gnu::always_inline]] bool bytes(void *to, size_t n) {
        if (const Byte *in = take(n)) {
            if (n != 0) memcpy(to, in, n);
            return true;
        }
        return transfer(to, n);
    }
    // The next n bytes where they lie in memory, passed over; null when they
    // are not all there.
    [[gnu::always_inline]] const Byte *take(size_t n) {
        if (n > left_) return nullptr;
        const Byte *in = at_;
        at_ += n;
        left_ -= n;
        budget_ -= n;
        consumed_ += n;
        return in;
    }
    [[gnu::noinline]] bool transfer(void *to, size_t n) {
        if (s_.Transfer == nullptr || n > budget_ || n > INT32_MAX) return false;
        budget_ -= n;
        consumed_ += n;
        return n == 0 || s_.Transfer(s_.Cookie, to, static_cast<int32_t>(n)) != FALSE;
    }
    bool byte(Byte &b) { return bytes(&b, 1); }
    bool u32(uint32_t &v) {
        Byte b[4];
        if (!bytes(b, 4)) return false;
        v = readLe32(b);
        return true;
    }
    // A p component: a bounded reader takes none but null.
    bool pointer(void *&p) {
        if (!s_.InProcess) {
            uint32_t v = 0;
            if (!u32(v)) return false;
            if (bounded_ && v != 0) return refuse("pointer", v);
            p = reinterpret_cast<void *>(static_cast<uintptr_t>(v));
            return true;
        }
        Byte b[fh::kPointerBytes];
        if (!bytes(b, sizeof b)) return false;
        p = reinterpret_cast<void *>(fh::readPointerBytes(b));
        return true;
    }
    // A count of things of at least unit bytes each that the rest can hold.
    bool plausible(uint64_t count, size_t unit = 1) const { return count <= budget_ / unit; }

    // Memory a bounded reader is about to allocate, in pool bytes: refused,
    // with a trace, when it would take the reader past its allowance (see
    // objserial.h). Charges are never given back, so the allowance bounds
    // the peak of what the read holds.
    bool charge(size_t poolBytes) {
        if (!bounded_) return true;
        const size_t basis = lengthKnown_ ? length_ : consumed_;
        const size_t limit = basis > (SIZE_MAX - OBJ_RECEIVE_FIXED_BYTES) / OBJ_RECEIVE_BYTES_PER_BYTE
                                 ? SIZE_MAX
                                 : basis * OBJ_RECEIVE_BYTES_PER_BYTE + OBJ_RECEIVE_FIXED_BYTES;
        if (poolBytes <= limit - charged_) {
            charged_ += poolBytes;
            return true;
        }
        trace(kIdOverBudget, 1, -1, "Refused bytes: %lu bytes of input may not take more than %lu bytes of memory",
              static_cast<unsigned long>(basis), static_cast<unsigned long>(limit));
        return false;
    }
    bool chargeBlock(size_t userBytes) { return charge(fh::memBlockBytes(userBytes)); }

    // A string: u32 size, then the bytes with their NUL; size 0 is null.
    bool string(char *&out) {
        uint32_t size = 0;
        out = nullptr;
        if (!u32(size)) return false;
        if (size == 0) return true;
        if (!plausible(size)) return refuse("string of %lu bytes", size);
        if (!chargeBlock(size)) return false;
        auto *text = static_cast<char *>(MemAllocateFromPool(size, pool()));
        if (!bytes(text, size) || text[size - 1] != 0) {
            MemFreeInternal(&text);
            return false;
        }
        out = text;
        return true;
    }

    // A string that must not be null, read in place where the bytes are in
    // memory, otherwise into owned (which the caller frees); null on failure.
    const char *text(char *&owned) {
        uint32_t size = 0;
        owned = nullptr;
        if (!u32(size) || size == 0) return nullptr;
        if (size <= left_) {
            const auto *in = reinterpret_cast<const char *>(at_);
            if (in[size - 1] != 0) return nullptr;
            at_ += size;
            left_ -= size;
            budget_ -= size;
            consumed_ += size;
            return in;
        }
        if (!plausible(size) || !chargeBlock(size)) return nullptr;
        owned = static_cast<char *>(MemAllocateFromPool(size, pool()));
        if (!bytes(owned, size) || owned[size - 1] != 0) MemFreeInternal(&owned);
        return owned;
    }

    ObjectTemplate *lastTemplate() const { return lastTemplate_; }
    uint64_t leastBytesOfLast() const { return leastBytes_; }
    void keepTemplate(ObjectTemplate *t, uint64_t leastBytes) {
        lastTemplate_ = t;
        leastBytes_ = leastBytes;
    }

    // Whether a bounded reader may make a template for a received format:
    // within the types one read may add and those the process may hold,
    // and within its allowance. Traced when not.
    bool mayMakeType(uint32_t magic, const char *format) {
        if (!bounded_) return true;
        const size_t bytes = fh::objectTemplateBytes(magic, format);
        if (newTypes_ >= OBJ_RECEIVE_NEW_TYPES_PER_READ) {
            trace(kIdTooManyNewTypes, 1, -1, "Refused a new type %lx: %ld new types in one read",
                  static_cast<unsigned long>(magic), static_cast<long>(newTypes_));
            return false;
        }
        if (fh::objectForeignTemplates() >= OBJ_RECEIVE_NEW_TYPES ||
            fh::objectForeignTemplateBytes() + bytes > OBJ_RECEIVE_NEW_TYPE_BYTES) {
            trace(kIdTooManyTypes, 1, -1, "Refused a new type %lx: %ld received types known",
                  static_cast<unsigned long>(magic), static_cast<long>(fh::objectForeignTemplates()));
            return false;
        }
        return charge(bytes);
    }
    void madeType() { ++newTypes_; }

    bool refuse(const char *what, unsigned long value) {
        if (bounded_) trace(kIdBoundedRefused, 1, -1, "Refused bytes: %s %lu", what, value);
        return false;
    }

    ObjStream &stream() { return s_; }
    Seen &seen() { return seen_; }
    bool bounded() const { return bounded_; }

    // Objects whose bodies are open, for the bounded reader's checks.
    bool enter(void *object) {
        if (depth_ == kMaxDepth) {
            trace(kIdTooDeep, 1, -1, "Objects nested deeper than %ld", static_cast<long>(kMaxDepth));
            return false;
        }
        open_[depth_++] = object;
        return true;
    }
    void leave() { --depth_; }
    bool isOpen(const void *object) const { return std::find(open_.begin(), open_.begin() + depth_, object) != open_.begin() + depth_; }
    int32_t depth() const { return depth_; }

  private:
    ObjStream &s_;
    Seen seen_{s_, false};
    const Byte *at_ = nullptr;
    size_t left_ = 0;
    size_t budget_;
    bool bounded_ = false;
    bool lengthKnown_;
    size_t length_;        // of the whole input, when known
    size_t consumed_ = 0;  // bytes read so far
    size_t charged_ = 0;   // pool bytes the read has allocated
    int32_t newTypes_ = 0; // templates this read made
    int32_t depth_ = 0;
    ObjectTemplate *lastTemplate_ = nullptr;
    uint64_t leastBytes_ = 0;
    std::array<void *, kMaxDepth> open_;
};

bool readObject(Reader &r, void **out);
bool readStanza(Reader &r, Stanza **out);

// Enters a decoded object under its id (0: none) before its body is read.
bool remember(Reader &r, int32_t id, void *object) {
    if (id == 0) return true;
    // The index's first slots, then its share of the peak for each entry.
    using fh::SeenIndex;
    if (r.seen().size() == 0 && !r.chargeBlock(3 * SeenIndex::kFirstSlots * sizeof(SeenIndex::Slot))) return false;
    if (!r.charge(SeenIndex::kPeakBytesPerKey)) return false;
    uintptr_t found = 0;
    if (r.bounded() && r.seen().find(static_cast<uintptr_t>(id), found)) {
        trace(kIdDuplicateId, 1, -1, "Id %ld given twice", static_cast<long>(id));
        return false;
    }
    return r.seen().put(static_cast<uintptr_t>(id), reinterpret_cast<uintptr_t>(object));
}

void forget(Reader &r, int32_t id) {
    if (id != 0) r.seen().erase(static_cast<uintptr_t>(id));
}

bool readComponent(Reader &r, void *object, const ComponentEntry &e) {
    switch (e.Datatype) {
    case eObjBoolean: {
        Byte b = 0;
        if (!r.byte(b)) return false;
        field<int32_t>(object, e) = b != 0 ? TRUE : FALSE;
        return true;
    }
    case eObjInteger: {
        uint32_t v = 0;
        if (!r.u32(v)) return false;
        field<int32_t>(object, e) = static_cast<int32_t>(v);
        return true;
    }
    case eObjPointer: return r.pointer(field<void *>(object, e));
    case eObjString: return r.string(field<char *>(object, e));
    case eObjObject: return readObject(r, &field<void *>(object, e));
    case eObjStanza: return readStanza(r, &field<Stanza *>(object, e));
    case eObjData: {
        ObjData &data = field<ObjData>(object, e);
        uint32_t size = 0;
        if (!r.u32(size)) return false;
        if (size == 0) return true;
        if (size > INT32_MAX || !r.plausible(size)) return r.refuse("data of bytes", size);
        if (!r.chargeBlock(size)) return false;
        data.pData = MemAllocateFromPool(size, pool());
        data.iSize = static_cast<int32_t>(size);
        return r.bytes(data.pData, size);
    }
    case eObjInline: {
        uint32_t size = 0;
        return r.u32(size) && size == static_cast<uint32_t>(e.InlineSize) && r.bytes(&field<char>(object, e), size);
    }
    case eObjViewInfo: {
        ObjViewInfo &view = field<ObjViewInfo>(object, e);
        uint32_t word = 0;
        if (!r.u32(word)) return false;
        view.iWord = static_cast<int32_t>(word);
        return r.string(view.pszString) && readStanza(r, &view.pStanza);
    }
    case eObjInt64: {
        uint32_t low = 0, high = 0;
        if (!r.u32(low) || !r.u32(high)) return false;
        field<int64_t>(object, e) = static_cast<int64_t>(fh::joinHalves(low, high));
        return true;
    }
    case eObjUnique: return r.bytes(&field<char>(object, e), 32);
    default: trace(44, 1, -1, "ERROR: Unknown type to reconstruct"); return false;
    }
}

// Replaces every reference to one object by a reference to another.
struct Redirect {
    void *from;
    void *to;
};
int32_t redirectSlot(void *cookie, void **slot) {
    auto &r = *static_cast<Redirect *>(cookie);
    if (*slot != r.from) return eObjWalkEnter;
    ObjReleaseInternal(slot);
    ObjIncRefCount(r.to);
    *slot = r.to;
    return eObjWalkSkip;
}

// A decoded object of an older shape goes through its template's translator.
bool translate(Reader &r, void *&object, int32_t id) {
    const ObjTranslator translator = ObjGetTranslator(object);
    if (translator == nullptr) return true;
    const bool referenced = id != 0 && refCount(object) >= 2;
    void *old = object;
    switch (translator(&object)) {
    case 1: return true;
    case 2:
        if (id == 0) return true;
        if (referenced) {
            Redirect redirect{old, object};
            ObjWalk(&object, redirectSlot, &redirect, 0);
        }
        return remember(r, id, object);
    case 3: trace(168, 0, -1, "Failed to translate simple object"); break;
    default: trace(169, 0, -1, "Error translating simple object"); break;
    }
    forget(r, id);
    ObjReleaseInternal(&object);
    return false;
}

// The fewest bytes in which the components of a template can be written: a
// reader refuses a type whose instance the bytes left cannot justify.
uint64_t leastBytes(const ObjectTemplate *t) {
    uint64_t total = 0;
    for (const ComponentEntry &e : entriesOf(t))
        total += static_cast<uint64_t>(fh::kDatatypes[e.Datatype].leastStored) +
                 (e.Datatype == eObjInline ? static_cast<uint64_t>(e.InlineSize) : 0);
    return total;
}

// The template of a received magic and format. The reader keeps the last
// one, as the objects of one message tend to be of one type; templates live
// until the process ends, so a bounded reader makes new ones only within
// its bounds.
ObjectTemplate *templateFor(Reader &r, uint32_t magic, const char *format) {
    if (ObjectTemplate *last = r.lastTemplate(); last != nullptr && last->Magic == magic &&
                                                 strcmp(last->Descriptor.Format, format) == 0)
        return last;
    ObjectTemplate *t = fh::objectTemplateFind(magic, format);
    if (t == nullptr) {
        if (!r.mayMakeType(magic, format)) return nullptr;
        const int32_t before = fh::objectForeignTemplates();
        t = ObjTemplateNewInternal(-1, magic, format, nullptr);
        if (fh::objectForeignTemplates() != before) r.madeType();
    }
    if (t != nullptr) r.keepTemplate(t, leastBytes(t));
    return t;
}

// Whether a bounded reader may make objects of t, and the check it runs on
// each (objserial.h tells which types those are).
bool receivable(Reader &r, const ObjectTemplate *t, ObjReceivedCheck &check) {
    check = nullptr;
    if (!r.bounded() || fh::objectReception(t, &check) != fh::Reception::kRefused) return true;
    trace(kIdNotReceivable, 1, -1, "Refused a received %s %lx: a type of this process that may not arrive", t->Name,
          static_cast<unsigned long>(t->Magic));
    return false;
}

bool readSimple(Reader &r, uint32_t magic, int32_t id, void **out) {
    char *owned = nullptr;
    const char *format = r.text(owned);
    if (format == nullptr) {
        trace(121, 0, -1, "Failed to get format string");
        return false;
    }
    ObjectTemplate *t = templateFor(r, magic, format);
    MemFreeInternal(&owned);
    ObjReceivedCheck check = nullptr;
    void *object = t != nullptr && receivable(r, t, check) && r.plausible(r.leastBytesOfLast()) &&
                           r.chargeBlock(static_cast<size_t>(t->Descriptor.ObjSize))
                       ? ObjTemplateNewInstanceFromPool(t, pool())
                       : nullptr;
    if (object == nullptr) {
        trace(122, 0, -1, "Failed to create new object");
        return false;
    }
    bool ok = remember(r, id, object) && r.enter(object);
    if (ok) {
        int32_t index = 0;
        for (const ComponentEntry &e : entriesOf(t)) {
            if (!readComponent(r, object, e)) {
                trace(123, 0, -1, "Failed to reconstruct simple object %lx %ld field %ld type %ld",
                      static_cast<unsigned long>(magic), static_cast<long>(id), static_cast<long>(index),
                      static_cast<long>(e.Datatype));
                ok = false;
                break;
            }
            ++index;
        }
        r.leave();
    }
    if (ok && check != nullptr && !check(object)) {
        trace(kIdDoesNotHold, 1, -1, "Refused a received %s %lx: its fields do not hold together", t->Name,
              static_cast<unsigned long>(magic));
        ok = false;
    }
    if (!ok) {
        forget(r, id);
        ObjReleaseInternal(&object);
        return false;
    }
    if (!translate(r, object, id)) return false;
    *out = object;
    return true;
}

// The reader as a container's read operation sees it.
class ReaderPort : public fh::ObjectReader {
  public:
    explicit ReaderPort(Reader &r) : r_(r) {}
    bool byte(uint8_t &value) override { return r_.byte(value); }
    bool u32(uint32_t &value) override { return r_.u32(value); }
    bool object(void **out) override { return readObject(r_, out); }
    bool plausible(uint64_t count) override { return r_.plausible(count); }
    size_t instanceBytes(uint32_t magic) override { return ::instanceBytes(magic); }
    bool charge(size_t poolBytes) override { return r_.charge(poolBytes); }
    bool remember(int32_t id, void *object) override { return ::remember(r_, id, object); }
    void forget(int32_t id) override { ::forget(r_, id); }
    bool enter(void *object) override { return r_.enter(object); }
    void leave() override { r_.leave(); }
    bool settle(bool ok, int32_t id, void *container, void **out) override {
        if (!ok) {
            ::forget(r_, id);
            ObjReleaseInternal(&container);
            return false;
        }
        *out = container;
        return true;
    }

  private:
    Reader &r_;
};

bool readObject(Reader &r, void **out) {
    *out = nullptr;
    Byte lead = 0;
    if (!r.byte(lead)) {
        trace(53, 1, -1, "Failed to read lead byte?");
        return false;
    }
    uint32_t id = 0;
    switch (lead) {
    case 0: return true;
    case 1: break;
    case 2:
        if (!r.u32(id)) return false;
        if (id == 0 || id > INT32_MAX) return r.refuse("id", id);
        break;
    case 3: {
        uintptr_t found = 0;
        if (!r.u32(id)) return false;
        const auto wanted = static_cast<int32_t>(id);
        if (wanted <= 0 || !r.seen().find(static_cast<uintptr_t>(wanted), found)) {
            trace(49, 1, -1, "Fatal error - entry not in map");
            return false;
        }
        void *object = reinterpret_cast<void *>(found);
        if (r.bounded() && r.isOpen(object)) {
            trace(kIdOpenBackReference, 1, -1, "Back reference %ld into an object not yet complete",
                  static_cast<long>(wanted));
            return false;
        }
        ObjIncRefCount(object);
        *out = object;
        return true;
    }
    default: trace(51, 1, -1, "Impossible scenario, location type %d", lead); return false;
    }
    uint32_t magic = 0;
    if (!r.u32(magic)) return false;
    if (const fh::ContainerOperations *operations = fh::containerOperations(magic)) {
        ReaderPort port(r);
        return operations->read(port, static_cast<int32_t>(id), out);
    }
    return readSimple(r, magic, static_cast<int32_t>(id), out);
}

// A count and a capacity of slots: the count within the capacity, within
// the bound of a stanza record and within what the bytes left can hold
// (each counted thing takes at least unit bytes). A spare slot takes no
// bytes at all, so to a bounded reader the capacity is a hint: it keeps a
// few spare slots (far above what stanzas have: they grow by one key and
// four values at a time) and no more.
constexpr uint32_t kSpareSlots = 16;
bool readSlots(Reader &r, uint32_t &count, uint32_t &capacity, size_t unit) {
    if (!r.u32(count) || !r.u32(capacity)) return false;
    if (count > capacity || count > STNZ_MAX_SLOTS || !r.plausible(count, unit)) return r.refuse("slots", count);
    if (r.bounded() && capacity - count > kSpareSlots) capacity = count;
    if (capacity > STNZ_MAX_SLOTS) return r.refuse("slots", capacity);
    return true;
}

// The pool bytes of a stanza or key record with capacity slots.
template <typename R> size_t recordBytes(uint32_t capacity) {
    return fh::memBlockBytes(sizeof(R) + std::max<size_t>(capacity, 1) * sizeof(void *));
}

bool readKey(Reader &r, StanzaKey **out) {
    char *keyword = nullptr;
    uint32_t count = 0, capacity = 0;
    const bool ok = r.string(keyword) && keyword != nullptr && readSlots(r, count, capacity, 4) &&
                    r.chargeBlock(strlen(keyword) + 1) && r.charge(recordBytes<StanzaKey>(capacity)) &&
                    StnzCreateKey(out, keyword, static_cast<int32_t>(capacity));
    MemFreeInternal(&keyword);
    if (!ok) return false;
    for (StanzaKey *key = *out; key->valueCount < static_cast<int32_t>(count); ++key->valueCount)
        if (!r.string(key->values[key->valueCount])) return false;
    return true;
}

bool readStanza(Reader &r, Stanza **out) {
    *out = nullptr;
    Byte present = 0;
    if (!r.byte(present)) return false;
    if (present == 0) return true;
    char *title = nullptr;
    uint32_t count = 0, capacity = 0;
    if (!r.string(title) || !readSlots(r, count, capacity, 13)) {
        MemFreeInternal(&title);
        return false;
    }
    char *colon = title != nullptr ? strchr(title, ':') : nullptr;
    if (colon != nullptr) *colon = '\0';
    const bool made = (title == nullptr || r.chargeBlock(strlen(title) + 1)) &&
                      (colon == nullptr || r.chargeBlock(strlen(colon + 1) + 1)) &&
                      r.charge(recordBytes<Stanza>(capacity)) &&
                      StnzCreate(out, colon != nullptr ? title : nullptr, colon != nullptr ? colon + 1 : title,
                                 static_cast<int32_t>(capacity));
    MemFreeInternal(&title);
    if (!made) return false;
    for (Stanza *stanza = *out; stanza->keyCount < static_cast<int32_t>(count); ++stanza->keyCount) {
        if (!readKey(r, &stanza->keys[stanza->keyCount])) {
            StnzReleaseKey(&stanza->keys[stanza->keyCount]);
            return false;
        }
    }
    return true;
}

// The top of every decode: one trace for any failure.
bool reconstructTop(Reader &r, void **out) {
    if (readObject(r, out)) return true;
    trace(54, 4, -1, "ObjReconstruct failed");
    return false;
}

// ------------------------------------------------------------------ files

BOOL fileWrite(void *cookie, void *address, int32_t count) {
    return count == 0 || fwrite(address, static_cast<size_t>(count), 1, static_cast<FILE *>(cookie)) == 1;
}
BOOL fileRead(void *cookie, void *address, int32_t count) {
    return count == 0 || fread(address, static_cast<size_t>(count), 1, static_cast<FILE *>(cookie)) == 1;
}

// The bytes left in a regular file from its position; SIZE_MAX otherwise.
size_t bytesLeftIn(FILE *file) {
    struct stat status {};
    const long position = ftell(file);
    if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode) || position < 0) return SIZE_MAX;
    return status.st_size > position ? static_cast<size_t>(status.st_size - position) : 0;
}

bool serializeToFile(const void *object, FILE *file) {
    OwnStream own(false, false);
    own.s.Transfer = fileWrite;
    own.s.Cookie = file;
    Writer w(own.s, Writer::Sink::stream);
    return writeObject(w, object) && w.finish();
}

// A file is bytes from elsewhere: the bounded reader reads it.
bool reconstructFromFile(void **out, FILE *file) {
    OwnStream own(false, false);
    own.s.Transfer = fileRead;
    own.s.Cookie = file;
    Reader r(own.s, bytesLeftIn(file), true);
    return reconstructTop(r, out);
}

// ------------------------------------------------------------------ helpers

// Measures an object's encoding; -1 when it cannot be encoded.
int32_t measure(const void *object, bool local, bool inProcess) {
    OwnStream own(local, inProcess);
    Writer w(own.s, Writer::Sink::measure);
    if (!writeObject(w, object) || w.written() > INT32_MAX) return -1;
    return static_cast<int32_t>(w.written());
}

bool toMemory(const void *object, void *memory, int32_t *length, bool local, bool inProcess) {
    if (memory == nullptr) return false;
    OwnStream own(local, inProcess);
    Writer w(own.s, Writer::Sink::memory);
    w.open(static_cast<Byte *>(memory), SIZE_MAX / 2);
    if (!writeObject(w, object)) return false;
    if (length != nullptr) *length = static_cast<int32_t>(w.written());
    return true;
}

bool fromMemory(void **out, const void *memory, size_t budget, bool bounded, bool inProcess) {
    OwnStream own(false, inProcess);
    Reader r(own.s, memory, budget, bounded);
    return reconstructTop(r, out);
}

// Runs fill on a writer attached to the descriptor, and stores the new Used.
template <typename Fill> bool intoBuffer(ObjBufferDescriptor *d, Fill fill) {
    OwnStream own(false, false);
    Writer w(own.s, Writer::Sink::buffer);
    w.attach(d);
    const bool ok = fill(w);
    w.detach();
    return ok;
}

// The in-process copy of an object's byte form, in a pool block.
Byte *inProcessForm(const void *object, int32_t &size) {
    size = measure(object, true, true);
    if (size < 0) return nullptr;
    auto *memory = static_cast<Byte *>(MemAllocateFromPool(static_cast<size_t>(size), pool()));
    if (!toMemory(object, memory, nullptr, true, true)) MemFreeInternal(&memory);
    return memory;
}

} // namespace

// ------------------------------------------------------------------ interface

BOOL ObjSerialize(const void *object, ObjStream *stream) {
    if (stream == nullptr || stream->Transfer == nullptr) {
        return trace.fault(FALSE, 149, 1, "Invalid argument");
    }
    Writer w(*stream, Writer::Sink::stream);
    const bool written = writeObject(w, object) && w.finish();
    return w.seen().publish() && written; // the ids given out stay given
}

BOOL ObjReconstruct(void **out, ObjStream *stream) {
    if (out == nullptr || stream == nullptr || stream->Transfer == nullptr) {
        return trace.fault(FALSE, 149, 1, "Invalid argument");
    }
    Reader r(*stream, SIZE_MAX, false);
    const bool read = reconstructTop(r, out);
    return r.seen().publish() && read;
}

int32_t ObjSerializedSize(const void *object) {
    const int32_t size = measure(object, false, false);
    if (size < 0) trace(55, 0, -1, "Failed to get serialized size of object at %p", object);
    return size;
}

int32_t ObjSerializedSizeLocal(const void *object) { return measure(object, true, false); }

BOOL ObjSerializeToMemory(const void *object, void *memory, int32_t *length) {
    return toMemory(object, memory, length, false, false);
}

BOOL ObjSerializeLocal(const void *object, void *memory, int32_t *length) {
    return toMemory(object, memory, length, true, false);
}

BOOL ObjReconstructFromMemory(void **out, const void *memory) {
    if (out == nullptr || memory == nullptr) return FALSE;
    return fromMemory(out, memory, SIZE_MAX, false, false);
}

BOOL ObjReconstructFromBytes(void **out, const void *memory, int32_t length) {
    if (out == nullptr || (memory == nullptr && length != 0) || length < 0) {
        return trace.fault(FALSE, 149, 1, "Invalid argument");
    }
    return fromMemory(out, memory, static_cast<size_t>(length), true, false);
}

BOOL ObjReconstructObjectFromMemory(void **out, const void *memory, int32_t size, uint32_t magic) {
    (void)size;
    if (out == nullptr || memory == nullptr) return FALSE;
    const auto *bytes = static_cast<const Byte *>(memory);
    if (bytes[0] != 1 || readLe32(bytes + 1) != magic) return FALSE;
    return ObjReconstructFromMemory(out, memory);
}

BOOL ObjSerializeToBuffer(const void *object, uint32_t typeWord, ObjBufferDescriptor *descriptor) {
    if (descriptor == nullptr) return FALSE;
    const int32_t frame = descriptor->Used;
    const bool ok = intoBuffer(descriptor, [&](Writer &w) { return w.u32(0) && w.u32(typeWord) && writeObject(w, object); });
    if (ok) writeLe32(reinterpret_cast<Byte *>(descriptor->Buffer) + frame, static_cast<uint32_t>(descriptor->Used - frame));
    return ok;
}

BOOL ObjSerializeToBufferCustomHead(const void *object, ObjBufferDescriptor *descriptor, int32_t headSize,
                                    const void *head, BOOL withTotal) {
    if (descriptor == nullptr || headSize < 0 || (headSize == 0) != (head == nullptr)) {
        return trace.fault(FALSE, 172, 0, "ObjSerializeToBufferCustomHead() - bad params (%p, %p, %ld, %p) ", object,
              static_cast<void *>(descriptor), static_cast<long>(headSize), head);
    }
    const int32_t frame = descriptor->Used;
    bool headWritten = false;
    const bool ok = intoBuffer(descriptor, [&](Writer &w) {
        headWritten = (!withTotal || w.u32(0)) && w.bytes(head, static_cast<size_t>(headSize));
        return headWritten && writeObject(w, object);
    });
    if (!ok && !headWritten)
        return trace.fault(FALSE, 171, 0, "Failed to write custom header of %ld bytes to buffer",
                           static_cast<long>(headSize));
    if (!ok) return trace.fault(FALSE, 170, 0, "Failed to serialize object after custom header");
    if (withTotal)
        writeLe32(reinterpret_cast<Byte *>(descriptor->Buffer) + frame, static_cast<uint32_t>(descriptor->Used - frame));
    return TRUE;
}

BOOL ObjSerializeToBufferNoHead(int32_t *length, const void *object, ObjBufferDescriptor *descriptor) {
    if (descriptor == nullptr) return FALSE;
    const int32_t start = descriptor->Used;
    if (!intoBuffer(descriptor, [&](Writer &w) { return writeObject(w, object); })) return FALSE;
    if (length != nullptr) *length = descriptor->Used - start;
    return TRUE;
}

BOOL ObjBufferInsertBytes(int32_t count, const void *bytes, ObjBufferDescriptor *descriptor) {
    if (descriptor == nullptr || count < 0 || (count > 0 && bytes == nullptr)) {
        return trace.fault(FALSE, 174, 0, "ObjBufferInsertBytes() - bad params (%ld, %p, %p)", static_cast<long>(count), bytes,
              static_cast<void *>(descriptor));
    }
    if (intoBuffer(descriptor, [&](Writer &w) { return w.bytes(bytes, static_cast<size_t>(count)); })) return TRUE;
    trace(173, 0, -1, "ObjBufferInsertBytes() - failed to write to buffer");
    return FALSE;
}

BOOL ObjBufferDescriptorCreate(ObjBufferDescriptor **out, void *buffer, int32_t capacity, int32_t start) {
    if (out == nullptr || capacity < 0 || start < 0 || (buffer != nullptr && start > capacity)) {
        return trace.fault(FALSE, 149, 1, "Invalid argument");
    }
    auto *d = static_cast<ObjBufferDescriptor *>(MemAllocateFromPool(sizeof(ObjBufferDescriptor), pool()));
    *d = {static_cast<char *>(buffer), buffer != nullptr ? capacity : 0, start, start, FALSE};
    *out = d;
    return TRUE;
}

BOOL ObjBufferDescriptorGetBuffer(void **buffer, int32_t *used, const ObjBufferDescriptor *descriptor) {
    if (descriptor == nullptr) return FALSE;
    if (buffer != nullptr) *buffer = descriptor->Buffer;
    if (used != nullptr) *used = descriptor->Used;
    return TRUE;
}

void ObjBufferDescriptorReset(ObjBufferDescriptor *descriptor) {
    if (descriptor != nullptr) descriptor->Used = descriptor->Start;
}

BOOL ObjBufferDescriptorFree(ObjBufferDescriptor **descriptorAddress) {
    if (descriptorAddress == nullptr || *descriptorAddress == nullptr) return FALSE;
    if ((*descriptorAddress)->Owned) MemFreeInternal(&(*descriptorAddress)->Buffer);
    return MemFreeInternal(descriptorAddress);
}

BOOL ObjBufferAnalyze(const void *frame, int32_t *objectSize, uint32_t *typeWord) {
    if (frame == nullptr) return FALSE;
    if (objectSize != nullptr) *objectSize = ObjBufferSerializedObjectSize(frame);
    if (typeWord != nullptr) *typeWord = ObjBufferMsgType(frame);
    return TRUE;
}

int32_t ObjBufferSerializedObjectSize(const void *frame) {
    return frame != nullptr ? static_cast<int32_t>(readLe32(static_cast<const Byte *>(frame)) - 8) : -1;
}

uint32_t ObjBufferMsgType(const void *frame) {
    return frame != nullptr ? readLe32(static_cast<const Byte *>(frame) + 4) : 0;
}

BOOL ObjSerializeToFile(const void *object, const char *path) {
    if (path == nullptr) {
        trace(149, 1, -1, "Invalid argument");
        return FALSE;
    }
    FILE *file = nullptr;
    if (!FileSysFOpen(&file, path, FILE_MODE_BINARY | FILE_MODE_WRITE)) {
        trace(56, 1, -1, "Failed to open %s", path);
        return FALSE;
    }
    const bool ok = serializeToFile(object, file);
    return FileSysFClose(&file) && ok;
}

BOOL ObjSerializeToFP(const void *object, FILE *file) {
    if (file == nullptr) {
        trace(149, 1, -1, "Invalid argument");
        return FALSE;
    }
    return serializeToFile(object, file);
}

BOOL ObjReconstructFromFile(void **out, const char *path) {
    if (out == nullptr || path == nullptr) {
        trace(62, 1, 2, "NULL argument to ObjReconstructFromFile");
        return FALSE;
    }
    FILE *file = nullptr;
    if (!FileSysFOpen(&file, path, FILE_MODE_BINARY | FILE_MODE_READ)) {
        trace(57, 1, -1, "Failed to open %s", path);
        return FALSE;
    }
    const bool ok = reconstructFromFile(out, file);
    FileSysFClose(&file);
    return ok;
}

BOOL ObjReconstructFromFP(void **out, FILE *file) {
    if (out == nullptr || file == nullptr) {
        trace(150, 1, -1, "NULL argument to ObjReconstructFromFP");
        return FALSE;
    }
    return reconstructFromFile(out, file);
}

BOOL ObjSerializeToTempFile(char **path, const char *owner, const void *object) {
    (void)path;
    (void)owner;
    (void)object;
    trace(61, 1, -1, "Failed to create unique path");
    return FALSE;
}

BOOL ObjReconstructFromTempFile(void **out, const char *path) {
    if (path == nullptr) return FALSE;
    const BOOL ok = ObjReconstructFromFile(out, path);
    FileDestroy(path);
    return ok;
}

BOOL ObjDuplicate(void **out, const void *object) {
    if (out == nullptr || object == nullptr) return FALSE;
    int32_t size = 0;
    Byte *form = inProcessForm(object, size);
    if (form == nullptr) return FALSE;
    const bool ok = fromMemory(out, form, static_cast<size_t>(size), false, true);
    MemFreeInternal(&form);
    return ok;
}

BOOL ObjCompare(void *first, void *second) {
    if (first == nullptr || second == nullptr) return FALSE;
    ObjIncRefCount(first);
    ObjIncRefCount(second);
    int32_t firstSize = 0, secondSize = 0;
    Byte *a = inProcessForm(first, firstSize);
    Byte *b = a != nullptr ? inProcessForm(second, secondSize) : nullptr;
    const bool same = a != nullptr && b != nullptr && firstSize == secondSize &&
                      memcmp(a, b, static_cast<size_t>(firstSize)) == 0;
    MemFreeInternal(&a);
    MemFreeInternal(&b);
    ObjReleaseInternal(&first);
    ObjReleaseInternal(&second);
    return same;
}
