// time.cpp - deadlines (TIME_TIMEOUT) and spans (TIME_OFFSET).
//
// Both are objects of two 32-bit words, seconds and milliseconds. Every
// operation reads its operands as a Moment, works on Moments and writes one
// back: one reading of the wall clock (gettimeofday, microseconds divided by
// 1000), one comparison, one difference and one carry of milliseconds into
// seconds. The never value (-1, -1) is tested where the operations give it
// a meaning of its own; elsewhere it is an ordinary, long past moment.
#include "core/timeout.h"

#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "core/context.h"
#include "core/object.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"TIME        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdSetOffsetNull = 1,
    kIdSetTimeoutNull = 2,
    kIdLeftDifference = 3,
    kIdLeftNull = 4,
};

// The largest difference in seconds whose milliseconds fit in 32 bits.
constexpr int32_t kLargestLeft = 2147482;

constinit fh::ObjectType<TIME_TIMEOUT> gTimeoutType{TIME_TIMEOUT_MAGIC, TIME_TIMEOUT_FORMAT, fh::kReceivable};
constinit fh::ObjectType<TIME_OFFSET> gOffsetType{TIME_OFFSET_MAGIC, TIME_OFFSET_FORMAT, fh::kReceivable};

struct Moment {
    int32_t seconds;
    int32_t milliseconds;
};
constexpr Moment kNever{-1, -1};
constexpr Moment kImmediate{0, 0};

inline Moment read(const TIME_TIMEOUT *t) { return {t->iSeconds, t->iMilliseconds}; }
inline Moment read(const TIME_OFFSET *o) { return {o->iSeconds, o->iMilliseconds}; }
inline void write(TIME_TIMEOUT *t, Moment m) {
    t->iSeconds = m.seconds;
    t->iMilliseconds = m.milliseconds;
}
inline bool isNever(Moment m) { return m.seconds == kNever.seconds && m.milliseconds == kNever.milliseconds; }

// Seconds are the wall clock's, narrowed to the 32 bits of the object.
Moment now() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return {static_cast<int32_t>(tv.tv_sec), static_cast<int32_t>(tv.tv_usec / 1000)};
}

// The sum of a moment and a span, milliseconds above 999 carried over.
Moment plus(Moment base, Moment span) {
    Moment m{base.seconds + span.seconds, base.milliseconds + span.milliseconds};
    while (m.milliseconds > 999) {
        m.milliseconds -= 1000;
        ++m.seconds;
    }
    return m;
}

inline bool earlier(Moment a, Moment b) {
    return a.seconds < b.seconds || (a.seconds == b.seconds && a.milliseconds < b.milliseconds);
}

// Reached: a deadline exactly at the reference counts.
inline bool reached(Moment deadline, Moment reference) { return !earlier(reference, deadline); }

// Milliseconds from reference to deadline, in 32 bits as callers expect;
// never negative.
int32_t millisecondsLeft(Moment deadline, Moment reference) {
    const uint32_t seconds = static_cast<uint32_t>(deadline.seconds) - static_cast<uint32_t>(reference.seconds);
    const uint32_t milliseconds =
        static_cast<uint32_t>(deadline.milliseconds) - static_cast<uint32_t>(reference.milliseconds);
    const auto left = static_cast<int32_t>(seconds * 1000u + milliseconds);
    return left < 0 ? 0 : left;
}

timeval timevalLeft(Moment deadline, Moment reference) {
    int32_t seconds = deadline.seconds - reference.seconds;
    int32_t milliseconds = deadline.milliseconds - reference.milliseconds;
    if (seconds < 1 && !(seconds == 0 && milliseconds > 0)) return {0, 0};
    if (milliseconds < 0) {
        --seconds;
        milliseconds += 1000;
    }
    return {seconds, static_cast<suseconds_t>(milliseconds) * 1000};
}

template <typename T> bool create(T **out, ObjectTemplate *t, Moment value) {
    if (out == nullptr) return false;
    auto *object = static_cast<T *>(ObjTemplateNewInstanceFromPool(t, nullptr));
    object->iSeconds = value.seconds;
    object->iMilliseconds = value.milliseconds;
    *out = object;
    return true;
}

// Sets a timeout to a value computed from it; FALSE for null.
template <typename F> BOOL setTimeout(TIME_TIMEOUT *timeout, F value) {
    if (timeout == nullptr) return FALSE;
    write(timeout, value());
    return TRUE;
}

} // namespace

BOOL TimeCreateTimeout(TIME_TIMEOUT **out) { return create(out, gTimeoutType.get(), kNever); }

BOOL TimeCreateAndSetTimeout(TIME_TIMEOUT **out, int32_t seconds, int32_t milliseconds) {
    return create(out, gTimeoutType.get(), plus(now(), {seconds, milliseconds}));
}

BOOL TimeTimeoutClone(TIME_TIMEOUT **out, const TIME_TIMEOUT *source) {
    return source != nullptr && create(out, gTimeoutType.get(), read(source));
}

BOOL TimeCreateOffset(TIME_OFFSET **out, int32_t seconds, int32_t milliseconds) {
    return create(out, gOffsetType.get(), {seconds, milliseconds});
}

BOOL TimeSetOffset(TIME_OFFSET *offset, int32_t seconds, int32_t milliseconds) {
    if (offset == nullptr) {
        trace(kIdSetOffsetNull, 1, 2, "Cannot set offset of NULL TimeOffsetO");
        return FALSE;
    }
    offset->iSeconds = seconds;
    offset->iMilliseconds = milliseconds;
    return TRUE;
}

BOOL TimeSetTimeout(TIME_TIMEOUT *timeout, int32_t seconds) {
    if (timeout == nullptr) {
        return trace.fault(FALSE, kIdSetTimeoutNull, 1, "NULL timeout passed to TimeSetTimeout");
    }
    write(timeout, {seconds, 0});
    return TRUE;
}

BOOL TimeSetTimeoutFromOffset(TIME_TIMEOUT *timeout, const TIME_OFFSET *offset) {
    return offset != nullptr && setTimeout(timeout, [&] { return plus(now(), read(offset)); });
}

BOOL TimeSetTimeoutRelative(TIME_TIMEOUT *timeout, const TIME_TIMEOUT *base, const TIME_OFFSET *offset) {
    return base != nullptr && offset != nullptr && setTimeout(timeout, [&] { return plus(read(base), read(offset)); });
}

BOOL TimeSetTimeoutNever(TIME_TIMEOUT *timeout) { return setTimeout(timeout, [] { return kNever; }); }
BOOL TimeSetTimeoutImmediate(TIME_TIMEOUT *timeout) { return setTimeout(timeout, [] { return kImmediate; }); }
BOOL TimeSetTimeoutNow(TIME_TIMEOUT *timeout) { return setTimeout(timeout, now); }

BOOL TimeTimeoutCopy(TIME_TIMEOUT *target, const TIME_TIMEOUT *source) {
    return source != nullptr && setTimeout(target, [&] { return read(source); });
}

BOOL TimeSetTimeoutIfLower(TIME_TIMEOUT *timeout, const TIME_TIMEOUT *other) {
    if (timeout == nullptr || other == nullptr) return FALSE;
    const Moment candidate = read(other);
    if (!isNever(candidate) && (isNever(read(timeout)) || earlier(candidate, read(timeout)))) write(timeout, candidate);
    return TRUE;
}

BOOL TimeTimeoutIsNever(const TIME_TIMEOUT *timeout) { return timeout == nullptr || isNever(read(timeout)); }

BOOL TimeTimeoutHasExpired(const TIME_TIMEOUT *timeout) {
    return !TimeTimeoutIsNever(timeout) && reached(read(timeout), now());
}

BOOL TimeTimeoutHasExpiredRelative(const TIME_TIMEOUT *timeout, const TIME_TIMEOUT *reference) {
    return !TimeTimeoutIsNever(timeout) && !TimeTimeoutIsNever(reference) && reached(read(timeout), read(reference));
}

int32_t TimeTimeoutLeft(const TIME_TIMEOUT *timeout) {
    return timeout != nullptr ? millisecondsLeft(read(timeout), now()) : -1;
}

int32_t TimeTimeoutLeftRelative(const TIME_TIMEOUT *timeout, const TIME_TIMEOUT *reference) {
    if (timeout == nullptr || reference == nullptr) {
        trace(kIdLeftNull, 0, 2, "Timeout -1 - invalid timeout pointer");
        return -1;
    }
    if (int64_t{timeout->iSeconds} - reference->iSeconds > kLargestLeft) {
        trace(kIdLeftDifference, 0, 2, "Timeout -1 - timeout difference: %ld - %ld",
              static_cast<long>(timeout->iSeconds), static_cast<long>(reference->iSeconds));
        return -1;
    }
    return millisecondsLeft(read(timeout), read(reference));
}

BOOL TimeSetTimeval(struct timeval *out, const TIME_TIMEOUT *timeout) {
    if (out == nullptr || timeout == nullptr) return FALSE;
    *out = timevalLeft(read(timeout), now());
    return TRUE;
}

BOOL TimeSetTimevalRelative(struct timeval *out, const TIME_TIMEOUT *timeout, const TIME_TIMEOUT *reference) {
    if (out == nullptr || timeout == nullptr || reference == nullptr) return FALSE;
    *out = timevalLeft(read(timeout), read(reference));
    return TRUE;
}

time_t TimeNow(void) { return time(nullptr); }

int64_t TimeNowAsInt64(void) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return int64_t{tv.tv_sec} * 1000 + tv.tv_usec / 1000;
}

// Timeouts and offsets are two plain words: any bytes make one, so both may
// arrive from elsewhere.
BOOL TimeInitialize(void) {
    return gTimeoutType.declare() &&
           gOffsetType.declare();
}

BOOL TimeInitializeThread(void) { return TRUE; }

void TimeReleaseThread(LmContext *) {}
