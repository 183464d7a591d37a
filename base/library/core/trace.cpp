// trace.cpp - the trace ring.
//
// The ring has one writer, the owning process, and any number of readers,
// possibly in other processes, without a lock. It has no read pointer and
// never tests for free space: a new record goes behind the newest one, or to
// offset 0 when it would run past the end of the data area, and overwrites
// whatever lay there. Old records therefore die from the low end unmarked.
//
// Invariants the writer keeps and the readers test rather than trust:
//   - a record starts at a multiple of 8 and lies wholly inside the data area;
//   - Length is the text length plus 41 rounded up to 8, so at least 48;
//   - Previous names the record written before it, and that record either
//     ends exactly where this one starts or lies above it across the wrap;
//   - sequence numbers rise by one, from 0x40000000 to 0;
//   - a record is complete before Position names it.
// A reader walks back from Position while these hold; the first step that
// breaks them marks the oldest surviving record. Every read is bounded by the
// Size the ring claims, and a walk takes at most Size / 8 steps, so a ring
// full of garbage gives a short walk, never a read outside it or a loop.
#include "core/trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <unistd.h>

#include "core/context.h"
#include "codec.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"TRACE        "};
constexpr int32_t kMinRecord = 48;                                         // an empty text: 41 rounded up to 8
constexpr int32_t kLongestText = TRACE_RECORD_MAX - TRACE_RECORD_HEAD - 1; // 8,151 with its NUL
constexpr int32_t kOwnBufferBytes = 32768;
constexpr TracePosition kNothingStored = {-1, -1, nullptr};

// The ring as dump files hold it and other processes read it, of either word
// width: 32-bit fields at fixed offsets, no pointer and no padding.
static_assert(sizeof(TraceBuffer) == 16 && alignof(TraceBuffer) == 4 && offsetof(TraceBuffer, Size) == 0 &&
                  offsetof(TraceBuffer, Position) == 4 && offsetof(TraceBuffer, Reserved) == 8 &&
                  offsetof(TraceBuffer, Level) == 12 && offsetof(TraceBuffer, Data) == 16,
              "ring head layout");
static_assert(sizeof(TraceRecord) == TRACE_RECORD_HEAD && alignof(TraceRecord) == 4 &&
                  offsetof(TraceRecord, Sequence) == 0 && offsetof(TraceRecord, Previous) == 4 &&
                  offsetof(TraceRecord, Length) == 8 && offsetof(TraceRecord, Module) == 12 &&
                  offsetof(TraceRecord, Id) == 20 && offsetof(TraceRecord, Code) == 24 &&
                  offsetof(TraceRecord, Time) == 28 && offsetof(TraceRecord, Level) == 32 &&
                  offsetof(TraceRecord, Reserved) == 36 && offsetof(TraceRecord, Text) == TRACE_RECORD_HEAD,
              "record head layout");

bool gMultiThreaded = false;

inline int32_t roundToRecord(int64_t textLength) {
    return static_cast<int32_t>((textLength + TRACE_RECORD_HEAD + 1 + 7) & ~int64_t{7});
}

inline TraceRecord *recordAt(const TraceBuffer *buffer, int64_t offset) {
    return reinterpret_cast<TraceRecord *>(const_cast<unsigned char *>(buffer->Data) + offset);
}

// A record offset that a reader may dereference: aligned, and with room for
// the fields that walking reads.
inline bool readableOffset(const TraceBuffer *buffer, int64_t offset) {
    return offset >= 0 && offset < int64_t{buffer->Size} - 16 && offset % 8 == 0;
}

bool isValid(const TraceBuffer *buffer) {
    if (buffer == nullptr || !readableOffset(buffer, buffer->Position)) return false;
    const TraceRecord *newest = recordAt(buffer, buffer->Position);
    return newest->Sequence <= TRACE_SEQUENCE_MAX && newest->Length >= kMinRecord &&
           int64_t{buffer->Position} + newest->Length <= buffer->Size;
}

// One step back from the record at offset, if the record before it is intact.
std::optional<int32_t> stepBack(const TraceBuffer *buffer, int32_t offset) {
    const TraceRecord *current = recordAt(buffer, offset);
    const int32_t previous = current->Previous;
    if (!readableOffset(buffer, previous) || previous == offset) return std::nullopt;
    const TraceRecord *before = recordAt(buffer, previous);
    if (before->Sequence > TRACE_SEQUENCE_MAX || before->Length < kMinRecord) return std::nullopt;
    const int64_t end = int64_t{previous} + before->Length;
    if (previous < offset ? end != offset : end > buffer->Size) return std::nullopt;
    const uint32_t expected = before->Sequence < TRACE_SEQUENCE_MAX ? before->Sequence + 1 : 0;
    if (current->Sequence != expected) return std::nullopt;
    return previous;
}

inline int64_t stepLimit(const TraceBuffer *buffer) { return buffer->Size / 8 + 1; }

// The oldest intact record reached from Position, stopping early at the
// record whose sequence is stop (-1 for none).
int32_t findOldest(const TraceBuffer *buffer, int64_t stop) {
    int32_t offset = buffer->Position;
    if (!readableOffset(buffer, offset)) return offset;
    for (int64_t steps = stepLimit(buffer); steps > 0; --steps) {
        std::optional<int32_t> previous = stepBack(buffer, offset);
        if (!previous) break;
        offset = *previous;
        if (recordAt(buffer, offset)->Sequence == stop) break;
    }
    return offset;
}

// Where the next record of length bytes goes: behind the newest, or at 0
// when it would not fit there. A damaged head sends it to 0 as well.
int32_t nextOffset(const TraceBuffer *buffer, int32_t length) {
    const int32_t position = buffer->Position;
    if (position < 0 || position > buffer->Size - kMinRecord || position % 8 != 0) return 0;
    const int64_t next = int64_t{position} + recordAt(buffer, position)->Length;
    if (next < position + kMinRecord || next % 8 != 0 || next + length > buffer->Size) return 0;
    return static_cast<int32_t>(next);
}

void installBuffer(LmContext &c, TraceBuffer *buffer) {
    if (buffer == nullptr) {
        c.pTraceBuffer = nullptr;
        c.pTraceData = nullptr;
        c.iTraceNextSequence = -1;
        return;
    }
    const int32_t level = c.pTraceBuffer != nullptr ? c.pTraceBuffer->Level : buffer->Level;
    c.pTraceBuffer = buffer;
    buffer->Position = -1;
    buffer->Level = level;
    c.pTraceData = buffer->Data;
    c.iTraceNextSequence = 1;
}

// The first eight bytes of a tag, padded with spaces, no terminator.
inline void copyTag(char (&field)[8], const char *tag) {
    const size_t n = tag != nullptr ? strnlen(tag, sizeof field) : 0;
    memcpy(field, tag, n);
    memset(field + n, ' ', sizeof field - n);
}

// HHMMSS of a time in UTC, as the text lines show it.
long timeOfDay(int32_t seconds) {
    const uint32_t t = static_cast<uint32_t>(seconds);
    return static_cast<long>(t % 60 + t / 60 % 60 * 100 + t / 3600 % 24 * 10000);
}

BOOL writeLine(FILE *stream, const TraceRecord *record, int32_t length) {
    if (record == nullptr || length <= TRACE_RECORD_HEAD) return FALSE;
    const int textMax = std::min(400, length - TRACE_RECORD_HEAD);
    char line[640];
    // The level digit; a level outside 0-9 gives whatever byte it gives, as
    // the arithmetic is done without overflow.
    const char levelDigit = static_cast<char>(static_cast<uint32_t>(record->Level) + '1');
    const int n =
        snprintf(line, sizeof line, "%c %-8.8s:%04ld %4d %3d %06ld %.*s\n", levelDigit, record->Module,
                 static_cast<long>(getpid()), record->Id, record->Code, timeOfDay(record->Time), textMax, record->Text);
    if (n < 0) return FALSE;
    const size_t bytes = std::min(static_cast<size_t>(n), sizeof line - 1);
    return fwrite(line, 1, bytes, stream) == bytes;
}

} // namespace

namespace fh {

TracePosition ModuleTracer::operator()(int32_t id, int32_t code, int32_t level, const char *format, ...) const {
    va_list arguments;
    va_start(arguments, format);
    TracePosition position = TraceMessageVa(tag, id, code, level, format, arguments);
    va_end(arguments);
    return position;
}

TracePosition ModuleTracer::traceVa(int32_t id, int32_t code, int32_t level, const char *format,
                                    va_list arguments) const {
    return TraceMessageVa(tag, id, code, level, format, arguments);
}

} // namespace fh

namespace {

// Formats and stores one record in buffer. Kept out of line so that the
// suppressed path of TraceMessageVa costs a call and a compare, without the
// frame of the text area.
__attribute__((noinline)) TracePosition storeRecord(LmContext &c, TraceBuffer *buffer, const char *module, int32_t id,
                                                    int32_t code, int32_t level, const char *format,
                                                    va_list arguments) {
    // The text with its NUL must fit the longest record and the data area.
    const int32_t room = std::min(kLongestText, (buffer->Size & ~7) - TRACE_RECORD_HEAD - 1);
    if (room < 1) return kNothingStored;
    char text[TRACE_RECORD_MAX];
    int n = vsnprintf(text, static_cast<size_t>(room), format, arguments);
    if (n < 0) {
        n = 0;
        text[0] = '\0';
    }
    const int32_t textLength = std::min(n, room - 1);
    const int32_t length = roundToRecord(textLength);

    const int32_t offset = nextOffset(buffer, length);
    TraceRecord *record = recordAt(buffer, offset);
    record->Previous = buffer->Position;
    copyTag(record->Module, module);
    record->Id = id;
    record->Code = code;
    record->Time = fh::secondsToWire(time(nullptr));
    record->Level = level;
    record->Sequence = static_cast<uint32_t>(c.iTraceNextSequence);
    record->Length = length;
    memcpy(record->Text, text, static_cast<size_t>(textLength));
    record->Text[textLength] = '\0';
    // Readers in other processes may look the moment Position names it.
    __atomic_store_n(&buffer->Position, offset, __ATOMIC_RELEASE);

    const TracePosition stored = {offset, c.iTraceNextSequence, buffer};
    c.iTraceNextSequence = c.iTraceNextSequence > 0x3FFFFFFF ? 0 : c.iTraceNextSequence + 1;
    if (c.pfnTraceCallback != nullptr) c.pfnTraceCallback(record, length, nullptr);
    return stored;
}

} // namespace

TracePosition TraceMessageVa(const char *module, int32_t id, int32_t code, int32_t level, const char *format,
                             va_list arguments) {
    LmContext &c = gtLmContext;
    TraceBuffer *buffer = c.pTraceBuffer;
    if (format == nullptr || c.bTraceSuspended || buffer == nullptr || level > buffer->Level) return kNothingStored;
    return storeRecord(c, buffer, module, id, code, level, format, arguments);
}

void TraceSetBuffer(TraceBuffer *buffer) {
    ContextInitialize();
    LmContext &c = gtLmContext;
    installBuffer(c, buffer == TRACE_OWN_BUFFER ? c.pTraceOwnBuffer : buffer);
}

TraceBuffer *TraceGetBuffer(void) { return gtLmContext.pTraceBuffer; }

int32_t TraceSetLevel(int32_t level) {
    TraceBuffer *buffer = gtLmContext.pTraceBuffer;
    if (buffer == nullptr) return 0;
    const int32_t previous = buffer->Level;
    if (level != -2) buffer->Level = level;
    return previous;
}

BOOL TraceWouldTrace(int32_t level) {
    const LmContext &c = gtLmContext;
    return !c.bTraceSuspended && c.pTraceBuffer != nullptr && level <= c.pTraceBuffer->Level;
}

BOOL TraceGetPosition(TracePosition *position) {
    const LmContext &c = gtLmContext;
    if (position == nullptr || !isValid(c.pTraceBuffer)) return FALSE;
    position->Offset = c.pTraceBuffer->Position;
    position->Sequence = c.iTraceNextSequence < 1 ? static_cast<int32_t>(TRACE_SEQUENCE_MAX) : c.iTraceNextSequence - 1;
    position->Buffer = c.pTraceBuffer;
    return TRUE;
}

void TraceSetCallback(TraceCallback callback) { gtLmContext.pfnTraceCallback = callback; }

BOOL TraceTracingToFile(void) { return gtLmContext.pfnTraceCallback != nullptr; }

BOOL TraceToStdOut(const TraceRecord *record, int32_t length, void *) { return writeLine(stdout, record, length); }

BOOL TraceToStdErr(const TraceRecord *record, int32_t length, void *) { return writeLine(stderr, record, length); }

int32_t TraceOldestMessage(const TraceBuffer *buffer) { return buffer != nullptr ? findOldest(buffer, -1) : -1; }

BOOL TraceWalkBuffer(const TraceBuffer *buffer, TraceCallback callback, void *cookie) {
    if (!isValid(buffer) || callback == nullptr) return FALSE;
    const int32_t oldest = findOldest(buffer, -1);
    int32_t offset = buffer->Position;
    for (int64_t steps = stepLimit(buffer); steps > 0; --steps) {
        const TraceRecord *record = recordAt(buffer, offset);
        if (!callback(record, record->Length, cookie)) return FALSE;
        if (offset == oldest) break;
        // The ring may change under a reader; each step is tested again.
        std::optional<int32_t> previous = stepBack(buffer, offset);
        if (!previous) break;
        offset = *previous;
    }
    return TRUE;
}

const TraceRecord *TraceCurrentMessage(const TraceBuffer *buffer) {
    return isValid(buffer) ? recordAt(buffer, buffer->Position) : nullptr;
}

uint32_t TraceCurrentSequenceNumber(const TraceBuffer *buffer) {
    if (!isValid(buffer)) {
        fputs("Arrrggh!\n", stderr);
        return 0xFFFFFFFFu;
    }
    return recordAt(buffer, buffer->Position)->Sequence;
}

BOOL TraceInitialize(void) {
    gMultiThreaded = ContextIsMultiThreaded();
    return TRUE;
}

BOOL TraceInitializeThread(LmContext *context) {
    LmContext &c = context != nullptr ? *context : gtLmContext;
    auto *own = static_cast<TraceBuffer *>(calloc(1, kOwnBufferBytes));
    if (own == nullptr) return FALSE;
    own->Size = TRACE_OWN_BUFFER_SIZE;
    if (c.pTraceBuffer == c.pTraceOwnBuffer) c.pTraceBuffer = nullptr; // a second call replaces the ring
    free(c.pTraceOwnBuffer);
    c.pTraceOwnBuffer = own;
    c.iTraceFileDescriptor = -1;
    installBuffer(c, own);
    trace(1, 0, 3, "TraceInitializeThread buffer %p size %ld", static_cast<void *>(own), static_cast<long>(own->Size));
    return TRUE;
}

void TraceReleaseThread(LmContext *context) {
    LmContext &c = context != nullptr ? *context : gtLmContext;
    free(c.pTraceOwnBuffer);
    c.pTraceOwnBuffer = nullptr;
    installBuffer(c, nullptr);
    c.pfnTraceCallback = nullptr;
}
