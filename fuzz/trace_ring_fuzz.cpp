// trace_ring_fuzz - a trace ring as another process may leave it in shared
// memory, every byte of it chosen by the input.
//
// The input becomes a heap block of exactly 16 + Size bytes, where Size is
// what the input holds behind the 16-byte head and is written into the head,
// so that the ring claims exactly the block it has; AddressSanitizer stops
// any read past it. The readers must stay inside the ring, end, and agree
// with one another: the newest record, its sequence number, the oldest
// record and the walk between them. Then the process takes the ring as its
// current one, as it does with a ring in shared memory, stores records into
// it over whatever is there, and reads it all again.
//
// The reserved word of the head, which neither side reads, steers the writer:
// each of its four bytes gives the text length and level of one record.
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/fhcore.h"

namespace {

constexpr int32_t kRingHead = 16;
constexpr int32_t kLongestTextWithNul = TRACE_RECORD_MAX - TRACE_RECORD_HEAD - 1; // 8,151
constexpr int32_t kShortestRecord = 48; // an empty text: 41 bytes rounded up to 8

FILE *gReport = nullptr; // the real standard error, for what this target finds

#define require(condition) ((condition) ? (void)0 : fail(#condition, __LINE__))

[[noreturn]] void fail(const char *what, int line) {
    fprintf(gReport, "trace_ring_fuzz.cpp:%d: failed: %s\n", line, what);
    fflush(gReport);
    abort();
}

// The ring under test, for the callbacks that TraceMessageVa calls with a
// null cookie.
const TraceBuffer *gRing = nullptr;

const unsigned char *dataOf(const TraceBuffer *ring) { return ring->Data; }

const TraceRecord *recordAt(const TraceBuffer *ring, int64_t offset) {
    return reinterpret_cast<const TraceRecord *>(dataOf(ring) + offset);
}

// A record handed out lies inside the data area at a multiple of 8 and holds
// at least its head and a terminator. Reading each byte of it lets
// AddressSanitizer see the whole range.
void checkRecord(const TraceBuffer *ring, const TraceRecord *record, int32_t length) {
    const auto *start = reinterpret_cast<const unsigned char *>(record);
    require(length > TRACE_RECORD_HEAD);
    require(start >= dataOf(ring) && (start - dataOf(ring)) % 8 == 0);
    require(start - dataOf(ring) + int64_t{length} <= ring->Size);
    unsigned sum = 0;
    for (int32_t i = 0; i < length; ++i) sum += start[i];
    volatile unsigned keep = sum;
    (void)keep;
}

uint32_t nextSequence(uint32_t sequence) { return sequence >= TRACE_SEQUENCE_MAX ? 0 : sequence + 1; }

struct Walk {
    const TraceBuffer *ring;
    int32_t stopAfter; // 0: never stop the walk
    int64_t visits;
    const TraceRecord *first;
    const TraceRecord *last;
};

BOOL visit(const TraceRecord *record, int32_t length, void *cookie) {
    Walk &walk = *static_cast<Walk *>(cookie);
    checkRecord(walk.ring, record, length);
    require(length == record->Length);
    // From the newest back, each record is the one written just before.
    if (walk.last != nullptr) require(nextSequence(record->Sequence) == walk.last->Sequence);
    // Records of one walk have distinct offsets, all multiples of 8.
    require(++walk.visits <= walk.ring->Size / 8);
    if (walk.first == nullptr) walk.first = record;
    walk.last = record;
    require(TraceToStdOut(record, length, nullptr));
    return walk.stopAfter == 0 || walk.visits < walk.stopAfter;
}

// Every reader of the ring, and what they must agree on.
Walk readRing(const TraceBuffer *ring) {
    const TraceRecord *current = TraceCurrentMessage(ring);
    const uint32_t sequence = TraceCurrentSequenceNumber(ring);
    const int32_t oldest = TraceOldestMessage(ring);
    Walk walk = {ring, 0, 0, nullptr, nullptr};
    const BOOL walked = TraceWalkBuffer(ring, visit, &walk);
    if (current == nullptr) {
        require(sequence == 0xFFFFFFFFu);
        require(!walked && walk.visits == 0);
        return walk;
    }
    checkRecord(ring, current, current->Length);
    require(current == recordAt(ring, ring->Position));
    require(sequence == current->Sequence);
    require(walked && walk.first == current);
    // With no writer at work meanwhile, the walk ends at the oldest record.
    require(oldest >= 0 && oldest < ring->Size && walk.last == recordAt(ring, oldest));

    Walk stopped = {ring, 1, 0, nullptr, nullptr};
    require(!TraceWalkBuffer(ring, visit, &stopped) && stopped.visits == 1);
    return walk;
}

// A record that this process stored, as TraceMessageVa reported it.
struct Stored {
    int32_t offset;
    int32_t length;
};

// TraceMessageVa shows each record it stores to the callback.
BOOL seeStored(const TraceRecord *record, int32_t length, void *) {
    checkRecord(gRing, record, length);
    require(length == record->Length && length % 8 == 0);
    return TRUE;
}

__attribute__((format(printf, 2, 3))) TracePosition store(int32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TracePosition position = TraceMessageVa("FUZZ        ", 1, 2, level, format, arguments);
    va_end(arguments);
    return position;
}

// What TraceMessageVa must make of a text of textLength bytes in this ring:
// how much of the text it keeps (with its NUL, the text fits the longest
// record and the data area rounded down to 8), the record's length, and its
// offset: behind the newest record if that is intact and the new one fits
// before the end, 0 if it doesn't or the ring is empty. -1 where the offset
// is not foretold: a damaged newest record.
struct Expected {
    int32_t kept;
    int32_t length;
    int64_t offset;
};

Expected foretell(const TraceBuffer *ring, int32_t textLength) {
    const int32_t room = std::min(kLongestTextWithNul, (ring->Size & ~7) - TRACE_RECORD_HEAD - 1);
    Expected expected = {std::min(textLength, room - 1), 0, 0};
    expected.length = (expected.kept + TRACE_RECORD_HEAD + 1 + 7) & ~7;
    const TraceRecord *newest = TraceCurrentMessage(ring);
    if (newest != nullptr && newest->Length % 8 == 0) {
        const int64_t behind = int64_t{ring->Position} + newest->Length;
        expected.offset = behind + expected.length <= ring->Size ? behind : 0;
    } else if (ring->Position != -1) {
        expected.offset = -1;
    }
    return expected;
}

// A stored record is the newest, intact, where it was foretold, and holds
// the text as far as it was to be kept.
void checkStored(const TraceBuffer *ring, TracePosition position, const char *text, const Expected &expected) {
    require(position.Buffer == ring && position.Offset == ring->Position);
    require(expected.offset == -1 || position.Offset == expected.offset);
    const TraceRecord *record = TraceCurrentMessage(ring);
    require(record != nullptr && record == recordAt(ring, position.Offset));
    require(record->Sequence == static_cast<uint32_t>(position.Sequence));
    require(record->Length == expected.length);
    require(memchr(record->Text, '\0', static_cast<size_t>(record->Length - TRACE_RECORD_HEAD)) != nullptr);
    require(static_cast<int32_t>(strlen(record->Text)) == expected.kept);
    require(memcmp(record->Text, text, static_cast<size_t>(expected.kept)) == 0);
}

bool overlaps(const Stored &a, const Stored &b) {
    return a.offset < b.offset + b.length && b.offset < a.offset + a.length;
}

// How many of the records stored, newest first, no later record has
// overwritten: the walk must reach at least those.
int64_t intactChain(const Stored *stored, int count) {
    int64_t chain = 0;
    for (int j = count - 1; j >= 0; --j) {
        for (int i = j + 1; i < count; ++i)
            if (overlaps(stored[i], stored[j])) return chain;
        ++chain;
    }
    return chain;
}

void writeRing(TraceBuffer *ring) {
    static char letters[TRACE_RECORD_MAX + 2048];
    if (letters[0] == '\0')
        for (size_t i = 0; i + 1 < sizeof letters; ++i) letters[i] = static_cast<char>('a' + i % 26);

    LmContext &c = gtLmContext;
    const LmContext saved = c;
    // The writer owns Level; one below ALWAYS would store nothing at all.
    if (ring->Level < TRACE_LEVEL_ALWAYS) ring->Level = TRACE_LEVEL_LIBVERBOSE;
    const TraceRecord *current = TraceCurrentMessage(ring);
    c.pTraceBuffer = ring;
    c.pTraceData = ring->Data;
    c.iTraceNextSequence = current != nullptr ? static_cast<int32_t>(nextSequence(current->Sequence)) : 1;
    c.pfnTraceCallback = seeStored;

    // Four records steered by the input, then one at exactly the ring's own
    // level, whatever that is.
    unsigned char steer[4];
    memcpy(steer, &ring->Reserved, sizeof steer);
    Stored stored[5];
    int count = 0;
    auto check = [&](int32_t level, TracePosition position, const char *text, const Expected &expected) {
        // Nothing is stored above the ring's level, or in a ring too small
        // for the shortest record.
        if (level > ring->Level || (ring->Size & ~7) < kShortestRecord) {
            require(position.Offset == -1 && position.Sequence == -1 && position.Buffer == nullptr);
            return;
        }
        checkStored(ring, position, text, expected);
        stored[count++] = {position.Offset, recordAt(ring, position.Offset)->Length};
    };
    for (unsigned char byte : steer) {
        const int32_t level = (byte & 3) - 1;
        char numbers[32];
        const char *text = letters;
        int32_t textLength = byte * 40;
        if (byte % 5 == 0) {
            textLength = snprintf(numbers, sizeof numbers, "record %d of %d", byte, 4);
            text = numbers;
        }
        const Expected expected = foretell(ring, textLength);
        const TracePosition position = text == numbers ? store(level, "record %d of %d", byte, 4)
                                                       : store(level, "%.*s", static_cast<int>(textLength), letters);
        check(level, position, text, expected);
    }
    static const char kAtLevel[] = "at the ring's own level";
    const Expected atLevel = foretell(ring, sizeof kAtLevel - 1);
    check(ring->Level, store(ring->Level, "%s", kAtLevel), kAtLevel, atLevel);

    if (ring->Level < INT32_MAX) {
        const int32_t before = ring->Position;
        const TracePosition position = store(ring->Level + 1, "suppressed");
        require(position.Offset == -1 && ring->Position == before);
    }

    const Walk walk = readRing(ring);
    if (count > 0) {
        require(walk.first == recordAt(ring, stored[count - 1].offset));
        require(walk.visits >= intactChain(stored, count));
    }
    c = saved;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // A ring that fails the validity test makes TraceCurrentSequenceNumber
    // complain on standard error, and the walk prints every record to
    // standard output. Both C streams go to /dev/null: libFuzzer has kept its
    // own copy of the stderr stream and the sanitizers write to the file
    // descriptor, so what they report is still seen.
    gReport = stderr;
    if (FILE *quiet = fopen("/dev/null", "w"); quiet != nullptr) {
        stdout = quiet;
        stderr = quiet;
    }
    if (!ContextInitialize()) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < static_cast<size_t>(kRingHead) || size - kRingHead > INT32_MAX) return 0;
    auto *ring = static_cast<TraceBuffer *>(malloc(size));
    if (ring == nullptr) return 0;
    memcpy(ring, data, size);
    ring->Size = static_cast<int32_t>(size - kRingHead);
    gRing = ring;
    readRing(ring);
    writeRing(ring);
    gRing = nullptr;
    free(ring);
    return 0;
}
